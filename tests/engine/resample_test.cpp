// Downscaling, the irot/imir to EXIF mapping and EXIF parsing.

#include "engine/Resample.h"

#include <gtest/gtest.h>

#include "engine/Exif.h"
#include "engine/codecs/Readers.h"
#include "tests/support/CodecFixtures.h"

namespace quillane {
namespace {

DecodedImage numbered(int w, int h) {
  DecodedImage image;
  image.width = w, image.height = h, image.alpha = AlphaInfo::straight;
  for (int i = 0; i < w * h; ++i)
    image.pixels8.insert(image.pixels8.end(), {uint8_t(4 * i), uint8_t(8 * i), 0, 255});
  return image;
}

TEST(Downscale, AveragesTheAreaEachNewPixelCovers) {
  // 4 x 2 to 2 x 1: each output is the mean of a 2 x 2 block.
  DecodedImage image = numbered(4, 2);  // red 0, 4, ... 28 row-major
  auto out = Resample::fitWithin(image, 2);
  ASSERT_EQ(out.width, 2);
  ASSERT_EQ(out.height, 1);
  EXPECT_EQ(out.pixels8[0], 10);  // (0 + 4 + 16 + 20) / 4
  EXPECT_EQ(out.pixels8[4], 18);  // (8 + 12 + 24 + 28) / 4
  EXPECT_EQ(out.pixels8[5], 36);  // green, twice red
  EXPECT_EQ(out.pixels8[7], 255);

  // 3 to 2 in one dimension: the middle pixel is shared half and half.
  DecodedImage three = numbered(3, 1);
  three.pixels8 = {0, 0, 0, 255, 90, 0, 0, 255, 180, 0, 0, 255};
  auto two = Resample::fitWithin(three, 2);
  ASSERT_EQ(two.width, 2);
  EXPECT_EQ(two.pixels8[0], 30);   // (0 * 1 + 90 * 0.5) / 1.5
  EXPECT_EQ(two.pixels8[4], 150);  // (90 * 0.5 + 180) / 1.5
}

TEST(Downscale, SixteenBitBecomesEightAndNoSideRoundsToNothing) {
  auto wide = Resample::fitWithin(fixtures::quadrants(1000, 10, 16), 256);
  EXPECT_EQ(wide.height, 3);
  EXPECT_EQ(wide.bitsPerComponent, 8);
  EXPECT_EQ(Resample::fitWithin(fixtures::quadrants(1000, 1), 10).height, 1);
}

// Independent reference: quarter turns anticlockwise, then a mirror (0: top and bottom
// exchanged, 1: left and right), pixel by pixel.
DecodedImage turnAndMirror(DecodedImage img, int turns, int mode) {
  auto remap = [&img](int w, int h, auto source) {
    DecodedImage out = img;
    out.width = w, out.height = h;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        auto [sx, sy] = source(x, y);
        std::copy_n(&img.pixels8[(size_t(sy) * size_t(img.width) + size_t(sx)) * 4], 4,
                    &out.pixels8[(size_t(y) * size_t(w) + size_t(x)) * 4]);
      }
    img = out;
  };
  for (int t = 0; t < turns; ++t)
    remap(img.height, img.width, [&](int x, int y) { return std::pair{img.width - 1 - y, x}; });
  if (mode >= 0)
    remap(img.width, img.height, [&](int x, int y) {
      return mode == 1 ? std::pair{img.width - 1 - x, y} : std::pair{x, img.height - 1 - y};
    });
  return img;
}

TEST(RotationMirror, EveryCombinationMatchesTheEquivalentExifOrientation) {
  const DecodedImage source = numbered(5, 3);
  for (int turns = 0; turns < 4; ++turns)
    for (int mode = -1; mode <= 1; ++mode) {
      DecodedImage expected = turnAndMirror(source, turns, mode);
      int orientation = codecs::orientationFromRotationMirror(turns, mode);
      DecodedImage got = orientation == 1 ? source : Resample::orient(source, orientation);
      EXPECT_EQ(got.width, expected.width) << turns << "/" << mode;
      EXPECT_EQ(got.pixels8, expected.pixels8) << "turns " << turns << ", mirror " << mode;
    }
}

// Both byte orders and every integer type are read through the containers (decoder_test).
TEST(Exif, RejectsNonsense) {
  EXPECT_FALSE(Exif::orientation(fixtures::exifBlock(0)));
  EXPECT_FALSE(Exif::orientation(fixtures::exifBlock(9)));
  fixtures::Bytes truncated = fixtures::exifBlock(6);
  truncated.resize(12);
  EXPECT_FALSE(Exif::orientation(truncated));
  EXPECT_FALSE(Exif::orientation(fixtures::Bytes(40, 0xFF)));
}

}  // namespace
}  // namespace quillane
