// The perceptual distance: libjxl's number as butteraugli_main gives it for a reference pair,
// the tiles of large pictures against the whole, and files decoded as the encoder reads them.

#include <gtest/gtest.h>

#include <algorithm>

#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/PerceptualDistance.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using PerceptualDistance::between;
using PerceptualDistance::bounded;
using PerceptualDistance::butteraugli;

// The photo pattern with every sample cut to steps of 12: banding a viewer notices.
RGBABuffer posterized(const RGBABuffer& picture) {
  RGBABuffer out = picture;
  for (size_t i = 0; i < out.pixels.size(); i += 4)
    for (size_t c = 0; c < 3; ++c)
      out.pixels[i + c] = uint8_t(std::min(255, out.pixels[i + c] / 12 * 12 + 6));
  return out;
}

TEST(PerceptualDistance, MatchesButteraugliMainOnAReferencePair) {
  const RGBABuffer source = testing::makeBuffer(320, 240, testing::Pattern::photo, 7);
  // `butteraugli_main a.ppm b.ppm --pnorm 3` of this pair (libjxl 0.7), written as PPM.
  constexpr double kToolThreeNorm = 1.993080;
  EXPECT_NEAR(butteraugli(source, posterized(source)), kToolThreeNorm, 0.02 * kToolThreeNorm);
  EXPECT_EQ(butteraugli(source, source), 0.0);
}

TEST(PerceptualDistance, TilesOfALargePictureAgreeWithTheWhole) {
  const RGBABuffer source = testing::makeBuffer(1280, 1024, testing::Pattern::photo, 3);
  const RGBABuffer distorted = posterized(source);
  const double whole = butteraugli(source, distorted);
  // Every tile, their margins giving each the context it has in the whole picture.
  EXPECT_NEAR(bounded(source, distorted), whole, 0.01 * whole);
  // Two tiles of six standing for all of them.
  EXPECT_NEAR(bounded(source, distorted, uint64_t(2) * 512 * 512), whole, 0.05 * whole);
}

TEST(PerceptualDistance, ComparesFilesAsTheEncoderReadsThem) {
  // A lower quality looks further from its source.
  const auto photo =
      fixtures::jpeg(testing::makeImage(256, 192, testing::Pattern::photo, 5), {.quality = 98});
  const double fine = between(photo, ImageCompressor::encodeData(photo, ImageFormat::jpeg, 92));
  const double coarse = between(photo, ImageCompressor::encodeData(photo, ImageFormat::jpeg, 20));
  EXPECT_GT(fine, 0.0);
  EXPECT_LT(fine, coarse);

  // A transparent logo written as JPEG is flattened on white by the writer: compared over
  // white too, it is close, not the distance of its transparent parts over black.
  const auto logo = fixtures::png(testing::makeImage(192, 192, testing::Pattern::flatLogo, 2, true));
  EXPECT_LT(between(logo, ImageCompressor::encodeData(logo, ImageFormat::jpeg, 90)), 2.0);

  // Pictures of different sizes are no pair.
  const auto other = fixtures::jpeg(testing::makeImage(128, 96, testing::Pattern::photo, 5));
  EXPECT_THROW(between(photo, other), ImageProcessingError);
}

}  // namespace
}  // namespace quillane
