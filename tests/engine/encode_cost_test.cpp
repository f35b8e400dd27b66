// The cost model and what keeps encodes within it: plans that stay inside the allowance,
// claims that cover every plan, and writers that give a consumed picture back without
// changing a byte of what they write.

#include <gtest/gtest.h>

#include "engine/EncodeCost.h"
#include "engine/Encoders.h"
#include "engine/ImageDecoder.h"
#include "engine/PageRelease.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using ContentClass = ImageCharacteristics::ContentClass;
using Kind = EncodingPlan::Mode::Kind;

ImageCharacteristics characteristicsOf(int width, int height, ContentClass c, bool alpha = false) {
  ImageCharacteristics ch;
  ch.width = width, ch.height = height;
  ch.contentClass = c;
  ch.hasAlpha = ch.hasPartialAlpha = alpha;
  ch.flatFraction = c == ContentClass::flatGraphic || c == ContentClass::screenText ? 0.9 : 0.1;
  return ch;
}

constexpr ContentClass kClasses[] = {ContentClass::flatGraphic, ContentClass::screenText,
                                     ContentClass::illustration, ContentClass::photo,
                                     ContentClass::noisyPhoto};
constexpr int kSides[][2] = {{300, 200},   {1000, 1000}, {1600, 1200},
                             {2500, 2000}, {4000, 3000}, {8000, 8000}};

// Each lossless JPEG XL encoding the strategy plans fits the allowance, or, where nothing
// does, costs no more than the lossy encoding of the same picture would.
TEST(EncodeCost, LosslessJPEGXLIsPlannedWithinTheAllowanceOrAtTheLeastCost) {
  for (const auto& side : kSides) {
    const uint64_t limit = EncodeCost::allowance(uint64_t(side[0]) * uint64_t(side[1]));
    for (const ContentClass c : kClasses) {
      for (const bool alpha : {false, true}) {
        const ImageCharacteristics ch = characteristicsOf(side[0], side[1], c, alpha);
        for (const double quality : {75.0, 98.0}) {
          const EncodingPlan plan = EncodingStrategy::plan(ch, ImageFormat::jxl, quality);
          const uint64_t lossy =
              EncodeCost::encodingBytes(ImageFormat::jxl, plan, EncodingPlan::Mode::lossy(quality), ch);
          for (const auto* mode : {&plan.mode, plan.alternative ? &*plan.alternative : nullptr}) {
            if (!mode || mode->kind != Kind::lossless) continue;
            EXPECT_LE(EncodeCost::encodingBytes(ImageFormat::jxl, plan, *mode, ch), std::max(limit, lossy))
                << side[0] << "x" << side[1] << " class " << ImageCharacteristics::name(c);
          }
        }
      }
    }
  }
  // A small graphic keeps its full-effort lossless encoding and its lossy competitor; the
  // 64-megapixel flat picture of a few bytes is lossless at the light effort, not in 11 GB.
  const EncodingPlan small =
      EncodingStrategy::plan(characteristicsOf(1000, 1000, ContentClass::flatGraphic), ImageFormat::jxl, 75);
  EXPECT_EQ(small.mode.kind, Kind::lossless);
  EXPECT_FALSE(small.lightLossless);
  EXPECT_TRUE(small.alternative);
  const EncodingPlan screen =
      EncodingStrategy::plan(characteristicsOf(3840, 2160, ContentClass::screenText), ImageFormat::jxl, 75);
  EXPECT_FALSE(screen.lightLossless);
  const EncodingPlan flat =
      EncodingStrategy::plan(characteristicsOf(8000, 8000, ContentClass::flatGraphic), ImageFormat::jxl, 75);
  EXPECT_TRUE(flat.mode.kind == Kind::lossy || flat.lightLossless);
}

TEST(EncodeCost, TheClaimCoversEveryPlanOfTheSourceForEveryFormat) {
  for (const auto& side : kSides) {
    for (const ImageFormat target : ImageFormats::allCases) {
      const EncodeCost::Source source{ImageFormat::jpeg, side[0], side[1], 1'000'000};
      const uint64_t claim = EncodeCost::peakBytes(source, target, 75);
      for (const ContentClass c : kClasses) {
        for (const bool alpha : {false, true}) {
          const ImageCharacteristics ch = characteristicsOf(side[0], side[1], c, alpha);
          const EncodingPlan plan = EncodingStrategy::plan(ch, target, 75);
          EXPECT_GE(claim, source.fileBytes + EncodeCost::encodingBytes(target, plan, plan.mode, ch))
              << ImageFormats::label(target) << " " << side[0] << "x" << side[1] << " "
              << ImageCharacteristics::name(c);
        }
      }
    }
  }
}

TEST(EncodeCost, AFileIsClaimedFromItsHeaderAndSize) {
  testing::TempDir dir;
  const std::string path =
      dir.write("photo.jpg", fixtures::jpeg(testing::makeImage(640, 480, testing::Pattern::photo)));
  EXPECT_EQ(EncodeCost::peakBytes(path, ImageFormat::avif, 75),
            EncodeCost::peakBytes({ImageFormat::jpeg, 640, 480, uint64_t(ImageDecoder::fileSize(path))},
                                  ImageFormat::avif, 75));
  EXPECT_FALSE(EncodeCost::peakBytes(dir.write("text.jpg", {'n', 'o'}), ImageFormat::avif, 75));
}

TEST(PageRelease, GivesBackOnlyWholePagesInsideTheRange) {
  std::vector<uint8_t> bytes(5 << 20, 7);
  PageRelease::release(bytes.data() + 100, bytes.size() - 200);
  EXPECT_EQ(bytes[99], 7);
  EXPECT_EQ(bytes[bytes.size() - 100], 7);
  EXPECT_EQ(bytes[bytes.size() / 2], 0);  // released, so it reads as zero
}

// Writers that consume their picture write the same bytes as when they only read it; the
// pictures are large enough that rows really go back while the library still works.
TEST(ConsumingEncoders, WriteTheSameBytes) {
  const DecodedImage photo = testing::texturedPhoto(800, 500);
  const DecodedImage withAlpha = testing::makeImage(800, 500, testing::Pattern::flatLogo, 1, true);
  for (const ImageFormat format : {ImageFormat::jpeg, ImageFormat::heic, ImageFormat::avif}) {
    for (const DecodedImage* source : {&photo, &withAlpha}) {
      const bool alpha = source->alpha != AlphaInfo::none;
      const EncodingPlan plan = testing::makePlan(EncodingPlan::Mode::lossy(80));
      DecodedImage copy = *source;
      EXPECT_EQ(NativeImageIOEncoder::encode(std::move(copy), alpha, format, plan),
                NativeImageIOEncoder::encode(*source, alpha, format, plan))
          << ImageFormats::label(format) << (alpha ? " with alpha" : "");
    }
  }
  // JPEG XL: the opaque photo lossy (its samples copied without alpha), the logo lossless.
  for (const auto& [source, mode] : {std::pair{&photo, EncodingPlan::Mode::lossy(80)},
                                     std::pair{&withAlpha, EncodingPlan::Mode::lossless()}}) {
    const RGBABuffer rgba(*source);
    const EncodingPlan plan = testing::makePlan(mode, 0);
    RGBABuffer copy = rgba;
    EXPECT_EQ(JXLEncoder::encode(std::move(copy), rgba.hasAlpha, plan),
              JXLEncoder::encode(rgba, rgba.hasAlpha, plan));
  }
}

}  // namespace
}  // namespace quillane
