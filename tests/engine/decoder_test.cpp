// The six formats' readers: orientation applied once, depth and alpha, colour, frames, detection, thumbnails.

#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "engine/ColorConvert.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/LcmsHandles.h"
#include "engine/Resample.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using fixtures::Corner;
using ImageDecoder::decodeCGImageSource;
using testing::pixelAt;

constexpr int kW = 48, kH = 32;

// The picture is the quadrants() picture of kW x kH shown under `orientation`: its corners, in Corner order
// (0 top left, 1 top right, 2 bottom left, 3 bottom right), show the stored quarters this table lists.
void expectUpright(const DecodedImage& image, int orientation) {
  const char* const seen[9] = {"", "0123", "1032", "3210", "2301", "0213", "2031", "3120", "1302"};
  const bool quarter = orientation >= 5;
  ASSERT_EQ(image.width, quarter ? kH : kW);
  ASSERT_EQ(image.height, quarter ? kW : kH);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(fixtures::quadrantAt(image, Corner(i)), seen[orientation][i] - '0')
        << "orientation " << orientation << ", displayed corner " << i;
}

TEST(Orientation, EachContainerIsTurnedOnceWhereverItStoresTheOrientation) {
  const auto picture = fixtures::quadrants(kW, kH);
  std::vector<std::tuple<std::string, fixtures::Bytes, int>> cases = {
      // eXIf after the image data: the header probe must still find it.
      {"png", fixtures::png(picture, {.orientation = 6, .exifAfterData = true}), 6},
      {"webp", fixtures::webp(picture, {.orientation = 3}), 3},
      {"lossless webp", fixtures::webp(picture, {.lossless = true, .orientation = 5}), 5},
      // libheif turns by irot/imir; the disagreeing EXIF block would turn it again if applied.
      {"heic", fixtures::heic(picture, {.alpha = false, .orientation = 6, .exifOrientation = 8}), 6},
      // irot is anticlockwise: one quarter turn shows the stored top right at the top left.
      {"avif irot", fixtures::avif(picture, {.alpha = false, .irotAngle = 1}), 8},
      {"avif irot and imir", fixtures::avif(picture, {.alpha = false, .irotAngle = 1, .imirMode = 0}), 5},
      {"jxl", fixtures::jxl(picture, {.orientation = 6}), 6},
  };
  // The JPEG rows store the tag in each TIFF integer type (SHORT, LONG, SSHORT, SLONG) and
  // byte order once; the LONG ones after an XMP marker.
  const int types[] = {3, 4, 8, 9};
  for (int orientation = 1; orientation <= 8; ++orientation) {
    const fixtures::ExifLayout layout{types[(orientation - 1) % 4], orientation > 4};
    const fixtures::JpegOptions options{
        .orientation = orientation, .exifLayout = layout, .xmpBeforeExif = layout.type == 4};
    cases.push_back({"jpeg " + std::to_string(orientation) + " type " + std::to_string(layout.type),
                     fixtures::jpeg(picture, options), orientation});
    // -2, or 65534 and 4294967294 unsigned: out of range in every type.
    auto outside =
        ImageService::properties(fixtures::jpeg(picture, {.orientation = -2, .exifLayout = layout}));
    ASSERT_TRUE(outside);
    EXPECT_EQ(outside->orientation, std::nullopt) << layout.type;
  }
  testing::TempDir dir;
  for (const auto& [name, file, orientation] : cases) {
    SCOPED_TRACE(name);
    const bool heic = name == "heic", quarter = orientation >= 5;
    auto props = ImageService::properties(file);
    ASSERT_TRUE(props);
    // Stated for the pipeline to apply, except where libheif already did (and reports the turned size).
    EXPECT_EQ(props->orientation, heic ? std::nullopt : std::optional(orientation));
    EXPECT_EQ(props->width, heic && quarter ? kH : kW);
    expectUpright(decodeCGImageSource(file).image, orientation);
    expectUpright(ImageService::thumbnail(file, 256).value_or(DecodedImage{}), orientation);  // none: 0 x 0
    // Inspection reports the size as shown, and its thumbnail upright; the content, not the name, decides
    // the format.
    const auto light = ImageDecoder::inspect(dir.write("picture.png", file));
    EXPECT_EQ(light.format, ImageFormats::detect(file));
    EXPECT_EQ(light.pixelWidth, quarter ? kH : kW);
    EXPECT_EQ(light.pixelHeight, quarter ? kW : kH);
    expectUpright(light.thumbnail, orientation);
  }
}

// Lossless 16-bit files give back every sample; the 10-bit AVIF comes at the full 16-bit scale;
// straight and palette alpha are kept (HEIC and AVIF alpha: encoders_test).
TEST(DepthAndAlpha, SixteenBitStaysSixteenBitAndAlphaIsKept) {
  DecodedImage source = fixtures::quadrants(kW, kH, 16, true);
  for (size_t i = 0; i < source.pixels16.size(); i += 7) source.pixels16[i] = uint16_t(i * 2654435761u);
  for (const auto& file : {fixtures::png(source), fixtures::jxl(source)}) {  // both lossless
    auto image = ImageService::decodeFirstFrame(file);
    EXPECT_EQ(image.bitsPerComponent, 16);
    EXPECT_EQ(image.alpha, AlphaInfo::straight);
    EXPECT_EQ(image.pixels16, source.pixels16);
  }
  const auto eight = fixtures::quadrants(kW, kH, 8, true);
  const std::tuple<const char*, fixtures::Bytes, int> files[] = {
      {"10-bit avif", fixtures::avif(fixtures::quadrants(kW, kH, 16, true), {.depth = 10}), 16},
      {"palette png", fixtures::png(eight, {.palette = true}), 8},
      {"webp", fixtures::webp(eight, {.lossless = true}), 8},
  };
  for (const auto& [name, file, depth] : files) {
    SCOPED_TRACE(name);
    const DecodedImage decoded = ImageService::decodeFirstFrame(file);
    EXPECT_EQ(decoded.bitsPerComponent, depth);
    const DecodedImage image = Resample::toEightBit(decoded);
    EXPECT_TRUE(image.hasAlphaChannel());
    EXPECT_NEAR(image.pixels8[3], 128, 2);  // top left is half transparent
    EXPECT_NEAR(image.pixels8.back(), 255, 2);
    EXPECT_EQ(fixtures::quadrantAt(image, Corner::bottomLeft), 2);
  }
}

// Thumbnails are made as the readers go: PNG rows averaged as they come, Adam7 passes read only
// as far as needed, WebP scaled while it decodes, and HEIC, AVIF and lossy JPEG XL averaged from
// what the decoders hand over, before any RGBA of the full picture exists. Each must match the
// full decode reduced, for single pictures and grids, 8, 10 and 16 bits, with alpha, turned
// (every turn's map: resample_test Orient), never from a stored thumbnail that differs.
TEST(Thumbnails, ThumbnailsMadeWhileReadingMatchTheFullDecodeReduced) {
  const auto photo = testing::makeImage(256, 192, testing::Pattern::photo, 7, true);
  const DecodedImage picture = fixtures::quadrants(1000, 600, 8, true),
                     wide = fixtures::quadrants(1000, 600, 16, true);
  const fixtures::Bytes files[] = {
      fixtures::heic(photo, {.alpha = false}), fixtures::grid(fixtures::heic(photo, {.alpha = false}), 2, 2),
      fixtures::avif(photo), fixtures::avif(photo, {.depth = 10, .irotAngle = 1}),
      fixtures::grid(fixtures::avif(photo, {.alpha = false}), 2, 2),
      fixtures::avif(photo, {.crop = {64, 32, 128, 96}}),
      fixtures::jxl(photo, {.lossless = false, .orientation = 6}), fixtures::png(picture),
      fixtures::png(wide, {.interlaced = true}),
      fixtures::png(picture, {.palette = true, .interlaced = true}), fixtures::webp(picture),
      fixtures::animatedWebp({picture, picture}),
      // A camera's stored thumbnail, opaque and unrotated, is not the picture.
      fixtures::heic(photo, {.orientation = 6, .thumbnailSide = 64})};
  for (const auto& file : files) {
    const DecodedImage whole = Resample::toEightBit(decodeCGImageSource(file).image);
    for (int size : {64, 100, 300}) {
      SCOPED_TRACE(::testing::Message() << ImageFormats::rawValue(*ImageFormats::detect(file)) << " "
                                        << whole.width << " wide, thumbnail of " << size);
      const DecodedImage thumb = ImageService::thumbnail(file, size).value_or(DecodedImage{});  // none: 0 x 0
      const DecodedImage full = Resample::fitWithin(whole, size);
      ASSERT_EQ(thumb.width, full.width);
      ASSERT_EQ(thumb.height, full.height);
      double difference = 0;
      for (size_t i = 0; i < full.pixels8.size(); ++i)
        difference += std::abs(int(thumb.pixels8[i]) - int(full.pixels8[i]));
      EXPECT_LT(difference / double(full.pixels8.size()), 2.0);
    }
  }
  EXPECT_EQ(fixtures::quadrantAt(ImageService::decodeFirstFrame(files[9]), Corner::bottomRight), 3);
  // An AVIF's clean aperture is the picture: the rest of the coded one is not shown.
  const auto clapped =
      fixtures::avif(fixtures::quadrants(64, 48), {.alpha = false, .crop = {16, 12, 32, 24}});
  EXPECT_EQ(ImageService::properties(clapped)->width, 32);
  const DecodedImage shown = ImageService::decodeFirstFrame(clapped);
  ASSERT_EQ(shown.width, 32);
  ASSERT_EQ(shown.height, 24);
  EXPECT_EQ(fixtures::quadrantAt(shown, Corner::topRight), 1);
  EXPECT_EQ(fixtures::quadrantAt(shown, Corner::bottomLeft), 2);
}

// An RGB profile of Display P3's primaries whose tone curve is a table (gamma 1.8 sampled),
// which JPEG XL can't describe by code points.
fixtures::Bytes tabulatedCurveICC() {
  std::vector<cmsUInt16Number> table(1024);
  for (size_t i = 0; i < table.size(); ++i)
    table[i] = cmsUInt16Number(std::lround(std::pow(i / 1023.0, 1.8) * 65535));
  CHandle<cmsToneCurve, cmsFreeToneCurve> curve(
      cmsBuildTabulatedToneCurve16(nullptr, cmsUInt32Number(table.size()), table.data()));
  cmsToneCurve* curves[3] = {curve.get(), curve.get(), curve.get()};
  const cmsCIExyY white{0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries{{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  CmsProfilePtr profile(cmsCreateRGBProfile(&white, &primaries, curves));
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile.get(), nullptr, &size);
  fixtures::Bytes icc(size);
  cmsSaveProfileToMem(profile.get(), icc.data(), &size);
  return icc;
}

void expectNear(std::array<int, 4> got, std::array<int, 3> want, int tolerance, const char* what) {
  for (size_t c = 0; c < 3; ++c) EXPECT_NEAR(got[c], want[c], tolerance) << what << " channel " << c;
}

TEST(ColourProfiles, ALossyJpegXlKeepsItsTabulatedCurveProfileAndItsColours) {
  const fixtures::Bytes icc = tabulatedCurveICC();
  DecodedImage source = testing::makeImage(64, 48, testing::Pattern::photo, 5);
  // A quarter of pure red, outside sRGB's gamut, through which libjxl hands the picture over.
  for (int y = 0; y < 24; ++y)
    for (int x = 0; x < 32; ++x)
      std::copy_n("\xff\0\0", 3, &source.pixels8[(size_t(y) * 64 + size_t(x)) * 4]);
  const auto file = fixtures::jxl(source, {.lossless = false, .icc = icc});
  const DecodedImage decoded = ImageService::decodeFirstFrame(file);
  ASSERT_TRUE(decoded.colorSpace.icc);
  EXPECT_EQ(*decoded.colorSpace.icc, icc) << "the source's profile, not a linear one";
  EXPECT_EQ(decoded.bitsPerComponent, 16);
  // Under the one profile, the samples themselves are the colours.
  EXPECT_LT(testing::meanColourError(Resample::toEightBit(decoded), source), 3.0);
}

// Thumbnails and previews are only shown, on a desktop that takes pixels as sRGB: a Display P3
// picture's come converted, in every container that carries the profile.
TEST(ColourProfiles, ThumbnailsOfOtherProfilesAreShownInSRGB) {
  const fixtures::Bytes icc = fixtures::displayP3ICC();
  const DecodedImage source = testing::solid(32, 16, 200, 100, 50);
  uint8_t expected[4] = {};
  CmsProfilePtr p3(cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size()))),
      srgb(cmsCreate_sRGBProfile());
  CmsTransformPtr transform(
      cmsCreateTransform(p3.get(), TYPE_RGBA_8, srgb.get(), TYPE_RGBA_8, INTENT_RELATIVE_COLORIMETRIC, 0));
  cmsDoTransform(transform.get(), source.pixels8.data(), expected, 1);
  ASSERT_GT(std::abs(int(expected[0]) - 200), 5) << "the two spaces must tell apart";
  for (const auto& file :
       {fixtures::png(source, {.alpha = false, .icc = icc}), fixtures::jpeg(source, {.icc = icc}),
        fixtures::webp(source, {.lossless = true, .icc = icc})}) {
    const auto thumb = ImageService::thumbnail(file, 8);
    ASSERT_TRUE(thumb);
    EXPECT_TRUE(thumb->colorSpace.isSRGB);
    expectNear(pixelAt(*thumb, 2, 2), {expected[0], expected[1], expected[2]}, 2, "thumbnail");
  }
}

// HDR AVIFs and JPEG XLs come out as a standard display shows them: the reference white (203 cd/m2) near
// white, brighter light brighter still, 10 cd/m2 a dark grey (relative to white, sRGB-coded: 0.245).
TEST(ColourProfiles, PQAndHLGPicturesAreShownForAStandardDisplay) {
  struct Case {
    bool jxl;
    int primaries, transfer;
    std::array<double, 4> signals;  // 10, 203 and 1000 cd/m2, and black
  };
  const std::array<double, 4> pq{0.3085, 0.5806, 0.7518, 0}, hlg{0.2536, 0.75, 1.0, 0};
  for (const Case& c : {Case{false, 1, 16, pq}, Case{false, 9, 18, hlg}, Case{true, 9, 16, pq}}) {
    DecodedImage source = fixtures::quadrants(64, 48, 16);
    for (size_t i = 0; i < source.pixels16.size(); ++i) {
      const size_t pixel = i / 4, x = pixel % 64, y = pixel / 64;
      if (i % 4 != 3)
        source.pixels16[i] = uint16_t(std::lround(c.signals[(y >= 24 ? 2 : 0) + (x >= 32)] * 65535));
    }
    const fixtures::AvifOptions hdr{
        .quantizer = 0, .depth = 10, .alpha = false, .primaries = c.primaries, .transfer = c.transfer};
    const DecodedImage decoded = ImageService::decodeFirstFrame(
        c.jxl ? fixtures::jxl(source, {.transfer = c.transfer}) : fixtures::avif(source, hdr));
    ASSERT_EQ(decoded.bitsPerComponent, 16);
    EXPECT_EQ(decoded.colorSpace.isSRGB, c.primaries == 1) << "the primaries stay, the curve is sRGB's";
    const auto level = [&](size_t x, size_t y) { return decoded.pixels16[(y * 64 + x) * 4 + 1] / 65535.0; };
    EXPECT_NEAR(level(16, 12), 0.245, 0.03) << c.transfer;
    EXPECT_GT(level(48, 12), 0.9) << c.transfer;
    EXPECT_GT(level(16, 36), level(48, 12) + 0.02) << c.transfer;
    EXPECT_LT(level(48, 36), 0.01) << c.transfer;
  }
  // HLG's system gamma goes by a pixel's luminance, not by each component: a blue of the
  // reference white's signal is shown well below white (0.96 by component).
  DecodedImage blue = fixtures::quadrants(8, 8, 16);
  for (size_t i = 0; i < blue.pixels16.size(); ++i)
    if (i % 4 != 3) blue.pixels16[i] = i % 4 == 2 ? 49151 : 0;
  const DecodedImage shown = ImageService::decodeFirstFrame(
      fixtures::avif(blue, {.quantizer = 0, .depth = 10, .alpha = false, .primaries = 9, .transfer = 18}));
  EXPECT_NEAR(shown.pixels16[2] / 65535.0, 0.78, 0.03);

  // A premultiplied picture (HEIF may hold one) is re-coded by its colours, not by the darker
  // samples it holds: a half transparent pixel comes out as its opaque twin, straight.
  DecodedImage twins = testing::solid(2, 1, 148, 148, 148);  // 203 cd/m2
  std::fill_n(twins.pixels8.begin() + 4, 3, uint8_t(74));
  twins.pixels8[7] = 128;
  twins.alpha = AlphaInfo::premultiplied;
  ColorConvert::applyCodePoints(twins, 9, 16);
  EXPECT_EQ(twins.alpha, AlphaInfo::straight);
  EXPECT_NEAR(twins.pixels8[4], twins.pixels8[0], 3);
}

// A PNG without iCCP describes its colours by gAMA: a gamma of 1/2.2 is how files state sRGB,
// any other curve is kept (a grey picture goes to sRGB through it).
TEST(ColourProfiles, APngGammaWithoutAProfileIsHonoured) {
  const DecodedImage mid = testing::solid(32, 16, 128, 128, 128);
  for (const bool grey : {false, true})
    for (const uint32_t gamma : {45455u, 100000u}) {
      const DecodedImage decoded =
          ImageService::decodeFirstFrame(fixtures::png(mid, {.grey = grey, .alpha = false, .gamma = gamma}));
      const bool srgbCurve = gamma == 45455u;
      EXPECT_EQ(decoded.colorSpace.isSRGB, srgbCurve || grey) << grey << " " << gamma;
      // Linear light of a half is 188 in sRGB.
      if (grey) {
        EXPECT_NEAR(pixelAt(decoded, 4, 4)[1], srgbCurve ? 128 : 188, 1) << gamma;
      }
    }
}

TEST(ColourModels, GreySourcesBecomeRGB) {
  auto source = fixtures::quadrants(32, 16, 16, true);  // red channel: 255, 0, 0, 255 by quarter
  auto grey16 = ImageService::decodeFirstFrame(fixtures::png(source, {.grey = true}));
  EXPECT_EQ(grey16.bitsPerComponent, 16);
  EXPECT_TRUE(grey16.colorSpace.isSRGB);
  expectNear(pixelAt(grey16, 2, 2), {255, 255, 255}, 0, "white grey");
  EXPECT_EQ(pixelAt(grey16, 2, 2)[3], 128);
  expectNear(pixelAt(grey16, 30, 2), {0, 0, 0}, 0, "black grey");

  // A grey profile goes through lcms2: still neutral, still white.
  auto profiled = ImageService::decodeFirstFrame(
      fixtures::png(fixtures::quadrants(32, 16), {.grey = true, .alpha = false, .icc = fixtures::greyICC()}));
  auto white = pixelAt(profiled, 2, 2);
  EXPECT_NEAR(white[0], white[1], 1);
  EXPECT_NEAR(white[1], white[2], 1);
  EXPECT_GT(white[0], 240);
  EXPECT_TRUE(profiled.colorSpace.isSRGB);

  auto jpeg = ImageService::decodeFirstFrame(fixtures::jpeg(fixtures::quadrants(32, 16), {.grey = true}));
  expectNear(pixelAt(jpeg, 2, 2), {255, 255, 255}, 3, "grey jpeg");
  expectNear(pixelAt(jpeg, 28, 4), {0, 0, 0}, 3, "grey jpeg");
  EXPECT_EQ(pixelAt(jpeg, 28, 4)[3], 255);
}

TEST(ColourModels, CmykJpegIsConvertedWithAndWithoutItsProfile) {
  // Quarters: white paper, full cyan, full black, cyan + magenta.
  const int w = 32, h = 16;
  fixtures::Bytes cmyk(size_t(w) * h * 4, 0);
  for (size_t i = 0; i < cmyk.size(); i += 4) {
    int x = int(i / 4) % w, y = int(i / 4) / w, q = (y >= h / 2 ? 2 : 0) + (x >= w / 2 ? 1 : 0);
    cmyk[i] = q == 1 || q == 3 ? 255 : 0;
    cmyk[i + 1] = q == 3 ? 255 : 0;
    cmyk[i + 3] = q == 2 ? 255 : 0;
  }
  auto plain = ImageService::decodeFirstFrame(fixtures::cmykJpeg(w, h, cmyk));
  EXPECT_EQ(plain.alpha, AlphaInfo::none);
  EXPECT_TRUE(plain.colorSpace.isSRGB);
  expectNear(pixelAt(plain, 4, 4), {255, 255, 255}, 4, "paper");
  expectNear(pixelAt(plain, 28, 4), {0, 255, 255}, 6, "cyan");
  expectNear(pixelAt(plain, 4, 12), {0, 0, 0}, 4, "black");
  expectNear(pixelAt(plain, 28, 12), {0, 0, 255}, 6, "cyan + magenta");

  // The embedded profile wins over the built-in formula: this one prints cyan as red.
  auto profiled = ImageService::decodeFirstFrame(fixtures::cmykJpeg(w, h, cmyk, fixtures::cmykICC(true)));
  EXPECT_GT(pixelAt(profiled, 28, 4)[0], 200);
  EXPECT_LT(pixelAt(profiled, 28, 4)[1], 80);
  expectNear(pixelAt(profiled, 4, 4), {255, 255, 255}, 8, "paper through the profile");
  EXPECT_TRUE(profiled.colorSpace.isSRGB);
}

TEST(Frames, AnimationsReportTheirCountAndDecodeTheFirstFrame) {
  auto decoded = decodeCGImageSource(
      fixtures::animatedWebp({testing::solid(16, 16, 0, 255, 0), testing::solid(16, 16, 255, 0, 0),
                              testing::solid(16, 16, 0, 0, 255)}));
  EXPECT_EQ(decoded.frameCount, 3);
  expectNear(pixelAt(decoded.image, 8, 8), {0, 255, 0}, 0, "first frame");
  // An opaque first frame smaller than the canvas is drawn on it transparent, as libwebp's own
  // player draws it, not black.
  const DecodedImage framed =
      decodeCGImageSource(fixtures::animatedWebp({testing::solid(8, 8, 0, 255, 0)}, 16, 12)).image;
  ASSERT_TRUE(framed.hasAlphaChannel());
  EXPECT_EQ(pixelAt(framed, 4, 4), (std::array<int, 4>{0, 255, 0, 255}));
  EXPECT_EQ(pixelAt(framed, 12, 10)[3], 0);

  auto picture = fixtures::quadrants(16, 16);
  EXPECT_EQ(ImageService::properties(fixtures::jxl(picture, {.frames = 4}))->frameCount, 4);
  EXPECT_EQ(ImageService::properties(fixtures::avif(picture, {.alpha = false, .frames = 3}))->frameCount, 3);
  for (const auto& still : {fixtures::jxl(picture), fixtures::webp(picture), fixtures::heic(picture)})
    EXPECT_EQ(ImageService::properties(still)->frameCount, 1);
}

TEST(Thumbnails, TransparentPixelsLeaveNoDarkFringe) {
  // Red at alpha 255 next to transparent black, in squares of 2 x 2 pixels (which 4:2:0 chroma
  // keeps apart): the average must stay pure red at half alpha, not turn dark red, from PNG
  // rows and from the readers that average as they decode, through lossy coding.
  DecodedImage image = testing::solid(64, 64, 0, 0, 0, 0);
  for (size_t i = 0; i < image.pixels8.size(); i += 4)
    if ((i / 4 % 64 / 2 + i / 4 / 64 / 2) % 2 == 0) image.pixels8[i] = image.pixels8[i + 3] = 255;
  for (const auto& file : {fixtures::png(image), fixtures::heic(image), fixtures::avif(image),
                           fixtures::jxl(image, {.lossless = false})}) {
    const bool png = ImageFormats::detect(file) == ImageFormat::png;
    SCOPED_TRACE(ImageFormats::rawValue(*ImageFormats::detect(file)));
    const auto thumb = ImageDecoder::loadPreview(file, 8);
    ASSERT_TRUE(thumb);
    EXPECT_GE(pixelAt(*thumb, 3, 3)[0], png ? 255 : 201);
    EXPECT_NEAR(pixelAt(*thumb, 3, 3)[3], 128, png ? 1 : 16);
  }
}

}  // namespace
}  // namespace quillane
