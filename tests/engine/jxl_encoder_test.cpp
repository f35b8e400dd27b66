#include <gtest/gtest.h>

#include <random>

#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

using Mode = EncodingPlan::Mode;

EncodingPlan plan(Mode mode, int effort = 2) {
  EncodingPlan p;
  p.mode = mode;
  p.effort = effort;
  return p;
}

TEST(JxlDistance, FollowsTheQualityCurve) {
  EXPECT_FLOAT_EQ(JXLEncoder::distance(30), 6.4f);
  EXPECT_NEAR(JXLEncoder::distance(29.999), 6.4f, 0.01);  // the two formulas meet at 30
  EXPECT_FLOAT_EQ(JXLEncoder::distance(99), 0.19f);
  EXPECT_FLOAT_EQ(JXLEncoder::distance(100), 0.19f);  // 100 is not lossless
  EXPECT_FLOAT_EQ(JXLEncoder::distance(0), 25.0f);
  EXPECT_FLOAT_EQ(JXLEncoder::distance(-10), 25.0f);
  EXPECT_FLOAT_EQ(JXLEncoder::distance(75), 2.35f);
  EXPECT_GT(JXLEncoder::distance(10), JXLEncoder::distance(20));
}

TEST(JxlEncode, LosslessRoundTripsExactly) {
  for (bool alpha : {false, true})
    for (auto [w, h] : {std::pair{1, 1}, {17, 3}, {31, 22}}) {
      const RGBABuffer rgba = makeBuffer(w, h, Pattern::photo, 4, alpha);
      const auto decoded = decodeJXL(JXLEncoder::encode(rgba, alpha, plan(Mode::lossless(), 2)));
      ASSERT_TRUE(decoded) << w << "x" << h;
      EXPECT_TRUE(decoded->usesOriginalProfile);
      EXPECT_EQ(decoded->extraChannels, alpha ? 1u : 0u);
      EXPECT_EQ(decoded->image.rgba, rgba.pixels) << w << "x" << h << " alpha " << alpha;
    }
}

TEST(JxlEncode, LossyIsCloseAndUsesXYB) {
  const RGBABuffer rgba = makeBuffer(48, 40, Pattern::photo, 6);
  const auto decoded = decodeJXL(JXLEncoder::encode(rgba, false, plan(Mode::lossy(90), 0)));
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->usesOriginalProfile);
  EXPECT_TRUE(decoded->taggedSRGB);
  EXPECT_EQ(decoded->image.width, 48);
  EXPECT_LE(maxDifference(decoded->image.rgba, rgba.pixels), 40);
}

TEST(JxlEncode, ColourSpaceSignalling) {
  RGBABuffer rgba = makeBuffer(12, 12, Pattern::gradient);
  rgba.colorSpace = ColorSpace::fromICC(srgbProfile());
  auto decoded = decodeJXL(JXLEncoder::encode(rgba, false, plan(Mode::lossless())));
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(decoded->taggedSRGB);

  const Bytes p3 = displayP3Profile();
  rgba.colorSpace = ColorSpace::fromICC(p3);
  for (Mode mode : {Mode::lossless(), Mode::lossy(80)}) {
    decoded = decodeJXL(JXLEncoder::encode(rgba, false, plan(mode)));
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(decoded->taggedSRGB);
    ASSERT_FALSE(decoded->icc.empty());
    EXPECT_FALSE(ColorSpace::fromICC(decoded->icc).isSRGB);
  }
}

TEST(JxlEncode, NearLosslessIsRefusedAsJPEGXLFailure) {
  try {
    JXLEncoder::encode(makeBuffer(4, 4, Pattern::photo), false, plan(Mode::nearLossless(60)));
    FAIL() << "no error";
  } catch (const ImageProcessingError& e) {
    EXPECT_EQ(e.label(), "JPEG XL");
  }
}

TEST(JxlEncode, OutputAboveOneMebibyteDrainsContiguously) {
  // Random samples don't compress: 700 by 500 RGBA losslessly is about 1.4 MB.
  RGBABuffer rgba;
  rgba.width = 700;
  rgba.height = 500;
  rgba.hasAlpha = true;
  rgba.pixels.resize(size_t(700) * 500 * 4);
  std::mt19937 rng(11);
  for (uint8_t& v : rgba.pixels) v = uint8_t(rng());
  const Bytes jxl = JXLEncoder::encode(rgba, true, plan(Mode::lossless(), 0));
  EXPECT_GT(jxl.size(), 1'048'576u);
  const auto decoded = decodeJXL(jxl);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->image.rgba, rgba.pixels);
}

TEST(JxlTranscode, ReconstructsTheJPEGByteForByte) {
  struct Case {
    const char* name;
    Bytes jpeg;
    int orientation;
  };
  const Case cases[] = {
      {"baseline", makeJPEG(40, 24, false), 1},
      {"exif orientation 6", makeJPEG(40, 24, false, 6), 6},
      {"progressive", makeJPEG(33, 17, true), 1},
      {"grey", makeJPEG(20, 20, false, 3, true), 3},
  };
  for (const Case& c : cases) {
    ASSERT_FALSE(c.jpeg.empty()) << c.name;
    const auto jxl = JXLEncoder::transcodeJPEG(c.jpeg, 7);
    ASSERT_TRUE(jxl) << c.name;
    EXPECT_EQ(Bytes(jxl->begin() + 4, jxl->begin() + 8), (Bytes{'J', 'X', 'L', ' '})) << c.name;  // container
    const auto decoded = decodeJXL(*jxl);
    ASSERT_TRUE(decoded) << c.name;
    EXPECT_EQ(decoded->orientation, c.orientation) << c.name;
    EXPECT_TRUE(decoded->reconstructedJPEG == c.jpeg) << c.name;
  }
}

TEST(JxlTranscode, DamagedInputGivesNothing) {
  EXPECT_FALSE(JXLEncoder::transcodeJPEG(Bytes{}, 7));
  EXPECT_FALSE(JXLEncoder::transcodeJPEG(Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 2, 1, 2, 3}, 7));
  Bytes truncated = makeJPEG(40, 24, false);
  truncated.resize(truncated.size() / 3);
  EXPECT_FALSE(JXLEncoder::transcodeJPEG(truncated, 7));
}

}  // namespace
}  // namespace quillane::testing
