#include "tests/engine/encoder_test_support.h"

#include <jxl/decode.h>
#include <jxl/decode_cxx.h>
#include <png.h>
#include <webp/decode.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "engine/Cancellation.h"
#include "engine/Errors.h"

namespace quillane::testing {

std::optional<Bytes> decodePNG(std::span<const uint8_t> png) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, png.data(), png.size())) return std::nullopt;
  image.format = PNG_FORMAT_RGBA;
  Bytes out(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, out.data(), 0, nullptr)) {
    png_image_free(&image);
    return std::nullopt;
  }
  return out;
}

std::optional<Bytes> decodeWebP(std::span<const uint8_t> webp) {
  int w = 0, h = 0;
  uint8_t* pixels = WebPDecodeRGBA(webp.data(), webp.size(), &w, &h);
  if (!pixels) return std::nullopt;
  Bytes out(pixels, pixels + size_t(w) * size_t(h) * 4);
  WebPFree(pixels);
  return out;
}

std::optional<DecodedJXL> decodeJXL(std::span<const uint8_t> jxl) {
  JxlDecoderPtr dec = JxlDecoderMake(nullptr);
  const int events = JXL_DEC_BASIC_INFO | JXL_DEC_JPEG_RECONSTRUCTION | JXL_DEC_FULL_IMAGE;
  if (JxlDecoderSubscribeEvents(dec.get(), events) != JXL_DEC_SUCCESS) return std::nullopt;
  JxlDecoderSetKeepOrientation(dec.get(), JXL_TRUE);
  JxlDecoderSetInput(dec.get(), jxl.data(), jxl.size());
  JxlDecoderCloseInput(dec.get());
  const JxlPixelFormat format{4, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  DecodedJXL out;
  Bytes jpegBuffer;
  bool reconstructing = false;
  for (;;) {
    switch (JxlDecoderProcessInput(dec.get())) {
      case JXL_DEC_BASIC_INFO: {
        JxlBasicInfo info;
        JxlDecoderGetBasicInfo(dec.get(), &info);
        out.width = int(info.xsize);
        out.height = int(info.ysize);
        out.usesOriginalProfile = info.uses_original_profile;
        out.extraChannels = info.num_extra_channels;
        out.orientation = int(info.orientation);
        break;
      }
      case JXL_DEC_JPEG_RECONSTRUCTION:  // a JPEG is never much larger than its repackaging
        reconstructing = true;
        jpegBuffer.resize(jxl.size() * 2 + 65536);
        JxlDecoderSetJPEGBuffer(dec.get(), jpegBuffer.data(), jpegBuffer.size());
        break;
      case JXL_DEC_NEED_IMAGE_OUT_BUFFER:
        out.rgba.resize(size_t(out.width) * size_t(out.height) * 4);
        if (JxlDecoderSetImageOutBuffer(dec.get(), &format, out.rgba.data(), out.rgba.size()) !=
            JXL_DEC_SUCCESS)
          return std::nullopt;
        break;
      case JXL_DEC_FULL_IMAGE:
        if (reconstructing) {
          jpegBuffer.resize(jpegBuffer.size() - JxlDecoderReleaseJPEGBuffer(dec.get()));
          out.reconstructedJPEG = std::exchange(jpegBuffer, {});
          reconstructing = false;
        }
        break;
      case JXL_DEC_SUCCESS:
        return out;
      default:
        return std::nullopt;
    }
  }
}

EncodingPlan makePlan(EncodingPlan::Mode mode, int effort) {
  EncodingPlan plan;
  plan.mode = mode;
  plan.effort = effort;
  if (mode.kind == EncodingPlan::Mode::Kind::lossy) plan.quality = mode.quality;
  return plan;
}

DecodedImage solid(int w, int h, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  DecodedImage img;
  img.width = w, img.height = h;
  img.alpha = a == 255 ? AlphaInfo::none : AlphaInfo::straight;
  for (int i = 0; i < w * h; ++i) img.pixels8.insert(img.pixels8.end(), {r, g, b, a});
  return img;
}

std::array<int, 4> pixelAt(const DecodedImage& image, int x, int y) {
  const size_t i = (size_t(y) * size_t(image.width) + size_t(x)) * 4;
  std::array<int, 4> p;
  for (size_t c = 0; c < 4; ++c)
    p[c] = image.bitsPerComponent == 16 ? image.pixels16[i + c] >> 8 : image.pixels8[i + c];
  return p;
}

int maxDifference(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  if (a.size() != b.size()) return 256;
  int worst = 0;
  for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::abs(int(a[i]) - int(b[i])));
  return worst;
}

double meanColourError(const DecodedImage& a, const DecodedImage& b) {
  if (a.width != b.width || a.height != b.height) return 1e9;
  double sum = 0;
  for (size_t i = 0; i < a.pixels8.size(); ++i)
    if (i % 4 != 3) sum += std::abs(int(a.pixels8[i]) - int(b.pixels8[i]));
  return sum / double(a.pixelCount() * 3);
}

std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const ImageProcessingError& e) {
    using Kind = ImageProcessingError::Kind;
    return e.kind() == Kind::decodingFailed          ? "decoding failed"
           : e.kind() == Kind::contextCreationFailed ? "context creation failed"
                                                     : "encoding failed: " + e.label();
  } catch (const std::exception& e) {
    return std::string("other: ") + e.what();
  } catch (const Cancellation::Cancelled&) {
    return "cancelled";
  }
  return "";
}

}  // namespace quillane::testing
