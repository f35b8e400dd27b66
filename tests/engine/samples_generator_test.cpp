// Writes the sample pictures in samples/ with the test file writers. Disabled: it runs only
// on request, e.g. with QUILLANE_SAMPLES_DIR=samples and the engine_tests options
// --gtest_also_run_disabled_tests --gtest_filter='SampleFiles.DISABLED_Write'.

#include <gtest/gtest.h>

#include <cstdlib>

#include "engine/ImageDecoder.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using testing::Pattern;

TEST(SampleFiles, DISABLED_Write) {
  const char* dir = std::getenv("QUILLANE_SAMPLES_DIR");
  ASSERT_NE(dir, nullptr) << "set QUILLANE_SAMPLES_DIR";
  const std::string folder = dir;
  auto photo = testing::makeImage(1200, 900, Pattern::photo, 11);
  std::vector<DecodedImage> frames;
  for (uint32_t seed : {1u, 2u, 3u}) frames.push_back(testing::makeImage(320, 240, Pattern::gradient, seed));
  for (size_t i = 0; i < frames.size(); ++i)  // a moving bar, so that the frames differ
    for (int y = 0; y < 240; ++y)
      for (int x = int(i) * 100; x < int(i) * 100 + 40; ++x) frames[i].pixels8[(size_t(y) * 320 + size_t(x)) * 4 + 2] = 255;

  const std::vector<std::pair<std::string, fixtures::Bytes>> files = {
      {"photo-orientation6.jpg", fixtures::jpeg(photo, {.quality = 85, .orientation = 6})},
      {"screenshot.png", fixtures::png(testing::makeImage(1280, 800, Pattern::screenshot, 4), {.alpha = false})},
      {"logo-alpha.png", fixtures::png(testing::makeImage(512, 512, Pattern::flatLogo, 5, true))},
      {"animated.webp", fixtures::animatedWebp(frames)},
      {"photo.avif", fixtures::avif(photo, {.quantizer = 32, .alpha = false})},
      {"photo.heic", fixtures::heic(photo, {.quality = 60, .alpha = false})},
      {"photo.jxl", fixtures::jxl(photo, {.lossless = false})},
  };
  for (const auto& [name, bytes] : files) {
    EXPECT_LT(bytes.size(), 300u * 1024) << name;
    testing::writeBytes(folder + "/" + name, bytes);
    EXPECT_NO_THROW(ImageDecoder::inspect(folder + "/" + name)) << name;
  }
}

}  // namespace
}  // namespace quillane
