#pragma once
// The JPEG, HEIC and AVIF writers behind NativeImageIOEncoder, and the settings each derives
// from the one 0...1 lossy quality. Internal to the engine. Every function is re-entrant and
// owns the library objects it creates for the length of one call.
//
// The writers take 8-bit interleaved RGBA with straight alpha and rows without padding
// (NativeImageIOEncoder prepares it). Each takes it by reference, or by rvalue to consume it:
// then the writer gives the picture's memory back to the system as its library takes the
// samples in (PageRelease), so that the two are never both whole, and the caller may only
// drop the picture afterwards. The bytes written are the same either way. They throw
// ImageProcessingError::encodingFailed with the format's label, and never print anything.
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

// Chroma layout of a lossy encoding: full resolution (4:4:4), halved both ways (4:2:0), or
// chosen by the writer from the picture's colour detail (see `usesFullChroma`).
enum class ChromaLayout { automatic, subsampled, full };

// Share of a picture's 2x2 blocks where chroma averaging (4:2:0) would move some pixel's Cb or
// Cr by more than `step` on the 0...255 scale: its sharp colour edges. BT.601 chroma, measured
// on a sampled grid (at most about 200,000 blocks whatever the size) of blocks at even and of
// blocks at odd coordinates, the larger share counting, weighted by alpha when alpha is kept;
// fully transparent blocks are not counted.
inline constexpr int kChromaEdgeStep = 32;
double chromaEdgeShare(const DecodedImage& image, bool keepAlpha, int step = kChromaEdgeStep);
// The layout a writer uses: `layout` itself unless automatic, else full where at least a
// thousandth of the blocks have sharp colour edges (text, lines and flat shapes in colour).
bool usesFullChroma(ChromaLayout layout, const DecodedImage& image, bool keepAlpha);

struct JpegSettings {
  int quality = 75;                               // libjpeg's 1...100
  ChromaLayout chroma = ChromaLayout::automatic;  // full from quality 90 on
};
JpegSettings jpegSettings(double quality);

// Writes the colour samples of `image` (alpha ignored), with optimised Huffman tables and the
// profile in APP2 markers when given.
Bytes writeJpeg(const DecodedImage& image, const JpegSettings& settings, const std::optional<Bytes>& icc);
Bytes writeJpeg(DecodedImage&& image, const JpegSettings& settings, const std::optional<Bytes>& icc);

struct HeifSettings {
  int quality = 50;                               // libheif's lossy quality 0...100 for x265
  ChromaLayout chroma = ChromaLayout::automatic;  // full from a 0...1 quality of 0.9 on
  const char* preset = "";                        // x265 speed preset
  int minBlock = 8;                               // x265's smallest coding block, 8 or 16 pixels
  double psyRd = 1.0;                             // x265's psy-rd strength (libheif sets 1.0)
};
// Above this many pixels a `photographic` picture (a photo or illustration, not a graphic or
// screen text) lets x265 skip its 8-pixel blocks: a 12-megapixel photo in a third of the time
// for half a percent more bytes at equal butteraugli. Below it the 8-pixel blocks cost no more
// CPU than a 12-megapixel photo without them, and save 1 to 3 % on photos and a fifth on smooth
// gradients; a screenshot, whose text lives in them, keeps them at every size.
inline constexpr size_t kHeicSmallBlockPhotoPixelLimit = 5'000'000;
// Continuous tone (`EncodingPlan::continuousTone`) searched down to 8-pixel blocks runs at half
// libheif's psy-rd, which otherwise spends those blocks' bits on keeping the energy of fine
// texture: at equal butteraugli 11 of the corpus's 13 such pictures are 0.4 to 3.5 % smaller,
// two 0.6 and 0.9 % larger; a noisy drawing of 437 colours was 1.1 % larger with it and keeps
// libheif's (bench/README.md, "HEIC: x265 settings").
inline constexpr double kHeicContinuousTonePsyRd = 0.5;
HeifSettings heifSettings(double quality, bool photographic = false, size_t pixelCount = 0,
                          bool continuousTone = false);

// HEVC still image through libheif and x265; alpha as an auxiliary image when `keepAlpha`;
// the profile as a "prof" colour box when given.
Bytes writeHeic(const DecodedImage& image, bool keepAlpha, const HeifSettings& settings,
                const std::optional<Bytes>& icc);
Bytes writeHeic(DecodedImage&& image, bool keepAlpha, const HeifSettings& settings,
                const std::optional<Bytes>& icc);

struct AvifSettings {
  int minQuantizer = 0;  // libavif's 0 (best) ... 63 (worst), colour
  int maxQuantizer = 0;
  int minQuantizerAlpha = 0;
  int maxQuantizerAlpha = 0;
  int speed = 6;            // aom's 0 (slowest) ... 10
  int colourEdgeSpeed = 5;  // for pictures with sharp colour edges (see `usesFullChroma`)
  // aom's intra block copy, a screen content tool that aom turns on where it judges a picture
  // screen content (a photo with flat areas can pass): its search holds hashes of every block
  // position, four times the memory of the rest of the encode.
  bool intraBlockCopy = true;
  ChromaLayout chroma = ChromaLayout::automatic;  // full from a 0...1 quality of 0.9 on
};
// Up to this many pixels aom runs at its careful speed; above, at a faster one. A continuous-tone
// picture (`EncodingPlan::continuousTone`) keeps the careful speed up to the larger limit, where
// it takes about a quarter off its bytes at equal butteraugli (a picture of few colours there
// would start aom's screen content search: four times the memory).
inline constexpr size_t kAvifCarefulPixelLimit = 2'000'000;
inline constexpr size_t kAvifCarefulPhotoPixelLimit = 12'000'000;
AvifSettings avifSettings(double quality, size_t pixelCount, bool continuousTone = false);

// AV1 still image through libavif and aom; alpha kept when `keepAlpha`; the profile as ICC
// colour information when given.
Bytes writeAvif(const DecodedImage& image, bool keepAlpha, const AvifSettings& settings,
                const std::optional<Bytes>& icc);
Bytes writeAvif(DecodedImage&& image, bool keepAlpha, const AvifSettings& settings,
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
