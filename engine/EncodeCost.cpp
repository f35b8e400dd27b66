#include "engine/EncodeCost.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "engine/Encoders.h"
#include "engine/ImageDecoder.h"
#include "engine/SystemMemory.h"
#include "engine/codecs/Writers.h"

namespace quillane::EncodeCost {
namespace {

using Kind = EncodingPlan::Mode::Kind;
using ContentClass = ImageCharacteristics::ContentClass;

constexpr uint64_t kMB = 1'000'000;

// `bytesPerPixel` times `pixels`, rounded up; the most there is where that passes 64 bits.
uint64_t bytesFor(double bytesPerPixel, uint64_t pixels) {
  const double bytes = std::ceil(bytesPerPixel * double(pixels));
  return bytes < 0x1p64 ? uint64_t(bytes) : UINT64_MAX;
}

// Bytes a pixel and fixed bytes: one encoding's peak, its picture included.
struct Figure {
  double bytesPerPixel;
  uint64_t fixedBytes;
  uint64_t at(uint64_t pixels) const { return bytesFor(bytesPerPixel, pixels) + fixedBytes; }
};

// Measured by bench/encode_peak.cpp on generated pictures of 1 and 4 megapixels, called as the
// pipeline calls its last encoding (which gives its picture back where the encoder can), and
// rounded up; "graphic" is the worst of a screenshot, a flat picture and a logo, "photo" a
// textured photo. Alpha adds what the logo with alpha took beyond the screenshot.
struct Measured {
  Figure photo, graphic;
  double alphaBytesPerPixel;
};

// JPEG: libjpeg keeps the whole picture as coefficients to optimise its tables (3 bytes a
// pixel at 4:2:0, 6 at 4:4:4, which colour edges or quality 90 choose) while the rows it has
// read go back; alpha is flattened into a copy first.
constexpr Measured kJpeg{{7.5, 4 * kMB}, {7.5, 4 * kMB}, 1};
// HEIC: the YCbCr planes the writer makes for libheif, and x265's frame buffers; 4:4:4 the
// worst, alpha a second picture.
constexpr Measured kHeic{{25, 20 * kMB}, {25, 24 * kMB}, 11};
// AVIF: libavif's YUV planes and aom's buffers; up to 2 megapixels aom searches its screen
// content tools (speed 5), which cost several times more, on graphics and on drawings of few
// colours (a 0.5 MP screenshot took 183 bytes a pixel); photos keep speed 6 up to 12
// megapixels without intra block copy, the tool that cost them the most (a photo with a flat
// background took 102 bytes a pixel with it, 21 without), at most 27 bytes a pixel at 4:4:4.
constexpr Measured kAvif{{26, 24 * kMB}, {26, 24 * kMB}, 5};
constexpr Measured kAvifCareful{{100, 24 * kMB}, {125, 30 * kMB}, 5};
constexpr Measured kAvifCarefulPhoto{{30, 24 * kMB}, {30, 24 * kMB}, 5};
// WebP: lossy converts to YUV 4:2:0 beside the words it reads, alpha a plane of its own;
// lossless and near-lossless keep hash chains and backward references of every pixel, far
// fewer on graphics.
constexpr Measured kWebPLossy{{6.5, 2 * kMB}, {8, 2 * kMB}, 7};
constexpr Measured kWebPLossless{{36, 14 * kMB}, {14, 4 * kMB}, 1};
// At effort 2 (up to 2 megapixels) libwebp's lossless search of a real screenshot took some
// 26 MB whatever its size and 48 bytes a pixel beyond (a 0.65 MP screenshot: 58 MB).
constexpr Measured kWebPLosslessCareful{{42, 14 * kMB}, {50, 26 * kMB}, 1};
// JPEG XL (libjxl 0.7): lossy holds the frame in floats three times over (above 8 megapixels
// mostly one strip of it at a time, encodingBytes); at effort 7 its patch search on graphics
// costs as much as lossless. Lossless holds every sample as a 32-bit integer and a token; at
// effort 5 and above, graphics take four times that.
constexpr Measured kJxlLossy{{40, 10 * kMB}, {47, 10 * kMB}, 15};
constexpr Measured kJxlLossyCareful{{40, 10 * kMB}, {182, 10 * kMB}, 15};
constexpr Measured kJxlLossless{{74, 10 * kMB}, {182, 10 * kMB}, 4};
constexpr Measured kJxlLosslessCareful{{100, 10 * kMB}, {182, 10 * kMB}, 4};
constexpr Measured kJxlLosslessLight{{74, 10 * kMB}, {45, 10 * kMB}, 8};
constexpr Figure kTranscode{40, 10 * kMB};
// PNG: libimagequant's histogram of a many-coloured picture (larger at its slower speeds) and
// its remapped rows; the truecolour writer's filtered rows and deflate output.
constexpr Measured kPngPalette{{32, 25 * kMB}, {23, 4 * kMB}, 0};
constexpr Measured kPngPaletteFast{{8, 30 * kMB}, {8, 30 * kMB}, 0};
constexpr Measured kPngTruecolour{{13.5, 4 * kMB}, {12.5, 2 * kMB}, 0};

const Measured& measured(ImageFormat format, Kind kind, int effort, uint64_t pixels, bool graphic) {
  switch (format) {
    case ImageFormat::jpeg:
      return kJpeg;
    case ImageFormat::heic:
      return kHeic;
    case ImageFormat::avif:
      // aom's slower speed runs up to 2 megapixels, and for photos up to 12 (codecs::avifSettings).
      if (pixels <= codecs::kAvifCarefulPixelLimit) return kAvifCareful;
      return !graphic && pixels <= codecs::kAvifCarefulPhotoPixelLimit ? kAvifCarefulPhoto : kAvif;
    case ImageFormat::webp:
      return kind == Kind::lossy ? kWebPLossy : effort >= 2 ? kWebPLosslessCareful : kWebPLossless;
    case ImageFormat::jxl:
      if (kind == Kind::lossy) return effort >= 2 ? kJxlLossyCareful : kJxlLossy;
      return effort < 0 ? kJxlLosslessLight : effort >= 2 ? kJxlLosslessCareful : kJxlLossless;
    case ImageFormat::png:
      if (kind == Kind::lossless) return kPngTruecolour;
      return effort <= 0 ? kPngPaletteFast : kPngPalette;
  }
  return kJxlLosslessCareful;
}

// The decode's peak, the decoded picture included, in bytes a pixel: the worst a source of
// the format can take (a progressive 4:4:4 JPEG's coefficients beside its output or the
// turn of an EXIF orientation; 16-bit samples with their 8-bit conversion; libjxl's float
// planes).
double decodeBytesPerPixel(ImageFormat format) {
  switch (format) {
    case ImageFormat::jpeg:
      return 10;
    case ImageFormat::png:
      return 12;
    case ImageFormat::webp:
      return 8;
    case ImageFormat::heic:
    case ImageFormat::avif:
      return 12;
    case ImageFormat::jxl:
      return 16;
  }
  return 16;
}

bool isGraphic(ContentClass c) { return c == ContentClass::flatGraphic || c == ContentClass::screenText; }

uint64_t cost(const Measured& m, uint64_t pixels, bool graphic, bool alpha) {
  const uint64_t extra = alpha ? bytesFor(m.alphaBytesPerPixel, pixels) : 0;
  return (graphic ? m.graphic : m.photo).at(pixels) + extra;
}

}  // namespace

uint64_t allowance(uint64_t pixels) {
  return std::max(std::min(pixels, UINT64_MAX / kBytesPerPixel) * kBytesPerPixel, kSmallPictureBytes);
}

uint64_t encodingBytes(ImageFormat format, const EncodingPlan::Mode& mode, int effort, int width, int height,
                       bool graphic, bool alpha) {
  const uint64_t pixels = uint64_t(std::max(width, 0)) * uint64_t(std::max(height, 0));
  const Measured& m = measured(format, mode.kind, effort, pixels, graphic);
  if (format != ImageFormat::jxl || mode.kind != Kind::lossy) return cost(m, pixels, graphic, alpha);
  // A large lossy JPEG XL may go in strip by strip (JXLEncoder::lossyStripRows): the picture
  // (4 bytes a pixel) beside libjxl's cost of one strip, whose own picture is that strip.
  const uint64_t strip =
      uint64_t(std::max(width, 0)) * uint64_t(JXLEncoder::lossyStripRows(width, height, mode.quality));
  return strip >= pixels ? cost(m, pixels, graphic, alpha)
                         : pixels * 4 + cost(m, strip, graphic, alpha) - strip * 4;
}

uint64_t lossyJXLFrameBytes(uint64_t pixels) { return cost(kJxlLossy, pixels, true, true); }

uint64_t encodingBytes(ImageFormat format, const EncodingPlan& plan, const EncodingPlan::Mode& mode,
                       const ImageCharacteristics& characteristics) {
  const bool light = plan.lightLossless && mode.kind == Kind::lossless;
  // A PNG plan that prefers lossless writes truecolour whatever its mode says.
  const EncodingPlan::Mode written =
      format == ImageFormat::png && plan.prefersLossless ? EncodingPlan::Mode::lossless() : mode;
  return encodingBytes(format, written, light ? -1 : plan.effort, characteristics.width,
                       characteristics.height, isGraphic(characteristics.contentClass),
                       characteristics.hasAlpha);
}

bool fitsInMemory(uint64_t bytes) { return bytes <= usableMemoryBytes(); }

uint64_t peakBytes(const Source& source, ImageFormat target, double quality) {
  const uint64_t pixels = uint64_t(std::max(source.width, 0)) * uint64_t(std::max(source.height, 0));
  // A header no decoder takes (up to 2^62 pixels) never fits: the most there is, as for a
  // header that can't be read. Below the limits every figure here stays far within 64 bits.
  if (source.width > kMaxDimension || source.height > kMaxDimension || pixels > kMaxPixels ||
      source.cellPixels > kMaxPixels)
    return UINT64_MAX;
  // The costliest plan the strategy makes for any content of this size: every class, with
  // and without alpha, flat or not, with many colours or few, noisy or clean.
  uint64_t encoding = 0;
  for (const ContentClass c : {ContentClass::flatGraphic, ContentClass::screenText,
                               ContentClass::illustration, ContentClass::photo, ContentClass::noisyPhoto}) {
    for (int variant = 0; variant < 16; ++variant) {
      ImageCharacteristics characteristics;
      characteristics.width = source.width;
      characteristics.height = source.height;
      characteristics.contentClass = c;
      characteristics.hasAlpha = variant & 1;
      characteristics.hasPartialAlpha = variant & 1;
      characteristics.flatFraction = variant & 2 ? 0.9 : 0.1;
      characteristics.colorCountSaturated = variant & 4;
      characteristics.noiseLevel = variant & 8 ? 10 : 1;
      characteristics.gradientFraction = variant & 8 ? 0.01 : 0.3;
      const EncodingPlan plan = EncodingStrategy::plan(characteristics, target, quality);
      uint64_t cost = encodingBytes(target, plan, plan.mode, characteristics);
      // Where two encodings compete, the first leaves the picture whole, and its output (at
      // most 4 bytes a pixel) waits while the other runs.
      if (plan.alternative)
        cost = std::max(cost, encodingBytes(target, plan, *plan.alternative, characteristics)) + pixels * 4;
      encoding = std::max(encoding, cost);
    }
  }
  // A JPEG of quality 90 and above is first repackaged as JPEG XL beside its decoded picture:
  // libjxl holds its coefficients and the frame it makes of them (a 64-megapixel progressive
  // JPEG took 20 bytes a pixel, an 18-megapixel photo 36).
  if (target == ImageFormat::jxl && source.format == ImageFormat::jpeg && quality >= 90)
    encoding = std::max(encoding, pixels * 4 + kTranscode.at(pixels));
  const uint64_t decode = bytesFor(decodeBytesPerPixel(source.format), pixels + source.cellPixels);
  return addBytes(source.fileBytes, std::max(decode, encoding));
}

std::optional<uint64_t> peakBytes(const std::string& path, ImageFormat target, double quality) {
  const auto header = ImageDecoder::readHeader(path);
  const auto format = ImageFormats::detect(path);
  if (!header || !format) return std::nullopt;
  const uint64_t fileBytes = uint64_t(std::max<int64_t>(ImageDecoder::fileSize(path), 0));
  return peakBytes(Source{*format, header->width, header->height, fileBytes, header->heldCellPixels}, target,
                   quality);
}

}  // namespace quillane::EncodeCost
