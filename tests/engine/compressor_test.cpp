// The compression pipeline end to end on real files: JPEG XL repackaging, result records, failures
// that leave nothing behind, fitting, the byte budget, keeping a smaller original; and the
// perceptual distance between a source and its result.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "engine/Encoders.h"
#include "engine/EncodingStrategy.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageService.h"
#include "engine/PerceptualDistance.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

namespace fs = std::filesystem;
using ImageCompressor::compress;
using ImageCompressor::encodeData;

Bytes photoJpeg(int w = 64, int h = 48, std::optional<int> orientation = {}) {
  return fixtures::jpeg(makeImage(w, h, Pattern::photo, 9), {.orientation = orientation});
}

TEST(EncodeData, WideGamutProfileReachesEveryFormatAndSRGBAddsNone) {
  const DecodedImage pictures[] = {makeImage(32, 24, Pattern::photo, 3),
                                   makeImage(32, 24, Pattern::flatLogo, 1, true)};
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
        const auto& kept = written.colorSpace.icc;
        EXPECT_EQ(kept ? std::optional(*kept) : std::nullopt,
                  icc == srgb ? std::nullopt : std::optional(icc));
      }
}

TEST(EncodeData, EveryFormatRunsTheWholePipelineBakesTheOrientationAndTakesTinyPictures) {
  Bytes jpeg = photoJpeg(41, 23, 6);  // a quarter turn: shown 23 wide, 41 high
  Bytes tiny = fixtures::png(makeImage(1, 1, Pattern::photo, 1, true));
  for (ImageFormat format : ImageFormats::allCases) {
    SCOPED_TRACE(ImageFormats::label(format));
    Bytes out = encodeData(jpeg, format, 85);
    EXPECT_EQ(ImageFormats::detect(out), format);
    auto props = ImageService::properties(out);
    ASSERT_TRUE(props);
    EXPECT_EQ(std::tuple(props->width, props->height, props->orientation.value_or(1)), std::tuple(23, 41, 1));
    EXPECT_EQ(ImageService::properties(encodeData(tiny, format, 75))->width, 1);
  }
  Bytes png = fixtures::png(makeImage(30, 20, Pattern::screenshot, 2));
  EXPECT_NE(encodeData(png, ImageFormat::png, 75), png) << "PNG to PNG is re-encoded, never copied";
}

TEST(EncodeData, JpegToJxlIsRepackagedFromNinetyAndOtherwiseEncodedFromPixels) {
  Bytes jpeg = photoJpeg();
  auto at90 = decodeJXL(encodeData(jpeg, ImageFormat::jxl, 90));
  ASSERT_TRUE(at90);
  EXPECT_EQ(at90->reconstructedJPEG, jpeg);

  // libjxl repackages one- and three-component JPEGs only; a CMYK JPEG decodes fine, and the
  // fallback stays silent: the command-line tool's stderr carries only its own messages.
  Bytes cmyk(size_t(32 * 16 * 4), 0);
  for (size_t i = 0; i < cmyk.size(); i += 4) cmyk[i] = uint8_t(i % 200);
  const std::pair<Bytes, double> fromPixels[] = {{jpeg, 89.9},
                                                 {fixtures::cmykJpeg(32, 16, cmyk), 95},
                                                 {fixtures::png(makeImage(32, 16, Pattern::photo)), 95}};
  for (const auto& [source, quality] : fromPixels) {
    ::testing::internal::CaptureStderr();
    auto out = decodeJXL(encodeData(source, ImageFormat::jxl, quality));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    ASSERT_TRUE(out);
    EXPECT_TRUE(out->reconstructedJPEG.empty());
  }
}

// A graphic's JPEG XL or WebP is the smaller of its competing lossy and lossless encodings,
// also where lossless is first judged by its quick estimate: a flat logo (lossless main) and a
// screenshot with a smooth gradient (JPEG XL: estimated at five times its lossless bytes; WebP:
// a flat graphic of few colours, where lossless competes at 90).
TEST(EncodeData, GraphicIsTheSmallerOfItsLossyAndLosslessEncodings) {
  for (const ImageFormat format : {ImageFormat::jxl, ImageFormat::webp})
    for (const bool gradient : {false, true}) {
      DecodedImage picture = makeImage(160, 120, Pattern::screenshot, 3);
      for (size_t p = 0; gradient && format == ImageFormat::jxl && p < size_t{160} * 60; ++p) {
        picture.pixels8[p * 4] = uint8_t(p % 160);
        picture.pixels8[p * 4 + 1] = uint8_t(p / 160 * 2);
        picture.pixels8[p * 4 + 2] = 128;
      }
      for (size_t p = 0; gradient && format == ImageFormat::webp && p < size_t{160} * 20; ++p)
        std::fill_n(&picture.pixels8[p * 4], 3, uint8_t(p % 160 / 2 + p / 160));
      const RGBABuffer rgba(picture);
      const ImageCharacteristics characteristics = ImageAnalyzer::analyze(rgba);
      EncodingPlan lossy = EncodingStrategy::plan(characteristics, format, 90), lossless = lossy;
      ASSERT_TRUE(lossy.alternative);
      if (lossy.mode.kind == EncodingPlan::Mode::Kind::lossless) lossy.mode = *lossy.alternative;
      lossless.mode = EncodingPlan::Mode::lossless();
      const auto size = [&](const EncodingPlan& plan) {
        return (format == ImageFormat::webp ? WebPEncoder::encode(rgba, plan, characteristics)
                                            : JXLEncoder::encode(rgba, false, plan))
            .size();
      };
      EXPECT_TRUE(format != ImageFormat::webp ||
                  EncodingStrategy::losslessWebPJudgedQuickly(characteristics) == gradient);
      EXPECT_EQ(encodeData(fixtures::png(picture), format, 90).size(), std::min(size(lossy), size(lossless)));
    }
  // A PNG of few colours at 95 is its lossless palette: the lossy competitor has nothing to add.
  const DecodedImage logo = makeImage(64, 64, Pattern::flatLogo, 1, true);
  EXPECT_EQ(ImageService::decodeFirstFrame(encodeData(fixtures::png(logo), ImageFormat::png, 95)).pixels8,
            RGBABuffer(logo).pixels);
}

// What lies under fully transparent pixels is never seen, in any format that keeps alpha: HEIC and
// AVIF code that colour like any other, and their 4:2:0 chroma and transform would carry it into
// the visible pixels beside it (a grey logo on transparent magenta got a magenta fringe), at 8 bits
// and at 16.
TEST(EncodeData, TheColourUnderTransparentPixelsNeverShowsBesideThem) {
  DecodedImage picture = solid(48, 32, 200, 200, 200);  // the right half transparent magenta
  for (size_t p = 0; p < picture.pixelCount(); ++p)
    if (p % 48 >= 23) std::copy_n(std::begin({255, 0, 255, 0}), 4, &picture.pixels8[p * 4]);
  DecodedImage deep = picture;
  deep.bitsPerComponent = 16;
  deep.pixels16.resize(picture.pixels8.size());
  std::transform(picture.pixels8.begin(), picture.pixels8.end(), deep.pixels16.begin(),
                 [](uint8_t v) { return uint16_t(v * 257); });
  for (const DecodedImage* source : {&picture, &deep})
    for (ImageFormat format : ImageFormats::allCases) {
      if (format == ImageFormat::jpeg) continue;
      SCOPED_TRACE(std::string(ImageFormats::label(format)) + " " + std::to_string(source->bitsPerComponent));
      const DecodedImage back =
          ImageService::decodeFirstFrame(encodeData(fixtures::png(*source), format, 75));
      int alphaError = 0, colourError = 0;
      for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 48; ++x) {
          const auto seen = pixelAt(back, x, y);
          alphaError = std::max(alphaError, std::abs(seen[3] - (x < 23 ? 255 : 0)));
          for (int c = 0; c < 3 && x < 23; ++c) colourError = std::max(colourError, std::abs(seen[c] - 200));
        }
      EXPECT_LE(alphaError, 4);
      EXPECT_LE(colourError, 6);
    }
}

// Written under the source's name or the given one, replacing an old file; with skipLarger, the
// original is kept where the result is not smaller: a photo saved at JPEG quality 30 grows at
// quality 100, and shrinks at quality 40 in WebP.
TEST(Compress, WritesUnderTheSourceNameOrTheGivenOneAndKeepsTheOriginalOnlyWhenTheResultIsNotSmaller) {
  TempDir dir;
  const std::string source =
      dir.write("holiday.photo.jpg", fixtures::jpeg(texturedPhoto(160, 120), {.quality = 30}));
  fs::create_directory(dir.file("out"));
  writeBytes(dir.file("out/holiday.photo.webp"), {'o', 'l', 'd'});

  auto result =
      compress(source, dir.file("out"), ImageFormat::webp, 40, std::nullopt, false, {.skipLarger = true});
  ASSERT_TRUE(result.succeeded()) << *result.error;
  EXPECT_FALSE(result.skipped);
  EXPECT_EQ(result.destination, dir.file("out/holiday.photo.webp"));
  EXPECT_EQ(result.originalSizeBytes, ImageCompressor::fileSize(source));
  EXPECT_EQ(result.pixelWidth, 160);
  EXPECT_EQ(result.quality, 40);
  Bytes written = readBytes(*result.destination);
  EXPECT_EQ(ImageFormats::detect(written), ImageFormat::webp);
  EXPECT_EQ(result.compressedSizeBytes, int64_t(written.size()));
  EXPECT_DOUBLE_EQ(*result.ratio, 1.0 - double(written.size()) / double(result.originalSizeBytes));

  auto named = compress(source, dir.file("out") + "/./", ImageFormat::jpeg, 75, std::string("Chosen-2.jpg"));
  ASSERT_TRUE(named.succeeded());
  EXPECT_EQ(named.destination, dir.file("out/Chosen-2.jpg"));  // the folder "." steps dropped
  EXPECT_TRUE(fs::is_regular_file(*named.destination));

  auto kept =
      compress(source, dir.file("out"), ImageFormat::jpeg, 100, "kept.jpg", false, {.skipLarger = true});
  ASSERT_TRUE(kept.succeeded()) << *kept.error;
  ASSERT_TRUE(kept.skipped) << kept.toJSON();
  EXPECT_FALSE(kept.destination);
  EXPECT_NE(kept.toJSON().find("\"skipped\":true"), std::string::npos);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.file("out")), fs::directory_iterator()), 2)
      << "the old file replaced, no temporary left, and nothing written for the kept original";
}

// Corrupt, missing and empty sources, and a byte budget no quality meets, give their true size
// and reason, and write nothing.
TEST(Compress, AFailureGivesTheTrueSizeAndItsReasonAndWritesNothing) {
  TempDir dir;
  Bytes corrupt = photoJpeg();
  corrupt.resize(200);
  fs::create_directory(dir.file("out"));
  const Bytes big = fixtures::png(texturedPhoto(200, 150));
  const std::tuple<std::string, int64_t, int64_t> sources[] = {
      {dir.write("broken.jpg", corrupt), 200, 0},
      {dir.write("empty.png", {}), 0, 0},
      {dir.file("nowhere.png"), 0, 0},
      {dir.write("big.png", big), int64_t(big.size()), 100}};
  for (const auto& [source, size, maxBytes] : sources) {
    auto result =
        compress(source, dir.file("out"), ImageFormat::jpeg, 80, std::nullopt, false, {.maxBytes = maxBytes});
    EXPECT_FALSE(result.succeeded()) << source;
    EXPECT_EQ(result.originalSizeBytes, size);
    ASSERT_TRUE(result.error);
    EXPECT_TRUE(size != 200 || *result.error == "Impossible de décoder l'image source.") << *result.error;
    EXPECT_TRUE(!maxBytes || result.error->find("100 bytes") != std::string::npos) << *result.error;
    EXPECT_TRUE(!maxBytes || result.error->find("200 × 150") != std::string::npos) << *result.error;
    EXPECT_FALSE(result.destination || result.compressedSizeBytes || result.ratio);
  }
  EXPECT_TRUE(fs::is_empty(dir.file("out")));
  EXPECT_EQ(ImageCompressor::byteCountText(100000), "100 kB");
  EXPECT_EQ(ImageCompressor::byteCountText(1500000), "1.5 MB");

  auto noFolder =
      compress(dir.file("big.png"), dir.file("missing/deeper"), ImageFormat::jpeg, 75, std::nullopt);
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

TEST(FitOption, ScalesTheUprightPictureIntoTheBoxAndKeepsAlpha) {
  struct Case {
    Bytes source;
    int maxWidth, maxHeight, width, height;
  };
  const DecodedImage photo = makeImage(120, 80, Pattern::photo, 3);
  const Case cases[] = {
      {fixtures::jpeg(photo), 400, 300, 120, 80},                           // never enlarged
      {fixtures::jpeg(makeImage(80, 120, Pattern::photo)), 0, 60, 40, 60},  // height only
      {fixtures::jpeg(photo, {.orientation = 6}), 40, 90, 40, 60},          // stored 120 x 80, shown 80 x 120
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height));
    auto out = ImageCompressor::encode(c.source, ImageFormat::webp, 80,
                                       {.maxWidth = c.maxWidth, .maxHeight = c.maxHeight});
    EXPECT_EQ(std::pair(out.width, out.height), std::pair(c.width, c.height));
    EXPECT_EQ(out.fitted, c.width != 120 && c.height != 120);
    auto props = ImageService::properties(out.bytes);
    ASSERT_TRUE(props);
    EXPECT_EQ(std::pair(props->width, props->height), std::pair(c.width, c.height));
  }
  // A picture inside the box gives the very bytes it gives without the option.
  EXPECT_EQ(ImageCompressor::encode(cases[0].source, ImageFormat::jpeg, 70, {.maxWidth = 500}).bytes,
            encodeData(cases[0].source, ImageFormat::jpeg, 70));

  const Bytes logo = fixtures::png(makeImage(64, 64, Pattern::flatLogo, 1, true));
  for (ImageFormat format : {ImageFormat::png, ImageFormat::avif}) {
    auto decoded =
        ImageService::decodeFirstFrame(ImageCompressor::encode(logo, format, 90, {.maxWidth = 32}).bytes);
    EXPECT_EQ(decoded.width, 32);
    EXPECT_TRUE(decoded.hasAlphaChannel()) << ImageFormats::label(format);
  }
}

TEST(BudgetOption, EveryFormatLandsUnderTheBudgetAndCloseToItForAPhoto) {
  const Bytes source = fixtures::png(texturedPhoto(256, 192));
  for (ImageFormat format : ImageFormats::allCases) {
    SCOPED_TRACE(ImageFormats::label(format));
    const size_t plain = encodeData(source, format, 90).size();
    const auto budget = int64_t(plain / 3);
    auto out = ImageCompressor::encode(source, format, 90, {.maxBytes = budget});
    EXPECT_LE(int64_t(out.bytes.size()), budget);
    EXPECT_LT(out.quality, 90);
    EXPECT_LE(out.encodes, 8);
    EXPECT_TRUE(format == ImageFormat::png || double(out.bytes.size()) >= 0.7 * double(budget))
        << out.bytes.size();
    // The plan at the quality found is the one encoded: the same call without a budget agrees.
    EXPECT_EQ(out.bytes, encodeData(source, format, out.quality));
    // The highest quality that fits, unless the search stopped within 5 % under the budget or
    // the next quality writes the same file (PNG's palette at the lowest qualities).
    if (double(out.bytes.size()) < 0.95 * double(budget)) {
      const Bytes next = encodeData(source, format, out.quality + 1);
      EXPECT_TRUE(int64_t(next.size()) > budget || next == out.bytes) << next.size();
    }

    // A budget the first encoding meets costs nothing more.
    auto roomy = ImageCompressor::encode(source, format, 90, {.maxBytes = int64_t(plain)});
    EXPECT_EQ(roomy.encodes, 1);
    EXPECT_EQ(roomy.quality, 90);
  }
}

using PerceptualDistance::between;
using PerceptualDistance::bounded;
using PerceptualDistance::butteraugli;

// The photo pattern with every sample cut to steps of 12: banding a viewer notices.
RGBABuffer posterized(const RGBABuffer& picture) {
  RGBABuffer out = picture;
  for (size_t i = 0; i < out.pixels.size(); i += 4)
    for (size_t c = 0; c < 3; ++c)
      out.pixels[i + c] = uint8_t(std::min(255, out.pixels[i + c] / 12 * 12 + 6));
  return out;
}

TEST(PerceptualDistance, MatchesButteraugliMainAndTilesAgreeWithTheWhole) {
  const RGBABuffer small = makeBuffer(320, 240, Pattern::photo, 7);
  // `butteraugli_main a.ppm b.ppm --pnorm 3` of this pair (libjxl 0.7), written as PPM.
  constexpr double kToolThreeNorm = 1.993080;
  EXPECT_NEAR(butteraugli(small, posterized(small)), kToolThreeNorm, 0.02 * kToolThreeNorm);
  EXPECT_EQ(butteraugli(small, small), 0.0);

  const RGBABuffer source = makeBuffer(1280, 1024, Pattern::photo, 3);
  const RGBABuffer distorted = posterized(source);
  const double whole = butteraugli(source, distorted);
  // Every tile, their margins giving each the context it has in the whole picture.
  EXPECT_NEAR(bounded(source, distorted), whole, 0.01 * whole);
  // Two tiles of six standing for all of them.
  EXPECT_NEAR(bounded(source, distorted, uint64_t(2) * 512 * 512), whole, 0.05 * whole);
}

TEST(PerceptualDistance, ComparesFilesAsTheEncoderReadsThem) {
  // A lower quality looks further from its source.
  const auto photo = fixtures::jpeg(makeImage(256, 192, Pattern::photo, 5), {.quality = 98});
  const double fine = between(photo, ImageCompressor::encodeData(photo, ImageFormat::jpeg, 92));
  const double coarse = between(photo, ImageCompressor::encodeData(photo, ImageFormat::jpeg, 20));
  EXPECT_GT(fine, 0.0);
  EXPECT_LT(fine, coarse);

  // A transparent logo written as JPEG is flattened on white by the writer: compared over
  // white too, it is close, not the distance of its transparent parts over black.
  const auto logo = fixtures::png(makeImage(192, 192, Pattern::flatLogo, 2, true));
  EXPECT_LT(between(logo, ImageCompressor::encodeData(logo, ImageFormat::jpeg, 90)), 2.0);

  // Pictures of different sizes are no pair.
  const auto other = fixtures::jpeg(makeImage(128, 96, Pattern::photo, 5));
  EXPECT_THROW(between(photo, other), ImageProcessingError);
}

}  // namespace
}  // namespace quillane::testing
