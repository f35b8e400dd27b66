// HEIC writing through libheif with its built-in x265 encoder.

#include <libheif/heif.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
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

// Full-range BT.601 luma and colour differences of one sample, rounded as libheif rounds them:
// libheif turns an RGB picture into these planes itself, at the cost of both beside each other
// and beside x265; the writer hands it the planes instead, sample for sample the same.
struct YCbCrMatrix {
  static constexpr float kr = 0.299f, kb = 0.114f, kg = 1 - kr - kb;
  static uint8_t round(float v) {
    // libheif's own rounding (a float sum truncated), kept so the planes match its own.
    const long x = long(v + 0.5f);  // NOLINT(bugprone-incorrect-roundings)
    return uint8_t(std::clamp(x, 0L, 255L));
  }
  static uint8_t luma(int r, int g, int b) { return round(float(r) * kr + float(g) * kg + float(b) * kb); }
  static uint8_t cb(int r, int g, int b) {
    return round(float(r) * (-kr / (1 - kb) / 2) + float(g) * (-kg / (1 - kb) / 2) + float(b) * 0.5f + 128);
  }
  static uint8_t cr(int r, int g, int b) {
    return round(float(r) * 0.5f + float(g) * (-kg / (1 - kr) / 2) + float(b) * (-kb / (1 - kr) / 2) + 128);
  }
};

uint8_t* addPlane(heif_image* image, heif_channel channel, int width, int height, int* stride) {
  check("heif_image_add_plane", heif_image_add_plane(image, channel, width, height, 8));
  uint8_t* plane = heif_image_get_plane(image, channel, stride);
  if (!plane)
    fail("heif_image_get_plane", {heif_error_Memory_allocation_error, heif_suberror_Unspecified, ""});
  return plane;
}

// The picture as the YCbCr planes x265 reads (4:2:0 takes the truncated mean of each 2 x 2
// block's samples, of 2 or 1 at an odd edge), with its alpha as a plane when kept. With
// `releasable` (the picture's samples), each row goes back to the system once read.
HeifImagePtr makeImage(const DecodedImage& image, bool keepAlpha, bool fullChroma, uint8_t* releasable) {
  const int width = image.width, height = image.height, sub = fullChroma ? 1 : 2;
  heif_image* raw = nullptr;
  check("heif_image_create", heif_image_create(width, height, heif_colorspace_YCbCr,
                                               fullChroma ? heif_chroma_444 : heif_chroma_420, &raw));
  HeifImagePtr heifImage(raw);
  // What libheif tells x265 of an RGB picture it converts: BT.601, full range.
  CHandle<heif_color_profile_nclx, heif_nclx_color_profile_free> nclx(heif_nclx_color_profile_alloc());
  if (!nclx)
    fail("heif_nclx_color_profile_alloc",
         {heif_error_Memory_allocation_error, heif_suberror_Unspecified, ""});
  nclx->color_primaries = heif_color_primaries_unspecified;
  nclx->transfer_characteristics = heif_transfer_characteristic_unspecified;
  nclx->matrix_coefficients = heif_matrix_coefficients_ITU_R_BT_601_6;
  nclx->full_range_flag = 1;
  check("heif_image_set_nclx_color_profile", heif_image_set_nclx_color_profile(raw, nclx.get()));

  const int chromaWidth = (width + sub - 1) / sub, chromaHeight = (height + sub - 1) / sub;
  int yStride = 0, cbStride = 0, crStride = 0, aStride = 0;
  uint8_t* yPlane = addPlane(raw, heif_channel_Y, width, height, &yStride);
  uint8_t* cbPlane = addPlane(raw, heif_channel_Cb, chromaWidth, chromaHeight, &cbStride);
  uint8_t* crPlane = addPlane(raw, heif_channel_Cr, chromaWidth, chromaHeight, &crStride);
  uint8_t* aPlane = keepAlpha ? addPlane(raw, heif_channel_Alpha, width, height, &aStride) : nullptr;

  const size_t rowBytes = size_t(width) * 4;
  PageRelease::Releaser releaser(releasable);
  for (int y = 0; y < height; y += sub) {
    const int rows = std::min(sub, height - y);
    const uint8_t* row = image.pixels8.data() + size_t(y) * rowBytes;
    for (int dy = 0; dy < rows; ++dy) {
      const uint8_t* src = row + size_t(dy) * rowBytes;
      uint8_t* luma = yPlane + size_t(y + dy) * size_t(yStride);
      for (int x = 0; x < width; ++x, src += 4) {
        luma[x] = YCbCrMatrix::luma(src[0], src[1], src[2]);
        if (aPlane) aPlane[size_t(y + dy) * size_t(aStride) + size_t(x)] = src[3];
      }
    }
    uint8_t* cb = cbPlane + size_t(y / sub) * size_t(cbStride);
    uint8_t* cr = crPlane + size_t(y / sub) * size_t(crStride);
    for (int x = 0; x < width; x += sub) {
      const int columns = std::min(sub, width - x);
      int sum[3] = {0, 0, 0};
      for (int dy = 0; dy < rows; ++dy)
        for (int dx = 0; dx < columns; ++dx)
          for (int c = 0; c < 3; ++c) sum[c] += row[size_t(dy) * rowBytes + size_t(x + dx) * 4 + size_t(c)];
      const int n = rows * columns;
      const int r = sum[0] / n, g = sum[1] / n, b = sum[2] / n;
      cb[x / sub] = YCbCrMatrix::cb(r, g, b);
      cr[x / sub] = YCbCrMatrix::cr(r, g, b);
    }
    releaser.readUpTo(size_t(y + rows) * rowBytes);
  }
  return heifImage;
}

}  // namespace

HeifSettings heifSettings(double quality, bool photographic, size_t pixelCount, bool continuousTone) {
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
  // the search of 8-pixel blocks, which large photographs can do without (bench/README.md).
  s.preset = "medium";
  s.minBlock = photographic && pixelCount > kHeicSmallBlockPhotoPixelLimit ? 16 : 8;
  if (continuousTone && s.minBlock == 8) s.psyRd = kHeicContinuousTonePsyRd;
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
  if (settings.psyRd != 1.0) {
    char psyRd[16];
    std::snprintf(psyRd, sizeof psyRd, "%.2f", settings.psyRd);
    check("heif_encoder_set_parameter_string(psy-rd)",
          heif_encoder_set_parameter_string(rawEncoder, "x265:psy-rd", psyRd));
  }
  const bool fullChroma = usesFullChroma(settings.chroma, image, keepAlpha);
  check("heif_encoder_set_parameter_string(chroma)",
        heif_encoder_set_parameter_string(rawEncoder, "chroma", fullChroma ? "444" : "420"));

  HeifImagePtr heifImage = makeImage(image, keepAlpha, fullChroma, releasable);
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
