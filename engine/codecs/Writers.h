#pragma once
// The JPEG, HEIC and AVIF writers behind NativeImageIOEncoder, and the settings each derives
// from the one 0...1 lossy quality. Internal to the engine. Every function is re-entrant and
// owns the library objects it creates for the length of one call.
//
// The writers take 8-bit interleaved RGBA with straight alpha and rows without padding
// (NativeImageIOEncoder prepares it). They throw ImageProcessingError::encodingFailed with the
// format's label, and never print anything.
//
// Quality mappings. The slider's value reaches these writers unchanged (the strategy's
// calibration table is weighted 0), so each mapping below is chosen so that one value looks
// about the same in every format, with JPEG as the reference: measured against the source
// (PSNR and SSIM) on generated photo-like and screenshot-like pictures; the figures are in
// bench/README.md, section "JPEG, HEIC and AVIF writers".

#include <cstdint>
#include <optional>
#include <vector>

#include "engine/DecodedImage.h"
#include "engine/EncodingStrategy.h"
#include "engine/ImageFormat.h"

namespace quillane::codecs {

using Bytes = std::vector<uint8_t>;

struct JpegSettings {
  int quality = 75;       // libjpeg's 1...100
  bool chroma420 = true;  // 4:2:0 below quality 90, 4:4:4 from 90 on
};
JpegSettings jpegSettings(double quality);

// Writes the colour samples of `image` (alpha ignored), with optimised Huffman tables and the
// profile in APP2 markers when given.
Bytes writeJpeg(const DecodedImage& image, const JpegSettings& settings, const std::optional<Bytes>& icc);

struct HeifSettings {
  int quality = 50;         // libheif's lossy quality 0...100 for x265
  bool chroma444 = false;   // from a 0...1 quality of 0.9 on, like JPEG
  const char* preset = "";  // x265 speed preset
};
HeifSettings heifSettings(double quality);

// HEVC still image through libheif and x265; alpha as an auxiliary image when `keepAlpha`;
// the profile as a "prof" colour box when given.
Bytes writeHeic(const DecodedImage& image, bool keepAlpha, const HeifSettings& settings,
                const std::optional<Bytes>& icc);

struct AvifSettings {
  int minQuantizer = 0;  // libavif's 0 (best) ... 63 (worst), colour
  int maxQuantizer = 0;
  int minQuantizerAlpha = 0;
  int maxQuantizerAlpha = 0;
  int speed = 6;         // aom's 0 (slowest) ... 10
  bool chroma444 = false;
};
// Up to this many pixels aom runs at its careful speed; above, at a faster one.
inline constexpr size_t kAvifCarefulPixelLimit = 2'000'000;
AvifSettings avifSettings(double quality, size_t pixelCount);

// AV1 still image through libavif and aom; alpha kept when `keepAlpha`; the profile as ICC
// colour information when given.
Bytes writeAvif(const DecodedImage& image, bool keepAlpha, const AvifSettings& settings,
                const std::optional<Bytes>& icc);

// Piecewise-linear interpolation over (x, y) points sorted by x; clamps outside the range.
struct CurvePoint {
  double x, y;
};
template <size_t N>
double interpolate(const CurvePoint (&points)[N], double x) {
  if (x <= points[0].x) return points[0].y;
  for (size_t i = 1; i < N; ++i) {
    if (x <= points[i].x) {
      double t = (x - points[i - 1].x) / (points[i].x - points[i - 1].x);
      return points[i - 1].y + t * (points[i].y - points[i - 1].y);
    }
  }
  return points[N - 1].y;
}

}  // namespace quillane::codecs

namespace quillane::NativeImageIOEncoder {
// The 0...1 lossy quality handed to the writer: the mode's quality / 100, clamped to 0...1,
// with AVIF kept below its lossless end at 0.99.
double compressionQuality(ImageFormat format, const EncodingPlan& plan);
// 8-bit straight RGBA of any decoded picture (16-bit rounded, premultiplied colour divided out).
DecodedImage straightEightBit(const DecodedImage& image);
}  // namespace quillane::NativeImageIOEncoder
