// AVIF writing through libavif with the aom encoder. libheif's AVIF path is not used: its
// aom setup aborts on an assertion with default settings in the version we ship against.

#include <avif/avif.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

#include "engine/CHandle.h"
#include "engine/Errors.h"
#include "engine/PageRelease.h"
#include "engine/codecs/Writers.h"

namespace quillane::codecs {
namespace {

using AvifImagePtr = CHandle<avifImage, avifImageDestroy>;
using AvifEncoderPtr = CHandle<avifEncoder, avifEncoderDestroy>;

struct RWDataGuard {
  avifRWData data = AVIF_DATA_EMPTY;
  ~RWDataGuard() { avifRWDataFree(&data); }
};

[[noreturn]] void fail(const std::string& internal) {
  throw ImageProcessingError::encodingFailed("AVIF", internal);
}

void check(const char* call, avifResult result) {
  if (result != AVIF_RESULT_OK) fail(std::string(call) + ": " + avifResultToString(result));
}

int quantizerFor(double quality) {
  // Slider value (capped at 0.99 by the caller) to aom's quantizer, 63 the worst. Chosen so
  // that AVIF matches JPEG's fidelity at each anchor (measured figures in bench/README.md);
  // in between, linear.
  static const CurvePoint curve[] = {
      {0.00, 63}, {0.30, 40}, {0.50, 30}, {0.75, 17}, {0.90, 12}, {0.95, 8}, {0.99, 2},
  };
  return std::clamp(int(std::lround(interpolate(curve, quality))), 0, 63);
}

}  // namespace

AvifSettings avifSettings(double quality, size_t pixelCount, bool continuousTone) {
  double q = std::clamp(quality, 0.0, 1.0);
  AvifSettings s;
  int quantizer = quantizerFor(q);
  // A small window below the target lets aom spend a little more on busy blocks.
  s.minQuantizer = std::max(0, quantizer - 4);
  s.maxQuantizer = quantizer;
  // Edges of transparency show compression more than colour does: alpha gets a finer step.
  s.minQuantizerAlpha = std::max(0, quantizer / 2 - 4);
  s.maxQuantizerAlpha = quantizer / 2;
  // Speed 6 finds aom's screen-content tools (palette coding), which make screenshots several
  // times smaller, but on a 12-megapixel screenshot it runs for minutes. Speed 8 keeps every
  // picture within a few seconds on one core. On a photograph, speed 6 costs three times speed 8
  // and takes 12 to 52 % off the bytes at equal butteraugli, so continuous tone keeps it up to 12
  // megapixels (about 2 s): a small photo also costs less than a large one (bench/README.md,
  // "AVIF photographs").
  const size_t carefulLimit = continuousTone ? kAvifCarefulPhotoPixelLimit : kAvifCarefulPixelLimit;
  s.speed = pixelCount <= carefulLimit ? 6 : 8;
  // Pictures with sharp colour edges (those the automatic layout writes at 4:4:4) are mostly
  // screen content, where speed 5's tools take about a tenth off the bytes at equal fidelity,
  // for three to four times the time of speed 6: still under two seconds for 2 megapixels.
  s.colourEdgeSpeed = pixelCount <= kAvifCarefulPixelLimit ? 5 : 8;
  // Continuous tone has no repeated blocks for intra block copy to find, and its search took 108
  // bytes a pixel on a flower photographed against a flat background, against 23 without it, for
  // the same bytes at equal butteraugli (bench/README.md, "The cost model").
  s.intraBlockCopy = !continuousTone;
  // Below 0.9 the writer picks the chroma layout from the picture's colour edges.
  if (q >= 0.9) s.chroma = ChromaLayout::full;
  return s;
}

namespace {

Bytes write(const DecodedImage& image, uint8_t* releasable, bool keepAlpha, const AvifSettings& settings,
            const std::optional<Bytes>& icc) {
  if (image.empty() || image.bitsPerComponent != 8 || image.pixels8.size() != image.pixelCount() * 4)
    fail("writeAvif: not an 8-bit RGBA picture");

  const bool colourEdges = usesFullChroma(ChromaLayout::automatic, image, keepAlpha);
  const bool fullChroma =
      settings.chroma == ChromaLayout::automatic ? colourEdges : settings.chroma == ChromaLayout::full;
  AvifImagePtr avif(avifImageCreate(uint32_t(image.width), uint32_t(image.height), 8,
                                    fullChroma ? AVIF_PIXEL_FORMAT_YUV444 : AVIF_PIXEL_FORMAT_YUV420));
  if (!avif) fail("avifImageCreate");
  avif->yuvRange = AVIF_RANGE_FULL;
  // The matrix is named always (the YUV samples are made with it); the primaries and the curve
  // are sRGB's unless a profile describes the pixels. "Unspecified" lets each browser guess.
  avif->matrixCoefficients = AVIF_MATRIX_COEFFICIENTS_BT601;
  if (icc && !icc->empty()) {
    avifImageSetProfileICC(avif.get(), icc->data(), icc->size());
  } else {
    avif->colorPrimaries = AVIF_COLOR_PRIMARIES_BT709;
    avif->transferCharacteristics = AVIF_TRANSFER_CHARACTERISTICS_SRGB;
  }

  avifRGBImage rgb;
  avifRGBImageSetDefaults(&rgb, avif.get());
  rgb.format = AVIF_RGB_FORMAT_RGBA;
  rgb.depth = 8;
  rgb.ignoreAlpha = keepAlpha ? AVIF_FALSE : AVIF_TRUE;
  // libavif reads the pixels only; the cast is its API's, not a write.
  rgb.pixels = const_cast<uint8_t*>(image.pixels8.data());
  rgb.rowBytes = uint32_t(image.width) * 4;
  check("avifImageRGBToYUV", avifImageRGBToYUV(avif.get(), &rgb));
  // From here on aom reads libavif's YUV planes only.
  if (releasable) PageRelease::release(releasable, image.pixels8.size());

  AvifEncoderPtr encoder(avifEncoderCreate());
  if (!encoder) fail("avifEncoderCreate");
  encoder->codecChoice = AVIF_CODEC_CHOICE_AOM;
  encoder->maxThreads = 1;
  encoder->speed = colourEdges ? settings.colourEdgeSpeed : settings.speed;
  encoder->minQuantizer = settings.minQuantizer;
  encoder->maxQuantizer = settings.maxQuantizer;
  encoder->minQuantizerAlpha = settings.minQuantizerAlpha;
  encoder->maxQuantizerAlpha = settings.maxQuantizerAlpha;
  if (!settings.intraBlockCopy) avifEncoderSetCodecSpecificOption(encoder.get(), "enable-intrabc", "0");

  RWDataGuard output;
  check("avifEncoderWrite", avifEncoderWrite(encoder.get(), avif.get(), &output.data));
  return Bytes(output.data.data, output.data.data + output.data.size);
}

}  // namespace

Bytes writeAvif(const DecodedImage& image, bool keepAlpha, const AvifSettings& settings,
                const std::optional<Bytes>& icc) {
  return write(image, nullptr, keepAlpha, settings, icc);
}

Bytes writeAvif(DecodedImage&& image, bool keepAlpha, const AvifSettings& settings,
                const std::optional<Bytes>& icc) {
  return write(image, image.pixels8.data(), keepAlpha, settings, icc);
}

}  // namespace quillane::codecs
