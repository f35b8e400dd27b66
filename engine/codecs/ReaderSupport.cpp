// Helpers shared by the readers.

#include <algorithm>
#include <string>

#include "engine/Errors.h"
#include "engine/SystemMemory.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {

void fail(const char* what) { throw ImageProcessingError::decodingFailed(what); }

void checkSize(uint64_t width, uint64_t height) {
  if (width == 0 || height == 0) fail("empty picture");
  if (width > uint64_t(kMaxDimension) || height > uint64_t(kMaxDimension) || width * height > kMaxPixels)
    fail(kTooLarge);
}

void checkFitsInMemory(uint64_t pixels, uint64_t bytesPerPixel) {
  if (pixels > usableMemoryBytes() / std::max<uint64_t>(bytesPerPixel, 1)) fail(kTooLarge);
}

DecodedImage reserveImage(int width, int height, int bitsPerComponent, AlphaInfo alpha) {
  checkSize(uint64_t(width), uint64_t(height));
  DecodedImage image;
  image.width = width;
  image.height = height;
  image.bitsPerComponent = bitsPerComponent;
  image.alpha = alpha;
  // A large block comes straight from the system as untouched pages.
  if (bitsPerComponent == 16)
    image.pixels16.reserve(image.pixelCount() * 4);
  else
    image.pixels8.reserve(image.pixelCount() * 4);
  return image;
}

void growImage(DecodedImage& image, size_t rows) {
  const size_t samples = std::min(rows, size_t(image.height)) * size_t(image.width) * 4;
  if (image.bitsPerComponent == 16) {
    if (samples > image.pixels16.size()) image.pixels16.resize(samples);
  } else if (samples > image.pixels8.size()) {
    image.pixels8.resize(samples);
  }
}

DecodedImage allocateImage(int width, int height, int bitsPerComponent, AlphaInfo alpha) {
  DecodedImage image = reserveImage(width, height, bitsPerComponent, alpha);
  growImage(image, size_t(height));
  return image;
}

bool hasGridItem(Input bytes) {
  // Every "infe" box of version 2 or 3 names its item's type after its id and protection
  // index. A chance match elsewhere in the file only makes an estimate more cautious.
  static constexpr uint8_t kInfe[] = {'i', 'n', 'f', 'e'};
  for (auto at = bytes.begin();
       (at = std::search(at, bytes.end(), std::begin(kInfe), std::end(kInfe))) != bytes.end(); ++at) {
    const size_t offset = size_t(at - bytes.begin());
    if (offset + 4 + 4 + 4 + 2 + 4 > bytes.size()) break;
    const uint8_t version = bytes[offset + 4];
    const size_t type = offset + 4 + 4 + (version == 3 ? 4 : 2) + 2;
    if ((version == 2 || version == 3) && type + 4 <= bytes.size() &&
        std::equal(bytes.begin() + std::ptrdiff_t(type), bytes.begin() + std::ptrdiff_t(type + 4), "grid"))
      return true;
  }
  return false;
}

CodedLayout codedLayout(Input bytes) {
  // The largest of `valueOf` over the payloads (their first `size` bytes) of every box named
  // `type`; 0 when there is none.
  auto most = [&](const char* type, size_t size, auto&& valueOf) {
    double found = 0;
    const uint8_t* name = reinterpret_cast<const uint8_t*>(type);
    for (auto at = bytes.begin(); (at = std::search(at, bytes.end(), name, name + 4)) != bytes.end(); ++at) {
      const size_t payload = size_t(at - bytes.begin()) + 4;
      if (payload + size <= bytes.size())
        found = std::max(found, double(valueOf(bytes.subspan(payload, size))));
    }
    return found;
  };
  // hvcC: chroma_format_idc in the low bits of its 17th byte, the luma depth less 8 in its
  // 18th. av1C: high bit depth, monochrome and the two subsampling flags in its third.
  // ispe: width and height after its version and flags.
  CodedLayout layout;
  const double samples = std::max(most("hvcC", 20,
                                       [](Input c) {
                                         static constexpr double kSamples[4] = {1, 1.5, 2, 3};
                                         return kSamples[c[16] & 3];
                                       }),
                                  most("av1C", 4, [](Input c) {
                                    if (c[2] & 0x10) return 1.0;
                                    return (c[2] & 0x08) ? ((c[2] & 0x04) ? 1.5 : 2.0) : 3.0;
                                  }));
  if (samples > 0) layout.samplesPerPixel = samples;
  const bool wide = most("hvcC", 20, [](Input c) { return (c[17] & 7) != 0; }) > 0 ||
                    most("av1C", 4, [](Input c) { return (c[2] & 0x40) != 0; }) > 0;
  layout.bytesPerSample = wide ? 2 : 1;
  auto read32 = [](Input b, size_t at) {
    return uint64_t(b[at]) << 24 | uint64_t(b[at + 1]) << 16 | uint64_t(b[at + 2]) << 8 | b[at + 3];
  };
  layout.largestPixels = uint64_t(most("ispe", 12, [&](Input c) { return read32(c, 4) * read32(c, 8); }));
  return layout;
}

std::optional<uint64_t> reducedDecodeBytes(ImageFormat format, Input bytes, int minLongSide) {
  switch (format) {
    case ImageFormat::png: {
      auto props = pngProperties(bytes);
      if (!props) return std::nullopt;
      return pngReducedDecodeBytes(*props, minLongSide);
    }
    case ImageFormat::jpeg:
      return jpegReducedDecodeBytes(bytes, minLongSide);
    case ImageFormat::webp:
      return webpReducedDecodeBytes(bytes, minLongSide);
    case ImageFormat::heic:
      return heifReducedDecodeBytes(bytes, minLongSide);
    case ImageFormat::avif:
      return avifReducedDecodeBytes(bytes);
    case ImageFormat::jxl:
      return jxlReducedDecodeBytes(bytes);
  }
  return std::nullopt;
}

uint64_t pngReducedDecodeBytes(const Properties& props, int minLongSide) {
  // Rows as libpng hands them over and their sums, and a reduced output (at most 1/8 of the
  // sides of an interlaced picture, or below twice minLongSide), 16 bits at most.
  const uint64_t pixels = uint64_t(props.width) * uint64_t(props.height);
  const uint64_t side = uint64_t(std::max(minLongSide, 1));
  return uint64_t(props.width) * 16 + std::max(pixels / 64, 16 * side * side) * 8 + (1u << 20);
}

int orientationFromRotationMirror(int quarterTurnsAnticlockwise, int mirrorMode) {
  // Rows: quarter turns anticlockwise 0...3; columns: no mirror, mode 0 (top and bottom
  // exchanged after turning), mode 1 (left and right exchanged after turning).
  static constexpr int kTable[4][3] = {{1, 4, 2}, {8, 5, 7}, {3, 2, 4}, {6, 7, 5}};
  int turns = ((quarterTurnsAnticlockwise % 4) + 4) % 4;
  int column = mirrorMode == 0 ? 1 : mirrorMode == 1 ? 2 : 0;
  return kTable[turns][column];
}

}  // namespace quillane::codecs
