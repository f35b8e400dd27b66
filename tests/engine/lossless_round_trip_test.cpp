// Every lossless encoder gives back the exact pixels, with and without alpha, at sizes down to
// one pixel and with rows that make the predictors tie.

#include <gtest/gtest.h>

#include <functional>

#include "engine/Encoders.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

EncodingPlan losslessPlan(int effort) {
  EncodingPlan p;
  p.mode = EncodingPlan::Mode::lossless();
  p.effort = effort;
  return p;
}

std::optional<Bytes> pngRoundTrip(const RGBABuffer& rgba, int effort) {
  const auto decoded = decodePNG(PNGQuantEncoder::encodeLossless(rgba, losslessPlan(effort)));
  return decoded ? std::optional(decoded->rgba) : std::nullopt;
}

std::optional<Bytes> webpRoundTrip(const RGBABuffer& rgba, int effort) {
  ImageCharacteristics c;
  c.contentClass = ImageCharacteristics::ContentClass::photo;
  c.hasAlpha = rgba.hasAlpha;
  const auto decoded = decodeWebP(WebPEncoder::encode(rgba, losslessPlan(effort), c));
  return decoded ? std::optional(decoded->rgba) : std::nullopt;
}

std::optional<Bytes> jxlRoundTrip(const RGBABuffer& rgba, int effort) {
  const auto decoded = decodeJXL(JXLEncoder::encode(rgba, rgba.hasAlpha, losslessPlan(effort)));
  if (!decoded) return std::nullopt;
  EXPECT_TRUE(decoded->usesOriginalProfile);
  EXPECT_EQ(decoded->extraChannels, rgba.hasAlpha ? 1u : 0u);
  return decoded->image.rgba;
}

TEST(LosslessEncoders, RoundTripExactly) {
  const std::pair<const char*, std::function<std::optional<Bytes>(const RGBABuffer&, int)>> encoders[] = {
      {"PNG", pngRoundTrip}, {"WebP", webpRoundTrip}, {"JPEG XL", jxlRoundTrip}};
  for (const auto& [name, roundTrip] : encoders)
    for (bool alpha : {false, true})
      for (auto [w, h] : {std::pair{1, 1}, {17, 3}, {33, 22}})
        for (int effort : {0, 2})
          for (Pattern pattern : {Pattern::photo, Pattern::screenshot}) {
            const RGBABuffer rgba = makeBuffer(w, h, pattern, 3, alpha);
            const auto back = roundTrip(rgba, effort);
            ASSERT_TRUE(back) << name << " " << w << "x" << h;
            EXPECT_EQ(*back, rgba.pixels) << name << " " << w << "x" << h << " alpha " << alpha << " effort " << effort;
          }
}

}  // namespace
}  // namespace quillane::testing
