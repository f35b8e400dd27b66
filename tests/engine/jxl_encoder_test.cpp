#include <gtest/gtest.h>

#include <random>

#include "engine/Encoders.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
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

TEST(JxlEncode, LossyIsCloseAndUsesXYB) {
  const RGBABuffer rgba = makeBuffer(48, 40, Pattern::photo, 6);
  const auto decoded = decodeJXL(JXLEncoder::encode(rgba, false, plan(Mode::lossy(90), 0)));
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->usesOriginalProfile);
  EXPECT_LE(maxDifference(decoded->image.rgba, rgba.pixels), 40);
}

TEST(JxlEncode, OutputAboveOneMebibyteDrainsContiguously) {
  // Random samples don't compress: 700 by 500 RGBA losslessly is about 1.4 MB.
  RGBABuffer rgba;
  rgba.width = 700, rgba.height = 500, rgba.hasAlpha = true;
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
  const DecodedImage photo = makeImage(40, 24, Pattern::photo, 7);
  const std::pair<const char*, fixtures::JpegOptions> cases[] = {
      {"baseline", {.quality = 85}},
      {"exif orientation 6", {.quality = 85, .orientation = 6}},
      {"progressive", {.quality = 85, .progressive = true}},
      {"grey", {.orientation = 3, .grey = true}},
  };
  for (const auto& [name, options] : cases) {
    const Bytes jpeg = fixtures::jpeg(photo, options);
    const auto jxl = JXLEncoder::transcodeJPEG(jpeg, 7);
    ASSERT_TRUE(jxl) << name;
    const auto decoded = decodeJXL(*jxl);
    ASSERT_TRUE(decoded) << name;
    EXPECT_EQ(decoded->orientation, options.orientation.value_or(1)) << name;
    EXPECT_TRUE(decoded->reconstructedJPEG == jpeg) << name;
  }
  Bytes truncated = fixtures::jpeg(photo);
  truncated.resize(truncated.size() / 3);
  for (const Bytes& damaged : {Bytes{}, Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 2, 1, 2, 3}, truncated})
    EXPECT_FALSE(JXLEncoder::transcodeJPEG(damaged, 7));
}

}  // namespace
}  // namespace quillane::testing
