// Bad input: truncated files of every format fail with decodingFailed (or decode), never
// crash, hang or print; oversized headers are refused before any pixel memory.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

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

// Refused from the header, not by a failed allocation; inspection reads the header and refuses
// the picture too, as one that could never be encoded, whatever its data.
TEST(OversizedHeaders, AreRefusedBeforeAnyPixelMemory) {
  Bytes jpeg = fixtures::jpeg(fixtures::quadrants(8, 8));
  for (size_t i = 2; i + 9 < jpeg.size(); ++i)
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {  // SOF0: length, precision, height, width
      jpeg[i + 5] = jpeg[i + 7] = 0xEA;
      jpeg[i + 6] = jpeg[i + 8] = 0x60;
      break;
    }
  const std::tuple<const char*, Bytes, bool> files[] = {
      {"100000 x 100000", fixtures::starvedPng(100'000, 100'000, 8, 1000, false), true},
      {"60000 x 60000 JPEG", jpeg, true},  // within libjpeg's own limit of 65500, far beyond ours
      {"300000 x 1", fixtures::starvedPng(300'000, 1, 8, 1000, false), false}};
  testing::TempDir dir;
  for (const auto& [name, file, beyondDecoding] : files) {
    SCOPED_TRACE(name);
    try {
      ImageService::decodeFirstFrame(file);
      ADD_FAILURE() << "decoded a picture beyond the limits";
    } catch (const ImageProcessingError& e) {
      EXPECT_EQ(e.kind(), ImageProcessingError::Kind::decodingFailed);
      if (beyondDecoding) {
        EXPECT_STREQ(e.what(), codecs::kTooLarge);
      }
    }
    EXPECT_FALSE(ImageService::thumbnail(file, 256));
    testing::writeBytes(dir.file("huge"), file);
    EXPECT_TRUE(ImageDecoder::readHeader(dir.file("huge")));
    EXPECT_EQ(testing::failureOf([&] { ImageDecoder::inspect(dir.file("huge")); }), "decoding failed");
  }
  EXPECT_EQ(ImageService::properties(std::get<1>(files[0]))->width, 100000);
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
