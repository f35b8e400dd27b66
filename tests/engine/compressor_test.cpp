// The compression pipeline end to end on real files: what reaches each encoder, the JPEG to
// JPEG XL repackaging and its fallback, the result records and their JSON, and failures that
// leave nothing behind.

#include <gtest/gtest.h>

#include <filesystem>

#include "engine/Errors.h"
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

Bytes photoJpeg(int w = 64, int h = 48, int orientation = 1) {
  fixtures::JpegOptions options;
  if (orientation != 1) options.orientation = orientation;
  return fixtures::jpeg(testing::makeImage(w, h, testing::Pattern::photo, 9), options);
}

class CompressorFiles : public ::testing::Test {
 protected:
  testing::TempDir dir;
  std::string write(const std::string& name, const Bytes& bytes) {
    std::string path = dir.file(name);
    testing::writeBytes(path, bytes);
    return path;
  }
};

// --- encodeData -------------------------------------------------------------------------------

TEST(EncodeData, TransparentPngBecomesJpegWithWhiteWhereItWasTransparent) {
  Bytes png = fixtures::png(testing::makeImage(48, 48, testing::Pattern::flatLogo, 1, true));
  Bytes out = encodeData(png, ImageFormat::jpeg, 80);
  ASSERT_EQ(ImageFormats::detect(out), ImageFormat::jpeg);
  DecodedImage back = ImageService::decodeFirstFrame(out);
  for (int c = 0; c < 3; ++c) EXPECT_GE(back.pixels8[c], 250);  // top left corner was clear
}

TEST(EncodeData, EveryFormatRunsTheWholePipelineAndBakesTheOrientation) {
  Bytes jpeg = photoJpeg(40, 24, 6);  // a quarter turn: shown 24 wide, 40 high
  for (ImageFormat format : ImageFormats::allCases) {
    if (format == ImageFormat::jxl) continue;  // 90 would repackage instead
    SCOPED_TRACE(ImageFormats::label(format));
    Bytes out = encodeData(jpeg, format, 85);
    EXPECT_EQ(ImageFormats::detect(out), format);
    auto props = ImageService::properties(out);
    ASSERT_TRUE(props);
    EXPECT_EQ(props->width, 24);
    EXPECT_EQ(props->height, 40);
    EXPECT_FALSE(props->orientation.has_value());
  }
  Bytes png = fixtures::png(testing::makeImage(30, 20, testing::Pattern::screenshot, 2));
  EXPECT_NE(encodeData(png, ImageFormat::png, 75), png) << "PNG to PNG is re-encoded, never copied";
}

TEST(EncodeData, JpegToJxlIsRepackagedFromNinetyOnly) {
  Bytes jpeg = photoJpeg();
  auto at90 = testing::decodeJXL(encodeData(jpeg, ImageFormat::jxl, 90));
  ASSERT_TRUE(at90);
  EXPECT_EQ(at90->reconstructedJPEG, jpeg);

  auto below = testing::decodeJXL(encodeData(jpeg, ImageFormat::jxl, 89.9));
  ASSERT_TRUE(below);
  EXPECT_TRUE(below->reconstructedJPEG.empty());
  EXPECT_EQ(below->image.width, 64);
}

TEST(EncodeData, PngToJxlIsNeverRepackaged) {
  Bytes png = fixtures::png(testing::makeImage(40, 30, testing::Pattern::photo, 3));
  auto out = testing::decodeJXL(encodeData(png, ImageFormat::jxl, 95));
  ASSERT_TRUE(out);
  EXPECT_TRUE(out->reconstructedJPEG.empty());
}

TEST(EncodeData, JpegThatCannotBeRepackagedStillBecomesJxlFromPixels) {
  // libjxl repackages one- and three-component JPEGs only; a CMYK JPEG decodes fine.
  const int w = 32, h = 16;
  Bytes cmyk(size_t(w) * h * 4, 0);
  for (size_t i = 0; i < cmyk.size(); i += 4) cmyk[i] = uint8_t(i % 200);
  Bytes jpeg = fixtures::cmykJpeg(w, h, cmyk);
  auto out = testing::decodeJXL(encodeData(jpeg, ImageFormat::jxl, 95));
  ASSERT_TRUE(out);
  EXPECT_TRUE(out->reconstructedJPEG.empty());
  EXPECT_EQ(out->image.width, w);
}

TEST(EncodeData, UndecodableBytesFailWithDecodingFailed) {
  Bytes truncated = photoJpeg();
  truncated.resize(truncated.size() / 3);
  for (const Bytes& bytes : {Bytes{}, Bytes{'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0}, truncated}) {
    try {
      encodeData(bytes, ImageFormat::webp, 75);
      ADD_FAILURE() << "decoded " << bytes.size() << " bytes";
    } catch (const ImageProcessingError& e) {
      EXPECT_EQ(e.kind(), ImageProcessingError::Kind::decodingFailed);
    }
  }
}

// --- compress ---------------------------------------------------------------------------------

TEST_F(CompressorFiles, WritesUnderTheSourceNameOrTheGivenOneAndReplacesAnOldFile) {
  std::string source = write("holiday.photo.png", fixtures::png(testing::makeImage(40, 30, testing::Pattern::photo)));
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

TEST_F(CompressorFiles, CorruptSourceGivesItsTrueSizeAndWritesNothing) {
  Bytes corrupt = photoJpeg();
  corrupt.resize(200);
  std::string source = write("broken.jpg", corrupt);
  fs::create_directory(dir.file("out"));
  auto result = compress(source, dir.file("out"), ImageFormat::avif, 75, std::nullopt);
  EXPECT_FALSE(result.succeeded());
  EXPECT_EQ(result.originalSizeBytes, 200);
  EXPECT_EQ(result.error, "Impossible de décoder l'image source.");
  EXPECT_FALSE(result.destination || result.compressedSizeBytes || result.ratio);
  EXPECT_TRUE(filesIn(dir.file("out")).empty());
}

TEST_F(CompressorFiles, MissingAndEmptySourcesFail) {
  auto missing = compress(dir.file("nowhere.png"), dir.path(), ImageFormat::png, 75, std::nullopt);
  EXPECT_FALSE(missing.succeeded());
  EXPECT_EQ(missing.originalSizeBytes, 0);
  EXPECT_FALSE(missing.error->empty());

  auto empty = compress(write("empty.png", {}), dir.path(), ImageFormat::png, 75, std::nullopt);
  EXPECT_FALSE(empty.succeeded());
  EXPECT_EQ(empty.originalSizeBytes, 0);
  EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"empty.png"});
}

TEST_F(CompressorFiles, FailedWriteLeavesNoPartialOrTemporaryFile) {
  std::string source = write("a.png", fixtures::png(testing::makeImage(20, 20, testing::Pattern::photo)));
  fs::create_directory(dir.file("out"));
  fs::create_directory(dir.file("out/a.jpg"));  // the rename onto a folder fails after the write
  auto onFolder = compress(source, dir.file("out"), ImageFormat::jpeg, 75, std::nullopt);
  EXPECT_FALSE(onFolder.succeeded());
  EXPECT_EQ(onFolder.originalSizeBytes, ImageCompressor::fileSize(source));
  EXPECT_EQ(filesIn(dir.file("out")), std::vector<std::string>{"a.jpg"});
  EXPECT_TRUE(fs::is_empty(dir.file("out/a.jpg")));

  auto noFolder = compress(source, dir.file("missing/deeper"), ImageFormat::jpeg, 75, std::nullopt);
  EXPECT_FALSE(noFolder.succeeded());
  EXPECT_FALSE(fs::exists(dir.file("missing")));
}

// --- Records as JSON --------------------------------------------------------------------------

TEST(CompressionResultJSON, FailureHoldsExactlyPathSizeAndError) {
  ImageCompressionResult failure;
  failure.path = "/tmp/a \"b\".png";
  failure.originalSizeBytes = 12;
  failure.error = "Impossible de décoder l'image source.";
  EXPECT_EQ(failure.toJSON(),
            R"({"error":"Impossible de décoder l'image source.","originalSizeBytes":12,"path":"\/tmp\/a \"b\".png"})");
}

TEST(CompressionResultJSON, SuccessKeysAreSortedAndArraysJoinRecords) {
  ImageCompressionResult success;
  success.path = "in/x.png";
  success.originalSizeBytes = 400;
  success.compressedSizeBytes = 100;
  success.ratio = 0.75;
  success.destination = "/out/x.jpg";
  const std::string one =
      R"({"compressedSizeBytes":100,"destination":"\/out\/x.jpg","originalSizeBytes":400,"path":"in\/x.png","ratio":0.75})";
  EXPECT_EQ(success.toJSON(), one);
  success.ratio = -0.5;  // a result that grew
  EXPECT_NE(success.toJSON().find("\"ratio\":-0.5"), std::string::npos);
  EXPECT_EQ(ImageCompressor::jsonString({}), "[]");
  ImageCompressionResult other;
  other.path = "y";
  other.error = "e";
  EXPECT_EQ(ImageCompressor::jsonString({other, other}),
            R"([{"error":"e","originalSizeBytes":0,"path":"y"},{"error":"e","originalSizeBytes":0,"path":"y"}])");
}

}  // namespace
}  // namespace quillane
