#include <gtest/gtest.h>

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

TEST(WebPConfig, EveryClassModeAndEffortGivesAConfigLibwebpAccepts) {
  for (Class cls : {Class::flatGraphic, Class::screenText, Class::illustration, Class::photo, Class::noisyPhoto})
    for (Mode mode : {Mode::lossy(-3), Mode::lossy(62.5), Mode::lossy(140), Mode::lossless(), Mode::nearLossless(60),
                      Mode::nearLossless(250)})
      for (int effort : {0, 1, 2})
        for (bool alpha : {false, true}) {
          WebPConfig c = WebPEncoder::makeConfig(plan(mode, effort), characteristics(cls, alpha), alpha);
          EXPECT_TRUE(WebPValidateConfig(&c)) << int(cls) << " effort " << effort;
          EXPECT_EQ(c.lossless, mode.kind == Mode::Kind::lossy ? 0 : 1);
          if (!c.lossless) {
            EXPECT_EQ(c.alpha_quality, 100) << "the alpha plane never loses detail";
          }
        }
}

TEST(WebPEncode, LossyKeepsAlphaExactlyAndColourClose) {
  const RGBABuffer rgba = makeBuffer(64, 48, Pattern::photo, 2, true);
  const Bytes webp = WebPEncoder::encode(rgba, plan(Mode::lossy(90)), characteristics(Class::photo, true));
  const auto decoded = decodeWebP(webp);
  ASSERT_TRUE(decoded);
  Bytes alphaIn, alphaOut, colourIn, colourOut;
  for (size_t i = 0; i < rgba.pixels.size(); ++i) {
    (i % 4 == 3 ? alphaIn : colourIn).push_back(rgba.pixels[i]);
    (i % 4 == 3 ? alphaOut : colourOut).push_back(decoded->rgba[i]);
  }
  EXPECT_EQ(alphaOut, alphaIn);
  EXPECT_LE(maxDifference(colourOut, colourIn), 48);
  EXPECT_LT(webp.size(), rgba.pixels.size() / 2);
}

TEST(WebPEncode, UnencodablePictureRaisesWebPEncodingFailed) {
  try {
    WebPEncoder::encode(RGBABuffer{}, plan(Mode::lossy(75)), characteristics(Class::photo));
    FAIL() << "no error";
  } catch (const ImageProcessingError& e) {
    EXPECT_EQ(e.kind(), ImageProcessingError::Kind::encodingFailed);
    EXPECT_EQ(e.label(), "WebP");
  }
}

}  // namespace
}  // namespace quillane::testing
