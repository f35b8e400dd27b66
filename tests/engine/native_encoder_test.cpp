// The JPEG, HEIC and AVIF path: what reaches the writers (opaque copy over white or black,
// alpha kept or dropped, 16-bit and premultiplied sources), the one quality number, colour
// profiles in the files as the libraries read them back, silence on stderr, and failures.

#include <avif/avif.h>
#include <gtest/gtest.h>
#include <libheif/heif.h>

#include <cmath>
#include <cstring>

#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/ImageService.h"
#include "engine/codecs/Writers.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using Bytes = std::vector<uint8_t>;
using NativeImageIOEncoder::encode;
using NativeImageIOEncoder::opaqueCopy;

EncodingPlan lossyPlan(double quality) {
  EncodingPlan plan;
  plan.mode = EncodingPlan::Mode::lossy(quality);
  plan.quality = quality;
  return plan;
}

// A picture of one colour; `alpha` in the fourth sample, straight.
DecodedImage solid(int w, int h, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  DecodedImage img;
  img.width = w;
  img.height = h;
  img.alpha = a == 255 ? AlphaInfo::none : AlphaInfo::straight;
  for (int i = 0; i < w * h; ++i) img.pixels8.insert(img.pixels8.end(), {r, g, b, a});
  return img;
}

const uint8_t* pixelAt(const DecodedImage& img, int x, int y) {
  return &img.pixels8[(size_t(y) * size_t(img.width) + size_t(x)) * 4];
}

// ICC profile of each format as its own library reads it.
Bytes jpegICC(const Bytes& file) {
  // APP2 "ICC_PROFILE\0" markers, each with its sequence number and count, in file order.
  Bytes icc;
  size_t i = 2;
  while (i + 4 <= file.size() && file[i] == 0xFF && file[i + 1] != 0xDA) {
    size_t length = size_t(file[i + 2]) << 8 | file[i + 3];
    if (file[i + 1] == 0xE2 && length > 16 && std::memcmp(&file[i + 4], "ICC_PROFILE", 12) == 0)
      icc.insert(icc.end(), file.begin() + long(i + 18), file.begin() + long(i + 2 + length));
    i += 2 + length;
  }
  return icc;
}

Bytes heicICC(const Bytes& file) {
  heif_context* ctx = heif_context_alloc();
  heif_image_handle* handle = nullptr;
  Bytes icc;
  if (heif_context_read_from_memory_without_copy(ctx, file.data(), file.size(), nullptr).code == heif_error_Ok &&
      heif_context_get_primary_image_handle(ctx, &handle).code == heif_error_Ok) {
    icc.resize(heif_image_handle_get_raw_color_profile_size(handle));
    if (!icc.empty()) heif_image_handle_get_raw_color_profile(handle, icc.data());
    heif_image_handle_release(handle);
  }
  heif_context_free(ctx);
  return icc;
}

Bytes avifICC(const Bytes& file) {
  avifDecoder* decoder = avifDecoderCreate();
  Bytes icc;
  if (avifDecoderSetIOMemory(decoder, file.data(), file.size()) == AVIF_RESULT_OK &&
      avifDecoderParse(decoder) == AVIF_RESULT_OK)
    icc.assign(decoder->image->icc.data, decoder->image->icc.data + decoder->image->icc.size);
  avifDecoderDestroy(decoder);
  return icc;
}

Bytes fileICC(ImageFormat format, const Bytes& file) {
  switch (format) {
    case ImageFormat::jpeg: return jpegICC(file);
    case ImageFormat::heic: return heicICC(file);
    default: return avifICC(file);
  }
}

// Mean absolute difference of the colour samples of two 8-bit pictures of the same size.
double meanColourError(const DecodedImage& a, const DecodedImage& b) {
  double sum = 0;
  for (size_t i = 0; i < a.pixels8.size(); ++i)
    if (i % 4 != 3) sum += std::abs(int(a.pixels8[i]) - int(b.pixels8[i]));
  return sum / double(a.pixelCount() * 3);
}

DecodedImage decode8(const Bytes& file) {
  DecodedImage img = ImageService::decodeFirstFrame(file);
  if (img.bitsPerComponent == 16) img = NativeImageIOEncoder::straightEightBit(img);
  return img;
}

const ImageFormat kNative[] = {ImageFormat::jpeg, ImageFormat::heic, ImageFormat::avif};

// --- The opaque copy --------------------------------------------------------------------------

TEST(OpaqueCopy, CompositesStraightPremultipliedAndSixteenBitOverWhiteOrBlack) {
  // Red at alpha 128 (straight): over white (255, 127, 127), over black (128, 0, 0).
  DecodedImage straight = solid(2, 1, 255, 0, 0, 128);
  DecodedImage premultiplied = solid(2, 1, 128, 0, 0, 128);
  premultiplied.alpha = AlphaInfo::premultiplied;
  DecodedImage deep;
  deep.width = 2, deep.height = 1, deep.bitsPerComponent = 16, deep.alpha = AlphaInfo::straight;
  deep.pixels16 = {65535, 0, 0, 32896, 65535, 0, 0, 32896};
  for (const DecodedImage* source : {&straight, &premultiplied, &deep}) {
    auto white = opaqueCopy(*source, true);
    auto black = opaqueCopy(*source, false);
    ASSERT_TRUE(white && black);
    EXPECT_EQ(white->bitsPerComponent, 8);
    EXPECT_EQ(white->alpha, AlphaInfo::none);
    const uint8_t* w = pixelAt(*white, 1, 0);
    const uint8_t* b = pixelAt(*black, 1, 0);
    EXPECT_NEAR(w[0], 255, 1);
    EXPECT_NEAR(w[1], 127, 1);
    EXPECT_NEAR(w[2], 127, 1);
    EXPECT_EQ(w[3], 255);
    EXPECT_NEAR(b[0], 128, 1);
    EXPECT_EQ(b[1], 0);
  }
}

TEST(OpaqueCopy, FullyTransparentBecomesWhiteAndOpaqueIsUntouched) {
  DecodedImage clear = solid(1, 1, 10, 200, 30, 0);
  auto white = opaqueCopy(clear, true);
  ASSERT_TRUE(white);
  EXPECT_EQ(white->pixels8, (Bytes{255, 255, 255, 255}));
  DecodedImage opaque = solid(1, 1, 10, 200, 30, 255);
  EXPECT_EQ(opaqueCopy(opaque, true)->pixels8, (Bytes{10, 200, 30, 255}));
}

TEST(OpaqueCopy, KeepsTheColourSpaceAndRefusesBrokenPictures) {
  DecodedImage img = solid(2, 2, 1, 2, 3, 255);
  img.colorSpace = ColorSpace::fromICC(fixtures::displayP3ICC());
  auto copy = opaqueCopy(img, false);
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->colorSpace.icc, img.colorSpace.icc);
  DecodedImage broken = img;
  broken.pixels8.resize(3);
  EXPECT_FALSE(opaqueCopy(broken, true));
  EXPECT_FALSE(opaqueCopy(DecodedImage{}, true));
}

// --- Quality and settings ---------------------------------------------------------------------

TEST(NativeQuality, AvifStopsBelowLosslessWhileJpegAndHeicReachOne) {
  using NativeImageIOEncoder::compressionQuality;
  EXPECT_DOUBLE_EQ(compressionQuality(ImageFormat::avif, lossyPlan(100)), 0.99);
  EXPECT_DOUBLE_EQ(compressionQuality(ImageFormat::avif, lossyPlan(250)), 0.99);
  EXPECT_DOUBLE_EQ(compressionQuality(ImageFormat::heic, lossyPlan(100)), 1.0);
  EXPECT_DOUBLE_EQ(compressionQuality(ImageFormat::jpeg, lossyPlan(100)), 1.0);
  EXPECT_DOUBLE_EQ(compressionQuality(ImageFormat::jpeg, lossyPlan(140)), 1.0);
  EXPECT_DOUBLE_EQ(compressionQuality(ImageFormat::heic, lossyPlan(-5)), 0.0);
  EXPECT_DOUBLE_EQ(compressionQuality(ImageFormat::avif, lossyPlan(42)), 0.42);
}

TEST(NativeQuality, EveryMappingMovesOneWayAcrossTheSlider) {
  for (int i = 1; i <= 100; ++i) {
    double lower = (i - 1) / 100.0, higher = i / 100.0;
    EXPECT_LE(codecs::jpegSettings(lower).quality, codecs::jpegSettings(higher).quality);
    EXPECT_LE(codecs::heifSettings(lower).quality, codecs::heifSettings(higher).quality);
    auto a = codecs::avifSettings(lower, 1000), b = codecs::avifSettings(higher, 1000);
    EXPECT_GE(a.maxQuantizer, b.maxQuantizer) << higher;
    EXPECT_LE(b.minQuantizer, b.maxQuantizer);
    EXPECT_LE(b.maxQuantizerAlpha, b.maxQuantizer);
  }
  EXPECT_EQ(codecs::jpegSettings(0.75).quality, 75);
  EXPECT_EQ(codecs::jpegSettings(0.0).quality, 1);
  EXPECT_TRUE(codecs::jpegSettings(0.89).chroma420);
  EXPECT_FALSE(codecs::jpegSettings(0.90).chroma420);
  EXPECT_GT(codecs::avifSettings(0.99, 1000).maxQuantizer, 0) << "0.99 must stay lossy";
  EXPECT_GT(codecs::avifSettings(0.5, 50'000'000).speed, codecs::avifSettings(0.5, 1000).speed);
}

// --- Files ------------------------------------------------------------------------------------

TEST(NativeEncoder, TransparentPixelsComeOutWhiteInJpeg) {
  DecodedImage logo = testing::makeImage(64, 64, testing::Pattern::flatLogo, 1, true);
  Bytes file = encode(logo, true, ImageFormat::jpeg, lossyPlan(90));
  EXPECT_EQ(ImageFormats::detect(file), ImageFormat::jpeg);
  DecodedImage back = decode8(file);
  EXPECT_EQ(back.alpha, AlphaInfo::none);
  const uint8_t* corner = pixelAt(back, 1, 1);  // transparent black in the source
  EXPECT_GE(corner[0], 250);
  EXPECT_GE(corner[1], 250);
  EXPECT_GE(corner[2], 250);
}

TEST(NativeEncoder, HeicAndAvifKeepAlphaOnlyWhenThePictureHasIt) {
  DecodedImage logo = testing::makeImage(64, 48, testing::Pattern::flatLogo, 1, true);
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
      premultiplied.pixels8[i + c] = uint8_t((premultiplied.pixels8[i + c] * premultiplied.pixels8[i + 3] + 127) / 255);
  premultiplied.alpha = AlphaInfo::premultiplied;
  DecodedImage expectedStraight = NativeImageIOEncoder::straightEightBit(premultiplied);
  for (ImageFormat format : {ImageFormat::heic, ImageFormat::avif}) {
    SCOPED_TRACE(ImageFormats::label(format));
    DecodedImage back = decode8(encode(deep, true, format, lossyPlan(95)));
    for (auto corner : {fixtures::Corner::topLeft, fixtures::Corner::bottomRight})
      EXPECT_EQ(fixtures::quadrantAt(back, corner), fixtures::quadrantColour(corner));
    DecodedImage round = decode8(encode(premultiplied, true, format, lossyPlan(95)));
    EXPECT_LT(meanColourError(round, expectedStraight), 6.0);
  }
}

TEST(NativeEncoder, HigherQualityKeepsMoreDetailInEveryFormat) {
  DecodedImage photo = testing::makeImage(96, 64, testing::Pattern::noisyPhoto, 4);
  for (ImageFormat format : kNative) {
    SCOPED_TRACE(ImageFormats::label(format));
    Bytes low = encode(photo, false, format, lossyPlan(30));
    Bytes high = encode(photo, false, format, lossyPlan(95));
    EXPECT_LT(low.size(), high.size());
    EXPECT_LT(meanColourError(decode8(high), photo), meanColourError(decode8(low), photo));
    EXPECT_LT(meanColourError(decode8(high), photo), 12.0);
  }
}

TEST(NativeEncoder, TinyAndOddSizedPicturesEncodeInEveryFormat) {
  for (auto [w, h] : {std::pair{1, 1}, std::pair{3, 5}, std::pair{17, 2}}) {
    DecodedImage img = testing::makeImage(w, h, testing::Pattern::gradient, 1, true);
    for (ImageFormat format : kNative) {
      SCOPED_TRACE(std::string(ImageFormats::label(format)) + " " + std::to_string(w) + "x" + std::to_string(h));
      DecodedImage back = decode8(encode(img, true, format, lossyPlan(75)));
      EXPECT_EQ(back.width, w);
      EXPECT_EQ(back.height, h);
    }
  }
}

TEST(NativeEncoder, WideGamutProfileReachesEveryFileAndSRGBAddsNone) {
  DecodedImage img = testing::makeImage(32, 24, testing::Pattern::photo, 3);
  for (bool large : {false, true}) {
    Bytes p3 = fixtures::displayP3ICC(large);
    img.colorSpace = ColorSpace::fromICC(p3);
    ASSERT_FALSE(img.colorSpace.isSRGB);
    for (ImageFormat format : kNative) {
      SCOPED_TRACE(std::string(ImageFormats::label(format)) + (large ? " large" : ""));
      EXPECT_EQ(fileICC(format, encode(img, false, format, lossyPlan(80))), p3);
    }
  }
  img.colorSpace = ColorSpace::fromICC(fixtures::srgbICC());
  ASSERT_TRUE(img.colorSpace.isSRGB);
  for (ImageFormat format : kNative)
    EXPECT_TRUE(fileICC(format, encode(img, false, format, lossyPlan(80))).empty()) << ImageFormats::label(format);
}

TEST(NativeEncoder, WritesNothingToStandardError) {
  DecodedImage img = testing::makeImage(64, 64, testing::Pattern::photo, 5, true);
  ::testing::internal::CaptureStderr();
  for (ImageFormat format : kNative) encode(img, true, format, lossyPlan(60));
  DecodedImage tooWide = solid(70000, 1, 0, 0, 0, 255);  // beyond JPEG's 65500
  EXPECT_THROW(encode(tooWide, false, ImageFormat::jpeg, lossyPlan(60)), ImageProcessingError);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(NativeEncoder, FailsWithTheFormatLabel) {
  DecodedImage img = solid(4, 4, 1, 2, 3, 255);
  auto expectFailure = [](auto&& call, const std::string& label) {
    try {
      call();
      ADD_FAILURE() << "no error for " << label;
    } catch (const ImageProcessingError& e) {
      EXPECT_EQ(e.kind(), ImageProcessingError::Kind::encodingFailed);
      EXPECT_EQ(e.label(), label);
      EXPECT_EQ(e.description(), "Échec de l'encodage au format " + label + ".");
    }
  };
  EncodingPlan lossless;
  lossless.mode = EncodingPlan::Mode::lossless();
  for (ImageFormat format : kNative)
    expectFailure([&] { encode(img, false, format, lossless); }, std::string(ImageFormats::label(format)));
  expectFailure([&] { encode(solid(70000, 1, 0, 0, 0, 255), false, ImageFormat::jpeg, lossyPlan(75)); }, "JPEG");
  DecodedImage broken = img;
  broken.pixels8.resize(5);
  expectFailure([&] { encode(broken, false, ImageFormat::avif, lossyPlan(75)); }, "AVIF");
}

}  // namespace
}  // namespace quillane
