// WebP through libwebp: a preset from the content class, a few fields from the plan's mode,
// an in-memory encode that stops when the call is cancelled, and an ICCP chunk added with
// libwebpmux where the colour space needs one.

#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "engine/CHandle.h"
#include "engine/Cancellation.h"
#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/WebPEncoderConfig.h"

namespace quillane::WebPEncoder {
namespace {

using MuxPtr = CHandle<WebPMux, WebPMuxDelete>;

ImageProcessingError webpFailed(const std::string& call) {
  return ImageProcessingError::encodingFailed("WebP", call + " failed");
}

// A WebPPicture freed on every path; zeroed first so that freeing an uninitialised one is safe.
struct PictureGuard {
  WebPPicture picture;
  PictureGuard() { std::memset(&picture, 0, sizeof picture); }
  ~PictureGuard() { WebPPictureFree(&picture); }
  PictureGuard(const PictureGuard&) = delete;
  PictureGuard& operator=(const PictureGuard&) = delete;
};

struct MemoryWriterGuard {
  WebPMemoryWriter writer;
  MemoryWriterGuard() { WebPMemoryWriterInit(&writer); }
  ~MemoryWriterGuard() { WebPMemoryWriterClear(&writer); }
  MemoryWriterGuard(const MemoryWriterGuard&) = delete;
  MemoryWriterGuard& operator=(const MemoryWriterGuard&) = delete;
};

// Bytes that libwebp allocated for us (the mux's output).
struct WebPDataGuard {
  WebPData data{nullptr, 0};
  ~WebPDataGuard() { WebPFree(const_cast<uint8_t*>(data.bytes)); }
};

// libwebp calls this now and then while it encodes; 0 aborts the encode.
int continueUnlessCancelled(int, const WebPPicture* picture) {
  return Cancellation::raised(picture->user_data) ? 0 : 1;
}

int webpMemoryWrite(const uint8_t* data, size_t size, const WebPPicture* picture) {
  return WebPMemoryWrite(data, size, picture);
}

// The lossless coder reads `quality` as compression effort.
float losslessEffortQuality(int effort) {
  static constexpr float kQuality[3] = {50.f, 70.f, 80.f};
  return kQuality[std::clamp(effort, 0, 2)];
}

// Encodes `picture` (its pixels set) into memory.
Bytes encodePicture(WebPPicture& picture, const WebPConfig& config) {
  MemoryWriterGuard memory;
  picture.writer = webpMemoryWrite;
  picture.custom_ptr = &memory.writer;
  picture.progress_hook = continueUnlessCancelled;
  picture.user_data = const_cast<Cancellation::Flag*>(Cancellation::current());
  if (!WebPEncode(&config, &picture) || memory.writer.size == 0) {
    Cancellation::check();
    throw webpFailed("WebPEncode (error " + std::to_string(int(picture.error_code)) + ")");
  }
  return Bytes(memory.writer.mem, memory.writer.mem + memory.writer.size);
}

void checkSize(const RGBABuffer& rgba) {
  if (rgba.pixels.size() < size_t(rgba.width) * size_t(rgba.height) * 4) throw webpFailed("pixel size check");
}

Bytes encodeImported(const RGBABuffer& rgba, const WebPConfig& config) {
  PictureGuard guard;
  WebPPicture& picture = guard.picture;
  if (!WebPPictureInit(&picture)) throw webpFailed("WebPPictureInit");
  picture.use_argb = 1;
  picture.width = rgba.width;
  picture.height = rgba.height;
  checkSize(rgba);
  const int stride = rgba.width * 4;
  const int imported = rgba.hasAlpha ? WebPPictureImportRGBA(&picture, rgba.pixels.data(), stride)
                                     : WebPPictureImportRGBX(&picture, rgba.pixels.data(), stride);
  if (!imported) throw webpFailed("WebPPictureImport");
  return encodePicture(picture, config);
}

// A lossy encoding converts the words to YUV without writing to them; a lossless one gets a
// copy, since it may clear the colour of transparent pixels in place.
Bytes encodeARGB(const ARGBPicture& argb, const WebPConfig& config) {
  const RGBABuffer& words = argb.buffer;
  checkSize(words);
  PictureGuard view;
  if (!WebPPictureInit(&view.picture)) throw webpFailed("WebPPictureInit");
  view.picture.use_argb = 1;
  view.picture.width = words.width;
  view.picture.height = words.height;
  // libwebp's argb field is not const, but the lossy route only reads it.
  view.picture.argb = reinterpret_cast<uint32_t*>(const_cast<uint8_t*>(words.pixels.data()));
  view.picture.argb_stride = words.width;
  if (!config.lossless) return encodePicture(view.picture, config);
  PictureGuard copy;
  if (!WebPPictureCopy(&view.picture, &copy.picture)) throw webpFailed("WebPPictureCopy");
  return encodePicture(copy.picture, config);
}

Bytes attach(const Bytes& icc, const Bytes& webp) {
  MuxPtr mux(WebPMuxNew());
  if (!mux) throw webpFailed("WebPMuxNew");
  const WebPData image{webp.data(), webp.size()};
  if (WebPMuxSetImage(mux.get(), &image, 1) != WEBP_MUX_OK) throw webpFailed("WebPMuxSetImage");
  const WebPData profile{icc.data(), icc.size()};
  if (WebPMuxSetChunk(mux.get(), "ICCP", &profile, 1) != WEBP_MUX_OK) throw webpFailed("WebPMuxSetChunk");
  WebPDataGuard output;
  if (WebPMuxAssemble(mux.get(), &output.data) != WEBP_MUX_OK || !output.data.bytes || output.data.size == 0)
    throw webpFailed("WebPMuxAssemble");
  return Bytes(output.data.bytes, output.data.bytes + output.data.size);
}

}  // namespace

WebPPreset preset(const ImageCharacteristics& characteristics) {
  using Class = ImageCharacteristics::ContentClass;
  switch (characteristics.contentClass) {
    case Class::flatGraphic:
      return characteristics.hasAlpha ? WEBP_PRESET_ICON : WEBP_PRESET_TEXT;
    case Class::screenText:
      return WEBP_PRESET_TEXT;
    case Class::illustration:
      return WEBP_PRESET_DRAWING;
    case Class::photo:
    case Class::noisyPhoto:
      break;
  }
  return WEBP_PRESET_PHOTO;
}

WebPConfig makeConfig(const EncodingPlan& plan, const ImageCharacteristics& characteristics,
                      bool bufferHasAlpha) {
  WebPConfig config;
  std::memset(&config, 0, sizeof config);
  if (!WebPConfigPreset(&config, preset(characteristics), 75.f)) throw webpFailed("WebPConfigPreset");
  const int effort = std::clamp(plan.effort, 0, 2);
  switch (plan.mode.kind) {
    case EncodingPlan::Mode::Kind::lossy:
      config.lossless = 0;
      config.quality = float(std::clamp(plan.mode.quality, 0.0, 100.0));
      // The alpha plane's encoder is slow at higher methods; 4 keeps alpha images affordable.
      config.method = bufferHasAlpha ? 4 : effort + 4;
      config.alpha_quality = 100;  // only colour loses detail, never the alpha plane
      // The photo preset's spatial noise shaping (80) spends bits on flat areas where
      // butteraugli sees no gain, and its soft, sharpened loop filter (30, sharpness 3) leaves
      // blocks it does see. Where the colour count is saturated, noise shaping runs at 50;
      // photographs (not noisy ones) run at 15 with a plain filter of 60, which takes another 4
      // to 13 % off at equal distance. A noisy drawing of few colours needed 8 % more bytes at
      // 50, a noisy photograph 3 % more at 15: each keeps what it had (bench/README.md, "WebP").
      if (preset(characteristics) == WEBP_PRESET_PHOTO && characteristics.colorCountSaturated) {
        config.sns_strength = 50;
        if (characteristics.contentClass == ImageCharacteristics::ContentClass::photo) {
          config.sns_strength = 15;
          config.filter_strength = 60;
          config.filter_sharpness = 0;
        }
      }
      break;
    case EncodingPlan::Mode::Kind::nearLossless:
      config.lossless = 1;
      config.quality = losslessEffortQuality(effort);
      config.method = effort + 4;
      config.near_lossless = std::clamp(plan.mode.level, 0, 100);
      break;
    case EncodingPlan::Mode::Kind::lossless:
      config.lossless = 1;
      config.quality = losslessEffortQuality(effort);
      config.method = effort + 4;
      config.near_lossless = 100;
      break;
  }
  config.exact = 0;  // RGB under fully transparent pixels may change
  return config;
}

namespace {

// The ICCP chunk added where the colour space needs one.
Bytes withProfile(Bytes encoded, const ColorSpace& colorSpace) {
  const auto icc = ColorProfile::embeddableICC(colorSpace);
  if (!icc) return encoded;
  try {
    return attach(*icc, encoded);
  } catch (const std::exception&) {
    return encoded;  // a picture without its profile beats no picture, whatever failed
  }
}

WebPConfig validConfig(const EncodingPlan& plan, const ImageCharacteristics& characteristics, bool hasAlpha) {
  const WebPConfig config = makeConfig(plan, characteristics, hasAlpha);
  if (!WebPValidateConfig(&config)) throw webpFailed("WebPValidateConfig");
  return config;
}

}  // namespace

Bytes encode(const RGBABuffer& rgba, const EncodingPlan& plan, const ImageCharacteristics& characteristics) {
  return withProfile(encodeImported(rgba, validConfig(plan, characteristics, rgba.hasAlpha)),
                     rgba.colorSpace);
}

ARGBPicture::ARGBPicture(RGBABuffer&& rgba) : buffer(std::move(rgba)) {
  uint8_t* p = buffer.pixels.data();
  const size_t count = std::min(buffer.pixels.size() / 4, size_t(buffer.width) * size_t(buffer.height));
  const bool opaque = !buffer.hasAlpha;  // the import libwebp would do sets alpha to 255
  for (size_t i = 0; i < count; ++i, p += 4) {
    const uint32_t word =
        uint32_t(opaque ? 255 : p[3]) << 24 | uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
    std::memcpy(p, &word, 4);
  }
}

Bytes encode(const ARGBPicture& picture, const EncodingPlan& plan,
             const ImageCharacteristics& characteristics) {
  const WebPConfig config = validConfig(plan, characteristics, picture.buffer.hasAlpha);
  return withProfile(encodeARGB(picture, config), picture.buffer.colorSpace);
}

size_t quickLosslessSize(const ARGBPicture& picture) {
  WebPConfig config;
  if (!WebPConfigInit(&config)) throw webpFailed("WebPConfigInit");
  config.lossless = 1;
  config.method = 0;
  config.quality = 0.f;
  config.exact = 0;
  if (!WebPValidateConfig(&config)) throw webpFailed("WebPValidateConfig");
  return encodeARGB(picture, config).size();
}

}  // namespace quillane::WebPEncoder
