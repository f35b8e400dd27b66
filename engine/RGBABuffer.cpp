#include "engine/RGBABuffer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "engine/Errors.h"

namespace quillane {

const std::array<int32_t, 64> RGBABuffer::bayer8 = {
    0,   128, 32,  160, 8,   136, 40,  168,  //
    192, 64,  224, 96,  200, 72,  232, 104,  //
    48,  176, 16,  144, 56,  184, 24,  152,  //
    240, 112, 208, 80,  248, 120, 216, 88,   //
    12,  140, 44,  172, 4,   132, 36,  164,  //
    204, 76,  236, 108, 196, 68,  228, 100,  //
    60,  188, 28,  156, 52,  180, 20,  148,  //
    252, 124, 220, 92,  244, 116, 212, 84,
};

namespace {

// 256 rows of 256 entries, indexed [alpha][sample].
using AlphaTable = std::array<uint8_t, size_t(256) * 256>;

uint8_t unpremultiplied(int alpha, int value) {
  if (alpha == 0) return 0;
  if (alpha == 255) return uint8_t(value);
  // 255 / a first, then times the value, in double, halves away from zero: the order of the
  // operations decides a few roundings, so it stays as it is.
  const long rounded = std::lround(255.0 / alpha * value);
  return uint8_t(std::clamp(rounded, 0L, 255L));
}

// What drawing a straight sample into a premultiplied 8-bit context stores: the nearest
// integer to v × a / 255 (255 is odd, so there are no halves to break).
uint8_t premultiplied8(int alpha, int value) { return uint8_t((value * alpha + 127) / 255); }

const AlphaTable& unpremultiplyTable() {
  static const AlphaTable table = [] {
    AlphaTable t{};
    for (int a = 0; a < 256; ++a)
      for (int v = 0; v < 256; ++v) t[size_t(a) * 256 + size_t(v)] = unpremultiplied(a, v);
    return t;
  }();
  return table;
}

// A straight sample premultiplied by the drawing, then unpremultiplied: one lookup.
const AlphaTable& straightRoundTripTable() {
  static const AlphaTable table = [] {
    AlphaTable t{};
    for (int a = 0; a < 256; ++a)
      for (int v = 0; v < 256; ++v) t[size_t(a) * 256 + size_t(v)] = unpremultiplied(a, premultiplied8(a, v));
    return t;
  }();
  return table;
}

// Applies `table` to the colour of one pixel; true when its alpha is below 255.
inline bool applyAlphaTable(uint8_t* p, const AlphaTable& table) {
  const uint8_t a = p[3];
  if (a == 255) return false;
  const uint8_t* row = &table[size_t(a) * 256];
  p[0] = row[p[0]];
  p[1] = row[p[1]];
  p[2] = row[p[2]];
  return true;
}

inline uint32_t premultiplied16(uint32_t value, uint32_t alpha) { return (value * alpha + 32767) / 65535; }

// 16 to 8 bits as the drawing does it without dithering: the nearest of the 256 levels.
inline uint8_t nearest8(uint32_t value) { return uint8_t((value * 2 + 257) / 514); }

[[noreturn]] void failAllocation(size_t bytes) {
  throw ImageProcessingError::contextCreationFailed("cannot allocate " + std::to_string(bytes) + " bytes");
}

SampleVector<uint8_t> allocatePixels(size_t bytes) {
  try {
    return SampleVector<uint8_t>(bytes);
  } catch (const std::bad_alloc&) {
    failAllocation(bytes);
  }
}

void checkShape(const DecodedImage& image) {
  if (image.width <= 0 || image.height <= 0) throw ImageProcessingError::contextCreationFailed("empty image");
  const size_t samples = image.pixelCount() * 4;
  const bool ok = image.bitsPerComponent == 8    ? image.pixels8.size() == samples
                  : image.bitsPerComponent == 16 ? image.pixels16.size() == samples
                                                 : false;
  if (!ok) throw ImageProcessingError::contextCreationFailed("pixel data does not match the image's shape");
}

// 8-bit sources, converted in place in a copy of their samples.
bool convert8(AlphaInfo alpha, SampleVector<uint8_t>& pixels) {
  const size_t count = pixels.size() / 4;
  uint8_t* p = pixels.data();
  switch (alpha) {
    case AlphaInfo::none:
      // An opaque source draws with full alpha whatever its fourth samples hold.
      for (size_t i = 0; i < count; ++i) {
        uint32_t px;
        std::memcpy(&px, p + i * 4, 4);
        px |= 0xFF000000u;  // little-endian: the fourth byte is alpha
        std::memcpy(p + i * 4, &px, 4);
      }
      return false;
    case AlphaInfo::straight:
    case AlphaInfo::premultiplied: {
      const AlphaTable& table =
          alpha == AlphaInfo::straight ? straightRoundTripTable() : unpremultiplyTable();
      bool any = false;
      for (size_t i = 0; i < count; ++i) any |= applyAlphaTable(p + i * 4, table);
      return any;
    }
  }
  return false;
}

static_assert(std::endian::native == std::endian::little, "the opaque copy assumes little-endian pixels");

}  // namespace

bool RGBABuffer::takesDitheredRoute(const DecodedImage& image) {
  return image.bitsPerComponent > 8 && uint64_t(image.width) * uint64_t(image.height) <= kDitherPixelLimit;
}

RGBABuffer RGBABuffer::convert16(const DecodedImage& image, bool dithered) {
  checkShape(image);
  if (image.bitsPerComponent != 16) throw ImageProcessingError::contextCreationFailed("not a 16-bit image");
  RGBABuffer out;
  out.width = image.width;
  out.height = image.height;
  out.colorSpace = image.colorSpace;
  out.pixels = allocatePixels(image.pixelCount() * 4);

  // The premultiplied 16-bit stage is made one pixel at a time, so it never needs a buffer.
  const AlphaTable& table = unpremultiplyTable();
  const size_t width = size_t(image.width);
  const bool opaque = image.alpha == AlphaInfo::none;
  const bool straight = image.alpha == AlphaInfo::straight;
  bool any = false;
  for (size_t y = 0; y < size_t(image.height); ++y) {
    const uint16_t* src = image.pixels16.data() + y * width * 4;
    uint8_t* dst = out.pixels.data() + y * width * 4;
    const int32_t* thresholds = &bayer8[(y % 8) * 8];
    for (size_t x = 0; x < width; ++x, src += 4, dst += 4) {
      const uint32_t a = opaque ? 65535u : src[3];
      uint32_t v[4] = {src[0], src[1], src[2], a};
      if (straight) {
        for (int c = 0; c < 3; ++c) v[c] = premultiplied16(v[c], a);
      }
      if (dithered) {
        const uint32_t t = uint32_t(thresholds[x % 8]);
        for (int c = 0; c < 4; ++c) dst[c] = uint8_t(std::min<uint32_t>(v[c] + t, 65535u) >> 8);
      } else {
        for (int c = 0; c < 4; ++c) dst[c] = nearest8(v[c]);
      }
      any |= applyAlphaTable(dst, table);
    }
  }
  out.hasAlpha = any;
  return out;
}

RGBABuffer::RGBABuffer(const DecodedImage& image) {
  checkShape(image);
  if (image.bitsPerComponent == 16) {
    *this = convert16(image, takesDitheredRoute(image));
    return;
  }
  width = image.width;
  height = image.height;
  colorSpace = image.colorSpace;
  // A copy, not a zeroed buffer filled afterwards: one pass less over the memory.
  try {
    pixels.assign(image.pixels8.begin(), image.pixels8.end());
  } catch (const std::bad_alloc&) {
    failAllocation(image.pixels8.size());
  }
  hasAlpha = convert8(image.alpha, pixels);
}

RGBABuffer::RGBABuffer(DecodedImage&& image) {
  checkShape(image);
  if (image.bitsPerComponent == 16) {
    *this = RGBABuffer(static_cast<const DecodedImage&>(image));
    image = DecodedImage{};
    return;
  }
  width = image.width;
  height = image.height;
  colorSpace = std::move(image.colorSpace);
  pixels = std::move(image.pixels8);
  hasAlpha = convert8(image.alpha, pixels);
  image = DecodedImage{};
}

}  // namespace quillane
