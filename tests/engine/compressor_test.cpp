// The compression pipeline end to end on real files: the JPEG to JPEG XL repackaging and its
// fallback, the result records, and failures that leave nothing behind.

#include <gtest/gtest.h>

#include <filesystem>

#include "engine/ImageCompressor.h"
#include "engine/ImageService.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using ImageCompressor::compress;
using ImageCompressor::encodeData;

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

Bytes photoJpeg(int w = 64, int h = 48, std::optional<int> orientation = {}) {
  return fixtures::jpeg(testing::makeImage(w, h, testing::Pattern::photo, 9), {.orientation = orientation});
}

// --- encodeData -------------------------------------------------------------------------------

TEST(EncodeData, WideGamutProfileReachesEveryFormatAndSRGBAddsNone) {
  const DecodedImage pictures[] = {testing::makeImage(32, 24, testing::Pattern::photo, 3),
                                   testing::makeImage(32, 24, testing::Pattern::flatLogo, 1, true)};
  const Bytes srgb = fixtures::srgbICC();
  // The large profile needs several JPEG markers.
  for (const Bytes& icc : {fixtures::displayP3ICC(), fixtures::displayP3ICC(true), srgb})
    for (const DecodedImage& picture : pictures)
      for (ImageFormat format : ImageFormats::allCases) {
        SCOPED_TRACE(std::string(ImageFormats::label(format)) + " profile of " + std::to_string(icc.size()));
        auto written =
            ImageService::decodeFirstFrame(encodeData(fixtures::png(picture, {.icc = icc}), format, 80));
        EXPECT_EQ(written.colorSpace.isSRGB, icc == srgb);
        // JPEG XL signals sRGB and known spaces in its header: its reader makes a profile of them.
        if (format == ImageFormat::jxl) continue;
        if (icc == srgb) {
          EXPECT_FALSE(written.colorSpace.icc);
        } else {
          ASSERT_TRUE(written.colorSpace.icc);
          EXPECT_EQ(*written.colorSpace.icc, icc);
        }
      }
}

TEST(EncodeData, EveryFormatRunsTheWholePipelineBakesTheOrientationAndTakesTinyPictures) {
  Bytes jpeg = photoJpeg(41, 23, 6);  // a quarter turn: shown 23 wide, 41 high
  Bytes tiny = fixtures::png(testing::makeImage(1, 1, testing::Pattern::photo, 1, true));
  for (ImageFormat format : ImageFormats::allCases) {
    SCOPED_TRACE(ImageFormats::label(format));
    Bytes out = encodeData(jpeg, format, 85);
    EXPECT_EQ(ImageFormats::detect(out), format);
    auto props = ImageService::properties(out);
    ASSERT_TRUE(props);
    EXPECT_EQ(props->width, 23);
    EXPECT_EQ(props->height, 41);
    EXPECT_EQ(props->orientation.value_or(1), 1);
    EXPECT_EQ(ImageService::properties(encodeData(tiny, format, 75))->width, 1);
  }
  Bytes png = fixtures::png(testing::makeImage(30, 20, testing::Pattern::screenshot, 2));
  EXPECT_NE(encodeData(png, ImageFormat::png, 75), png) << "PNG to PNG is re-encoded, never copied";
}

TEST(EncodeData, JpegToJxlIsRepackagedFromNinetyAndOtherwiseEncodedFromPixels) {
  Bytes jpeg = photoJpeg();
  auto at90 = testing::decodeJXL(encodeData(jpeg, ImageFormat::jxl, 90));
  ASSERT_TRUE(at90);
  EXPECT_EQ(at90->reconstructedJPEG, jpeg);

  // libjxl repackages one- and three-component JPEGs only; a CMYK JPEG decodes fine, and the
  // fallback stays silent: the command-line tool's stderr carries only its own messages.
  Bytes cmyk(size_t(32 * 16 * 4), 0);
  for (size_t i = 0; i < cmyk.size(); i += 4) cmyk[i] = uint8_t(i % 200);
  const std::pair<Bytes, double> fromPixels[] = {
      {jpeg, 89.9},
      {fixtures::cmykJpeg(32, 16, cmyk), 95},
      {fixtures::png(testing::makeImage(32, 16, testing::Pattern::photo)), 95}};
  for (const auto& [source, quality] : fromPixels) {
    ::testing::internal::CaptureStderr();
    auto out = testing::decodeJXL(encodeData(source, ImageFormat::jxl, quality));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    ASSERT_TRUE(out);
    EXPECT_TRUE(out->reconstructedJPEG.empty());
    EXPECT_EQ(out->image.width, ImageService::properties(source)->width);
  }
}

// --- compress ---------------------------------------------------------------------------------

TEST(Compress, WritesUnderTheSourceNameOrTheGivenOneAndReplacesAnOldFile) {
  testing::TempDir dir;
  std::string source =
      dir.write("holiday.photo.png", fixtures::png(testing::makeImage(40, 30, testing::Pattern::photo)));
  fs::create_directory(dir.file("out"));
  testing::writeBytes(dir.file("out/holiday.photo.webp"), {'o', 'l', 'd'});

  auto result = compress(source, dir.file("out"), ImageFormat::webp, 75, std::nullopt);
  ASSERT_TRUE(result.succeeded()) << *result.error;
  EXPECT_EQ(result.destination, dir.file("out/holiday.photo.webp"));
  EXPECT_EQ(result.originalSizeBytes, ImageCompressor::fileSize(source));
  Bytes written = testing::readBytes(*result.destination);
  EXPECT_EQ(ImageFormats::detect(written), ImageFormat::webp);
  EXPECT_EQ(result.compressedSizeBytes, int64_t(written.size()));
  EXPECT_DOUBLE_EQ(*result.ratio, 1.0 - double(written.size()) / double(result.originalSizeBytes));

  auto named = compress(source, dir.file("out") + "/", ImageFormat::jpeg, 75, std::string("Chosen-2.jpg"));
  ASSERT_TRUE(named.succeeded());
  EXPECT_EQ(fs::path(*named.destination).filename(), "Chosen-2.jpg");
  EXPECT_EQ(filesIn(dir.file("out")), (std::vector<std::string>{"Chosen-2.jpg", "holiday.photo.webp"}));
}

TEST(Compress, CorruptMissingAndEmptySourcesGiveTheirTrueSizeAndWriteNothing) {
  testing::TempDir dir;
  Bytes corrupt = photoJpeg();
  corrupt.resize(200);
  fs::create_directory(dir.file("out"));
  const std::pair<std::string, int64_t> sources[] = {
      {dir.write("broken.jpg", corrupt), 200}, {dir.write("empty.png", {}), 0}, {dir.file("nowhere.png"), 0}};
  for (const auto& [source, size] : sources) {
    auto result = compress(source, dir.file("out"), ImageFormat::avif, 75, std::nullopt);
    EXPECT_FALSE(result.succeeded()) << source;
    EXPECT_EQ(result.originalSizeBytes, size);
    ASSERT_TRUE(result.error);
    if (size == 200) {
      EXPECT_EQ(*result.error, "Impossible de décoder l'image source.");
    }
    EXPECT_FALSE(result.destination || result.compressedSizeBytes || result.ratio);
  }
  EXPECT_TRUE(filesIn(dir.file("out")).empty());

  const std::string valid =
      dir.write("a.png", fixtures::png(testing::makeImage(20, 20, testing::Pattern::photo)));
  auto noFolder = compress(valid, dir.file("missing/deeper"), ImageFormat::jpeg, 75, std::nullopt);
  EXPECT_FALSE(noFolder.succeeded());
  EXPECT_FALSE(fs::exists(dir.file("missing"))) << "no folder is made";
}

TEST(CompressionResultJSON, KeysAreSortedSlashesEscapedAndFailuresHoldOnlyPathSizeAndError) {
  ImageCompressionResult success;
  success.path = "in/x \"b\".png";
  success.originalSizeBytes = 400;
  success.compressedSizeBytes = 100;
  success.ratio = -0.5;  // a result that grew
  success.destination = "/out/x.jpg";
  ImageCompressionResult failure;
  failure.path = "y";
  failure.originalSizeBytes = 12;
  failure.error = "Impossible de décoder l'image source.";
  EXPECT_EQ(ImageCompressor::jsonString({success, failure}),
            R"([{"compressedSizeBytes":100,"destination":"\/out\/x.jpg","originalSizeBytes":400,)"
            R"("path":"in\/x \"b\".png","ratio":-0.5},)"
            R"({"error":"Impossible de décoder l'image source.","originalSizeBytes":12,"path":"y"}])");
  EXPECT_EQ(ImageCompressor::jsonString({}), "[]");
}

}  // namespace
}  // namespace quillane
