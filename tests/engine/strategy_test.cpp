#include <gtest/gtest.h>

#include <limits>

#include "engine/EncodingStrategy.h"

namespace quillane {
namespace {

using ContentClass = ImageCharacteristics::ContentClass;
using Mode = EncodingPlan::Mode;

ImageCharacteristics picture(ContentClass cls, int64_t width, int height = 1, double noise = 0, double flat = 0.5,
                             bool saturated = false) {
  ImageCharacteristics c;
  c.width = int(width);
  c.height = height;
  c.contentClass = cls;
  c.noiseLevel = noise;
  c.flatFraction = flat;
  c.colorCountSaturated = saturated;
  return c;
}

struct WorkedPlan {
  const char* name;
  ImageCharacteristics picture;
  ImageFormat format;
  double p, quality;
  Mode mode;
  int effort;
  std::optional<Mode> alternative;
};

class EncodingStrategyWorked : public ::testing::TestWithParam<WorkedPlan> {};

TEST_P(EncodingStrategyWorked, MatchesTheHandComputedPlan) {
  const WorkedPlan& k = GetParam();
  const EncodingPlan plan = EncodingStrategy::plan(k.picture, k.format, k.p);
  EXPECT_EQ(plan.quality, k.quality);
  EXPECT_EQ(plan.mode, k.mode);
  EXPECT_EQ(plan.effort, k.effort);
  EXPECT_EQ(plan.alternative, k.alternative);
  EXPECT_FALSE(plan.prefersLossless);
}

INSTANTIATE_TEST_SUITE_P(
    Plans, EncodingStrategyWorked,
    ::testing::Values(WorkedPlan{"photoWebP", picture(ContentClass::photo, 4000, 3000, 5), ImageFormat::webp, 80, 80,
                                 Mode::lossy(80), 1, std::nullopt},
                      WorkedPlan{"screenTextWebP", picture(ContentClass::screenText, 1000, 1000), ImageFormat::webp,
                                 90, 90, Mode::nearLossless(60), 2, Mode::lossless()},
                      WorkedPlan{"flatGraphicPNG", picture(ContentClass::flatGraphic, 400, 400), ImageFormat::png, 80,
                                 80, Mode::lossy(80), 2, Mode::lossless()},
                      WorkedPlan{"noisyPhotoJXL", picture(ContentClass::noisyPhoto, 5000, 4000, 12), ImageFormat::jxl,
                                 60, 56, Mode::lossy(56), 0, std::nullopt},
                      WorkedPlan{"tinyWebP", picture(ContentClass::flatGraphic, 2, 2), ImageFormat::webp, 50, 50,
                                 Mode::lossless(), 2, Mode::lossy(50)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EncodingStrategyQuality, NoisyPhotosLoseFourPointsWithinOneToHundred) {
  const auto noisy = picture(ContentClass::noisyPhoto, 100, 100, 12, 0, true);
  EncodingPlan plan = EncodingStrategy::plan(noisy, ImageFormat::png, 100);
  EXPECT_EQ(plan.quality, 96);
  EXPECT_TRUE(plan.prefersLossless);
  EXPECT_EQ(EncodingStrategy::plan(noisy, ImageFormat::png, 3).quality, 1);
  plan = EncodingStrategy::plan(picture(ContentClass::photo, 10), ImageFormat::jpeg, 0);
  EXPECT_EQ(plan.mode, Mode::lossy(1));
  EXPECT_FALSE(plan.prefersLossless);
  EXPECT_EQ(EncodingStrategy::plan(noisy, ImageFormat::jpeg, std::numeric_limits<double>::quiet_NaN()).quality, 1);
}

TEST(EncodingStrategyQuality, SaturatedPhotosPreferLosslessFrom85) {
  const auto prefers = [](ContentClass cls, bool saturated, double p) {
    return EncodingStrategy::plan(picture(cls, 10, 10, 0, 0, saturated), ImageFormat::png, p).prefersLossless;
  };
  EXPECT_TRUE(prefers(ContentClass::photo, true, 85));
  EXPECT_FALSE(prefers(ContentClass::photo, true, 84.99));
  EXPECT_FALSE(prefers(ContentClass::photo, false, 94.99));
  EXPECT_TRUE(prefers(ContentClass::noisyPhoto, true, 89));  // 85 after the noise adjustment
  EXPECT_FALSE(prefers(ContentClass::illustration, true, 94));
  EXPECT_TRUE(prefers(ContentClass::illustration, false, 95));
}

struct ModeCase {
  const char* name;
  ContentClass cls;
  double flat;
  ImageFormat format;
  double q;
  Mode expected;
};

class EncodingStrategyMode : public ::testing::TestWithParam<ModeCase> {};

TEST_P(EncodingStrategyMode, PicksTheMainEncoding) {
  const ModeCase& k = GetParam();
  EXPECT_EQ(EncodingStrategy::mode(picture(k.cls, 100, 100, 0, k.flat), k.format, k.q), k.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, EncodingStrategyMode,
    ::testing::Values(
        ModeCase{"webpText84", ContentClass::screenText, 0.9, ImageFormat::webp, 84, Mode::lossy(84)},
        ModeCase{"webpText85", ContentClass::screenText, 0.9, ImageFormat::webp, 85, Mode::nearLossless(60)},
        ModeCase{"webpText97Flat", ContentClass::screenText, 0.56, ImageFormat::webp, 97, Mode::lossless()},
        ModeCase{"webpText97At55", ContentClass::screenText, 0.55, ImageFormat::webp, 97, Mode::nearLossless(60)},
        ModeCase{"jxlText96", ContentClass::screenText, 0.9, ImageFormat::jxl, 96, Mode::lossy(96)},
        ModeCase{"jxlText97At55", ContentClass::screenText, 0.55, ImageFormat::jxl, 97, Mode::lossy(97)},
        ModeCase{"jpegFlatGraphic", ContentClass::flatGraphic, 0.9, ImageFormat::jpeg, 70, Mode::lossy(70)},
        ModeCase{"pngFlatGraphic", ContentClass::flatGraphic, 1, ImageFormat::png, 40, Mode::lossy(40)}),
    [](const auto& info) { return std::string(info.param.name); });

struct SizeCase {
  int64_t pixels;
  int effort;
  bool webpAlternative;  // screenText
  bool pngAlternative;   // smooth picture, palette main
};

class EncodingStrategySize : public ::testing::TestWithParam<SizeCase> {};

TEST_P(EncodingStrategySize, BigPicturesGetLessWorkAndOneEncoding) {
  const SizeCase& k = GetParam();
  const auto text = picture(ContentClass::screenText, k.pixels);  // N by 1: only the product counts
  const EncodingPlan webp = EncodingStrategy::plan(text, ImageFormat::webp, 75);
  EXPECT_EQ(webp.effort, k.effort);
  EXPECT_EQ(webp.alternative.has_value(), k.webpAlternative);
  EXPECT_EQ(EncodingStrategy::plan(text, ImageFormat::jxl, 75).alternative.has_value(), k.webpAlternative);
  const auto smooth = picture(ContentClass::illustration, k.pixels, 1, 1.0);
  EXPECT_EQ(EncodingStrategy::plan(smooth, ImageFormat::png, 75).alternative.has_value(), k.pngAlternative);
  EXPECT_FALSE(EncodingStrategy::plan(text, ImageFormat::avif, 75).alternative);
}

INSTANTIATE_TEST_SUITE_P(Boundaries, EncodingStrategySize,
                         ::testing::Values(SizeCase{500'000, 2, true, true}, SizeCase{500'001, 2, true, false},
                                           SizeCase{2'000'000, 2, true, false}, SizeCase{2'000'001, 1, true, false},
                                           SizeCase{4'000'000, 1, true, false}, SizeCase{4'000'001, 1, false, false},
                                           SizeCase{12'000'000, 1, false, false},
                                           SizeCase{12'000'001, 0, false, false}));

TEST(EncodingStrategyAlternative, LossyAndLosslessCompeteWhereTheClassAllows) {
  for (ImageFormat format : {ImageFormat::webp, ImageFormat::jxl}) {
    EXPECT_EQ(EncodingStrategy::plan(picture(ContentClass::flatGraphic, 100), format, 70).alternative, Mode::lossy(70));
    EXPECT_EQ(EncodingStrategy::plan(picture(ContentClass::illustration, 100), format, 70).alternative,
              Mode::lossless());
    EXPECT_FALSE(EncodingStrategy::plan(picture(ContentClass::photo, 100), format, 70).alternative);
  }
  const auto png = [](double noise, bool saturated, double p) {
    return EncodingStrategy::plan(picture(ContentClass::photo, 100, 1, noise, 0, saturated), ImageFormat::png, p);
  };
  EXPECT_EQ(png(5.99, false, 70).alternative, Mode::lossless());
  EXPECT_FALSE(png(6.0, false, 70).alternative);
  EXPECT_EQ(png(6.0, true, 90).alternative, Mode::lossy(90)) << "lossless main: the palette competes";
}

TEST(EncodingStrategyDithering, FlatGraphicsWithoutGradientsDitherLeast) {
  const auto dithering = [](ContentClass cls, double gradient) {
    ImageCharacteristics c = picture(cls, 100);
    c.gradientFraction = gradient;
    return EncodingStrategy::plan(c, ImageFormat::png, 75).dithering;
  };
  EXPECT_EQ(dithering(ContentClass::flatGraphic, 0.049), 0.2f);
  EXPECT_EQ(dithering(ContentClass::flatGraphic, 0.05), 0.7f);
  EXPECT_EQ(dithering(ContentClass::photo, 0.0), 0.7f);
  EXPECT_EQ(dithering(ContentClass::photo, 0.25), 0.7f);
  EXPECT_EQ(dithering(ContentClass::flatGraphic, 0.2501), 1.0f);
}

TEST(QualityCalibration, PassesThePerceptualValueClampedToCodecRange) {
  for (ImageFormat format : ImageFormats::allCases) {
    EXPECT_EQ(QualityCalibration::codecQuality(50, format), 50) << ImageFormats::rawValue(format);
    EXPECT_EQ(QualityCalibration::codecQuality(95.5, format), 95.5);
    EXPECT_EQ(QualityCalibration::codecQuality(100.01, format), 100);
    EXPECT_EQ(QualityCalibration::codecQuality(-0.5, format), 0);
  }
}

}  // namespace
}  // namespace quillane
