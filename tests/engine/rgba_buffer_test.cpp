#include <gtest/gtest.h>

#include "engine/RGBABuffer.h"
#include "tests/engine/encoder_test_support.h"

namespace quillane {
namespace {

using Bytes = std::vector<uint8_t>;

DecodedImage image8(int width, int height, AlphaInfo alpha, Bytes pixels) {
  DecodedImage image;
  image.width = width, image.height = height, image.alpha = alpha;
  image.pixels8 = std::move(pixels);
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

TEST(RGBABuffer8Bit, UnpremultiplyRoundsHalvesAwayFromZeroAfterDividingFirst) {
  Bytes bytes = {
      64, 32, 1,  128,  // 255/128 x 64 = 127.5 exactly: rounds up
      25, 45, 85, 50,   // 255/50 x 25 is 127.49999999999999 in double: 127, not 128; 85 clamps
      10, 20, 30, 0,    // transparent: no colour left
      9,  8,  7,  255,  // opaque: untouched
  };
  EXPECT_TRUE(RGBABuffer::unpremultiply(bytes));
  EXPECT_EQ(bytes, (Bytes{128, 64, 2, 128, 127, 229, 255, 50, 0, 0, 0, 0, 9, 8, 7, 255}));
  Bytes opaque = {1, 2, 3, 255};
  EXPECT_FALSE(RGBABuffer::unpremultiply(opaque));
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
  const RGBABuffer premultiplied(image8(1, 1, AlphaInfo::premultiplied, {50, 25, 0, 64}));
  EXPECT_EQ(premultiplied.pixels, (Bytes{199, 100, 0, 64}));
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
