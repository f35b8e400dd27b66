#include <gtest/gtest.h>

#include <cstring>

#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/WebPEncoderConfig.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

using Class = ImageCharacteristics::ContentClass;
using Mode = EncodingPlan::Mode;

ImageCharacteristics characteristics(Class contentClass, bool hasAlpha = false) {
  ImageCharacteristics c;
  c.contentClass = contentClass;
  c.hasAlpha = hasAlpha;
  return c;
}

EncodingPlan plan(Mode mode, int effort = 2) {
  EncodingPlan p;
  p.mode = mode;
  p.effort = effort;
  return p;
}

TEST(WebPConfigTable, PresetByContentClassLeavesOtherFieldsAsThePresetSetsThem) {
  const std::pair<ImageCharacteristics, WebPPreset> cases[] = {
      {characteristics(Class::flatGraphic, true), WEBP_PRESET_ICON},
      {characteristics(Class::flatGraphic, false), WEBP_PRESET_TEXT},
      {characteristics(Class::screenText, true), WEBP_PRESET_TEXT},
      {characteristics(Class::illustration), WEBP_PRESET_DRAWING},
      {characteristics(Class::photo), WEBP_PRESET_PHOTO},
      {characteristics(Class::noisyPhoto), WEBP_PRESET_PHOTO},
  };
  for (const auto& [c, preset] : cases) {
    WebPConfig expected;
    std::memset(&expected, 0, sizeof expected);
    ASSERT_TRUE(WebPConfigPreset(&expected, preset, 75.f));
    WebPConfig actual = WebPEncoder::makeConfig(plan(Mode::lossy(60)), c, false);
    // Only the mode's fields move; everything the preset chose (sns, filters, sharp YUV) stays.
    EXPECT_EQ(actual.sns_strength, expected.sns_strength) << int(preset);
    EXPECT_EQ(actual.filter_sharpness, expected.filter_sharpness) << int(preset);
    EXPECT_EQ(actual.use_sharp_yuv, expected.use_sharp_yuv) << int(preset);
    actual.quality = expected.quality, actual.method = expected.method, actual.alpha_quality = expected.alpha_quality;
    EXPECT_EQ(std::memcmp(&actual, &expected, sizeof actual), 0) << int(preset);
  }
}

TEST(WebPConfigTable, FieldsByMode) {
  const auto photo = characteristics(Class::photo);
  // lossy: method 4 with alpha at any effort, else effort + 4; alpha plane never loses detail
  WebPConfig c = WebPEncoder::makeConfig(plan(Mode::lossy(62.5), 2), photo, true);
  EXPECT_EQ(c.lossless, 0);
  EXPECT_FLOAT_EQ(c.quality, 62.5f);
  EXPECT_EQ(c.method, 4);
  EXPECT_EQ(c.alpha_quality, 100);
  EXPECT_EQ(c.exact, 0);
  EXPECT_EQ(WebPEncoder::makeConfig(plan(Mode::lossy(50), 2), photo, false).method, 6);
  EXPECT_EQ(WebPEncoder::makeConfig(plan(Mode::lossy(50), 0), photo, false).method, 4);
  EXPECT_FLOAT_EQ(WebPEncoder::makeConfig(plan(Mode::lossy(140)), photo, false).quality, 100.f);
  EXPECT_FLOAT_EQ(WebPEncoder::makeConfig(plan(Mode::lossy(-3)), photo, false).quality, 0.f);

  // lossless: quality is compression effort, 50 / 70 / 80
  c = WebPEncoder::makeConfig(plan(Mode::lossless(), 2), photo, true);
  EXPECT_EQ(c.lossless, 1);
  EXPECT_FLOAT_EQ(c.quality, 80.f);
  EXPECT_EQ(c.method, 6);
  EXPECT_EQ(c.near_lossless, 100);
  EXPECT_EQ(c.exact, 0);
  EXPECT_FLOAT_EQ(WebPEncoder::makeConfig(plan(Mode::lossless(), 0), photo, true).quality, 50.f);

  c = WebPEncoder::makeConfig(plan(Mode::nearLossless(60), 1), characteristics(Class::screenText), false);
  EXPECT_EQ(c.lossless, 1);
  EXPECT_FLOAT_EQ(c.quality, 70.f);
  EXPECT_EQ(c.method, 5);
  EXPECT_EQ(c.near_lossless, 60);
  EXPECT_EQ(WebPEncoder::makeConfig(plan(Mode::nearLossless(250)), photo, false).near_lossless, 100);
  EXPECT_TRUE(WebPValidateConfig(&c));
}

TEST(WebPEncode, LosslessRoundTripsExactly) {
  for (bool alpha : {false, true})
    for (auto [w, h] : {std::pair{1, 1}, {17, 3}, {33, 20}}) {
      const RGBABuffer rgba = makeBuffer(w, h, Pattern::photo, 5, alpha);
      ASSERT_EQ(rgba.hasAlpha, alpha);
      const Bytes webp = WebPEncoder::encode(rgba, plan(Mode::lossless(), 2), characteristics(Class::photo, alpha));
      const auto decoded = decodeWebP(webp);
      ASSERT_TRUE(decoded) << w << "x" << h;
      EXPECT_EQ(decoded->width, w);
      EXPECT_EQ(decoded->rgba, rgba.pixels) << w << "x" << h << " alpha " << alpha;
    }
}

TEST(WebPEncode, LossyKeepsAlphaExactlyAndColourClose) {
  const RGBABuffer rgba = makeBuffer(64, 48, Pattern::photo, 2, true);
  const Bytes webp = WebPEncoder::encode(rgba, plan(Mode::lossy(90)), characteristics(Class::photo, true));
  const auto decoded = decodeWebP(webp);
  ASSERT_TRUE(decoded);
  int worstColour = 0;
  for (size_t i = 0; i < rgba.pixels.size(); ++i) {
    if (i % 4 == 3)
      ASSERT_EQ(decoded->rgba[i], rgba.pixels[i]) << "alpha at " << i / 4;
    else
      worstColour = std::max(worstColour, std::abs(int(decoded->rgba[i]) - int(rgba.pixels[i])));
  }
  EXPECT_LE(worstColour, 48);
  EXPECT_LT(webp.size(), rgba.pixels.size() / 2);
}

TEST(WebPEncode, NonSRGBProfileIsAttachedAndSRGBAddsNoChunk) {
  RGBABuffer rgba = makeBuffer(16, 12, Pattern::screenshot);
  rgba.colorSpace = ColorSpace::fromICC(srgbProfile());
  const auto plain = riffChunks(WebPEncoder::encode(rgba, plan(Mode::lossless()), characteristics(Class::screenText)));
  EXPECT_EQ(chunkTypes(plain), std::vector<std::string>{"VP8L"});

  const Bytes p3 = displayP3Profile();
  rgba.colorSpace = ColorSpace::fromICC(p3);
  for (Mode mode : {Mode::lossless(), Mode::lossy(70)}) {
    const Bytes webp = WebPEncoder::encode(rgba, plan(mode), characteristics(Class::screenText));
    const auto chunks = riffChunks(webp);
    ASSERT_FALSE(chunks.empty());
    EXPECT_EQ(chunks[0].type, "VP8X");  // the extended format
    const Chunk* iccp = findChunk(chunks, "ICCP");
    ASSERT_NE(iccp, nullptr);
    EXPECT_EQ(iccp->payload, p3);
    EXPECT_TRUE(decodeWebP(webp));
  }
}

TEST(WebPEncode, UnencodablePictureRaisesWebPEncodingFailed) {
  RGBABuffer empty;
  try {
    WebPEncoder::encode(empty, plan(Mode::lossy(75)), characteristics(Class::photo));
    FAIL() << "no error";
  } catch (const ImageProcessingError& e) {
    EXPECT_EQ(e.kind(), ImageProcessingError::Kind::encodingFailed);
    EXPECT_EQ(e.label(), "WebP");
  }
}

}  // namespace
}  // namespace quillane::testing
