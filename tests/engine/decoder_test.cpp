// Reading the six formats: orientation applied exactly once, depth, alpha, profiles, grey and
// CMYK conversion, frame counts, content-based detection.

#include <gtest/gtest.h>

#include "engine/Errors.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/Resample.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using fixtures::Corner;
using ImageDecoder::decodeCGImageSource;

constexpr int kW = 48, kH = 32;

// Which stored quarter each displayed corner shows (top left, top right, bottom left,
// bottom right) for EXIF orientations 1 to 8.
const Corner kSeen[9][4] = {
    {},
    {Corner::topLeft, Corner::topRight, Corner::bottomLeft, Corner::bottomRight},
    {Corner::topRight, Corner::topLeft, Corner::bottomRight, Corner::bottomLeft},
    {Corner::bottomRight, Corner::bottomLeft, Corner::topRight, Corner::topLeft},
    {Corner::bottomLeft, Corner::bottomRight, Corner::topLeft, Corner::topRight},
    {Corner::topLeft, Corner::bottomLeft, Corner::topRight, Corner::bottomRight},
    {Corner::bottomLeft, Corner::topLeft, Corner::bottomRight, Corner::topRight},
    {Corner::bottomRight, Corner::topRight, Corner::bottomLeft, Corner::topLeft},
    {Corner::topRight, Corner::bottomRight, Corner::topLeft, Corner::bottomLeft},
};

// The picture is the quadrants() picture of kW x kH shown under `orientation`.
void expectUpright(const DecodedImage& image, int orientation) {
  bool quarter = orientation >= 5;
  ASSERT_EQ(image.width, quarter ? kH : kW);
  ASSERT_EQ(image.height, quarter ? kW : kH);
  const Corner displayed[4] = {Corner::topLeft, Corner::topRight, Corner::bottomLeft, Corner::bottomRight};
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(fixtures::quadrantAt(image, displayed[i]), fixtures::quadrantColour(kSeen[orientation][i]))
        << "orientation " << orientation << ", displayed corner " << i;
}

class JpegOrientation : public ::testing::TestWithParam<int> {};

TEST_P(JpegOrientation, DecodedPictureIsTurnedOnceAndReportedSizeFollows) {
  int orientation = GetParam();
  auto file = fixtures::jpeg(fixtures::quadrants(kW, kH), {.orientation = orientation});
  auto decoded = decodeCGImageSource(file);
  EXPECT_EQ(decoded.format, ImageFormat::jpeg);
  expectUpright(decoded.image, orientation);

  testing::TempDir dir;
  testing::writeBytes(dir.file("photo.jpg"), file);
  auto light = ImageDecoder::inspect(dir.file("photo.jpg"));
  EXPECT_EQ(light.pixelWidth, orientation >= 5 ? kH : kW);
  EXPECT_EQ(light.pixelHeight, orientation >= 5 ? kW : kH);
  expectUpright(light.thumbnail, orientation);
}

INSTANTIATE_TEST_SUITE_P(AllOrientations, JpegOrientation, ::testing::Range(1, 9));

TEST(Orientation, ValuesOutsideOneToEightLeaveThePictureAlone) {
  for (int value : {0, 9, 255}) {
    auto decoded = decodeCGImageSource(fixtures::jpeg(fixtures::quadrants(kW, kH), {.orientation = value}));
    expectUpright(decoded.image, 1);
    EXPECT_FALSE(ImageDecoder::applyOrientation(value, decoded.image));
  }
  EXPECT_FALSE(ImageDecoder::applyOrientation(1, fixtures::quadrants(kW, kH)));
}

TEST(Orientation, PngAndWebPCarryItInTheirOwnChunks) {
  auto picture = fixtures::quadrants(kW, kH);
  // eXIf after the image data: the header probe must still find it.
  expectUpright(decodeCGImageSource(fixtures::png(picture, {.orientation = 6, .exifAfterData = true})).image, 6);
  expectUpright(decodeCGImageSource(fixtures::png(picture, {.orientation = 8})).image, 8);
  expectUpright(decodeCGImageSource(fixtures::webp(picture, {.orientation = 3})).image, 3);
  expectUpright(decodeCGImageSource(fixtures::webp(picture, {.lossless = true, .orientation = 5})).image, 5);
}

TEST(Orientation, HeicIsTurnedByLibheifAloneAndReportsTheTurnedSize) {
  // The EXIF block disagrees on purpose: applying it as well would turn the picture again.
  auto file = fixtures::heic(fixtures::quadrants(kW, kH), {.alpha = false, .orientation = 6, .exifOrientation = 8});
  auto props = ImageService::properties(file);
  ASSERT_TRUE(props);
  EXPECT_FALSE(props->orientation);
  EXPECT_EQ(props->width, kH);
  EXPECT_EQ(props->height, kW);
  expectUpright(decodeCGImageSource(file).image, 6);
}

TEST(Orientation, AvifIrotAndImirAreAppliedByTheReader) {
  auto picture = fixtures::quadrants(kW, kH);
  // irot is anticlockwise: one quarter turn shows the stored top right corner at the top left.
  struct Case {
    int angle, mode, orientation;
  };
  for (Case c : {Case{1, -1, 8}, Case{3, -1, 6}, Case{2, -1, 3}, Case{-1, 1, 2}, Case{-1, 0, 4}, Case{1, 0, 5}}) {
    auto file = fixtures::avif(picture, {.alpha = false, .irotAngle = c.angle, .imirMode = c.mode});
    auto props = ImageService::properties(file);
    ASSERT_TRUE(props);
    EXPECT_EQ(props->orientation, c.orientation);
    EXPECT_EQ(props->width, kW);  // stored size: libavif does not turn
    expectUpright(decodeCGImageSource(file).image, c.orientation);
  }
}

TEST(Orientation, JxlKeepsItsStoredOrientationForThePipeline) {
  auto file = fixtures::jxl(fixtures::quadrants(kW, kH), {.orientation = 6});
  EXPECT_EQ(ImageService::properties(file)->orientation, 6);
  expectUpright(decodeCGImageSource(file).image, 6);
}

TEST(Orientation, SixteenBitAlphaSurvivesEveryTurnUnchanged) {
  DecodedImage source = fixtures::quadrants(5, 3, 16, true);
  source.pixels16[0] = 12345;  // one odd sample to follow around
  for (int o = 2; o <= 8; ++o) {
    auto turned = ImageDecoder::applyOrientation(o, source);
    ASSERT_TRUE(turned);
    EXPECT_EQ(turned->bitsPerComponent, 16);
    EXPECT_EQ(turned->alpha, AlphaInfo::straight);
    EXPECT_EQ(turned->width, o >= 5 ? 3 : 5);
    EXPECT_EQ(std::count(turned->pixels16.begin(), turned->pixels16.end(), 12345), 1);
    // Turning back by the inverse orientation gives the source exactly.
    const int inverse[9] = {0, 1, 2, 3, 4, 5, 8, 7, 6};
    auto back = ImageDecoder::applyOrientation(inverse[o], *turned);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->pixels16, source.pixels16) << o;
  }
}

TEST(Depth, SixteenBitPngKeepsDepthAlphaAndProfile) {
  DecodedImage source = fixtures::quadrants(kW, kH, 16, true);
  for (size_t i = 0; i < source.pixels16.size(); i += 7) source.pixels16[i] = uint16_t(i * 2654435761u);
  auto icc = fixtures::displayP3ICC();
  auto image = ImageService::decodeFirstFrame(fixtures::png(source, {.icc = icc}));
  EXPECT_EQ(image.bitsPerComponent, 16);
  EXPECT_EQ(image.alpha, AlphaInfo::straight);
  EXPECT_EQ(image.pixels16, source.pixels16);
  ASSERT_TRUE(image.colorSpace.icc);
  EXPECT_EQ(*image.colorSpace.icc, icc);
  EXPECT_FALSE(image.colorSpace.isSRGB);
}

TEST(Depth, HighBitDepthAvifAndJxlBecomeSixteenBit) {
  auto source = fixtures::quadrants(kW, kH, 16, true);
  auto avif = ImageService::decodeFirstFrame(fixtures::avif(source, {.quantizer = 0, .depth = 10}));
  EXPECT_EQ(avif.bitsPerComponent, 16);
  EXPECT_EQ(avif.alpha, AlphaInfo::straight);
  EXPECT_EQ(fixtures::quadrantAt(avif, Corner::bottomRight), 3);
  EXPECT_NEAR(avif.pixels16[3], 128 * 257, 600);  // half-transparent top left, full 16-bit scale

  auto jxl = ImageService::decodeFirstFrame(fixtures::jxl(source));
  EXPECT_EQ(jxl.bitsPerComponent, 16);
  EXPECT_EQ(jxl.pixels16, source.pixels16);  // lossless
}

TEST(Alpha, EveryFormatWithAlphaKeepsIt) {
  auto source = fixtures::quadrants(kW, kH, 8, true);
  std::vector<std::pair<const char*, fixtures::Bytes>> files = {
      {"png", fixtures::png(source)},
      {"palette png", fixtures::png(source, {.palette = true})},
      {"webp", fixtures::webp(source, {.lossless = true})},
      {"heic", fixtures::heic(source)},
      {"avif", fixtures::avif(source)},
      {"jxl", fixtures::jxl(source)},
  };
  for (auto& [name, file] : files) {
    auto image = Resample::toEightBit(ImageService::decodeFirstFrame(file));
    EXPECT_TRUE(image.hasAlphaChannel()) << name;
    EXPECT_NEAR(image.pixels8[3], 128, 4) << name;  // top left is half transparent
    EXPECT_NEAR(image.pixels8[image.pixels8.size() - 1], 255, 2) << name;
    EXPECT_EQ(fixtures::quadrantAt(image, Corner::bottomLeft), 2) << name;
  }
}

}  // namespace
}  // namespace quillane
