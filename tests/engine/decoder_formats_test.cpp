// Colour models, profiles, frame counts, detection by content, inspection and thumbnails.

#include <gtest/gtest.h>

#include "engine/Errors.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/codecs/Readers.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using fixtures::Corner;

std::array<int, 4> pixelAt(const DecodedImage& image, int x, int y) {
  size_t i = (size_t(y) * size_t(image.width) + size_t(x)) * 4;
  if (image.bitsPerComponent == 16)
    return {image.pixels16[i] >> 8, image.pixels16[i + 1] >> 8, image.pixels16[i + 2] >> 8, image.pixels16[i + 3] >> 8};
  return {image.pixels8[i], image.pixels8[i + 1], image.pixels8[i + 2], image.pixels8[i + 3]};
}

void expectNear(std::array<int, 4> got, std::array<int, 3> want, int tolerance, const char* what) {
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(got[size_t(c)], want[size_t(c)], tolerance) << what << " channel " << c;
}

TEST(ColourModels, GreySourcesBecomeRGB) {
  auto source = fixtures::quadrants(32, 16, 16, true);  // red channel: 255, 0, 0, 255 by quarter
  auto grey16 = ImageService::decodeFirstFrame(fixtures::png(source, {.grey = true}));
  EXPECT_EQ(grey16.bitsPerComponent, 16);
  EXPECT_EQ(grey16.alpha, AlphaInfo::straight);
  EXPECT_TRUE(grey16.colorSpace.isSRGB);
  auto tl = pixelAt(grey16, 2, 2), tr = pixelAt(grey16, 30, 2);
  expectNear(tl, {255, 255, 255}, 0, "white grey");
  EXPECT_EQ(tl[3], 128);
  expectNear(tr, {0, 0, 0}, 0, "black grey");

  // A grey profile goes through lcms2: still neutral, still ordered.
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
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &cmyk[(size_t(y) * w + size_t(x)) * 4];
      int q = (y >= h / 2 ? 2 : 0) + (x >= w / 2 ? 1 : 0);
      if (q == 1) p[0] = 255;
      if (q == 2) p[3] = 255;
      if (q == 3) p[0] = p[1] = 255;
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
  auto cyan = pixelAt(profiled, 28, 4);
  EXPECT_GT(cyan[0], 200);
  EXPECT_LT(cyan[1], 80);
  expectNear(pixelAt(profiled, 4, 4), {255, 255, 255}, 8, "paper through the profile");
  EXPECT_TRUE(profiled.colorSpace.isSRGB);
}

TEST(Profiles, EachFormatDeliversItsEmbeddedProfile) {
  auto picture = fixtures::quadrants(32, 16);
  auto p3 = fixtures::displayP3ICC();
  auto large = fixtures::displayP3ICC(true);
  ASSERT_GT(large.size(), 65519u);
  std::vector<std::pair<const char*, fixtures::Bytes>> files = {
      {"jpeg", fixtures::jpeg(picture, {.icc = p3})},
      {"jpeg over several markers", fixtures::jpeg(picture, {.icc = large})},
      {"webp", fixtures::webp(picture, {.icc = p3})},
      {"avif", fixtures::avif(picture, {.icc = p3})},
      {"jxl", fixtures::jxl(picture, {.icc = p3})},
  };
  for (auto& [name, file] : files) {
    auto image = ImageService::decodeFirstFrame(file);
    ASSERT_TRUE(image.colorSpace.icc) << name;
    EXPECT_FALSE(image.colorSpace.isSRGB) << name;
    if (std::string(name) == "jpeg over several markers") {
      EXPECT_EQ(*image.colorSpace.icc, large);
    }
  }
  // A tagged sRGB file and an untagged one both count as sRGB.
  EXPECT_TRUE(ImageService::decodeFirstFrame(fixtures::png(picture, {.icc = fixtures::srgbICC()})).colorSpace.isSRGB);
  EXPECT_TRUE(ImageService::decodeFirstFrame(fixtures::heic(picture)).colorSpace.isSRGB);
}

TEST(Frames, AnimationsReportTheirCountAndDecodeTheFirstFrame) {
  std::vector<DecodedImage> frames;
  for (int q : {1, 0, 2}) {  // green, then red, then blue
    auto frame = fixtures::quadrants(16, 16);
    for (size_t i = 0; i < frame.pixels8.size(); i += 4) {
      const uint8_t colours[3][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
      std::copy(colours[q], colours[q] + 3, &frame.pixels8[i]);
    }
    frames.push_back(frame);
  }
  auto webp = fixtures::animatedWebp(frames);
  auto decoded = ImageDecoder::decodeCGImageSource(webp);
  EXPECT_EQ(decoded.frameCount, 3);
  expectNear(pixelAt(decoded.image, 8, 8), {0, 255, 0}, 0, "first frame");

  testing::TempDir dir;
  testing::writeBytes(dir.file("anim.webp"), webp);
  EXPECT_EQ(ImageDecoder::inspect(dir.file("anim.webp")).frameCount, 3);

  auto picture = fixtures::quadrants(16, 16);
  EXPECT_EQ(ImageService::properties(fixtures::jxl(picture, {.frames = 4}))->frameCount, 4);
  EXPECT_EQ(ImageService::properties(fixtures::avif(picture, {.alpha = false, .frames = 3}))->frameCount, 3);
  EXPECT_EQ(ImageService::properties(fixtures::jxl(picture))->frameCount, 1);
  EXPECT_EQ(ImageService::properties(fixtures::webp(picture))->frameCount, 1);
  EXPECT_EQ(ImageService::properties(fixtures::heic(picture))->frameCount, 1);
}

TEST(Detection, ContentDecidesNotTheName) {
  testing::TempDir dir;
  testing::writeBytes(dir.file("actually.png"), fixtures::jpeg(fixtures::quadrants(16, 16)));
  EXPECT_EQ(ImageDecoder::inspect(dir.file("actually.png")).format, ImageFormat::jpeg);

  // Other image types are recognised but are none of the six.
  const std::vector<fixtures::Bytes> others = {
      {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0, 0, 0, ',', 0, 0, 0, 0, 1, 0, 1, 0, 0, 2, 2, 'D', 1, 0, ';'},
      {'I', 'I', 0x2A, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0},
      {'B', 'M', 58, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0, 40, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 24, 0},
  };
  for (const auto& bytes : others) {
    EXPECT_TRUE(ImageService::typeIdentifier(bytes));
    EXPECT_FALSE(ImageFormats::detect(bytes));
    EXPECT_THROW(ImageDecoder::decodeCGImageSource(bytes), ImageProcessingError);
    testing::writeBytes(dir.file("other"), bytes);
    EXPECT_THROW(ImageDecoder::inspect(dir.file("other")), ImageProcessingError);
    EXPECT_FALSE(ImageDecoder::loadPreview(bytes, 64));
  }
}

TEST(Thumbnails, BoundedUprightEightBitAndDecodedAtReducedScale) {
  auto picture = fixtures::quadrants(1024, 768);
  auto jpeg = fixtures::jpeg(picture, {.quality = 90, .orientation = 6});
  // The DCT scale alone already brings the JPEG down: 1/4 is the smallest scale that keeps 256.
  auto scaled = codecs::decodeJpeg(jpeg, 256);
  EXPECT_EQ(scaled.width, 256);
  EXPECT_EQ(scaled.height, 192);

  testing::TempDir dir;
  testing::writeBytes(dir.file("big.jpg"), jpeg);
  auto light = ImageDecoder::inspect(dir.file("big.jpg"));
  EXPECT_EQ(light.pixelWidth, 768);
  EXPECT_EQ(light.pixelHeight, 1024);
  EXPECT_EQ(light.fileSizeBytes, int64_t(jpeg.size()));
  EXPECT_EQ(light.thumbnail.width, 192);
  EXPECT_EQ(light.thumbnail.height, 256);
  EXPECT_EQ(fixtures::quadrantAt(light.thumbnail, Corner::topLeft), 2);  // turned clockwise: blue on top left

  auto wide = ImageDecoder::loadPreview(fixtures::png(fixtures::quadrants(600, 300, 16, true)), 100);
  ASSERT_TRUE(wide);
  EXPECT_EQ(wide->width, 100);
  EXPECT_EQ(wide->height, 50);
  EXPECT_EQ(wide->bitsPerComponent, 8);
  EXPECT_TRUE(wide->pixels16.empty());

  // Never enlarged.
  auto small = ImageDecoder::loadPreview(fixtures::webp(fixtures::quadrants(40, 20)), 256);
  ASSERT_TRUE(small);
  EXPECT_EQ(small->width, 40);
}

TEST(Thumbnails, HeicUsesAStoredThumbnailLargeEnough) {
  // The stored thumbnail shows something else than the picture, so that its use shows.
  DecodedImage picture = fixtures::quadrants(640, 480);
  DecodedImage red = fixtures::quadrants(640, 480);
  for (size_t i = 0; i < red.pixels8.size(); i += 4) red.pixels8[i] = 255, red.pixels8[i + 1] = red.pixels8[i + 2] = 0;
  auto file = fixtures::heic(picture, {.alpha = false, .thumbnailSize = 320, .thumbnailPicture = &red});
  auto thumb = ImageService::thumbnail(file, 256);
  ASSERT_TRUE(thumb);
  EXPECT_EQ(thumb->width, 256);
  EXPECT_EQ(fixtures::quadrantAt(*thumb, Corner::bottomRight), 0);  // red: the stored thumbnail
  // Too small for the size asked: the picture itself is decoded.
  auto large = ImageService::thumbnail(file, 400);
  ASSERT_TRUE(large);
  EXPECT_EQ(fixtures::quadrantAt(*large, Corner::bottomRight), 3);
}

TEST(Thumbnails, TransparentPixelsLeaveNoDarkFringe) {
  // Red at alpha 255 next to transparent black, in a fine checkerboard: the average must
  // stay pure red at half alpha, not turn dark red.
  DecodedImage image = fixtures::quadrants(64, 64, 8, true);
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x) {
      uint8_t* p = &image.pixels8[(size_t(y) * 64 + size_t(x)) * 4];
      bool on = (x + y) % 2 == 0;
      p[0] = on ? 255 : 0, p[1] = p[2] = 0, p[3] = on ? 255 : 0;
    }
  auto thumb = ImageDecoder::loadPreview(fixtures::png(image), 8);
  ASSERT_TRUE(thumb);
  auto p = pixelAt(*thumb, 3, 3);
  EXPECT_EQ(p[0], 255);
  EXPECT_NEAR(p[3], 128, 1);
}

TEST(Files, SizeOfMissingPathIsZeroAndUnreadableFilesFailInspection) {
  testing::TempDir dir;
  EXPECT_EQ(ImageDecoder::fileSize(dir.file("missing.png")), 0);
  EXPECT_EQ(ImageDecoder::fileSize(dir.path()), 0);
  EXPECT_FALSE(ImageDecoder::loadPreview(dir.file("missing.png"), 64));
  try {
    ImageDecoder::inspect(dir.file("missing.png"));
    FAIL() << "inspect of a missing file succeeded";
  } catch (const ImageProcessingError& e) {
    EXPECT_EQ(e.kind(), ImageProcessingError::Kind::decodingFailed);
  }
}

}  // namespace
}  // namespace quillane
