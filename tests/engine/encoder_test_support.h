#pragma once
// Readers for what the WebP, JPEG XL and PNG encoders write, built on the libraries' own decoders, so that a
// round trip does not go through the system's own reading code; and how a call fails.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/DecodedImage.h"
#include "engine/EncodingStrategy.h"

namespace quillane::testing {

using Bytes = std::vector<uint8_t>;

// The RGBA samples (4 bytes a pixel); nothing when the library refuses the file.
std::optional<Bytes> decodePNG(std::span<const uint8_t> png);
std::optional<Bytes> decodeWebP(std::span<const uint8_t> webp);

struct DecodedJXL {
  int width = 0, height = 0;
  Bytes rgba;
  bool usesOriginalProfile = false;
  uint32_t extraChannels = 0;
  int orientation = 1;      // as stored, not applied
  Bytes reconstructedJPEG;  // when the file carries JPEG reconstruction data
};
std::optional<DecodedJXL> decodeJXL(std::span<const uint8_t> jxl);

// A plan for `mode` at `effort`; a lossy mode's quality is also the plan's.
EncodingPlan makePlan(EncodingPlan::Mode mode, int effort = 2);

// Largest difference of any sample between two pictures of the same size (256 if not).
int maxDifference(std::span<const uint8_t> a, std::span<const uint8_t> b);
// A picture of one colour, 8 bits; `a` in the fourth sample, straight (no alpha at 255).
DecodedImage solid(int w, int h, uint8_t r, uint8_t g, uint8_t b, uint8_t a = 255);
// The sample at (x, y) on an 8-bit scale.
std::array<int, 4> pixelAt(const DecodedImage& image, int x, int y);

// Mean absolute difference of the colour samples of two 8-bit pictures (1e9 if not the same size).
double meanColourError(const DecodedImage& a, const DecodedImage& b);

// How `call` ended: "" when it returned, "decoding failed", "context creation failed",
// "encoding failed: LABEL" for an ImageProcessingError, "cancelled", "other: WHAT" for anything else.
std::string failureOf(const std::function<void()>& call);

}  // namespace quillane::testing
