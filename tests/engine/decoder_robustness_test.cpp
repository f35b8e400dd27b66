// Bad input: truncated files of every format fail with decodingFailed (or decode), never
// crash, hang or print; files whose headers or boxes say they cannot be read are refused
// before any pixel memory.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "engine/Errors.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/codecs/Readers.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using fixtures::Bytes;

struct Sample {
  const char* name;
  Bytes (*make)();
};

DecodedImage picture() { return testing::makeImage(40, 28, testing::Pattern::photo, 7, true); }

const Sample kSamples[] = {
    {"jpeg", [] { return fixtures::jpeg(picture(), {.orientation = 6, .icc = fixtures::displayP3ICC()}); }},
    {"cmyk_jpeg", [] { return fixtures::cmykJpeg(8, 8, Bytes(size_t(8 * 8 * 4), 60), fixtures::cmykICC()); }},
    {"png", [] { return fixtures::png(picture(), {.icc = fixtures::displayP3ICC(), .orientation = 3}); }},
    {"png16", [] { return fixtures::png(fixtures::quadrants(20, 10, 16, true)); }},
    {"webp", [] { return fixtures::webp(picture(), {.icc = fixtures::displayP3ICC(), .orientation = 8}); }},
    {"webp_anim",
     [] {
       return fixtures::animatedWebp({picture(), fixtures::quadrants(40, 28)});
     }},
    {"heic", [] { return fixtures::heic(picture(), {.quality = 50}); }},
    {"heic_av1", [] { return fixtures::heic(picture(), {.quality = 50, .av1 = true}); }},
    {"avif", [] { return fixtures::avif(picture(), {.quantizer = 30, .irotAngle = 1}); }},
    {"jxl", [] { return fixtures::jxl(picture(), {.orientation = 5}); }},
    {"jxl_lossy_anim", [] { return fixtures::jxl(picture(), {.lossless = false, .frames = 2}); }},
};

// Runs every reading entry point on `bytes`. Only decodingFailed may escape.
void readEverything(std::span<const uint8_t> bytes, const std::string& what) {
  const std::string failure = testing::failureOf(
      [&] { EXPECT_FALSE(ImageDecoder::decodeCGImageSource(bytes).image.empty()) << what; });
  EXPECT_TRUE(failure.empty() || failure == "decoding failed") << what << ": " << failure;
  ImageService::properties(bytes);
  auto thumb = ImageService::thumbnail(bytes, 16);
  if (thumb) {
    EXPECT_LE(std::max(thumb->width, thumb->height), 16) << what;
  }
}

class DamagedFiles : public ::testing::TestWithParam<Sample> {};

// Flipped, dropped and repeated bytes of the same kinds of files are the image_fuzz_* tests'
// subject (fuzz/); here every cut in the headers, and the silence of every reader.
TEST_P(DamagedFiles, TruncatedFilesOnlyEverFailCleanlyAndSilently) {
  const Bytes file = GetParam().make();
  ASSERT_NO_THROW(ImageDecoder::decodeCGImageSource(file));
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  // Every byte of the first 64 (headers), then 40 places spread over the rest.
  std::vector<size_t> cuts;
  for (size_t n = 0; n < std::min<size_t>(64, file.size()); ++n) cuts.push_back(n);
  for (int i = 1; i < 40; ++i) cuts.push_back(file.size() * size_t(i) / 40);
  cuts.push_back(file.size() - 1);
  for (size_t n : cuts)
    readEverything(std::span(file).first(n), std::string(GetParam().name) + " cut at " + std::to_string(n));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, DamagedFiles, ::testing::ValuesIn(kSamples),
                         [](const auto& instance) { return std::string(instance.param.name); });

// Files refused whole, from their headers or boxes, before any picture memory: every decode,
// thumbnail and inspection of them fails as undecodable, never by a failed allocation.
TEST(RefusedFiles, AreRefusedFromWhatTheyDeclareBeforeAnyPixelMemory) {
  enum Why { beyondTheLimits, notOurFormat, codedLargerThanDeclared };
  struct Refused {
    std::string name;
    Bytes file;
    Why why;
  };
  Bytes jpeg = fixtures::jpeg(fixtures::quadrants(8, 8));
  for (size_t i = 2; i + 9 < jpeg.size(); ++i)
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {  // SOF0: length, precision, height, width
      jpeg[i + 5] = jpeg[i + 7] = 0xEA;
      jpeg[i + 6] = jpeg[i + 8] = 0x60;
      break;
    }
  std::vector<Refused> files = {
      // Their headers read, but such pictures can never be encoded; the last by its shape only.
      {"100000 x 100000", fixtures::starvedPng(100'000, 100'000, 8, 1000, false), beyondTheLimits},
      {"60000 x 60000 JPEG", jpeg, beyondTheLimits},  // within libjpeg's own limit of 65500
      {"300000 x 1", fixtures::starvedPng(300'000, 1, 8, 1000, false), beyondTheLimits},
      {"GIF",
       {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0,   0, 0, ',', 0,
        0,   0,   0,   1,   0,   1,   0, 0, 2, 2, 'D', 1, 0, ';'},
       notOurFormat},
      {"TIFF", {'I', 'I', 0x2A, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0}, notOurFormat},
      {"BMP",
       {'B', 'M', 58, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0, 40, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 24, 0},
       notOurFormat}};
  // HEIC and AVIF files that declare 12 x 16 for a picture coded at 256 x 256: the same lie at
  // 16384 x 16384 took 900 MB to inspect. Honest files of odd sizes read: their coded pictures
  // are whole blocks larger.
  using Writer = std::function<Bytes(const DecodedImage&)>;
  const std::pair<const char*, Writer> writers[] = {
      {"HEVC", [](const DecodedImage& i) { return fixtures::heic(i, {.quality = 40, .alpha = false}); }},
      {"HEVC and alpha", [](const DecodedImage& i) { return fixtures::heic(i, {.quality = 40}); }},
      {"AV1 in HEIC", [](const DecodedImage& i) { return fixtures::heic(i, {.quality = 40, .av1 = true}); }},
      {"AVIF", [](const DecodedImage& i) { return fixtures::avif(i, {.quantizer = 40}); }},
      {"AVIF sequence",
       [](const DecodedImage& i) {
         return fixtures::avif(i, {.quantizer = 40, .alpha = false, .frames = 2});
       }},
      {"AVIF grid", [](const DecodedImage& i) {  // cells of at least 64 x 64, as libavif wants
         const DecodedImage cell = fixtures::quadrants(std::max(i.width, 64), std::max(i.height, 64));
         return fixtures::grid(fixtures::avif(cell, {.quantizer = 40, .alpha = false}), 2, 2);
       }}};
  for (const auto& [name, write] : writers) {
    EXPECT_NO_THROW(ImageDecoder::decodeCGImageSource(write(fixtures::quadrants(37, 21)))) << name;
    files.push_back({name, fixtures::withDeclaredSize(write(fixtures::quadrants(256, 256)), 12, 16),
                     codedLargerThanDeclared});
  }
  // A grid that declares 12 x 16 for honest cells that make 128 x 128.
  Bytes grid =
      fixtures::grid(fixtures::heic(fixtures::quadrants(64, 64), {.quality = 40, .alpha = false}), 2, 2);
  EXPECT_NO_THROW(ImageDecoder::decodeCGImageSource(grid));
  for (size_t at = 0; at + 16 <= grid.size(); ++at)
    if (!std::memcmp(&grid[at], "ispe", 4) && grid[at + 11] == 128 && grid[at + 15] == 128)
      grid[at + 11] = 12, grid[at + 15] = 16;
  files.push_back({"grid of honest cells", grid, codedLargerThanDeclared});

  testing::TempDir dir;
  for (const auto& [name, file, why] : files) {
    SCOPED_TRACE(name);
    try {
      ImageService::decodeFirstFrame(file);
      ADD_FAILURE() << "decoded";
    } catch (const ImageProcessingError& e) {
      EXPECT_EQ(e.kind(), ImageProcessingError::Kind::decodingFailed);
      if (why == beyondTheLimits && name != "300000 x 1") {
        EXPECT_STREQ(e.what(), codecs::kTooLarge);
      }
    }
    EXPECT_FALSE(ImageService::thumbnail(file, 256));
    const std::string path = dir.write("refused", file);
    EXPECT_EQ(testing::failureOf([&] { ImageDecoder::inspect(path); }), "decoding failed");
    EXPECT_TRUE(why != beyondTheLimits || ImageDecoder::readHeader(path)) << "its header reads";
    EXPECT_EQ(bool(ImageService::typeIdentifier(file)) && !ImageFormats::detect(file), why == notOurFormat);
  }
  EXPECT_EQ(ImageService::properties(files[0].file)->width, 100000);
}

TEST(ValidJpegs, APartlyDownloadedPhotoAndAFlatArithmeticCodedOneDecode) {
  const DecodedImage photo = testing::makeImage(64, 64, testing::Pattern::photo, 3);
  const Bytes full = fixtures::jpeg(photo, {.quality = 90});
  const DecodedImage whole = ImageService::decodeFirstFrame(full);
  const DecodedImage partial = ImageService::decodeFirstFrame(std::span(full).first(full.size() * 2 / 3));
  ASSERT_EQ(partial.width, 64);
  ASSERT_EQ(partial.height, 64);
  // What arrived is shown as it is.
  EXPECT_TRUE(std::equal(whole.pixels8.begin(), whole.pixels8.begin() + std::ptrdiff_t(64) * 4 * 8,
                         partial.pixels8.begin()));

  const Bytes flat = fixtures::arithmeticGreyJpeg(6000, 6000);
  ASSERT_LT(flat.size(), 4000u);
  const DecodedImage grey = ImageService::decodeFirstFrame(flat);
  EXPECT_EQ(grey.width, 6000);
  EXPECT_NEAR(grey.pixels8[(size_t(3000) * 6000 + 3000) * 4], 90, 1);
}

}  // namespace
}  // namespace quillane
