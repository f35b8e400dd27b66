// Regressions of faults found in review: each case failed before its fix.

#include <gtest/gtest.h>

#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "tests/support/CodecFixtures.h"

namespace quillane {
namespace {

using Bytes = std::vector<uint8_t>;

// libjxl refuses to repackage a CMYK JPEG and says so on stderr; the fallback to pixels must
// stay silent, as the command-line tool's stderr carries only its own messages.
TEST(ReviewFixes, JpegThatCantBeRepackagedGoesToPixelsWithoutPrinting) {
  Bytes cmyk(24 * 16 * 4, 0);
  for (size_t i = 0; i < cmyk.size(); i += 4) cmyk[i] = uint8_t(i % 200);
  const Bytes source = fixtures::cmykJpeg(24, 16, cmyk);
  ::testing::internal::CaptureStderr();
  const Bytes out = ImageCompressor::encodeData(source, ImageFormat::jxl, 95);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(ImageFormats::detect(out), ImageFormat::jxl);
}

}  // namespace
}  // namespace quillane
