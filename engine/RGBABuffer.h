#pragma once
// Straight (not premultiplied) 8-bit RGBA pixels: what the analyzer and all encoders but the
// JPEG/HEIC/AVIF writers read. 16-bit sources are dithered down, not truncated.

#include <array>
#include <bit>
#include <cstdint>
#include <vector>

#include "engine/ColorSpace.h"
#include "engine/DecodedImage.h"

namespace quillane {

struct RGBABuffer {
  int width = 0;
  int height = 0;
  SampleVector<uint8_t> pixels;  // width * height * 4, row-major from the top; growing leaves it unset
  bool hasAlpha = false;         // some pixel has alpha below 255
  ColorSpace colorSpace;

  RGBABuffer() = default;
  // Throws ImageProcessingError::contextCreationFailed when the picture can't be converted.
  explicit RGBABuffer(const DecodedImage& image);
  // The same, taking an 8-bit picture's samples over instead of copying them (no second
  // full-size buffer to allocate and fault in); `image` is left empty. 16 bits convert as above.
  explicit RGBABuffer(DecodedImage&& image);

  // 8 by 8 Bayer thresholds times 4 (0...252), row by row.
  static const std::array<int32_t, 64> bayer8;
  // Largest 16-bit picture that takes the dithered route.
  static constexpr uint64_t kDitherPixelLimit = 40'000'000;

  // True for a picture of more than 8 bits a sample and at most kDitherPixelLimit pixels:
  // those are dithered down; larger ones are rounded to the nearest 8-bit level.
  static bool takesDitheredRoute(const DecodedImage& image);
  // A 16-bit picture converted by the route given, whatever its size: the constructor's
  // choice made by hand, so that both routes can be tested on small pictures.
  static RGBABuffer convert16(const DecodedImage& image, bool dithered);
};

}  // namespace quillane
