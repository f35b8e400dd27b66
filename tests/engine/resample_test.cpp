// Downscaling, turns and mirrors, EXIF parsing, and decoded pictures as straight 8-bit RGBA.

#include "engine/Resample.h"

#include <gtest/gtest.h>

#include "engine/Exif.h"
#include "engine/RGBABuffer.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using Bytes = std::vector<uint8_t>;

DecodedImage image8(int width, int height, AlphaInfo alpha, const Bytes& pixels) {
  DecodedImage image;
  image.width = width, image.height = height, image.alpha = alpha;
  image.pixels8.assign(pixels.begin(), pixels.end());
  return image;
}

// A 16-bit picture of one colour.
DecodedImage image16(int width, int height, AlphaInfo alpha, std::array<uint16_t, 4> rgba) {
  DecodedImage image;
  image.width = width, image.height = height, image.bitsPerComponent = 16, image.alpha = alpha;
  image.pixels16.resize(size_t(width) * size_t(height) * 4);
  for (size_t i = 0; i < image.pixels16.size(); ++i) image.pixels16[i] = rgba[i % 4];
  return image;
}

DecodedImage numbered(int w, int h) {
  Bytes pixels;
  for (int i = 0; i < w * h; ++i) pixels.insert(pixels.end(), {uint8_t(4 * i), uint8_t(8 * i), 0, 255});
  return image8(w, h, AlphaInfo::straight, pixels);
}

TEST(Downscale, AveragesTheAreaEachNewPixelCoversIntoEightBitsAndNoSideRoundsToNothing) {
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
  const DecodedImage three = image8(3, 1, AlphaInfo::straight, {0, 0, 0, 255, 90, 0, 0, 255, 180, 0, 0, 255});
  auto two = Resample::fitWithin(three, 2);
  ASSERT_EQ(two.width, 2);
  EXPECT_EQ(two.pixels8[0], 30);   // (0 * 1 + 90 * 0.5) / 1.5
  EXPECT_EQ(two.pixels8[4], 150);  // (90 * 0.5 + 180) / 1.5

  // 16 bits become 8, and no side rounds to nothing.
  auto wide = Resample::fitWithin(fixtures::quadrants(1000, 10, 16), 256);
  EXPECT_EQ(wide.height, 3);
  EXPECT_EQ(wide.bitsPerComponent, 8);
  EXPECT_EQ(Resample::fitWithin(fixtures::quadrants(1000, 1), 10).height, 1);
}

// Each orientation's corners are decoder_test's; here every pixel comes back when turned back.
TEST(Orient, EveryTurnAndMirrorComesBackExactlyWhenUndone) {
  const DecodedImage source = numbered(5, 3);
  const int inverse[9] = {0, 1, 2, 3, 4, 5, 8, 7, 6};
  for (int o = 2; o <= 8; ++o)
    EXPECT_EQ(Resample::orient(Resample::orient(source, o), inverse[o]).pixels8, source.pixels8) << o;
}

TEST(FitBox, AveragesInLinearLightAndLetsNoTransparentColourBleed) {
  // Black and white columns halve to the grey of half the light (188), not of half the code (128).
  DecodedImage stripes = testing::solid(64, 8, 0, 0, 0);
  for (size_t i = 4; i < stripes.pixels8.size(); i += 8) std::fill_n(&stripes.pixels8[i], 3, 255);
  DecodedImage grey = Resample::fitBox(stripes, 32, 0);
  ASSERT_EQ(grey.width, 32);
  ASSERT_EQ(grey.height, 4);
  EXPECT_NEAR(grey.pixels8[size_t(2 * 32 + 16) * 4], 188, 2);
  EXPECT_EQ(Resample::fittedSize(4000, 30, 100, 0).height, 1) << "a side that scales below a pixel keeps one";

  // Transparent red beside opaque blue: blue stays pure, alpha halves; depth and profile kept.
  DecodedImage halves = image16(32, 4, AlphaInfo::straight, {0, 0, 65535, 65535});
  halves.colorSpace.icc = std::make_shared<const Bytes>(fixtures::displayP3ICC());
  const uint16_t transparentRed[] = {65535, 0, 0, 0};
  for (size_t i = 0; i < halves.pixels16.size(); i += 8) std::copy_n(transparentRed, 4, &halves.pixels16[i]);
  DecodedImage out = Resample::fitBox(halves, 8, 8);
  ASSERT_EQ(out.bitsPerComponent, 16);
  ASSERT_EQ(out.width, 8);
  EXPECT_EQ(out.colorSpace.icc, halves.colorSpace.icc);
  const uint16_t* p = &out.pixels16[size_t(4) * 4];
  EXPECT_LT(p[0], 700);
  EXPECT_GT(p[2], 64800);
  EXPECT_NEAR(p[3], 32768, 700);
}

TEST(Exif, RejectsNonsense) {
  for (const int outside : {0, 9}) EXPECT_FALSE(Exif::orientation(fixtures::exifBlock(outside))) << outside;
  const Bytes six = fixtures::exifBlock(6);
  EXPECT_FALSE(Exif::orientation(Bytes(six.begin(), six.begin() + 12))) << "truncated";
  EXPECT_FALSE(Exif::orientation(Bytes(40, 0xFF)));
}

TEST(RGBABuffer8Bit, UnpremultiplyRoundsHalvesAwayFromZeroAfterDividingFirst) {
  const RGBABuffer buffer(image8(4, 1, AlphaInfo::premultiplied,
                                 {
                                     64, 32, 1, 128,  // 255/128 x 64 = 127.5 exactly: rounds up
                                     25, 45, 85, 50,  // 255/50 x 25 is 127.49999999999999 in double: 127,
                                                      // not 128; 85 clamps
                                     10, 20, 30, 0,   // transparent: no colour left
                                     9, 8, 7, 255,    // opaque: untouched
                                 }));
  EXPECT_EQ(buffer.pixels, (Bytes{128, 64, 2, 128, 127, 229, 255, 50, 0, 0, 0, 0, 9, 8, 7, 255}));
  EXPECT_TRUE(buffer.hasAlpha);
  EXPECT_FALSE(RGBABuffer(image8(1, 1, AlphaInfo::premultiplied, {1, 2, 3, 255})).hasAlpha);
}

TEST(RGBABuffer8Bit, AlphaIsFullForOpaqueSourcesAndGoesThroughPremultipliedRoundingOtherwise) {
  DecodedImage opaque = image8(2, 1, AlphaInfo::none, {10, 20, 30, 0, 40, 50, 60, 17});
  opaque.colorSpace = ColorSpace{std::make_shared<const Bytes>(3, 1), false};
  const RGBABuffer buffer(opaque);
  EXPECT_EQ(buffer.pixels, (Bytes{10, 20, 30, 255, 40, 50, 60, 255}));
  EXPECT_FALSE(buffer.hasAlpha);
  EXPECT_EQ(buffer.colorSpace.icc, opaque.colorSpace.icc);
  EXPECT_FALSE(RGBABuffer(image8(1, 1, AlphaInfo::straight, {1, 2, 3, 255})).hasAlpha);

  // 200 x 64 / 255 = 50.2 is stored as 50, and 255 / 64 x 50 = 199.2 comes back as 199.
  const RGBABuffer straight(image8(2, 1, AlphaInfo::straight, {200, 100, 7, 64, 10, 20, 30, 0}));
  EXPECT_EQ(straight.pixels, (Bytes{199, 100, 8, 64, 0, 0, 0, 0}));
  EXPECT_TRUE(straight.hasAlpha);
}

TEST(RGBABuffer8Bit, MalformedPicturesFailAsContextCreation) {
  DecodedImage twelveBit = image16(1, 1, AlphaInfo::none, {1, 2, 3, 4});
  twelveBit.bitsPerComponent = 12;
  for (const DecodedImage& image :
       {image8(0, 5, AlphaInfo::none, {}), image8(2, 2, AlphaInfo::none, {1, 2, 3, 4}), twelveBit})
    EXPECT_EQ(testing::failureOf([&] { RGBABuffer buffer(image); }), "context creation failed")
        << image.width << "x" << image.height;
}

TEST(RGBABuffer16Bit, DitherAddsTheBayerThresholdWithoutWrappingFullSamples) {
  // 0x8080 lies halfway between 128 and 129: the pattern splits the pixels between the two.
  const RGBABuffer buffer(image16(16, 9, AlphaInfo::none, {0x8080, 0x8080, 0x8080, 0xFFFF}));
  EXPECT_FALSE(buffer.hasAlpha);
  int high = 0;
  for (size_t i = 0; i < buffer.pixels.size(); i += 4) {
    ASSERT_TRUE(buffer.pixels[i] == 128 || buffer.pixels[i] == 129) << i;
    ASSERT_EQ(buffer.pixels[i + 3], 255);
    high += buffer.pixels[i] == 129;
  }
  EXPECT_EQ(high, 16 * 9 / 2) << "an 8 x 8 Bayer matrix is half above its middle";

  // 65535 + t must not wrap; alpha 0xFEFF is 254 only where the threshold is 0.
  const RGBABuffer full(image16(8, 8, AlphaInfo::straight, {65535, 0, 65535, 0xFEFF}));
  EXPECT_TRUE(full.hasAlpha);
  for (size_t i = 0; i < 64; ++i) {
    ASSERT_EQ(full.pixels[i * 4 + 3], i == 0 ? 254 : 255) << i;
    ASSERT_EQ(full.pixels[i * 4], 255);
  }
}

TEST(RGBABuffer16Bit, AboveFortyMillionPixelsRoundsToTheNearestLevelWithoutPattern) {
  DecodedImage header;  // only the header matters: no pixels are allocated
  header.bitsPerComponent = 16, header.width = 8000, header.height = 5000;
  EXPECT_TRUE(RGBABuffer::takesDitheredRoute(header));
  header.width = 40'000'001, header.height = 1;
  EXPECT_FALSE(RGBABuffer::takesDitheredRoute(header));
  // 33024 / 257 = 128.498 and 33025 / 257 = 128.502.
  for (const auto& [value, expected] :
       {std::pair{33024, 128}, std::pair{33025, 129}, std::pair{65535, 255}}) {
    const RGBABuffer buffer =
        RGBABuffer::convert16(image16(8, 8, AlphaInfo::none, {uint16_t(value), 0, 0, 0}), false);
    for (size_t i = 0; i < buffer.pixels.size(); i += 4) ASSERT_EQ(buffer.pixels[i], expected) << value;
  }
}

}  // namespace
}  // namespace quillane
