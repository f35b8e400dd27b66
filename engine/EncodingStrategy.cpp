#include "engine/EncodingStrategy.h"

#include <algorithm>

#include "engine/EncodeCost.h"

namespace quillane {

using ContentClass = ImageCharacteristics::ContentClass;
using Mode = EncodingPlan::Mode;

std::string_view ImageCharacteristics::name(ContentClass c) {
  switch (c) {
    case ContentClass::flatGraphic:
      return "flatGraphic";
    case ContentClass::screenText:
      return "screenText";
    case ContentClass::illustration:
      return "illustration";
    case ContentClass::photo:
      return "photo";
    case ContentClass::noisyPhoto:
      return "noisyPhoto";
  }
  return "photo";
}

std::string_view EncodingPlan::modeName(Mode::Kind kind) {
  switch (kind) {
    case Mode::Kind::lossy:
      return "lossy";
    case Mode::Kind::nearLossless:
      return "nearLossless";
    case Mode::Kind::lossless:
      return "lossless";
  }
  return "lossy";
}

namespace QualityCalibration {

// Codec values that looked alike to the eye at each perceptual value. They are kept for a
// later calibration: with calibrationWeight at 0 the perceptual value passes through.
const std::array<Anchor, 9> anchors = {{
    {30, 30, 34, 48, 56},
    {40, 40, 43, 58, 78},
    {50, 50, 54, 68, 84},
    {60, 60, 64, 77, 89},
    {70, 70, 72, 85, 93},
    {75, 75, 78, 88, 94},
    {80, 80, 83, 89, 96},
    {85, 85, 87, 92, 98},
    {90, 90, 90, 93, 99},
}};

namespace {

// NaN reads as the low end, so that a garbled value can't reach a codec.
double clampTo(double v, double low, double high) { return v >= low ? std::min(v, high) : low; }

double column(const Anchor& anchor, ImageFormat format) {
  switch (format) {
    case ImageFormat::jpeg:
      return anchor.jpeg;
    case ImageFormat::heic:
      return anchor.heic;
    case ImageFormat::avif:
      return anchor.avif;
    default:
      return anchor.webp;
  }
}

double anchoredValue(double c, ImageFormat format) {
  const Anchor& first = anchors.front();
  const Anchor& last = anchors.back();
  if (c <= first.perceptual) return c / first.perceptual * column(first, format);
  if (c >= last.perceptual) {
    const double v = column(last, format);
    return v + (c - last.perceptual) / 10.0 * (100.0 - v);
  }
  for (size_t i = 1; i < anchors.size(); ++i) {
    if (anchors[i].perceptual >= c) {
      const Anchor& lo = anchors[i - 1];
      const Anchor& hi = anchors[i];
      const double t = (c - lo.perceptual) / (hi.perceptual - lo.perceptual);
      return column(lo, format) + t * (column(hi, format) - column(lo, format));
    }
  }
  return c;
}

}  // namespace

double codecQuality(double perceptual, ImageFormat format) {
  const double c = clampTo(perceptual, 0.0, 100.0);
  if (format == ImageFormat::png || format == ImageFormat::jxl) return c;
  const double m = anchoredValue(c, format);
  return clampTo(c + (m - c) * calibrationWeight, 0.0, 100.0);
}

}  // namespace QualityCalibration

namespace EncodingStrategy {

Mode mode(const ImageCharacteristics& characteristics, ImageFormat format, double quality) {
  const double cq = QualityCalibration::codecQuality(quality, format);
  const ContentClass cls = characteristics.contentClass;
  switch (format) {
    case ImageFormat::jpeg:
    case ImageFormat::heic:
    case ImageFormat::avif:
      return Mode::lossy(cq);
    case ImageFormat::png:
      return Mode::lossy(quality);  // the PNG path routes on prefersLossless
    case ImageFormat::webp:
    case ImageFormat::jxl:
      break;
  }
  if (cls == ContentClass::flatGraphic) return Mode::lossless();
  if (quality >= 97 && cls == ContentClass::screenText && characteristics.flatFraction > 0.55) {
    return Mode::lossless();
  }
  if (format == ImageFormat::webp && cls == ContentClass::screenText && quality >= 85)
    return Mode::nearLossless(60);
  return Mode::lossy(cq);
}

namespace {

// A picture of at least 16,384 pixels and more than 3 % gentle gradients: the one rule of
// losslessMayWinOnGradients and losslessWebPJudgedQuickly.
bool manyGradients(const ImageCharacteristics& characteristics) {
  const int64_t pixels = int64_t(characteristics.width) * int64_t(characteristics.height);
  return pixels >= 16'384 && characteristics.gradientFraction > 0.03;
}

// Whether a lossless encoding may beat a lossy one of at most `highestQuality` on a picture
// of many gentle gradients.
bool losslessMayWinOnGradients(const ImageCharacteristics& characteristics, const Mode& lossy,
                               double highestQuality) {
  return lossy.kind != Mode::Kind::lossy || lossy.quality > highestQuality || !manyGradients(characteristics);
}

bool fewColours(const ImageCharacteristics& characteristics) {
  return !characteristics.colorCountSaturated && characteristics.distinctColorCount <= 1'024;
}

}  // namespace

bool losslessWebPMayWin(const ImageCharacteristics& characteristics, const Mode& lossy) {
  if (lossy.kind == Mode::Kind::nearLossless) return false;
  return losslessMayWinOnGradients(characteristics, lossy, fewColours(characteristics) ? 85 : 100);
}

bool losslessJXLMayWin(const ImageCharacteristics& characteristics, const Mode& lossy) {
  return losslessMayWinOnGradients(characteristics, lossy, 80) || fewColours(characteristics);
}

bool losslessJXLMayBeat(const ImageCharacteristics& characteristics, uint64_t lossyBytes,
                        uint64_t quickLosslessBytes) {
  const double gain = fewColours(characteristics) ? 3.0 : 2.2;
  return double(quickLosslessBytes) <= gain * double(lossyBytes);
}

bool losslessWebPJudgedQuickly(const ImageCharacteristics& characteristics) {
  return manyGradients(characteristics);
}

bool losslessWebPMayBeat(uint64_t lossyBytes, uint64_t quickLosslessBytes) {
  return double(quickLosslessBytes) <= 4.0 * double(lossyBytes);
}

bool losslessMayWin(ImageFormat format, const ImageCharacteristics& characteristics, const Mode& lossy) {
  switch (format) {
    case ImageFormat::webp:
      return losslessWebPMayWin(characteristics, lossy);
    case ImageFormat::jxl:
      return losslessJXLMayWin(characteristics, lossy);
    default:
      return true;
  }
}

namespace {

// Lossless JPEG XL takes many times the memory of any other encoding (EncodeCost). Where the
// plan's effort would exceed the allowance, lossless runs at the light effort; where that too
// would, the lossy encoding takes its place, unless it would cost more still (a large
// graphic, which libjxl holds in floats at about the light effort's cost).
void keepWithinAllowance(EncodingPlan& plan, const ImageCharacteristics& characteristics,
                         ImageFormat format) {
  if (format != ImageFormat::jxl) return;
  const bool mainLossless = plan.mode.kind == Mode::Kind::lossless;
  const bool alternativeLossless = plan.alternative && plan.alternative->kind == Mode::Kind::lossless;
  if (!mainLossless && !alternativeLossless) return;
  auto cost = [&](const EncodingPlan& p) {
    return EncodeCost::encodingBytes(format, p, Mode::lossless(), characteristics);
  };
  const uint64_t limit =
      EncodeCost::allowance(uint64_t(characteristics.width) * uint64_t(characteristics.height));
  if (cost(plan) <= limit) return;
  plan.lightLossless = true;
  if (cost(plan) <= limit) return;
  const Mode lossy =
      mainLossless
          ? plan.alternative.value_or(Mode::lossy(QualityCalibration::codecQuality(plan.quality, format)))
          : plan.mode;
  if (EncodeCost::encodingBytes(format, plan, lossy, characteristics) > cost(plan)) return;
  plan.lightLossless = false;
  plan.mode = lossy;
  plan.alternative.reset();
}

}  // namespace

EncodingPlan plan(const ImageCharacteristics& characteristics, ImageFormat format, double perceptualQuality) {
  const ContentClass cls = characteristics.contentClass;
  const int64_t pixels = int64_t(characteristics.width) * int64_t(characteristics.height);
  const bool photographic = cls == ContentClass::photo || cls == ContentClass::noisyPhoto;

  EncodingPlan plan;
  const double adjusted = perceptualQuality - (cls == ContentClass::noisyPhoto ? 4.0 : 0.0);
  plan.quality = adjusted >= 1.0 ? std::min(adjusted, 100.0) : 1.0;
  plan.mode = mode(characteristics, format, plan.quality);
  plan.prefersLossless =
      plan.quality >= 95 || (plan.quality >= 85 && characteristics.colorCountSaturated && photographic);
  plan.effort = pixels <= 2'000'000 ? 2 : pixels <= 12'000'000 ? 1 : 0;
  plan.photographic = photographic || cls == ContentClass::illustration;
  plan.continuousTone =
      plan.photographic && (characteristics.colorCountSaturated || characteristics.distinctColorCount > 4096);

  switch (format) {
    case ImageFormat::jpeg:
    case ImageFormat::heic:
    case ImageFormat::avif:
      break;
    case ImageFormat::webp:
    case ImageFormat::jxl:
      if (pixels <= 4'000'000) {
        if (plan.mode.kind == Mode::Kind::lossless) {
          plan.alternative = Mode::lossy(QualityCalibration::codecQuality(plan.quality, format));
        } else if (cls == ContentClass::screenText || cls == ContentClass::illustration) {
          plan.alternative = Mode::lossless();
        }
      }
      break;
    case ImageFormat::png:
      if (pixels <= 500'000) {
        if (plan.prefersLossless) {
          plan.alternative = Mode::lossy(plan.quality);
        } else if (characteristics.noiseLevel < 6.0) {
          plan.alternative = Mode::lossless();
        }
      }
      break;
  }

  // No dithering of the palette but for noisy pictures: at equal bytes each level tried (0.2
  // to 1.0) looked worse than none, by a quarter to a third of the butteraugli distance on
  // photographs and screenshots, the noise it adds costing more bytes than the banding it
  // hides; a noisy drawing, whose own grain hides the dither, needed twice the bytes without
  // it (bench/README.md, "Palette PNG").
  if (cls != ContentClass::noisyPhoto) {
    plan.dithering = 0.0f;
  } else if (characteristics.gradientFraction > 0.25) {
    plan.dithering = 1.0f;
  } else {
    plan.dithering = 0.7f;
  }
  keepWithinAllowance(plan, characteristics, format);
  return plan;
}

}  // namespace EncodingStrategy
}  // namespace quillane
