// The PNG, WebP and JPEG XL encoders, checked with the libraries' own decoders; then the JPEG,
// HEIC and AVIF path: what reaches the writers, the one quality number, failures, and the chroma
// layout chosen from the picture, read from each file's headers and through our readers, the AVIF
// through libheif's own colour conversion too (the HEIC and JPEG readers are libheif's and libjpeg-turbo's).

#include "engine/Encoders.h"

#include <avif/avif.h>
#include <gtest/gtest.h>
#include <libheif/heif.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <span>
#include <string>
#include <string_view>

#include "engine/CHandle.h"
#include "engine/ImageService.h"
#include "engine/PNGWriter.h"
#include "engine/WebPEncoderConfig.h"
#include "engine/codecs/Writers.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

using Class = ImageCharacteristics::ContentClass;
using Mode = EncodingPlan::Mode;

// Largest difference of the colour samples where the source is not fully transparent, and of
// every alpha sample.
int worstVisibleDifference(std::span<const uint8_t> source, std::span<const uint8_t> decoded) {
  int worst = 0;
  for (size_t i = 0; i < source.size(); i += 4)
    for (size_t c = source[i + 3] == 0 ? 3 : 0; c < 4; ++c)
      worst = std::max(worst, std::abs(int(decoded[i + c]) - int(source[i + c])));
  return worst;
}

TEST(LosslessEncoders, RoundTripExactly) {
  // Flat screenshot areas make the predictors tie; the photo brings every filter into play.
  for (bool alpha : {false, true})
    for (auto [w, h] : {std::pair{1, 1}, {17, 3}, {33, 22}})
      for (int effort : {0, 2})
        for (Pattern pattern : {Pattern::photo, Pattern::screenshot}) {
          SCOPED_TRACE(::testing::Message() << w << "x" << h << " alpha " << alpha << " effort " << effort);
          const RGBABuffer rgba = makeBuffer(w, h, pattern, 3, alpha);
          const EncodingPlan plan = makePlan(Mode::lossless(), effort);
          EXPECT_EQ(decodePNG(PNGQuantEncoder::encodeLossless(rgba, plan)), rgba.pixels) << "PNG";
          const ImageCharacteristics photo{.contentClass = Class::photo, .hasAlpha = alpha};
          EXPECT_EQ(decodeWebP(WebPEncoder::encode(rgba, plan, photo)), rgba.pixels) << "WebP";
          const auto jxl = decodeJXL(JXLEncoder::encode(rgba, alpha, plan));
          ASSERT_TRUE(jxl);
          EXPECT_EQ(jxl->rgba, rgba.pixels);
          EXPECT_EQ(jxl->extraChannels, alpha ? 1u : 0u);
        }
}

TEST(PngPalette, TheQuantizerComesCloseAndAFewColoursAreKeptExactly) {
  // The quantizer's palette of a logo decodes close to it, transparency included; a minimum of 0
  // means even quality 1 gives a file.
  const RGBABuffer logo = makeBuffer(48, 40, Pattern::flatLogo, 1, true);
  for (double quality : {1.0, 80.0}) {
    const auto back = decodePNG(PNGQuantEncoder::encodePalette(logo, makePlan(Mode::lossy(quality))));
    ASSERT_TRUE(back);
    EXPECT_LE(worstVisibleDifference(logo.pixels, *back), quality > 50 ? 8 : 128) << quality;
  }
  // A gentle ramp of 14 greys has its own palette, exactly: the quantizer merged it into 2.
  RGBABuffer ramp = logo;
  for (size_t i = 0; i < ramp.pixels.size(); ++i)
    ramp.pixels[i] = i % 4 == 3 ? 255 : uint8_t(102 + i / 4 % 48 * 14 / 48);
  ramp.hasAlpha = false;
  EXPECT_EQ(decodePNG(PNGQuantEncoder::encodePalette(ramp, makePlan(Mode::lossy(80)))), ramp.pixels);
}

// Indices of 1, 2, 4 and 8 bits, in rows that end inside a byte, with translucent entries anywhere
// in the palette: every pixel comes back, tRNS holds the translucent entries alone (none for an
// opaque palette) and iCCP the profile given. Up to half a megapixel a byte an index competes with
// the packed ones; above, the fewest bits are written.
TEST(PngPalette, EveryIndexWidthDecodesExactlyWithTheShortestChunks) {
  const Bytes profile = fixtures::displayP3ICC();
  const std::pair<size_t, int> depthOf[] = {{2, 1}, {3, 2}, {4, 2}, {5, 4}, {16, 4}, {17, 8}, {256, 8}};
  for (const auto& [colours, depth] : depthOf)
    for (const auto& [w, h] : {std::pair{13, 5}, {1001, 600}}) {
      SCOPED_TRACE(::testing::Message() << colours << " colours, " << w << " x " << h);
      std::vector<PNGWriter::PaletteEntry> palette;
      size_t translucent = 0;
      for (size_t i = 0; i < colours; ++i) {
        const uint8_t alpha = i % 3 == 1 && colours != 4 ? uint8_t(i * 7 % 250) : 255;
        translucent += alpha != 255;
        palette.push_back({uint8_t(i), uint8_t(255 - i), uint8_t(i * 5), alpha});
      }
      std::vector<uint8_t> indices(size_t(w) * size_t(h));
      Bytes expected;
      for (size_t i = 0; i < indices.size(); ++i) {
        indices[i] = uint8_t((i * 31 + i / size_t(w) * 17 + i % 7) % colours);
        const PNGWriter::PaletteEntry& e = palette[indices[i]];
        expected.insert(expected.end(), {e.r, e.g, e.b, e.a});
      }
      const std::optional<Bytes> icc = w < 1000 ? std::optional(profile) : std::nullopt;
      const Bytes file = PNGWriter::writeIndexedPNG(w, h, indices, palette, icc);
      EXPECT_EQ(decodePNG(file), expected);
      const auto read = ImageService::decodeFirstFrame(file).colorSpace.icc;
      EXPECT_EQ(read ? std::optional(*read) : std::nullopt, icc);
      EXPECT_TRUE(w < 1000 || file[24] == depth) << int(file[24]);
      const std::string_view tRNS = "tRNS";
      const auto trns = std::search(file.begin(), file.end(), tRNS.begin(), tRNS.end());
      EXPECT_EQ(trns == file.end() ? 0 : size_t(trns[-1]), translucent);  // the chunk's length's low byte
    }
}

// A lossless PNG of a picture of few colours is its own palette, pixel for pixel; truecolour still
// wins a smooth ramp, where its row filters predict each pixel from the last. A grey picture is
// written grey, with its alpha or without (so is the palette path's exact palette of one), but
// under a profile other than sRGB, which a grey PNG cannot carry.
TEST(PngLossless, FewColoursTakeThePaletteUnlessTruecolourOrGreyIsSmaller) {
  const RGBABuffer logo = makeBuffer(300, 200, Pattern::flatLogo, 1, true);
  const Bytes file = PNGQuantEncoder::encodeLossless(logo, makePlan(Mode::lossless()));
  EXPECT_EQ(file[25], 3);  // colour type: palette
  EXPECT_EQ(decodePNG(file), logo.pixels);
  EXPECT_TRUE(PNGQuantEncoder::encodeLossyAlternative(logo, makePlan(Mode::lossy(95))).empty())
      << "as the lossless file's competitor, the palette path would only repeat its palette";

  RGBABuffer ramp = makeBuffer(1024, 64, Pattern::photo);
  for (size_t i = 0; i < ramp.pixels.size(); ++i)
    ramp.pixels[i] = i % 4 == 3 ? 255 : uint8_t(i / 4 % 1024 / 4);
  const Bytes fast = PNGQuantEncoder::encodeLossless(ramp, makePlan(Mode::lossless(), 0));
  const Bytes best = PNGQuantEncoder::encodeLossless(ramp, makePlan(Mode::lossless()));
  EXPECT_EQ(fast[25], 3) << "the largest pictures take the palette without a trial";
  EXPECT_EQ(best[25], 0);
  EXPECT_LT(best.size(), fast.size());
  EXPECT_EQ(decodePNG(best), ramp.pixels);
  EXPECT_EQ(PNGQuantEncoder::encodePalette(ramp, makePlan(Mode::lossy(75))), best);
  ramp.colorSpace = ColorSpace::fromICC(fixtures::displayP3ICC());
  EXPECT_EQ(PNGQuantEncoder::encodeLossless(ramp, makePlan(Mode::lossless()))[25], 2);

  ramp.colorSpace = ColorSpace::sRGB();
  ramp.hasAlpha = true;
  for (size_t i = 3; i < ramp.pixels.size(); i += 4) ramp.pixels[i] = uint8_t(i / 4 / 1024 * 4);
  const Bytes translucent = PNGQuantEncoder::encodeLossless(ramp, makePlan(Mode::lossless()));
  EXPECT_EQ(translucent[25], 4);
  EXPECT_EQ(decodePNG(translucent), ramp.pixels);
  EXPECT_EQ(PNGQuantEncoder::encodeLossyAlternative(ramp, makePlan(Mode::lossy(95)))[25], 3) << "quantized";
}

// Whether the mode and the alpha plane's quality are honoured, the round trips below show.
TEST(WebPConfig, EveryClassModeAndEffortGivesAConfigLibwebpAccepts) {
  for (Class cls :
       {Class::flatGraphic, Class::screenText, Class::illustration, Class::photo, Class::noisyPhoto})
    for (Mode mode : {Mode::lossy(-3), Mode::lossy(62.5), Mode::lossy(140), Mode::lossless(),
                      Mode::nearLossless(60), Mode::nearLossless(250)})
      for (int effort : {0, 1, 2})
        for (bool alpha : {false, true}) {
          WebPConfig c = WebPEncoder::makeConfig(makePlan(mode, effort),
                                                 {.contentClass = cls, .hasAlpha = alpha}, alpha);
          EXPECT_TRUE(WebPValidateConfig(&c)) << int(cls) << " effort " << effort;
        }
}

TEST(WebPEncode, LossyKeepsAlphaExactlyAndColourCloseAndFailsWithItsLabel) {
  const RGBABuffer rgba = makeBuffer(64, 48, Pattern::photo, 2, true);
  const Bytes webp =
      WebPEncoder::encode(rgba, makePlan(Mode::lossy(90)), {.contentClass = Class::photo, .hasAlpha = true});
  const auto decoded = decodeWebP(webp);
  ASSERT_TRUE(decoded);
  for (size_t i = 3; i < rgba.pixels.size(); i += 4) ASSERT_EQ((*decoded)[i], rgba.pixels[i]) << i;
  EXPECT_LE(maxDifference(*decoded, rgba.pixels), 48);
  EXPECT_LT(webp.size(), rgba.pixels.size() / 2);
  EXPECT_EQ(failureOf([] {
              WebPEncoder::encode(RGBABuffer{}, makePlan(Mode::lossy(75)), {.contentClass = Class::photo});
            }),
            "encoding failed: WebP");
}

// The picture reordered once serves every encoding with the bytes of a fresh import, also after
// a lossless encoding (which clears transparent pixels in its own copy).
TEST(WebPEncode, ARGBPictureGivesTheImportsBytesInAnyOrder) {
  for (bool alpha : {true, false}) {
    RGBABuffer rgba = makeBuffer(64, 48, Pattern::photo, 2, alpha);
    for (int y = 0; alpha && y < rgba.height; ++y)  // colour under transparency: a corner and a scatter
      for (int x = 0; x < rgba.width; ++x)
        if ((x < 20 && y < 20) || (x * 7 + y * 3) % 9 == 0)
          rgba.pixels[(size_t(y) * rgba.width + x) * 4 + 3] = 0;
    const ImageCharacteristics c{.contentClass = Class::screenText, .hasAlpha = alpha};
    const Mode modes[] = {Mode::lossless(), Mode::lossy(75), Mode::nearLossless(60), Mode::lossless(),
                          Mode::lossy(75)};
    const WebPEncoder::ARGBPicture argb{RGBABuffer(rgba)};
    for (const Mode& mode : modes)
      EXPECT_EQ(WebPEncoder::encode(argb, makePlan(mode), c), WebPEncoder::encode(rgba, makePlan(mode), c))
          << "alpha " << alpha << " mode " << EncodingPlan::modeName(mode.kind);
  }
}

// A lossy picture comes out close, coded in XYB; a lossless output larger than the 1 MiB
// drain buffer comes out whole (strong noise hardly compresses: 800 x 600 is about 1.3 MB).
TEST(JxlEncode, LossyIsCloseInXYBAndALargeOutputDrainsWhole) {
  const RGBABuffer photo = makeBuffer(48, 40, Pattern::photo, 6);
  const auto lossy = decodeJXL(JXLEncoder::encode(photo, false, makePlan(Mode::lossy(90), 0)));
  ASSERT_TRUE(lossy);
  EXPECT_FALSE(lossy->usesOriginalProfile);
  EXPECT_LE(maxDifference(lossy->rgba, photo.pixels), 40);
  const RGBABuffer noise = makeBuffer(800, 600, Pattern::noisyPhoto, 1, true);
  const Bytes jxl = JXLEncoder::encode(noise, true, makePlan(Mode::lossless(), 0));
  EXPECT_GT(jxl.size(), 1'048'576u);
  const auto lossless = decodeJXL(jxl);
  ASSERT_TRUE(lossless);
  EXPECT_EQ(lossless->rgba, noise.pixels);
}

// Above 8 megapixels a lossy picture goes in as strips, each replacing its rows; consumed, each strip's rows
// go back to the system once libjxl holds them. Every row must come out where it was, with its alpha: no row
// may differ from its source by more than lossy coding does on average.
TEST(JxlEncode, LossyStripsLandInTheirRows) {
  constexpr int width = 8200, height = 1001;  // rows not a multiple of the strip's
  ASSERT_LT(JXLEncoder::lossyStripRows(width, height, 90), height);
  for (const bool alpha : {false, true}) {
    const RGBABuffer source = makeBuffer(width, height, alpha ? Pattern::flatLogo : Pattern::photo, 3, alpha);
    const auto decoded =
        decodeJXL(JXLEncoder::encode(RGBABuffer(source), alpha, makePlan(Mode::lossy(90), 0)));
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->rgba.size(), source.pixels.size());
    const size_t rowBytes = size_t(width) * 4;
    for (int y = 0; y < height; ++y) {
      long sum = 0, count = 0;  // visible samples, as worstVisibleDifference counts them
      for (size_t i = y * rowBytes; i < (y + 1) * rowBytes; i += 4)
        for (size_t c = source.pixels[i + 3] == 0 ? 3 : 0; c < 4; ++c, ++count)
          sum += std::abs(int(decoded->rgba[i + c]) - int(source.pixels[i + c]));
      ASSERT_LE(double(sum) / double(count), 4.0) << "row " << y << " alpha " << alpha;
    }
  }
  // At low qualities, where only pictures above 24 megapixels go in strips, libjxl would add a progressive DC
  // of its own, coded for the whole picture in every cropped frame: the strips then weighed 8 to 35 times
  // their rows encoded alone (with rows of garbage along their edges when the library's memory held some).
  constexpr int wide = 24020;
  const int rows = JXLEncoder::lossyStripRows(wide, height, 40);
  ASSERT_LT(rows, height);
  const auto bytes = [plan = makePlan(Mode::lossy(40), 0)](int h) {
    return double(JXLEncoder::encode(makeBuffer(wide, h, Pattern::photo, 3), false, plan).size());
  };
  EXPECT_LE(bytes(height), 1.5 * bytes(rows) * height / rows);
}

TEST(JxlTranscode, ReconstructsTheJPEGByteForByte) {
  const DecodedImage photo = makeImage(40, 24, Pattern::photo, 7);
  const std::pair<const char*, fixtures::JpegOptions> cases[] = {
      {"exif orientation 6", {.quality = 85, .orientation = 6}},
      {"32-bit big-endian orientation after XMP",
       {.quality = 85,
        .orientation = 8,
        .exifLayout = {.type = 4, .bigEndian = true},
        .xmpBeforeExif = true}},
      {"progressive", {.quality = 85, .progressive = true}},
      {"grey", {.orientation = 3, .grey = true}},
  };
  for (const auto& [name, options] : cases) {
    const Bytes jpeg = fixtures::jpeg(photo, options);
    const auto jxl = JXLEncoder::transcodeJPEG(jpeg, 7);
    ASSERT_TRUE(jxl) << name;
    const auto decoded = decodeJXL(*jxl);
    ASSERT_TRUE(decoded) << name;
    EXPECT_EQ(decoded->orientation, options.orientation.value_or(1)) << name;
    EXPECT_TRUE(decoded->reconstructedJPEG == jpeg) << name;
  }
  Bytes truncated = fixtures::jpeg(photo);
  truncated.resize(truncated.size() / 3);
  for (const Bytes& damaged : {Bytes{}, Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 2, 1, 2, 3}, truncated})
    EXPECT_FALSE(JXLEncoder::transcodeJPEG(damaged, 7));
}

// === JPEG, HEIC and AVIF =======================================================================

using NativeImageIOEncoder::encode;
using NativeImageIOEncoder::opaqueCopy;

EncodingPlan lossyPlan(double quality) { return makePlan(EncodingPlan::Mode::lossy(quality)); }

DecodedImage decode8(const Bytes& file) {
  DecodedImage img = ImageService::decodeFirstFrame(file);
  if (img.bitsPerComponent == 16) img = NativeImageIOEncoder::straightEightBit(img);
  return img;
}

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
    const auto w = pixelAt(*white, 1, 0), b = pixelAt(*black, 1, 0);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(w[c], c ? 127 : 255, 1) << c;
    EXPECT_EQ(w[3], 255);
    EXPECT_NEAR(b[0], 128, 1);
    EXPECT_EQ(b[1], 0);
  }
  EXPECT_EQ(opaqueCopy(solid(1, 1, 10, 200, 30, 0), true)->pixels8, (Bytes{255, 255, 255, 255}));
}

TEST(NativeQuality, LossyAvifNeverBecomesLosslessAndJpegQualityMovesOneWay) {
  using codecs::avifSettings, codecs::heifSettings, codecs::jpegSettings, codecs::writeHeic;
  EXPECT_DOUBLE_EQ(NativeImageIOEncoder::compressionQuality(ImageFormat::avif, lossyPlan(250)), 0.99);
  EXPECT_GT(avifSettings(0.99, 1000).maxQuantizer, 0);
  for (int i = 1; i <= 100; ++i) {
    EXPECT_LE(jpegSettings((i - 1) / 100.0).quality, jpegSettings(i / 100.0).quality);
    EXPECT_GE(avifSettings((i - 1) / 100.0, 1000).maxQuantizer, avifSettings(i / 100.0, 1000).maxQuantizer);
  }
  // Neither aom's speed rises nor x265's smallest blocks grow as a photo shrinks (a small photo
  // costs less than a large one); screenshots keep 8-pixel blocks, and a large one never gets
  // aom's careful speed, which takes minutes on screen content.
  const size_t sizes[] = {250'000, 1'000'000, 2'000'001, 4'000'000, 12'000'000, 12'000'001, 48'000'000};
  for (size_t i = 1; i < std::size(sizes); ++i) {
    EXPECT_LE(avifSettings(0.75, sizes[i - 1], true).speed, avifSettings(0.75, sizes[i], true).speed);
    EXPECT_LE(heifSettings(0.75, true, sizes[i - 1]).minBlock, heifSettings(0.75, true, sizes[i]).minBlock);
    EXPECT_EQ(heifSettings(0.75, false, sizes[i]).minBlock, 8);
  }
  EXPECT_GT(avifSettings(0.75, 12'000'000).speed, avifSettings(0.75, 12'000'000, true).speed);
  EXPECT_EQ(heifSettings(0.75, true, 12'000'000).minBlock, 16);
  // Continuous tone searched down to 8-pixel blocks gets a weaker psy-rd, and x265 gets it.
  auto full = heifSettings(0.75, true, 250'000, true), gentle = full;
  full.psyRd = 1.0;
  const DecodedImage photo = makeImage(256, 192, Pattern::photo, 3);
  EXPECT_NE(writeHeic(photo, false, gentle, std::nullopt), writeHeic(photo, false, full, std::nullopt));
}

// Alpha is kept only when the picture has it, JPEG flattens over white, and 16-bit and
// premultiplied sources are written faithfully.
TEST(NativeEncoder, AlphaDepthPremultipliedColourAndTheEdgesOfAnOddHeicReachTheFile) {
  const DecodedImage logo = makeImage(64, 48, Pattern::flatLogo, 1, true),
                     deep = fixtures::quadrants(40, 30, 16, true);
  DecodedImage premultiplied = makeImage(40, 30, Pattern::photo, 2, true);
  auto& samples = premultiplied.pixels8;
  for (size_t i = 0; i < samples.size(); ++i)
    if (i % 4 != 3) samples[i] = uint8_t((samples[i] * samples[i / 4 * 4 + 3] + 127) / 255);
  premultiplied.alpha = AlphaInfo::premultiplied;
  const DecodedImage expectedStraight = NativeImageIOEncoder::straightEightBit(premultiplied);
  DecodedImage jpeg = decode8(encode(logo, true, ImageFormat::jpeg, lossyPlan(90)));
  for (int c = 0; c < 3; ++c) EXPECT_GE(pixelAt(jpeg, 1, 1)[c], 250);  // transparent black in the source
  for (ImageFormat format : {ImageFormat::heic, ImageFormat::avif}) {
    SCOPED_TRACE(ImageFormats::label(format));
    DecodedImage withAlpha = decode8(encode(logo, true, format, lossyPlan(80)));
    EXPECT_LE(pixelAt(withAlpha, 1, 1)[3], 8);
    EXPECT_GE(pixelAt(withAlpha, 32, 24)[3], 247);

    DecodedImage without = decode8(encode(logo, false, format, lossyPlan(80)));
    EXPECT_EQ(pixelAt(without, 1, 1)[3], 255);
    EXPECT_LE(pixelAt(without, 1, 1)[0], 12) << "an opaque copy is drawn over black";

    DecodedImage back = decode8(encode(deep, true, format, lossyPlan(95)));
    for (auto corner : {fixtures::Corner::topLeft, fixtures::Corner::bottomRight})
      EXPECT_EQ(fixtures::quadrantAt(back, corner), int(corner));
    DecodedImage round = decode8(encode(premultiplied, true, format, lossyPlan(95)));
    EXPECT_LT(meanColourError(round, expectedStraight), 6.0);
  }
  // The HEIC writer makes x265's colour planes itself: every sample of an odd-sized picture,
  // its last row and column too, comes back in its colour and alpha, subsampled or not.
  for (const double quality : {75.0, 92.0})
    for (const uint8_t alpha : {uint8_t(255), uint8_t(128)}) {
      const DecodedImage source = solid(35, 19, 200, 40, 90, alpha);
      const DecodedImage back = decode8(encode(source, alpha < 255, ImageFormat::heic, lossyPlan(quality)));
      EXPECT_LE(maxDifference(back.pixels8, source.pixels8), 6)
          << "quality " << quality << " alpha " << int(alpha);
    }
}

TEST(NativeEncoder, FailsWithTheFormatLabelAndWritesNothingToStandardError) {
  ::testing::internal::CaptureStderr();
  DecodedImage img = makeImage(64, 64, Pattern::photo, 5, true);
  for (ImageFormat format : {ImageFormat::jpeg, ImageFormat::heic, ImageFormat::avif}) {
    encode(img, true, format, lossyPlan(60));
    EXPECT_EQ(failureOf([&] { encode(img, false, format, makePlan(Mode::lossless())); }),
              "encoding failed: " + std::string(ImageFormats::label(format)));
  }
  EXPECT_EQ(
      failureOf([&] { encode(solid(70000, 1, 0, 0, 0, 255), false, ImageFormat::jpeg, lossyPlan(75)); }),
      "encoding failed: JPEG");
  img.pixels8.resize(5);
  EXPECT_EQ(failureOf([&] { encode(img, false, ImageFormat::avif, lossyPlan(75)); }),
            "encoding failed: AVIF");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

// Dark-on-white "code": letter-sized cells of one-pixel strokes in four syntax colours.
DecodedImage colouredText(int w, int h) {
  static const uint8_t kInk[4][3] = {{190, 20, 30}, {20, 60, 200}, {0, 128, 40}, {140, 0, 160}};
  DecodedImage img = solid(w, h, 255, 255, 255);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int cellX = x / 7, cellY = y / 14, cx = x % 7, cy = y % 14;
      const unsigned hash = unsigned(cellX * 7919 + cellY * 104729) * 2654435761u;
      const bool stroke = cy >= 2 && cy < 11 && cx < 5 &&
                          ((cx == 0 && (hash & 1)) || (cx == 4 && (hash & 2)) || (cy == 2 && (hash & 4)) ||
                           (cy == 6 && (hash & 8)) || (cy == 10 && (hash & 16)));
      if (!stroke || (cellX / 6 + cellY) % 3 == 2) continue;  // gaps between words
      std::copy_n(kInk[(cellX / 6 + cellY * 3) % 4], 3,
                  &img.pixels8[(size_t(y) * size_t(w) + size_t(x)) * 4]);
    }
  return img;
}

// From the HEVC decoder configuration ("hvcC" box): chroma_format_idc, 1 for 4:2:0, 3 for 4:4:4.
// libheif hands out every decoded HEVC picture as 4:4:4, so the header is the only witness.
std::string heicLayout(const Bytes& file) {
  const std::string tag = "hvcC";
  const auto box = std::search(file.begin(), file.end(), tag.begin(), tag.end());
  if (file.end() - box < 4 + 17) return "no hvcC box";
  const int idc = box[4 + 16] & 3;
  return idc == 3 ? "444" : idc == 1 ? "420" : "other";
}

DecodedImage heifDecode(const Bytes& file) {
  const auto ok = [](heif_error e) { EXPECT_EQ(e.code, heif_error_Ok) << e.message; };
  CHandle<heif_context, heif_context_free> context(heif_context_alloc());
  ok(heif_context_read_from_memory_without_copy(context.get(), file.data(), file.size(), nullptr));
  heif_image_handle* rawHandle = nullptr;
  ok(heif_context_get_primary_image_handle(context.get(), &rawHandle));
  CHandle<heif_image_handle, heif_image_handle_release> handle(rawHandle);
  heif_image* raw = nullptr;
  ok(heif_decode_image(rawHandle, &raw, heif_colorspace_RGB, heif_chroma_interleaved_RGBA, nullptr));
  CHandle<heif_image, heif_image_release> rgba(raw);
  DecodedImage out;
  out.width = heif_image_get_width(raw, heif_channel_interleaved);
  out.height = heif_image_get_height(raw, heif_channel_interleaved);
  int stride = 0;
  const uint8_t* row = heif_image_get_plane_readonly(raw, heif_channel_interleaved, &stride);
  for (int y = 0; y < out.height; ++y, row += stride)
    out.pixels8.insert(out.pixels8.end(), row, row + size_t(out.width) * 4);
  return out;
}

std::string jpegLayout(const Bytes& file) {
  CHandle<void, tjDestroy> tj(tjInitDecompress());
  int w = 0, h = 0, subsampling = -1, colourspace = 0;
  tjDecompressHeader3(tj.get(), file.data(), (unsigned long)file.size(), &w, &h, &subsampling, &colourspace);
  return subsampling == TJSAMP_444 ? "444" : subsampling == TJSAMP_420 ? "420" : "other";
}

TEST(ChromaLayout, VisibleColouredTextKeepsFullChromaAndAPhotoIsSubsampledInEveryDecoder) {
  // Text scaled up by two with its pixels doubled has every edge between two 2 x 2 blocks.
  const DecodedImage small = colouredText(160, 100);
  DecodedImage doubled = solid(320, 200, 0, 0, 0);
  for (size_t p = 0; p < doubled.pixelCount(); ++p)
    std::copy_n(&small.pixels8[(p / 640 * 160 + p % 320 / 2) * 4], 4, &doubled.pixels8[p * 4]);
  struct {
    const char* name;
    DecodedImage picture;
    double maxError;  // mean absolute error per colour sample a decoder may show at quality 75
    bool photo;
  } const cases[] = {
      {"coloured text", colouredText(320, 200), 7.0, false},
      {"coloured text, pixels doubled", doubled, 7.0, false},
      {"smooth photo", makeImage(320, 200, Pattern::photo, 3), 3.0, true},
  };
  ASSERT_TRUE(heif_have_decoder_for_format(heif_compression_AV1));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EncodingPlan plan = lossyPlan(75);
    plan.continuousTone = c.photo;  // as a photo is planned: aom told to leave out intra block copy
    const Bytes avif = encode(c.picture, false, ImageFormat::avif, plan),
                heic = encode(c.picture, false, ImageFormat::heic, plan),
                jpeg = encode(c.picture, false, ImageFormat::jpeg, plan);
    // The AVIF's own description of its planes; and, for an sRGB picture, sRGB named (primaries
    // 1, transfer 13, matrix 6) with no profile, so that every reader shows the same colours.
    CHandle<avifDecoder, avifDecoderDestroy> parsed(avifDecoderCreate());
    ASSERT_EQ(avifDecoderSetIOMemory(parsed.get(), avif.data(), avif.size()), AVIF_RESULT_OK);
    ASSERT_EQ(avifDecoderParse(parsed.get()), AVIF_RESULT_OK);
    const avifImage* header = parsed->image;
    EXPECT_EQ((std::vector<int>{int(header->yuvFormat), int(header->colorPrimaries),
                                int(header->transferCharacteristics), int(header->matrixCoefficients),
                                int(header->icc.size)}),
              (std::vector<int>{c.photo ? AVIF_PIXEL_FORMAT_YUV420 : AVIF_PIXEL_FORMAT_YUV444, 1, 13, 6, 0}));
    EXPECT_EQ(heicLayout(heic) + " " + jpegLayout(jpeg), c.photo ? "420 420" : "444 444");
    // The own AVIF reader is libavif's colour conversion; libheif's is the independent one.
    const std::pair<const char*, DecodedImage> seen[] = {
        {"own reader AVIF", ImageService::decodeFirstFrame(avif)},
        {"libheif AV1", heifDecode(avif)},
        {"own reader HEIC", ImageService::decodeFirstFrame(heic)},
        {"own reader JPEG", ImageService::decodeFirstFrame(jpeg)}};
    for (const auto& [name, image] : seen) EXPECT_LT(meanColourError(image, c.picture), c.maxError) << name;
  }

  // Colour under full transparency does not count.
  DecodedImage hidden = cases[0].picture;
  for (size_t i = 3; i < hidden.pixels8.size(); i += 4) hidden.pixels8[i] = 0;
  hidden.alpha = AlphaInfo::straight;
  EXPECT_TRUE(codecs::usesFullChroma(codecs::ChromaLayout::automatic, hidden, false));
  EXPECT_FALSE(codecs::usesFullChroma(codecs::ChromaLayout::automatic, hidden, true));
}

}  // namespace
}  // namespace quillane::testing
