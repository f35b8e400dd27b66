#include <gtest/gtest.h>

#include <array>

#include "engine/EncodingStrategy.h"

namespace quillane {
namespace {

using ContentClass = ImageCharacteristics::ContentClass;
using Color = std::array<uint8_t, 3>;

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

}  // namespace
}  // namespace quillane
