#include <gtest/gtest.h>

#include <limits>

#include "engine/EncodingStrategy.h"

namespace quillane {
namespace {

using ContentClass = ImageCharacteristics::ContentClass;
using Mode = EncodingPlan::Mode;

ImageCharacteristics picture(ContentClass cls, int64_t width, int height = 1, double noise = 0,
                             double flat = 0.5, bool saturated = false) {
  ImageCharacteristics c;
  c.width = int(width), c.height = height;
  c.contentClass = cls;
  c.noiseLevel = noise, c.flatFraction = flat;
  c.colorCountSaturated = saturated;
  return c;
}

TEST(EncodingStrategy, QualityIsClampedToOneEvenAfterTheNoiseAdjustmentOrWhenNotANumber) {
  const auto noisy = picture(ContentClass::noisyPhoto, 100, 100, 12, 0, true);
  EXPECT_EQ(EncodingStrategy::plan(noisy, ImageFormat::png, 3).quality, 1);
  EXPECT_EQ(
      EncodingStrategy::plan(noisy, ImageFormat::jpeg, std::numeric_limits<double>::quiet_NaN()).quality, 1);
  EXPECT_EQ(EncodingStrategy::plan(picture(ContentClass::photo, 10), ImageFormat::jpeg, 0).mode,
            Mode::lossy(1));
}

TEST(EncodingStrategy, NearLosslessIsAWebPModeOnly) {
  const auto text = [](double flat) { return picture(ContentClass::screenText, 100, 100, 0, flat); };
  EXPECT_EQ(EncodingStrategy::mode(text(0.9), ImageFormat::webp, 85), Mode::nearLossless(60));
  EXPECT_EQ(EncodingStrategy::mode(text(0.56), ImageFormat::webp, 97), Mode::lossless());
  EXPECT_EQ(EncodingStrategy::mode(text(0.9), ImageFormat::jxl, 96), Mode::lossy(96));
  EXPECT_EQ(EncodingStrategy::mode(text(0.55), ImageFormat::jxl, 97), Mode::lossy(97));
}

TEST(EncodingStrategy, LossyAndLosslessCompeteWhereTheClassAllows) {
  for (ImageFormat format : {ImageFormat::webp, ImageFormat::jxl}) {
    EXPECT_EQ(EncodingStrategy::plan(picture(ContentClass::flatGraphic, 100), format, 70).alternative,
              Mode::lossy(70));
    EXPECT_EQ(EncodingStrategy::plan(picture(ContentClass::illustration, 100), format, 70).alternative,
              Mode::lossless());
    EXPECT_FALSE(EncodingStrategy::plan(picture(ContentClass::photo, 100), format, 70).alternative);
  }
  const auto png = [](double noise, bool saturated, double p) {
    return EncodingStrategy::plan(picture(ContentClass::photo, 100, 1, noise, 0, saturated), ImageFormat::png,
                                  p);
  };
  EXPECT_EQ(png(5.99, false, 70).alternative, Mode::lossless());
  EXPECT_EQ(png(6.0, true, 90).alternative, Mode::lossy(90)) << "lossless main: the palette competes";

  // A lossless WebP is left out only where gradients, size and a modest lossy quality all say
  // it loses.
  const auto mayWin = [](int width, double gradients, Mode lossy) {
    auto c = picture(ContentClass::screenText, width, 128);
    c.gradientFraction = gradients;
    return EncodingStrategy::losslessWebPMayWin(c, lossy);
  };
  EXPECT_FALSE(mayWin(128, 0.031, Mode::lossy(80)));
  EXPECT_TRUE(mayWin(127, 0.5, Mode::lossy(80))) << "below 16,384 pixels";
  EXPECT_TRUE(mayWin(128, 0.5, Mode::nearLossless(60)));

  // JPEG XL's lossless coder keeps its chance on a picture of few colours, gradients or not.
  auto fewColours = picture(ContentClass::screenText, 128, 128);
  fewColours.gradientFraction = 0.2;
  fewColours.distinctColorCount = 1'024;
  EXPECT_TRUE(EncodingStrategy::losslessMayWin(ImageFormat::jxl, fewColours, Mode::lossy(80)));
  EXPECT_FALSE(EncodingStrategy::losslessMayWin(ImageFormat::webp, fewColours, Mode::lossy(80)));
  fewColours.distinctColorCount = 1'025;
  EXPECT_FALSE(EncodingStrategy::losslessMayWin(ImageFormat::jxl, fewColours, Mode::lossy(80)));
  EXPECT_TRUE(EncodingStrategy::losslessMayWin(ImageFormat::jxl, fewColours, Mode::lossy(81)));
}

}  // namespace
}  // namespace quillane
