// What the analyzer measures of a picture, and the encoding the strategy plans from it.

#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "engine/EncodingStrategy.h"

namespace quillane {
namespace {

using ContentClass = ImageCharacteristics::ContentClass;
using Color = std::array<uint8_t, 3>;
using Mode = EncodingPlan::Mode;

void set(RGBABuffer& buffer, int x, int y, Color color, uint8_t alpha = 255) {
  uint8_t* p = &buffer.pixels[(size_t(y) * size_t(buffer.width) + size_t(x)) * 4];
  p[0] = color[0], p[1] = color[1], p[2] = color[2], p[3] = alpha;
}

RGBABuffer solid(int width, int height, Color color) {
  RGBABuffer buffer;
  buffer.width = width, buffer.height = height;
  buffer.pixels.resize(size_t(width) * size_t(height) * 4);
  for (int i = 0; i < width * height; ++i) set(buffer, i % width, i / width, color);
  return buffer;
}

double luma(Color c) { return 0.299 * c[0] + 0.587 * c[1] + 0.114 * c[2]; }

// ---- Small pictures and sampling ----

TEST(ImageAnalyzerSampling, TinyPicturesAreFlatAndThreeByThreeSamplesOnlyTheCentre) {
  RGBABuffer tiny = solid(2, 2, {0, 0, 0});
  set(tiny, 1, 1, {255, 255, 255}, 0);
  tiny.hasAlpha = true;
  ImageCharacteristics c = ImageAnalyzer::analyze(tiny);
  EXPECT_EQ(c.contentClass, ContentClass::flatGraphic);
  EXPECT_EQ(c.distinctColorCount, 1);
  EXPECT_TRUE(c.hasAlpha);

  RGBABuffer buffer = solid(3, 3, {0, 0, 0});
  for (int i = 0; i < 9; ++i) set(buffer, i % 3, i / 3, {uint8_t(i * 30), 7, 7}, i == 4 ? 255 : 128);
  c = ImageAnalyzer::analyze(buffer);
  EXPECT_EQ(c.distinctColorCount, 1);
  EXPECT_FALSE(c.hasPartialAlpha) << "the border's partial alpha is never sampled";
  set(buffer, 1, 1, {120, 7, 7}, 1);
  EXPECT_TRUE(ImageAnalyzer::analyze(buffer).hasPartialAlpha);
}

// ---- Luma steps: a 3 by 3 picture whose centre differs from its ring by exactly g ----

TEST(ImageAnalyzerLumaStep, ThresholdsAreHitExactly) {
  struct {
    const char* name;
    Color centre, ring;
    bool flat, edge, gradient;
  } const cases[] = {
      {"same", {50, 60, 70}, {50, 60, 70}, true, false, false},
      // Colours whose lumas differ by 0.5 and 24.0 exactly in double.
      {"exactlyHalf", {8, 0, 4}, {0, 4, 0}, false, false, true},
      {"justAboveFour", {0, 0, 36}, {0, 0, 0}, false, false, false},
      {"justBelowEdge", {0, 0, 210}, {0, 0, 0}, false, false, false},
      {"exactlyEdge", {13, 23, 58}, {0, 0, 0}, false, true, false},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    RGBABuffer buffer = solid(3, 3, k.ring);
    set(buffer, 1, 1, k.centre);
    const ImageCharacteristics c = ImageAnalyzer::analyze(buffer);
    EXPECT_EQ(c.flatFraction, k.flat ? 1.0 : 0.0);
    EXPECT_EQ(c.edgeFraction, k.edge ? 1.0 : 0.0);
    EXPECT_EQ(c.gradientFraction, k.gradient ? 1.0 : 0.0);
    // An edge adds nothing to the noise; otherwise the Laplacian is 4g.
    EXPECT_NEAR(c.noiseLevel, k.edge ? 0.0 : 4 * std::abs(luma(k.centre) - luma(k.ring)), 1e-9);
  }
}

// ---- Colour counting ----

// A 500 x 500 black picture with `dots` single pixels of distinct colours on a grid of
// sample positions, three apart: mostly flat, with hard edges around each dot.
RGBABuffer dottedPicture(int dots) {
  RGBABuffer buffer = solid(500, 500, {0, 0, 0});
  for (int i = 0; i < dots; ++i) {
    const int x = 1 + 3 * (i % 166), y = 1 + 3 * (i / 166);
    set(buffer, x, y, {uint8_t(i % 256), uint8_t(40 + i / 256), 200});
  }
  return buffer;
}

TEST(ImageAnalyzerColors, CountsUpToSaturation) {
  struct {
    int distinct;  // black included
    int counted;
    bool saturated;
    ContentClass expected;
  } const cases[] = {{4096, 4096, false, ContentClass::flatGraphic},
                     {4097, 4097, false, ContentClass::screenText},
                     {20000, 16384, true, ContentClass::screenText}};
  for (const auto& k : cases) {
    const ImageCharacteristics c = ImageAnalyzer::analyze(dottedPicture(k.distinct - 1));
    EXPECT_EQ(c.distinctColorCount, k.counted) << k.distinct;
    EXPECT_EQ(c.colorCountSaturated, k.saturated) << k.distinct;
    EXPECT_GT(c.flatFraction, 0.7);
    EXPECT_EQ(c.contentClass, k.expected) << k.distinct;
  }
}

// ---- The strategy ----

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
