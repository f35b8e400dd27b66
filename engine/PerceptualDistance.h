#pragma once
// How different a compressed result looks from its source: the butteraugli distance of
// libjxl (jxl/butteraugli.h), reduced to one number by its 3-norm. Below 1 a viewer sees no
// difference at a normal viewing distance; around 2 a difference shows when looking for it;
// far above, it is plain. Stateless; any thread; each call owns its libjxl objects.

#include <cstdint>
#include <span>

#include "engine/RGBABuffer.h"

namespace quillane::PerceptualDistance {

// Pictures up to kWholePixelLimit pixels are compared whole; larger ones tile by tile, every
// tile up to kFullPixelLimit, and a spread sample of tiles covering kFullPixelLimit above it
// (bench/README.md, "Perceptual distance": cost, memory and agreement of each).
inline constexpr uint64_t kWholePixelLimit = 1'000'000;
inline constexpr uint64_t kFullPixelLimit = 8'000'000;

// The 3-norm distance between two 8-bit pictures of one size, taken as sRGB (as
// butteraugli_main takes an untagged PNG). Pictures with alpha are compared over black and
// over white, the larger distance counting, as libjxl does. Runs on the calling thread; the
// thread's cancellation flag is looked at before and after each of libjxl's comparisons (a
// whole picture, or one tile), never within one.
// Throws ImageProcessingError (sizes differ, libjxl fails, cancelled).
double butteraugli(const RGBABuffer& reference, const RGBABuffer& distorted);

// The picture `file` holds as the encoder reads a source: first frame, upright, 8-bit RGBA,
// converted to sRGB where it carries another profile. Throws ImageProcessingError.
RGBABuffer comparable(std::span<const uint8_t> file);

// butteraugli() up to kWholePixelLimit pixels; above, the distance maps of 512 x 512 tiles
// at full resolution pooled into one 3-norm (each tile computed with a margin of context that
// is not pooled): all tiles up to `pixelLimit` pixels, evenly spread rows and columns of
// them covering about `pixelLimit` above it.
double bounded(const RGBABuffer& reference, const RGBABuffer& distorted,
               uint64_t pixelLimit = kFullPixelLimit);

// The distance between a source file and its compressed result, both `comparable`, by
// `bounded`. A transparent source whose result is opaque (a JPEG) is compared as the
// encoder wrote it, over white. Throws ImageProcessingError, as decoding does.
double between(std::span<const uint8_t> sourceFile, std::span<const uint8_t> resultFile);

// Working memory of `between` in bytes beyond the two files, for a picture of that size.
uint64_t peakBytes(int width, int height);

}  // namespace quillane::PerceptualDistance
