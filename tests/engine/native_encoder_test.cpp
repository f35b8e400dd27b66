// The JPEG, HEIC and AVIF path: what reaches the writers (opaque copy over white or black,
// alpha kept or dropped, 16-bit and premultiplied sources), the one quality number, silence
// on stderr, and failures.

#include <avif/avif.h>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/ImageService.h"
#include "engine/codecs/Writers.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using Bytes = std::vector<uint8_t>;
using NativeImageIOEncoder::encode;
using NativeImageIOEncoder::opaqueCopy;

EncodingPlan lossyPlan(double quality) { return testing::makePlan(EncodingPlan::Mode::lossy(quality)); }

// A picture of one colour; `alpha` in the fourth sample, straight.
DecodedImage solid(int w, int h, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  DecodedImage img;
  img.width = w, img.height = h;
  img.alpha = a == 255 ? AlphaInfo::none : AlphaInfo::straight;
  for (int i = 0; i < w * h; ++i) img.pixels8.insert(img.pixels8.end(), {r, g, b, a});
  return img;
}

const uint8_t* pixelAt(const DecodedImage& img, int x, int y) {
  return &img.pixels8[(size_t(y) * size_t(img.width) + size_t(x)) * 4];
}

DecodedImage decode8(const Bytes& file) {
  DecodedImage img = ImageService::decodeFirstFrame(file);
  if (img.bitsPerComponent == 16) img = NativeImageIOEncoder::straightEightBit(img);
  return img;
}

const ImageFormat kNative[] = {ImageFormat::jpeg, ImageFormat::heic, ImageFormat::avif};

// --- The opaque copy and the quality ---------------------------------------------------------

TEST(OpaqueCopy, CompositesEveryKindOfAlphaOverWhiteOrBlack) {
  // Red at alpha 128 (straight): over white (255, 127, 127), over black (128, 0, 0).
  DecodedImage straight = solid(2, 1, 255, 0, 0, 128);
  straight.colorSpace = ColorSpace::fromICC(fixtures::displayP3ICC());
  DecodedImage premultiplied = solid(2, 1, 128, 0, 0, 128);
  premultiplied.alpha = AlphaInfo::premultiplied;
  DecodedImage deep;
  deep.width = 2, deep.height = 1, deep.bitsPerComponent = 16, deep.alpha = AlphaInfo::straight;
  deep.pixels16 = {65535, 0, 0, 32896, 65535, 0, 0, 32896};
  for (const DecodedImage* source : {&straight, &premultiplied, &deep}) {
    auto white = opaqueCopy(*source, true), black = opaqueCopy(*source, false);
    ASSERT_TRUE(white && black);
    EXPECT_EQ(white->bitsPerComponent, 8);
    EXPECT_EQ(white->alpha, AlphaInfo::none);
    EXPECT_EQ(white->colorSpace.icc, source->colorSpace.icc);
    const uint8_t *w = pixelAt(*white, 1, 0), *b = pixelAt(*black, 1, 0);
    EXPECT_NEAR(w[0], 255, 1);
    EXPECT_NEAR(w[1], 127, 1);
    EXPECT_NEAR(w[2], 127, 1);
    EXPECT_EQ(w[3], 255);
    EXPECT_NEAR(b[0], 128, 1);
    EXPECT_EQ(b[1], 0);
  }
  EXPECT_EQ(opaqueCopy(solid(1, 1, 10, 200, 30, 0), true)->pixels8, (Bytes{255, 255, 255, 255}));
}

TEST(NativeQuality, LossyAvifNeverBecomesLosslessAndJpegQualityMovesOneWay) {
  EXPECT_DOUBLE_EQ(NativeImageIOEncoder::compressionQuality(ImageFormat::avif, lossyPlan(250)), 0.99);
  EXPECT_GT(codecs::avifSettings(0.99, 1000).maxQuantizer, 0);
  for (int i = 1; i <= 100; ++i) {
    EXPECT_LE(codecs::jpegSettings((i - 1) / 100.0).quality, codecs::jpegSettings(i / 100.0).quality);
    EXPECT_GE(codecs::avifSettings((i - 1) / 100.0, 1000).maxQuantizer,
              codecs::avifSettings(i / 100.0, 1000).maxQuantizer);
  }
  // aom's speed never rises as a photo shrinks (a small photo costs less than a large one),
  // and a large screenshot never gets the careful speed, which takes minutes on screen content.
  const size_t sizes[] = {250'000, 1'000'000, 2'000'001, 4'000'000, 12'000'000, 12'000'001, 48'000'000};
  for (size_t i = 1; i < std::size(sizes); ++i)
    EXPECT_LE(codecs::avifSettings(0.75, sizes[i - 1], true).speed,
              codecs::avifSettings(0.75, sizes[i], true).speed);
  EXPECT_GT(codecs::avifSettings(0.75, 12'000'000).speed, codecs::avifSettings(0.75, 12'000'000, true).speed);
}

// --- Files ------------------------------------------------------------------------------------

TEST(NativeEncoder, AlphaIsKeptOnlyWhenThePictureHasItAndJpegFlattensOverWhite) {
  DecodedImage logo = testing::makeImage(64, 48, testing::Pattern::flatLogo, 1, true);
  DecodedImage jpeg = decode8(encode(logo, true, ImageFormat::jpeg, lossyPlan(90)));
  EXPECT_EQ(jpeg.alpha, AlphaInfo::none);
  for (int c = 0; c < 3; ++c) EXPECT_GE(pixelAt(jpeg, 1, 1)[c], 250);  // transparent black in the source
  for (ImageFormat format : {ImageFormat::heic, ImageFormat::avif}) {
    SCOPED_TRACE(ImageFormats::label(format));
    DecodedImage withAlpha = decode8(encode(logo, true, format, lossyPlan(80)));
    EXPECT_TRUE(withAlpha.hasAlphaChannel());
    EXPECT_LE(pixelAt(withAlpha, 1, 1)[3], 8);
    EXPECT_GE(pixelAt(withAlpha, 32, 24)[3], 247);

    DecodedImage without = decode8(encode(logo, false, format, lossyPlan(80)));
    EXPECT_EQ(pixelAt(without, 1, 1)[3], 255);
    EXPECT_LE(pixelAt(without, 1, 1)[0], 12) << "an opaque copy is drawn over black";
  }
}

TEST(NativeEncoder, SixteenBitAndPremultipliedSourcesAreWrittenFaithfully) {
  DecodedImage deep = fixtures::quadrants(40, 30, 16, true);
  DecodedImage premultiplied = testing::makeImage(40, 30, testing::Pattern::photo, 2, true);
  for (size_t i = 0; i < premultiplied.pixels8.size(); i += 4)
    for (int c = 0; c < 3; ++c)
      premultiplied.pixels8[i + c] =
          uint8_t((premultiplied.pixels8[i + c] * premultiplied.pixels8[i + 3] + 127) / 255);
  premultiplied.alpha = AlphaInfo::premultiplied;
  DecodedImage expectedStraight = NativeImageIOEncoder::straightEightBit(premultiplied);
  for (ImageFormat format : {ImageFormat::heic, ImageFormat::avif}) {
    SCOPED_TRACE(ImageFormats::label(format));
    DecodedImage back = decode8(encode(deep, true, format, lossyPlan(95)));
    for (auto corner : {fixtures::Corner::topLeft, fixtures::Corner::bottomRight})
      EXPECT_EQ(fixtures::quadrantAt(back, corner), int(corner));
    DecodedImage round = decode8(encode(premultiplied, true, format, lossyPlan(95)));
    EXPECT_LT(testing::meanColourError(round, expectedStraight), 6.0);
  }
}

// An sRGB picture's AVIF names sRGB (primaries 1, transfer 13, matrix 6), so that every
// reader shows the same colours; with a profile the profile speaks.
TEST(NativeEncoder, AvifNamesTheSrgbColourEncoding) {
  const auto cicp = [](const Bytes& file) {
    std::unique_ptr<avifDecoder, decltype(&avifDecoderDestroy)> decoder(avifDecoderCreate(),
                                                                        avifDecoderDestroy);
    EXPECT_EQ(avifDecoderSetIOMemory(decoder.get(), file.data(), file.size()), AVIF_RESULT_OK);
    EXPECT_EQ(avifDecoderParse(decoder.get()), AVIF_RESULT_OK);
    const avifImage* image = decoder->image;
    return std::vector<int>{int(image->colorPrimaries), int(image->transferCharacteristics),
                            int(image->matrixCoefficients), int(image->icc.size > 0)};
  };
  const DecodedImage photo = testing::makeImage(48, 32, testing::Pattern::photo, 3);
  EXPECT_EQ(cicp(encode(photo, false, ImageFormat::avif, lossyPlan(70))), (std::vector<int>{1, 13, 6, 0}));
  EXPECT_EQ(cicp(codecs::writeAvif(photo, false, codecs::avifSettings(0.7, 1536),
                                   Bytes(fixtures::displayP3ICC())))[3],
            1);
}

TEST(NativeEncoder, FailsWithTheFormatLabelAndWritesNothingToStandardError) {
  auto expectFailure = [](auto&& call, const std::string& label) {
    try {
      call();
      ADD_FAILURE() << "no error for " << label;
    } catch (const ImageProcessingError& e) {
      EXPECT_EQ(e.kind(), ImageProcessingError::Kind::encodingFailed);
      EXPECT_EQ(e.label(), label);
    }
  };
  ::testing::internal::CaptureStderr();
  DecodedImage img = testing::makeImage(64, 64, testing::Pattern::photo, 5, true);
  for (ImageFormat format : kNative) encode(img, true, format, lossyPlan(60));
  EncodingPlan lossless;
  lossless.mode = EncodingPlan::Mode::lossless();
  for (ImageFormat format : kNative)
    expectFailure([&] { encode(img, false, format, lossless); }, std::string(ImageFormats::label(format)));
  expectFailure([&] { encode(solid(70000, 1, 0, 0, 0, 255), false, ImageFormat::jpeg, lossyPlan(75)); },
                "JPEG");
  img.pixels8.resize(5);
  expectFailure([&] { encode(img, false, ImageFormat::avif, lossyPlan(75)); }, "AVIF");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace quillane
