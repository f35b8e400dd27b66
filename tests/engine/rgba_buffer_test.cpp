#include <gtest/gtest.h>

#include <cstdlib>

#include "engine/Errors.h"
#include "engine/RGBABuffer.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

DecodedImage image8(int width, int height, AlphaInfo alpha, std::vector<uint8_t> pixels) {
  DecodedImage image;
  image.width = width;
  image.height = height;
  image.alpha = alpha;
  image.pixels8 = std::move(pixels);
  return image;
}

// A 16-bit picture of one colour.
DecodedImage image16(int width, int height, AlphaInfo alpha, std::array<uint16_t, 4> rgba) {
  DecodedImage image;
  image.width = width;
  image.height = height;
  image.bitsPerComponent = 16;
  image.alpha = alpha;
  image.pixels16.resize(size_t(width) * size_t(height) * 4);
  for (size_t i = 0; i < image.pixels16.size(); ++i) image.pixels16[i] = rgba[i % 4];
  return image;
}

const uint8_t* pixelAt(const RGBABuffer& buffer, int x, int y) {
  return &buffer.pixels[(size_t(y) * size_t(buffer.width) + size_t(x)) * 4];
}

// ---- unpremultiply ----

TEST(RGBABufferUnpremultiply, RoundsHalvesAwayFromZeroAfterDividingFirst) {
  std::vector<uint8_t> bytes = {
      64,  32,  1,   128,  // 255/128 x 64 = 127.5 exactly: rounds up
      25,  45,  85,  50,   // 255/50 x 25 is 127.49999999999999 in double: 127, not 128; 85 clamps
      200, 100, 255, 100,  // beyond the alpha (not validly premultiplied): clamped to 255
      9,   8,   7,   255,  // opaque: untouched
  };
  EXPECT_TRUE(RGBABuffer::unpremultiply(bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{128, 64, 2, 128, 127, 229, 255, 50, 255, 255, 255, 100, 9, 8, 7, 255}));
}

TEST(RGBABufferUnpremultiply, TransparentPixelsLoseTheirColour) {
  std::vector<uint8_t> bytes = {10, 20, 30, 0, 1, 2, 3, 255};
  EXPECT_TRUE(RGBABuffer::unpremultiply(bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 0, 0, 0, 1, 2, 3, 255}));
}

TEST(RGBABufferUnpremultiply, OpaqueBytesReportNoAlpha) {
  std::vector<uint8_t> bytes = {10, 20, 30, 255, 1, 2, 3, 255};
  EXPECT_FALSE(RGBABuffer::unpremultiply(bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{10, 20, 30, 255, 1, 2, 3, 255}));
}

// ---- 8-bit sources ----

TEST(RGBABuffer8Bit, OpaqueSourceGetsFullAlphaWhateverItsFourthSamples) {
  DecodedImage image = image8(2, 1, AlphaInfo::none, {10, 20, 30, 0, 40, 50, 60, 17});
  image.colorSpace.isSRGB = false;
  image.colorSpace.icc = std::make_shared<const std::vector<uint8_t>>(std::vector<uint8_t>{1, 2, 3});
  const RGBABuffer buffer(image);
  EXPECT_EQ(buffer.pixels, (std::vector<uint8_t>{10, 20, 30, 255, 40, 50, 60, 255}));
  EXPECT_FALSE(buffer.hasAlpha);
  EXPECT_EQ(buffer.colorSpace.icc, image.colorSpace.icc);
  EXPECT_FALSE(buffer.colorSpace.isSRGB);
}

TEST(RGBABuffer8Bit, AlphaChannelThatIsAllOpaqueIsNoAlpha) {
  const RGBABuffer opaque(image8(2, 1, AlphaInfo::straight, {1, 2, 3, 255, 4, 5, 6, 255}));
  EXPECT_FALSE(opaque.hasAlpha);
  EXPECT_EQ(opaque.pixels, (std::vector<uint8_t>{1, 2, 3, 255, 4, 5, 6, 255}));
  const RGBABuffer oneBelow(image8(2, 1, AlphaInfo::premultiplied, {1, 2, 3, 255, 4, 5, 6, 254}));
  EXPECT_TRUE(oneBelow.hasAlpha);
}

TEST(RGBABuffer8Bit, StraightSourceGoesThroughPremultipliedRounding) {
  // 200 x 64 / 255 = 50.2 is stored as 50, and 255 / 64 x 50 = 199.2 comes back as 199.
  const RGBABuffer buffer(image8(2, 1, AlphaInfo::straight, {200, 100, 7, 64, 10, 20, 30, 0}));
  EXPECT_EQ(buffer.pixels, (std::vector<uint8_t>{199, 100, 8, 64, 0, 0, 0, 0}));
  EXPECT_TRUE(buffer.hasAlpha);
}

TEST(RGBABuffer8Bit, PremultipliedSourceIsUnpremultiplied) {
  const RGBABuffer buffer(image8(1, 1, AlphaInfo::premultiplied, {50, 25, 0, 64}));
  EXPECT_EQ(buffer.pixels, (std::vector<uint8_t>{199, 100, 0, 64}));
}

TEST(RGBABuffer8Bit, StraightColoursSurviveWithinTheirAlphaPrecision) {
  const DecodedImage image = testing::makeImage(64, 48, testing::Pattern::photo, 7, /*withAlpha=*/true);
  const RGBABuffer buffer(image);
  ASSERT_EQ(buffer.pixels.size(), image.pixels8.size());
  for (size_t i = 0; i < image.pixels8.size(); i += 4) {
    const int a = image.pixels8[i + 3];
    ASSERT_EQ(buffer.pixels[i + 3], a);
    for (size_t c = 0; c < 3; ++c) {
      ASSERT_LE(std::abs(int(buffer.pixels[i + c]) - int(image.pixels8[i + c])), 255 / (2 * a) + 1) << i;
    }
  }
}

TEST(RGBABuffer8Bit, MalformedPicturesFailAsContextCreation) {
  const auto kindOf = [](const DecodedImage& image) {
    try {
      RGBABuffer buffer(image);
    } catch (const ImageProcessingError& e) {
      return e.kind();
    }
    return ImageProcessingError::Kind::decodingFailed;  // no error at all
  };
  EXPECT_EQ(kindOf(image8(0, 5, AlphaInfo::none, {})), ImageProcessingError::Kind::contextCreationFailed);
  EXPECT_EQ(kindOf(image8(2, 2, AlphaInfo::none, {1, 2, 3, 4})), ImageProcessingError::Kind::contextCreationFailed);
  DecodedImage twelveBit = image16(1, 1, AlphaInfo::none, {1, 2, 3, 4});
  twelveBit.bitsPerComponent = 12;
  EXPECT_EQ(kindOf(twelveBit), ImageProcessingError::Kind::contextCreationFailed);
}

// ---- 16-bit sources ----

TEST(RGBABuffer16Bit, DitherAddsTheBayerThresholdBeforeDroppingTheLowByte) {
  // 0x8080 + t stays below 0x8100 for t < 128: the 8 by 8 pattern splits the pixels evenly
  // between 128 and 129, and neighbours differ by one step.
  const RGBABuffer buffer(image16(16, 9, AlphaInfo::none, {0x8080, 0x8080, 0x8080, 0xFFFF}));
  EXPECT_FALSE(buffer.hasAlpha);
  int high = 0;
  for (int y = 0; y < 9; ++y) {
    for (int x = 0; x < 16; ++x) {
      const int t = RGBABuffer::bayer8[size_t((y % 8) * 8 + x % 8)];
      const uint8_t* p = pixelAt(buffer, x, y);
      ASSERT_EQ(p[0], t >= 128 ? 129 : 128) << x << "," << y;
      ASSERT_EQ(p[2], p[0]);
      ASSERT_EQ(p[3], 255);
      high += p[0] == 129;
    }
  }
  EXPECT_EQ(high, 72);
  EXPECT_EQ(pixelAt(buffer, 0, 0)[0], 128);
  EXPECT_EQ(pixelAt(buffer, 1, 0)[0], 129);
}

TEST(RGBABuffer16Bit, FullSamplesStayFullAndAlphaIsDitheredToo) {
  // 65535 + t must not wrap; alpha 0xFEFF is 254 only where the threshold is 0.
  const RGBABuffer buffer(image16(8, 8, AlphaInfo::straight, {65535, 0, 65535, 0xFEFF}));
  EXPECT_TRUE(buffer.hasAlpha);
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < 8; ++x) {
      const uint8_t* p = pixelAt(buffer, x, y);
      ASSERT_EQ(p[3], (x == 0 && y == 0) ? 254 : 255) << x << "," << y;
      ASSERT_EQ(p[0], 255);
      ASSERT_EQ(p[1], 0);
    }
  }
}

TEST(RGBABuffer16Bit, StraightAlphaIsPremultipliedInSixteenBits) {
  // Half alpha: 65535 x 32768 / 65535 = 32768, dithered to 128, unpremultiplied to 255.
  const RGBABuffer half(image16(8, 1, AlphaInfo::straight, {65535, 16384, 0, 32768}));
  for (int x = 0; x < 8; ++x) {
    const uint8_t* p = pixelAt(half, x, 0);
    EXPECT_EQ(p[0], 255);
    EXPECT_EQ(p[3], 128);
    EXPECT_NEAR(p[1], 64, 2);
  }
  const RGBABuffer clear(image16(2, 1, AlphaInfo::premultiplied, {500, 600, 700, 0}));
  EXPECT_EQ(clear.pixels, (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(RGBABuffer16Bit, RouteDependsOnDepthAndTheFortyMillionPixelLimit) {
  DecodedImage image;  // only the header matters here: no pixels are allocated
  image.bitsPerComponent = 16;
  image.width = 8000;
  image.height = 5000;
  EXPECT_TRUE(RGBABuffer::takesDitheredRoute(image));
  image.width = 40'000'001;
  image.height = 1;
  EXPECT_FALSE(RGBABuffer::takesDitheredRoute(image));
  image.bitsPerComponent = 8;
  image.width = 3;
  EXPECT_FALSE(RGBABuffer::takesDitheredRoute(image));
}

TEST(RGBABuffer16Bit, PlainRouteRoundsToTheNearestLevelWithoutPattern) {
  // 33024 / 257 = 128.498 and 33025 / 257 = 128.502.
  for (const auto& [value, expected] : {std::pair{33024, 128}, std::pair{33025, 129}, std::pair{65535, 255}}) {
    const RGBABuffer buffer =
        RGBABuffer::convert16(image16(8, 8, AlphaInfo::none, {uint16_t(value), 0, 0, 0}), /*dithered=*/false);
    for (size_t i = 0; i < buffer.pixels.size(); i += 4) {
      ASSERT_EQ(buffer.pixels[i], expected) << value;
      ASSERT_EQ(buffer.pixels[i + 3], 255);
    }
  }
}

}  // namespace
}  // namespace quillane
