// What the analyzer measures of a picture, the encoding the strategy plans from it, the cost model
// that keeps encodes within the allowance, and writers that give a consumed picture back without
// changing a byte of what they write.

#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "engine/EncodeCost.h"
#include "engine/Encoders.h"
#include "engine/EncodingStrategy.h"
#include "engine/ImageDecoder.h"
#include "engine/PageRelease.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

using ContentClass = ImageCharacteristics::ContentClass;
using Color = std::array<uint8_t, 3>;
using Mode = EncodingPlan::Mode;

void set(RGBABuffer& buffer, int x, int y, Color color, uint8_t alpha = 255) {
  uint8_t* p = &buffer.pixels[(size_t(y) * size_t(buffer.width) + size_t(x)) * 4];
  p[0] = color[0], p[1] = color[1], p[2] = color[2], p[3] = alpha;
}

double luma(Color c) { return 0.299 * c[0] + 0.587 * c[1] + 0.114 * c[2]; }

TEST(ImageAnalyzerSampling, TinyPicturesAreFlatAndThreeByThreeSamplesOnlyTheCentre) {
  RGBABuffer tiny(solid(2, 2, 0, 0, 0));
  set(tiny, 1, 1, {255, 255, 255}, 0);
  tiny.hasAlpha = true;
  ImageCharacteristics c = ImageAnalyzer::analyze(tiny);
  EXPECT_EQ(c.contentClass, ContentClass::flatGraphic);
  EXPECT_EQ(c.distinctColorCount, 1);
  EXPECT_TRUE(c.hasAlpha);

  RGBABuffer buffer(solid(3, 3, 0, 0, 0));
  for (int i = 0; i < 9; ++i) set(buffer, i % 3, i / 3, {uint8_t(i * 30), 7, 7}, i == 4 ? 255 : 128);
  c = ImageAnalyzer::analyze(buffer);
  EXPECT_EQ(c.distinctColorCount, 1);
  EXPECT_FALSE(c.hasPartialAlpha) << "the border's partial alpha is never sampled";
  set(buffer, 1, 1, {120, 7, 7}, 1);
  EXPECT_TRUE(ImageAnalyzer::analyze(buffer).hasPartialAlpha);
}

// Luma steps: a 3 by 3 picture whose centre differs from its ring by exactly g.
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
    RGBABuffer buffer(solid(3, 3, k.ring[0], k.ring[1], k.ring[2]));
    set(buffer, 1, 1, k.centre);
    const ImageCharacteristics c = ImageAnalyzer::analyze(buffer);
    EXPECT_EQ(c.flatFraction, k.flat ? 1.0 : 0.0);
    EXPECT_EQ(c.edgeFraction, k.edge ? 1.0 : 0.0);
    EXPECT_EQ(c.gradientFraction, k.gradient ? 1.0 : 0.0);
    // An edge adds nothing to the noise; otherwise the Laplacian is 4g.
    EXPECT_NEAR(c.noiseLevel, k.edge ? 0.0 : 4 * std::abs(luma(k.centre) - luma(k.ring)), 1e-9);
  }
}

// A 500 x 500 black picture with `dots` single pixels of distinct colours on a grid of
// sample positions, three apart: mostly flat, with hard edges around each dot.
RGBABuffer dottedPicture(int dots) {
  RGBABuffer buffer(solid(500, 500, 0, 0, 0));
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

ImageCharacteristics picture(ContentClass cls, int64_t width, int height = 1, double noise = 0,
                             double flat = 0.5, bool saturated = false) {
  ImageCharacteristics c{.width = int(width), .height = height, .contentClass = cls};
  c.colorCountSaturated = saturated, c.flatFraction = flat, c.noiseLevel = noise;
  return c;
}

TEST(EncodingStrategy, QualityIsClampedToOneAndNearLosslessIsAWebPModeOnly) {
  using EncodingStrategy::plan;
  const auto noisy = picture(ContentClass::noisyPhoto, 100, 100, 12, 0, true);
  EXPECT_EQ(plan(noisy, ImageFormat::png, 3).quality, 1);
  EXPECT_EQ(plan(noisy, ImageFormat::jpeg, std::numeric_limits<double>::quiet_NaN()).quality, 1);
  EXPECT_EQ(plan(picture(ContentClass::photo, 10), ImageFormat::jpeg, 0).mode, Mode::lossy(1));

  const auto text = [](double flat) { return picture(ContentClass::screenText, 100, 100, 0, flat); };
  EXPECT_EQ(EncodingStrategy::mode(text(0.9), ImageFormat::webp, 85), Mode::nearLossless(60));
  EXPECT_EQ(EncodingStrategy::mode(text(0.56), ImageFormat::webp, 97), Mode::lossless());
  EXPECT_EQ(EncodingStrategy::mode(text(0.9), ImageFormat::jxl, 96), Mode::lossy(96));
  EXPECT_EQ(EncodingStrategy::mode(text(0.55), ImageFormat::jxl, 97), Mode::lossy(97));
}

TEST(EncodingStrategy, LossyAndLosslessCompeteWhereTheClassAllows) {
  using EncodingStrategy::plan;
  for (ImageFormat format : {ImageFormat::webp, ImageFormat::jxl}) {
    EXPECT_EQ(plan(picture(ContentClass::flatGraphic, 100), format, 70).alternative, Mode::lossy(70));
    EXPECT_EQ(plan(picture(ContentClass::illustration, 100), format, 70).alternative, Mode::lossless());
    EXPECT_FALSE(plan(picture(ContentClass::photo, 100), format, 70).alternative);
  }
  const auto png = [](double noise, bool saturated, double p) {
    return plan(picture(ContentClass::photo, 100, 1, noise, 0, saturated), ImageFormat::png, p);
  };
  EXPECT_EQ(png(5.99, false, 70).alternative, Mode::lossless());
  EXPECT_FALSE(png(6.0, false, 70).alternative) << "from a noise of 6, lossless is not tried";
  EXPECT_EQ(png(6.0, true, 90).alternative, Mode::lossy(90)) << "lossless main: the palette competes";

  // A lossless WebP is left out only where gradients, size and a modest lossy quality all say it loses.
  const auto mayWin = [](int width, double gradients, Mode lossy) {
    auto c = picture(ContentClass::screenText, width, 128);
    c.gradientFraction = gradients;
    return EncodingStrategy::losslessWebPMayWin(c, lossy);
  };
  EXPECT_FALSE(mayWin(128, 0.031, Mode::lossy(85)));
  EXPECT_TRUE(mayWin(128, 0.5, Mode::lossy(86))) << "above 85 only among many colours";
  EXPECT_TRUE(mayWin(127, 0.5, Mode::lossy(80))) << "below 16,384 pixels";
  EXPECT_FALSE(mayWin(127, 0.0, Mode::nearLossless(60))) << "never against near-lossless";

  // JPEG XL's lossless coder keeps its chance on a picture of few colours, gradients or not.
  auto fewColours = picture(ContentClass::screenText, 128, 128);
  fewColours.gradientFraction = 0.2;
  fewColours.distinctColorCount = 1'024;
  EXPECT_TRUE(EncodingStrategy::losslessMayWin(ImageFormat::jxl, fewColours, Mode::lossy(80)));
  EXPECT_FALSE(EncodingStrategy::losslessMayWin(ImageFormat::webp, fewColours, Mode::lossy(80)));
  fewColours.distinctColorCount = 1'025;
  EXPECT_FALSE(EncodingStrategy::losslessMayWin(ImageFormat::jxl, fewColours, Mode::lossy(80)));
  EXPECT_TRUE(EncodingStrategy::losslessMayWin(ImageFormat::jxl, fewColours, Mode::lossy(81)));
  EXPECT_FALSE(EncodingStrategy::losslessMayWin(ImageFormat::webp, fewColours, Mode::lossy(100)));

  // The full lossless encoding follows a quick one only where that is near enough the lossy
  // bytes, nearer among many colours, whose lossless gains less from the plan's effort.
  EXPECT_TRUE(EncodingStrategy::losslessJXLMayBeat(fewColours, 1'000, 2'200));
  EXPECT_FALSE(EncodingStrategy::losslessJXLMayBeat(fewColours, 1'000, 2'201));
  fewColours.distinctColorCount = 1'024;
  EXPECT_TRUE(EncodingStrategy::losslessJXLMayBeat(fewColours, 1'000, 3'000));
  EXPECT_FALSE(EncodingStrategy::losslessJXLMayBeat(fewColours, 1'000, 3'001));

  // Continuous tone (AVIF's careful speed on large pictures) needs many colours: a noisy drawing
  // of few colours would start aom's screen content search; a screenshot never has it.
  const auto continuous = [](ContentClass cls, int colours, bool saturated) {
    auto c = picture(cls, 2000, 1500, 0, 0, saturated);
    c.distinctColorCount = colours;
    return plan(c, ImageFormat::avif, 75).continuousTone;
  };
  EXPECT_TRUE(continuous(ContentClass::photo, 16'384, true));
  EXPECT_TRUE(continuous(ContentClass::illustration, 4'097, false));
  EXPECT_FALSE(continuous(ContentClass::noisyPhoto, 437, false));
  EXPECT_FALSE(continuous(ContentClass::screenText, 16'384, true));
}

using Kind = EncodingPlan::Mode::Kind;

ImageCharacteristics characteristicsOf(int width, int height, ContentClass c, bool alpha = false) {
  auto ch = picture(c, width, height, 0,
                    c == ContentClass::flatGraphic || c == ContentClass::screenText ? 0.9 : 0.1);
  ch.hasAlpha = ch.hasPartialAlpha = alpha;
  return ch;
}

constexpr ContentClass kClasses[] = {ContentClass::flatGraphic, ContentClass::screenText,
                                     ContentClass::illustration, ContentClass::photo,
                                     ContentClass::noisyPhoto};
constexpr int kSides[][2] = {{300, 200},   {1000, 1000}, {1600, 1200},
                             {2500, 2000}, {4000, 3000}, {8000, 8000}};

// For every size, class and alpha: the claim made from the source's header covers the plan of
// every format, and each lossless JPEG XL encoding the strategy plans fits the allowance, or,
// where nothing does, costs no more than the lossy encoding of the same picture would.
TEST(EncodeCost, PlansFitTheAllowanceAndTheClaimCoversThem) {
  for (const auto& side : kSides) {
    const uint64_t limit = EncodeCost::allowance(uint64_t(side[0]) * uint64_t(side[1]));
    const EncodeCost::Source source{ImageFormat::jpeg, side[0], side[1], 1'000'000};
    for (const ContentClass c : kClasses) {
      for (const bool alpha : {false, true}) {
        SCOPED_TRACE(::testing::Message() << side[0] << "x" << side[1] << " " << ImageCharacteristics::name(c)
                                          << (alpha ? " with alpha" : ""));
        const ImageCharacteristics ch = characteristicsOf(side[0], side[1], c, alpha);
        for (const ImageFormat target : ImageFormats::allCases) {
          const EncodingPlan plan = EncodingStrategy::plan(ch, target, 75);
          EXPECT_GE(EncodeCost::peakBytes(source, target, 75),
                    source.fileBytes + EncodeCost::encodingBytes(target, plan, plan.mode, ch))
              << ImageFormats::label(target);
        }
        for (const double quality : {75.0, 98.0}) {
          const EncodingPlan plan = EncodingStrategy::plan(ch, ImageFormat::jxl, quality);
          const uint64_t lossy =
              EncodeCost::encodingBytes(ImageFormat::jxl, plan, EncodingPlan::Mode::lossy(quality), ch);
          for (const auto* mode : {&plan.mode, plan.alternative ? &*plan.alternative : nullptr}) {
            if (!mode || mode->kind != Kind::lossless) continue;
            EXPECT_LE(EncodeCost::encodingBytes(ImageFormat::jxl, plan, *mode, ch), std::max(limit, lossy));
          }
        }
      }
    }
  }
  // A small graphic keeps its full-effort lossless encoding and its lossy competitor; the
  // 64-megapixel flat picture of a few bytes is lossless at the light effort, not in 11 GB.
  const auto jxlPlan = [](int width, int height, ContentClass c) {
    return EncodingStrategy::plan(characteristicsOf(width, height, c), ImageFormat::jxl, 75);
  };
  const EncodingPlan small = jxlPlan(1000, 1000, ContentClass::flatGraphic),
                     flat = jxlPlan(8000, 8000, ContentClass::flatGraphic);
  EXPECT_EQ(small.mode.kind, Kind::lossless);
  EXPECT_FALSE(small.lightLossless);
  EXPECT_TRUE(small.alternative);
  EXPECT_FALSE(jxlPlan(3840, 2160, ContentClass::screenText).lightLossless);
  EXPECT_TRUE(flat.mode.kind == Kind::lossy || flat.lightLossless);
}

TEST(EncodeCost, AFileIsClaimedFromItsHeaderAndSize) {
  TempDir dir;
  const std::string path = dir.write("photo.jpg", fixtures::jpeg(makeImage(640, 480, Pattern::photo)));
  EXPECT_EQ(EncodeCost::peakBytes(path, ImageFormat::avif, 75),
            EncodeCost::peakBytes({ImageFormat::jpeg, 640, 480, uint64_t(ImageDecoder::fileSize(path))},
                                  ImageFormat::avif, 75));
  EXPECT_FALSE(EncodeCost::peakBytes(dir.write("text.jpg", {'n', 'o'}), ImageFormat::avif, 75));
}

TEST(PageRelease, GivesBackOnlyWholePagesInsideTheRange) {
  std::vector<uint8_t> bytes(5 << 20, 7);
  PageRelease::release(bytes.data() + 100, bytes.size() - 200);
  EXPECT_EQ(bytes[99], 7);
  EXPECT_EQ(bytes[bytes.size() - 100], 7);
  EXPECT_EQ(bytes[bytes.size() / 2], 0);  // released, so it reads as zero
}

// Writers that consume their picture write the same bytes as when they only read it; the
// pictures are large enough that rows really go back while the library still works.
TEST(ConsumingEncoders, WriteTheSameBytes) {
  const DecodedImage photo = texturedPhoto(800, 500);
  const DecodedImage withAlpha = makeImage(800, 500, Pattern::flatLogo, 1, true);
  const EncodingPlan lossy = makePlan(EncodingPlan::Mode::lossy(80));
  for (const ImageFormat format : {ImageFormat::jpeg, ImageFormat::heic, ImageFormat::avif})
    for (const DecodedImage* source : {&photo, &withAlpha}) {
      const bool alpha = source->alpha != AlphaInfo::none;
      EXPECT_EQ(NativeImageIOEncoder::encode(DecodedImage(*source), alpha, format, lossy),
                NativeImageIOEncoder::encode(*source, alpha, format, lossy))
          << ImageFormats::label(format) << (alpha ? " with alpha" : "");
    }
  // JPEG XL: the opaque photo lossy (its samples copied without alpha), the logo lossless.
  for (const auto& [source, mode] : {std::pair{&photo, EncodingPlan::Mode::lossy(80)},
                                     std::pair{&withAlpha, EncodingPlan::Mode::lossless()}}) {
    const RGBABuffer rgba(*source);
    const EncodingPlan plan = makePlan(mode, 0);
    EXPECT_EQ(JXLEncoder::encode(RGBABuffer(rgba), rgba.hasAlpha, plan),
              JXLEncoder::encode(rgba, rgba.hasAlpha, plan));
  }
}

}  // namespace
}  // namespace quillane::testing
