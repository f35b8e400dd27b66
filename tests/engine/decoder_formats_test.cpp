// Colour models, profiles, frame counts, detection by content and thumbnails.

#include <gtest/gtest.h>

#include "engine/Errors.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using fixtures::Corner;

// The sample at (x, y) on an 8-bit scale.
std::array<int, 4> pixelAt(const DecodedImage& image, int x, int y) {
  size_t i = (size_t(y) * size_t(image.width) + size_t(x)) * 4;
  std::array<int, 4> p;
  for (size_t c = 0; c < 4; ++c)
    p[c] = image.bitsPerComponent == 16 ? image.pixels16[i + c] >> 8 : image.pixels8[i + c];
  return p;
}

void expectNear(std::array<int, 4> got, std::array<int, 3> want, int tolerance, const char* what) {
  for (size_t c = 0; c < 3; ++c) EXPECT_NEAR(got[c], want[c], tolerance) << what << " channel " << c;
}

TEST(ColourModels, GreySourcesBecomeRGB) {
  auto source = fixtures::quadrants(32, 16, 16, true);  // red channel: 255, 0, 0, 255 by quarter
  auto grey16 = ImageService::decodeFirstFrame(fixtures::png(source, {.grey = true}));
  EXPECT_EQ(grey16.bitsPerComponent, 16);
  EXPECT_TRUE(grey16.colorSpace.isSRGB);
  expectNear(pixelAt(grey16, 2, 2), {255, 255, 255}, 0, "white grey");
  EXPECT_EQ(pixelAt(grey16, 2, 2)[3], 128);
  expectNear(pixelAt(grey16, 30, 2), {0, 0, 0}, 0, "black grey");

  // A grey profile goes through lcms2: still neutral, still white.
  auto profiled = ImageService::decodeFirstFrame(
      fixtures::png(fixtures::quadrants(32, 16), {.grey = true, .alpha = false, .icc = fixtures::greyICC()}));
  auto white = pixelAt(profiled, 2, 2);
  EXPECT_NEAR(white[0], white[1], 1);
  EXPECT_NEAR(white[1], white[2], 1);
  EXPECT_GT(white[0], 240);
  EXPECT_TRUE(profiled.colorSpace.isSRGB);

  auto jpeg = ImageService::decodeFirstFrame(fixtures::jpeg(fixtures::quadrants(32, 16), {.grey = true}));
  expectNear(pixelAt(jpeg, 2, 2), {255, 255, 255}, 3, "grey jpeg");
  expectNear(pixelAt(jpeg, 28, 4), {0, 0, 0}, 3, "grey jpeg");
  EXPECT_EQ(pixelAt(jpeg, 28, 4)[3], 255);
}

TEST(ColourModels, CmykJpegIsConvertedWithAndWithoutItsProfile) {
  // Quarters: white paper, full cyan, full black, cyan + magenta.
  const int w = 32, h = 16;
  fixtures::Bytes cmyk(size_t(w) * h * 4, 0);
  for (size_t i = 0; i < cmyk.size(); i += 4) {
    int x = int(i / 4) % w, y = int(i / 4) / w, q = (y >= h / 2 ? 2 : 0) + (x >= w / 2 ? 1 : 0);
    cmyk[i] = q == 1 || q == 3 ? 255 : 0;
    cmyk[i + 1] = q == 3 ? 255 : 0;
    cmyk[i + 3] = q == 2 ? 255 : 0;
  }
  auto plain = ImageService::decodeFirstFrame(fixtures::cmykJpeg(w, h, cmyk));
  EXPECT_EQ(plain.alpha, AlphaInfo::none);
  EXPECT_TRUE(plain.colorSpace.isSRGB);
  expectNear(pixelAt(plain, 4, 4), {255, 255, 255}, 4, "paper");
  expectNear(pixelAt(plain, 28, 4), {0, 255, 255}, 6, "cyan");
  expectNear(pixelAt(plain, 4, 12), {0, 0, 0}, 4, "black");
  expectNear(pixelAt(plain, 28, 12), {0, 0, 255}, 6, "cyan + magenta");

  // The embedded profile wins over the built-in formula: this one prints cyan as red.
  auto profiled = ImageService::decodeFirstFrame(fixtures::cmykJpeg(w, h, cmyk, fixtures::cmykICC(true)));
  EXPECT_GT(pixelAt(profiled, 28, 4)[0], 200);
  EXPECT_LT(pixelAt(profiled, 28, 4)[1], 80);
  expectNear(pixelAt(profiled, 4, 4), {255, 255, 255}, 8, "paper through the profile");
  EXPECT_TRUE(profiled.colorSpace.isSRGB);
}

TEST(Frames, AnimationsReportTheirCountAndDecodeTheFirstFrame) {
  std::vector<DecodedImage> frames;
  for (int q : {1, 0, 2}) {  // green, then red, then blue
    auto frame = fixtures::quadrants(16, 16);
    for (size_t i = 0; i < frame.pixels8.size(); i += 4)
      for (int c = 0; c < 3; ++c) frame.pixels8[i + size_t(c)] = c == q ? 255 : 0;
    frames.push_back(frame);
  }
  auto webp = fixtures::animatedWebp(frames);
  auto decoded = ImageDecoder::decodeCGImageSource(webp);
  EXPECT_EQ(decoded.frameCount, 3);
  expectNear(pixelAt(decoded.image, 8, 8), {0, 255, 0}, 0, "first frame");

  auto picture = fixtures::quadrants(16, 16);
  EXPECT_EQ(ImageService::properties(fixtures::jxl(picture, {.frames = 4}))->frameCount, 4);
  EXPECT_EQ(ImageService::properties(fixtures::avif(picture, {.alpha = false, .frames = 3}))->frameCount, 3);
  for (const auto& still : {fixtures::jxl(picture), fixtures::webp(picture), fixtures::heic(picture)})
    EXPECT_EQ(ImageService::properties(still)->frameCount, 1);
}

TEST(Detection, ContentDecidesNotTheNameAndOtherImageTypesAreRefused) {
  testing::TempDir dir;
  testing::writeBytes(dir.file("actually.png"), fixtures::jpeg(fixtures::quadrants(16, 16)));
  EXPECT_EQ(ImageDecoder::inspect(dir.file("actually.png")).format, ImageFormat::jpeg);

  const std::vector<fixtures::Bytes> others = {
      // GIF, TIFF, BMP
      {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0,   0, 0, ',', 0,
       0,   0,   0,   1,   0,   1,   0, 0, 2, 2, 'D', 1, 0, ';'},
      {'I', 'I', 0x2A, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0},
      {'B', 'M', 58, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0, 40, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 24, 0},
  };
  for (const auto& bytes : others) {
    EXPECT_TRUE(ImageService::typeIdentifier(bytes));
    EXPECT_FALSE(ImageFormats::detect(bytes));
    EXPECT_THROW(ImageDecoder::decodeCGImageSource(bytes), ImageProcessingError);
    testing::writeBytes(dir.file("other"), bytes);
    EXPECT_THROW(ImageDecoder::inspect(dir.file("other")), ImageProcessingError);
  }
}

TEST(Thumbnails, TransparentPixelsLeaveNoDarkFringe) {
  // Red at alpha 255 next to transparent black, in a fine checkerboard: the average must
  // stay pure red at half alpha, not turn dark red.
  DecodedImage image = fixtures::quadrants(64, 64, 8, true);
  for (size_t i = 0; i < image.pixels8.size(); i += 4) {
    bool on = (i / 4 % 64 + i / 4 / 64) % 2 == 0;
    image.pixels8[i] = image.pixels8[i + 3] = on ? 255 : 0;
    image.pixels8[i + 1] = image.pixels8[i + 2] = 0;
  }
  auto thumb = ImageDecoder::loadPreview(fixtures::png(image), 8);
  ASSERT_TRUE(thumb);
  EXPECT_EQ(pixelAt(*thumb, 3, 3)[0], 255);
  EXPECT_NEAR(pixelAt(*thumb, 3, 3)[3], 128, 1);
  // The same from the readers that average as they decode, through lossy coding: squares of
  // 2 x 2 pixels, which 4:2:0 chroma keeps apart.
  for (size_t i = 0; i < image.pixels8.size(); i += 4) {
    bool on = (i / 4 % 64 / 2 + i / 4 / 64 / 2) % 2 == 0;
    image.pixels8[i] = image.pixels8[i + 3] = on ? 255 : 0;
  }
  for (const auto& file :
       {fixtures::heic(image), fixtures::avif(image), fixtures::jxl(image, {.lossless = false})}) {
    SCOPED_TRACE(ImageFormats::rawValue(*ImageFormats::detect(file)));
    thumb = ImageDecoder::loadPreview(file, 8);
    ASSERT_TRUE(thumb);
    EXPECT_GT(pixelAt(*thumb, 3, 3)[0], 200);
    EXPECT_NEAR(pixelAt(*thumb, 3, 3)[3], 128, 16);
  }
}

}  // namespace
}  // namespace quillane
