// The PNG, WebP and JPEG XL encoders, checked with the libraries' own decoders: exact lossless
// round trips, close lossy ones, the palette writer's chunks and JPEG repackaging.

#include "engine/Encoders.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>
#include <random>

#include "engine/Errors.h"
#include "engine/PNGWriter.h"
#include "engine/WebPEncoderConfig.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

using Class = ImageCharacteristics::ContentClass;
using Mode = EncodingPlan::Mode;

ImageCharacteristics characteristics(Class contentClass, bool hasAlpha = false) {
  ImageCharacteristics c;
  c.contentClass = contentClass;
  c.hasAlpha = hasAlpha;
  return c;
}

std::optional<Bytes> rgbaOf(const std::optional<Decoded>& decoded) {
  return decoded ? std::optional(decoded->rgba) : std::nullopt;
}

// Largest difference of the colour samples where the source is not fully transparent, and of
// every alpha sample.
int worstVisibleDifference(const Bytes& source, const Bytes& decoded) {
  int worst = 0;
  for (size_t i = 0; i < source.size(); i += 4)
    for (size_t c = source[i + 3] == 0 ? 3 : 0; c < 4; ++c)
      worst = std::max(worst, std::abs(int(decoded[i + c]) - int(source[i + c])));
  return worst;
}

TEST(LosslessEncoders, RoundTripExactly) {
  using RoundTrip = std::function<std::optional<Bytes>(const RGBABuffer&, int)>;
  const std::pair<const char*, RoundTrip> encoders[] = {
      {"PNG",
       [](const RGBABuffer& rgba, int effort) {
         return rgbaOf(decodePNG(PNGQuantEncoder::encodeLossless(rgba, makePlan(Mode::lossless(), effort))));
       }},
      {"WebP",
       [](const RGBABuffer& rgba, int effort) {
         return rgbaOf(decodeWebP(WebPEncoder::encode(rgba, makePlan(Mode::lossless(), effort),
                                                      characteristics(Class::photo, rgba.hasAlpha))));
       }},
      {"JPEG XL", [](const RGBABuffer& rgba, int effort) -> std::optional<Bytes> {
         const auto decoded =
             decodeJXL(JXLEncoder::encode(rgba, rgba.hasAlpha, makePlan(Mode::lossless(), effort)));
         if (!decoded) return std::nullopt;
         EXPECT_TRUE(decoded->usesOriginalProfile);
         EXPECT_EQ(decoded->extraChannels, rgba.hasAlpha ? 1u : 0u);
         return decoded->image.rgba;
       }}};
  // Flat screenshot areas make the predictors tie; the photo brings every filter into play.
  for (const auto& [name, roundTrip] : encoders)
    for (bool alpha : {false, true})
      for (auto [w, h] : {std::pair{1, 1}, {17, 3}, {33, 22}})
        for (int effort : {0, 2})
          for (Pattern pattern : {Pattern::photo, Pattern::screenshot}) {
            const RGBABuffer rgba = makeBuffer(w, h, pattern, 3, alpha);
            const auto back = roundTrip(rgba, effort);
            ASSERT_TRUE(back) << name << " " << w << "x" << h;
            EXPECT_EQ(*back, rgba.pixels)
                << name << " " << w << "x" << h << " alpha " << alpha << " effort " << effort;
          }
}

// --- PNG ---------------------------------------------------------------------------------------

TEST(PngPalette, DecodesCloseToTheSourceWithTransparency) {
  const RGBABuffer logo = makeBuffer(48, 40, Pattern::flatLogo, 1, true);
  for (double quality : {1.0, 80.0}) {  // a minimum of 0 means even quality 1 gives a file
    const Bytes png = PNGQuantEncoder::encodePalette(logo, makePlan(Mode::lossy(quality)));
    const auto decoded = decodePNG(png);
    ASSERT_TRUE(decoded);
    EXPECT_LE(worstVisibleDifference(logo.pixels, decoded->rgba), quality > 50 ? 8 : 128) << quality;
  }
}

// The type of each chunk of a PNG file in file order, "bad CRC" for a chunk whose CRC is wrong,
// and the payload of the last chunk of `type`.
std::vector<std::string> pngChunks(const Bytes& png, const std::string& type = {}, Bytes* payload = nullptr) {
  std::vector<std::string> types;
  const auto be32 = [&](size_t at) {
    return uint32_t(png[at]) << 24 | png[at + 1] << 16 | png[at + 2] << 8 | png[at + 3];
  };
  for (size_t at = 8, length = 0; at + 12 <= png.size(); at += 12 + length) {
    length = be32(at);
    if (at + 12 + length > png.size()) break;
    types.emplace_back(png.begin() + ptrdiff_t(at + 4), png.begin() + ptrdiff_t(at + 8));
    if (types.back() == type && payload) payload->assign(&png[at + 8], &png[at + 8 + length]);
    if (crc32(0, &png[at + 4], uInt(4 + length)) != be32(at + 8 + length)) types.back() = "bad CRC";
  }
  return types;
}

TEST(PngWriterChunks, IndexedFileDecodesWithValidChunksInOrder) {
  const std::vector<PNGWriter::PaletteEntry> palette = {{255, 0, 0, 255}, {0, 255, 0, 128}, {0, 0, 255, 0}};
  const std::vector<uint8_t> indices = {0, 1, 2, 0, 1, 2};
  const Bytes profile = fixtures::displayP3ICC();
  const Bytes file = PNGWriter::writeIndexedPNG(3, 2, indices, palette, profile);
  Bytes iccp;
  EXPECT_EQ(pngChunks(file, "iCCP", &iccp),
            (std::vector<std::string>{"IHDR", "iCCP", "PLTE", "tRNS", "IDAT", "IEND"}));
  // iCCP: "ICC profile", two zero bytes, then a zlib stream of the profile.
  Bytes inflated(profile.size() + 1);
  uLongf length = inflated.size();
  ASSERT_GT(iccp.size(), 13u);
  ASSERT_EQ(uncompress(inflated.data(), &length, &iccp[13], uLong(iccp.size() - 13)), Z_OK);
  inflated.resize(length);
  EXPECT_EQ(inflated, profile);
  const auto decoded = decodePNG(file);
  ASSERT_TRUE(decoded);
  const Bytes expected = {255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 255, 0,
                          255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 255, 0};
  EXPECT_EQ(decoded->rgba, expected);
  // An opaque palette needs no tRNS, and an empty profile no iCCP.
  const std::vector<PNGWriter::PaletteEntry> opaque = {{1, 2, 3, 255}, {4, 5, 6, 255}, {7, 8, 9, 255}};
  EXPECT_EQ(pngChunks(PNGWriter::writeIndexedPNG(3, 2, indices, opaque, Bytes{})),
            (std::vector<std::string>{"IHDR", "PLTE", "IDAT", "IEND"}));
}

// --- WebP --------------------------------------------------------------------------------------

// Whether the mode and the alpha plane's quality are honoured, the round trips below show.
TEST(WebPConfig, EveryClassModeAndEffortGivesAConfigLibwebpAccepts) {
  for (Class cls :
       {Class::flatGraphic, Class::screenText, Class::illustration, Class::photo, Class::noisyPhoto})
    for (Mode mode : {Mode::lossy(-3), Mode::lossy(62.5), Mode::lossy(140), Mode::lossless(),
                      Mode::nearLossless(60), Mode::nearLossless(250)})
      for (int effort : {0, 1, 2})
        for (bool alpha : {false, true}) {
          WebPConfig c = WebPEncoder::makeConfig(makePlan(mode, effort), characteristics(cls, alpha), alpha);
          EXPECT_TRUE(WebPValidateConfig(&c)) << int(cls) << " effort " << effort;
        }
}

TEST(WebPEncode, LossyKeepsAlphaExactlyAndColourCloseAndFailsWithItsLabel) {
  const RGBABuffer rgba = makeBuffer(64, 48, Pattern::photo, 2, true);
  const Bytes webp =
      WebPEncoder::encode(rgba, makePlan(Mode::lossy(90)), characteristics(Class::photo, true));
  const auto decoded = decodeWebP(webp);
  ASSERT_TRUE(decoded);
  for (size_t i = 3; i < rgba.pixels.size(); i += 4) ASSERT_EQ(decoded->rgba[i], rgba.pixels[i]) << i;
  EXPECT_LE(maxDifference(decoded->rgba, rgba.pixels), 48);
  EXPECT_LT(webp.size(), rgba.pixels.size() / 2);
  EXPECT_EQ(failureOf([] {
              WebPEncoder::encode(RGBABuffer{}, makePlan(Mode::lossy(75)), characteristics(Class::photo));
            }),
            "encoding failed: WebP");
}

// --- JPEG XL -----------------------------------------------------------------------------------

// The picture reordered once serves every encoding with the bytes of a fresh import, also after
// a lossless encoding (which clears transparent pixels in its own copy).
TEST(WebPEncode, ARGBPictureGivesTheImportsBytesInAnyOrder) {
  for (bool alpha : {true, false}) {
    RGBABuffer rgba = makeBuffer(64, 48, Pattern::photo, 2, alpha);
    for (int y = 0; alpha && y < rgba.height; ++y)  // colour under transparency: a corner and a scatter
      for (int x = 0; x < rgba.width; ++x)
        if ((x < 20 && y < 20) || (x * 7 + y * 3) % 9 == 0)
          rgba.pixels[(size_t(y) * rgba.width + x) * 4 + 3] = 0;
    const auto c = characteristics(Class::screenText, alpha);
    const Mode modes[] = {Mode::lossless(), Mode::lossy(75), Mode::nearLossless(60), Mode::lossless(),
                          Mode::lossy(75)};
    const WebPEncoder::ARGBPicture argb{RGBABuffer(rgba)};
    for (const Mode& mode : modes)
      EXPECT_EQ(WebPEncoder::encode(argb, makePlan(mode), c), WebPEncoder::encode(rgba, makePlan(mode), c))
          << "alpha " << alpha << " mode " << EncodingPlan::modeName(mode.kind);
  }
}

TEST(JxlEncode, LossyIsCloseAndUsesXYB) {
  const RGBABuffer rgba = makeBuffer(48, 40, Pattern::photo, 6);
  const auto decoded = decodeJXL(JXLEncoder::encode(rgba, false, makePlan(Mode::lossy(90), 0)));
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->usesOriginalProfile);
  EXPECT_LE(maxDifference(decoded->image.rgba, rgba.pixels), 40);
}

TEST(JxlEncode, OutputAboveOneMebibyteDrainsContiguously) {
  // Random samples don't compress: 700 by 500 RGBA losslessly is about 1.4 MB.
  RGBABuffer rgba;
  rgba.width = 700, rgba.height = 500, rgba.hasAlpha = true;
  rgba.pixels.resize(size_t(700) * 500 * 4);
  std::mt19937 rng(11);
  for (uint8_t& v : rgba.pixels) v = uint8_t(rng());
  const Bytes jxl = JXLEncoder::encode(rgba, true, makePlan(Mode::lossless(), 0));
  EXPECT_GT(jxl.size(), 1'048'576u);
  const auto decoded = decodeJXL(jxl);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->image.rgba, rgba.pixels);
}

// Above 8 megapixels a lossy picture goes in as strips, each replacing its rows; consumed,
// each strip's rows go back to the system once libjxl holds them. Every row must come out
// where it was, with its alpha: no row may differ from its source by more than lossy coding
// does on average.
TEST(JxlEncode, LossyStripsLandInTheirRows) {
  constexpr int width = 8200, height = 1001;  // rows not a multiple of the strip's
  ASSERT_LT(JXLEncoder::lossyStripRows(width, height), height);
  for (const bool alpha : {false, true}) {
    RGBABuffer rgba = makeBuffer(width, height, alpha ? Pattern::flatLogo : Pattern::photo, 3, alpha);
    const RGBABuffer source = rgba;
    const auto decoded = decodeJXL(JXLEncoder::encode(std::move(rgba), alpha, makePlan(Mode::lossy(90), 0)));
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->image.rgba.size(), source.pixels.size());
    const size_t rowBytes = size_t(width) * 4;
    for (int y = 0; y < height; ++y) {
      long sum = 0, count = 0;  // visible samples, as worstVisibleDifference counts them
      for (size_t i = y * rowBytes; i < (y + 1) * rowBytes; i += 4)
        for (size_t c = source.pixels[i + 3] == 0 ? 3 : 0; c < 4; ++c, ++count)
          sum += std::abs(int(decoded->image.rgba[i + c]) - int(source.pixels[i + c]));
      ASSERT_LE(double(sum) / double(count), 4.0) << "row " << y << " alpha " << alpha;
    }
  }
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

}  // namespace
}  // namespace quillane::testing
