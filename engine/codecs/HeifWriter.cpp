// HEIC writing through libheif with its built-in x265 encoder.

#include <libheif/heif.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "engine/Errors.h"
#include "engine/PageRelease.h"
#include "engine/codecs/HeifHandles.h"
#include "engine/codecs/Writers.h"

namespace quillane::codecs {
namespace {

using HeifEncoderPtr = CHandle<heif_encoder, heif_encoder_release>;
using HeifOptionsPtr = CHandle<heif_encoding_options, heif_encoding_options_free>;

[[noreturn]] void fail(const char* call, const heif_error& error) {
  throw ImageProcessingError::encodingFailed(
      "HEIC", std::string(call) + ": " + (error.message ? error.message : "unknown error"));
}

void check(const char* call, const heif_error& error) {
  if (error.code != heif_error_Ok) fail(call, error);
}

// Called from inside libheif: nothing may throw through it.
heif_error appendToBytes(heif_context*, const void* data, size_t size, void* userdata) {
  try {
    auto* out = static_cast<Bytes*>(userdata);
    const auto* bytes = static_cast<const uint8_t*>(data);
    out->insert(out->end(), bytes, bytes + size);
    return {heif_error_Ok, heif_suberror_Unspecified, "Success"};
  } catch (...) {
    return {heif_error_Memory_allocation_error, heif_suberror_Unspecified, "out of memory"};
  }
}

// Plugins and colour conversion tables are set up once per process; the count is never
// dropped, since an encode can start at any time.
void initialiseOnce() {
  static const bool initialised = [] {
    heif_init(nullptr);
    return true;
  }();
  (void)initialised;
}

// With `releasable` (the picture's samples), each row goes back to the system once copied.
HeifImagePtr makeImage(const DecodedImage& image, bool keepAlpha, uint8_t* releasable) {
  heif_image* raw = nullptr;
  heif_chroma chroma = keepAlpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB;
  check("heif_image_create", heif_image_create(image.width, image.height, heif_colorspace_RGB, chroma, &raw));
  HeifImagePtr heifImage(raw);
  check("heif_image_add_plane",
        heif_image_add_plane(raw, heif_channel_interleaved, image.width, image.height, 8));
  int stride = 0;
  uint8_t* plane = heif_image_get_plane(raw, heif_channel_interleaved, &stride);
  if (!plane)
    fail("heif_image_get_plane", {heif_error_Memory_allocation_error, heif_suberror_Unspecified, ""});
  const int channels = keepAlpha ? 4 : 3;
  PageRelease::Releaser releaser(releasable);
  for (int y = 0; y < image.height; ++y) {
    const uint8_t* src = image.pixels8.data() + size_t(y) * size_t(image.width) * 4;
    uint8_t* dst = plane + size_t(y) * size_t(stride);
    if (keepAlpha) {
      std::memcpy(dst, src, size_t(image.width) * 4);
    } else {
      for (int x = 0; x < image.width; ++x, src += 4, dst += channels) {
        dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
      }
    }
    releaser.readUpTo(size_t(y + 1) * size_t(image.width) * 4);
  }
  return heifImage;
}

}  // namespace

HeifSettings heifSettings(double quality, bool photographic) {
  double q = std::clamp(quality, 0.0, 1.0);
  // Slider value to libheif's quality, which x265 turns into a constant rate factor. Chosen
  // so that HEIC matches JPEG's fidelity at each anchor (measured figures in
  // bench/README.md); in between, linear.
  static const CurvePoint curve[] = {
      {0.00, 0}, {0.30, 22}, {0.50, 32}, {0.75, 44}, {0.90, 51}, {0.95, 57}, {1.00, 84},
  };
  HeifSettings s;
  s.quality = std::clamp(int(std::lround(interpolate(curve, q))), 0, 100);
  // Below 0.9 the writer picks the chroma layout from the picture's colour edges.
  if (q >= 0.9) s.chroma = ChromaLayout::full;
  // libheif's default, "slow", saves a tenth or two of the bytes on photos for nearly twice
  // the time. For a single intra picture "medium" down to "veryfast" give the same bytes in
  // the same time (libheif pins the analysis options the presets differ in); what costs is
  // the search of 8-pixel blocks, which photographs hardly use (bench/README.md).
  s.preset = "medium";
  s.minBlock = photographic ? 16 : 8;
  return s;
}

namespace {

Bytes write(const DecodedImage& image, uint8_t* releasable, bool keepAlpha, const HeifSettings& settings,
            const std::optional<Bytes>& icc) {
  if (image.empty() || image.bitsPerComponent != 8 || image.pixels8.size() != image.pixelCount() * 4)
    throw ImageProcessingError::encodingFailed("HEIC", "writeHeic: not an 8-bit RGBA picture");
  initialiseOnce();

  HeifContextPtr context(heif_context_alloc());
  if (!context)
    fail("heif_context_alloc", {heif_error_Memory_allocation_error, heif_suberror_Unspecified, ""});
  heif_encoder* rawEncoder = nullptr;
  check("heif_context_get_encoder_for_format",
        heif_context_get_encoder_for_format(context.get(), heif_compression_HEVC, &rawEncoder));
  HeifEncoderPtr encoder(rawEncoder);
  // x265 writes its banner and statistics to stderr unless told otherwise.
  check("heif_encoder_set_logging_level", heif_encoder_set_logging_level(rawEncoder, 0));
  check("heif_encoder_set_lossy_quality", heif_encoder_set_lossy_quality(rawEncoder, settings.quality));
  check("heif_encoder_set_parameter_string(preset)",
        heif_encoder_set_parameter_string(rawEncoder, "preset", settings.preset));
  if (settings.minBlock != 8) {
    const std::string minBlock = std::to_string(settings.minBlock);
    check("heif_encoder_set_parameter_string(min-cu-size)",
          heif_encoder_set_parameter_string(rawEncoder, "x265:min-cu-size", minBlock.c_str()));
  }
  const bool fullChroma = usesFullChroma(settings.chroma, image, keepAlpha);
  check("heif_encoder_set_parameter_string(chroma)",
        heif_encoder_set_parameter_string(rawEncoder, "chroma", fullChroma ? "444" : "420"));

  HeifImagePtr heifImage = makeImage(image, keepAlpha, releasable);
  if (icc && !icc->empty()) {
    check("heif_image_set_raw_color_profile",
          heif_image_set_raw_color_profile(heifImage.get(), "prof", icc->data(), icc->size()));
  }

  HeifOptionsPtr options(heif_encoding_options_alloc());
  if (!options)
    fail("heif_encoding_options_alloc", {heif_error_Memory_allocation_error, heif_suberror_Unspecified, ""});
  options->save_alpha_channel = keepAlpha ? 1 : 0;
  heif_image_handle* rawHandle = nullptr;
  check("heif_context_encode_image",
        heif_context_encode_image(context.get(), heifImage.get(), rawEncoder, options.get(), &rawHandle));
  HeifHandlePtr handle(rawHandle);

  Bytes out;
  heif_writer writer{1, appendToBytes};
  check("heif_context_write", heif_context_write(context.get(), &writer, &out));
  return out;
}

}  // namespace

Bytes writeHeic(const DecodedImage& image, bool keepAlpha, const HeifSettings& settings,
                const std::optional<Bytes>& icc) {
  return write(image, nullptr, keepAlpha, settings, icc);
}

Bytes writeHeic(DecodedImage&& image, bool keepAlpha, const HeifSettings& settings,
                const std::optional<Bytes>& icc) {
  return write(image, image.pixels8.data(), keepAlpha, settings, icc);
}

}  // namespace quillane::codecs
