// Fitting within a box, the byte budget and keeping a smaller original, through the whole
// pipeline on real files.

#include <gtest/gtest.h>

#include <filesystem>

#include "engine/ImageCompressor.h"
#include "engine/ImageService.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using ImageCompressor::encodeData;

TEST(FitOption, ScalesTheUprightPictureIntoTheBoxAndKeepsAlpha) {
  struct Case {
    Bytes source;
    int maxWidth, maxHeight, width, height;
  };
  const DecodedImage photo = testing::makeImage(120, 80, testing::Pattern::photo, 3);
  const Case cases[] = {
      {fixtures::jpeg(photo), 60, 60, 60, 40},  // landscape
      {fixtures::jpeg(testing::makeImage(80, 120, testing::Pattern::photo)), 0, 60, 40,
       60},                                                         // portrait, height only
      {fixtures::jpeg(photo, {.orientation = 6}), 40, 40, 27, 40},  // stored 120 x 80, shown 80 x 120
      {fixtures::jpeg(photo), 400, 300, 120, 80},                   // never enlarged
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height));
    auto out = ImageCompressor::encode(c.source, ImageFormat::webp, 80,
                                       {.maxWidth = c.maxWidth, .maxHeight = c.maxHeight});
    EXPECT_EQ(out.width, c.width);
    EXPECT_EQ(out.height, c.height);
    EXPECT_EQ(out.fitted, c.width != 120 && c.height != 120);
    auto props = ImageService::properties(out.bytes);
    ASSERT_TRUE(props);
    EXPECT_EQ(props->width, c.width);
    EXPECT_EQ(props->height, c.height);
  }
  // A picture inside the box gives the very bytes it gives without the option.
  EXPECT_EQ(ImageCompressor::encode(cases[0].source, ImageFormat::jpeg, 70, {.maxWidth = 500}).bytes,
            encodeData(cases[0].source, ImageFormat::jpeg, 70));

  const Bytes logo = fixtures::png(testing::makeImage(64, 64, testing::Pattern::flatLogo, 1, true));
  for (ImageFormat format : {ImageFormat::png, ImageFormat::avif}) {
    auto decoded =
        ImageService::decodeFirstFrame(ImageCompressor::encode(logo, format, 90, {.maxWidth = 32}).bytes);
    EXPECT_EQ(decoded.width, 32);
    EXPECT_TRUE(decoded.hasAlphaChannel()) << ImageFormats::label(format);
  }
}

TEST(BudgetOption, EveryFormatLandsUnderTheBudgetAndCloseToItForAPhoto) {
  const Bytes source = fixtures::png(testing::texturedPhoto(256, 192));
  for (ImageFormat format : ImageFormats::allCases) {
    SCOPED_TRACE(ImageFormats::label(format));
    const size_t plain = encodeData(source, format, 90).size();
    const auto budget = int64_t(plain / 3);
    auto out = ImageCompressor::encode(source, format, 90, {.maxBytes = budget});
    EXPECT_LE(int64_t(out.bytes.size()), budget);
    EXPECT_LT(out.quality, 90);
    EXPECT_LE(out.encodes, 8);
    if (format != ImageFormat::png) {
      EXPECT_GE(double(out.bytes.size()), 0.7 * double(budget));
    }
    // The plan at the quality found is the one encoded: the same call without a budget agrees.
    EXPECT_EQ(out.bytes, encodeData(source, format, out.quality));
    // The highest quality that fits, unless the search stopped within 5 % under the budget.
    if (double(out.bytes.size()) < 0.95 * double(budget)) {
      EXPECT_GT(int64_t(encodeData(source, format, out.quality + 1).size()), budget);
    }

    // A budget the first encoding meets costs nothing more.
    auto roomy = ImageCompressor::encode(source, format, 90, {.maxBytes = int64_t(plain)});
    EXPECT_EQ(roomy.encodes, 1);
    EXPECT_EQ(roomy.quality, 90);
  }
}

TEST(BudgetOption, AnUnreachableBudgetFailsWithItsReasonAndWritesNothing) {
  testing::TempDir dir;
  const std::string path = dir.write("big.png", fixtures::png(testing::texturedPhoto(200, 150)));
  fs::create_directory(dir.file("out"));
  auto result = ImageCompressor::compress(path, dir.file("out"), ImageFormat::jpeg, 80, std::nullopt, false,
                                          {.maxBytes = 100});
  ASSERT_FALSE(result.succeeded());
  EXPECT_NE(result.error->find("100 bytes"), std::string::npos) << *result.error;
  EXPECT_NE(result.error->find("200 x 150"), std::string::npos) << *result.error;
  EXPECT_TRUE(fs::is_empty(dir.file("out")));
  EXPECT_EQ(ImageCompressor::byteCountText(100000), "100 kB");
  EXPECT_EQ(ImageCompressor::byteCountText(1500000), "1.5 MB");
}

TEST(SkipLargerOption, KeepsTheOriginalOnlyWhenTheResultIsNotSmaller) {
  testing::TempDir dir;
  // A photo saved at JPEG quality 30 grows at quality 100; at quality 40 in WebP it shrinks.
  const std::string path =
      dir.write("photo.jpg", fixtures::jpeg(testing::texturedPhoto(160, 120), {.quality = 30}));
  auto kept = ImageCompressor::compress(path, dir.path(), ImageFormat::jpeg, 100, "out.jpg", false,
                                        {.skipLarger = true});
  ASSERT_TRUE(kept.succeeded()) << *kept.error;
  ASSERT_TRUE(kept.skipped) << kept.toJSON();
  EXPECT_FALSE(kept.destination);
  EXPECT_FALSE(fs::exists(dir.file("out.jpg")));
  EXPECT_NE(kept.toJSON().find("\"skipped\":true"), std::string::npos);

  auto written = ImageCompressor::compress(path, dir.path(), ImageFormat::webp, 40, std::nullopt, false,
                                           {.skipLarger = true});
  ASSERT_TRUE(written.succeeded());
  EXPECT_FALSE(written.skipped);
  EXPECT_TRUE(fs::exists(dir.file("photo.webp")));
  EXPECT_EQ(written.pixelWidth, 160);
  EXPECT_EQ(written.quality, 40);
}

}  // namespace
}  // namespace quillane
