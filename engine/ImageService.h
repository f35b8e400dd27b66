#pragma once
// The image service: all reading of image files over the codec libraries, one reader per
// codec (engine/codecs/). Stateless and re-entrant; every library object lives for one call.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "engine/ByteSource.h"
#include "engine/DecodedImage.h"
#include "engine/ImageFormat.h"

namespace quillane::ImageService {

// Enough leading bytes to recognise every type: ISO-BMFF brands can sit a little way in.
inline constexpr size_t kSniffBytes = 64;

// The type identifier of the bytes, from their content alone: the six formats give
// "public.png", "public.jpeg", "public.heic", "public.avif", "org.webmproject.webp",
// "public.jpeg-xl"; GIF, TIFF and BMP give "com.compuserve.gif", "public.tiff",
// "com.microsoft.bmp"; anything else nothing.
std::optional<std::string> typeIdentifier(std::span<const uint8_t> bytes);

struct Properties {
  int width = 0;  // as stored, before orientation
  int height = 0;
  std::optional<int> orientation;  // EXIF 1...8 where the file states one that the decoder won't apply
  int frameCount = 1;
  // A picture its decoder makes of cells decoded whole (a HEIF grid or overlay): the pixels of
  // all its cells, and of the most held at once beside the picture (codecs::DerivedCells), at
  // most kMaxPixels, as cells above that together are refused before decoding: a sum with the
  // picture's own pixels stays far within 64 bits.
  uint64_t cellPixels = 0, heldCellPixels = 0;
  // The most pixels its decoder takes at its depth, when fewer than kMaxPixels.
  uint64_t maxPixels = kMaxPixels;
};

// Whether no decoder takes the picture `props` describes: a side above kMaxDimension, more
// pixels than kMaxPixels (or its maxPixels), or cells that add up past kMaxPixels.
bool beyondLimits(const Properties& props);

// Header-only read of image 0. Nothing when the bytes are not a readable image of the six
// formats or the header is damaged.
std::optional<Properties> properties(std::span<const uint8_t> bytes);

// Full decode of image 0, not turned, at its own depth (8 or 16 bits). Grey and CMYK become
// RGB. Refuses pictures above kMaxPixels (or their Properties::maxPixels), and whose cells
// together exceed it, before allocating them.
// Throws ImageProcessingError::decodingFailed.
DecodedImage decodeFirstFrame(std::span<const uint8_t> bytes);

// The memory, in bytes, that thumbnail(bytes, maxPixelSize) takes at its peak besides the
// bytes themselves, estimated from the header alone; nothing when the header can't be read.
std::optional<uint64_t> thumbnailPeakBytes(std::span<const uint8_t> bytes, int maxPixelSize);

// An 8-bit picture of image 0 of at most `maxPixelSize` on the longer side, orientation
// applied, in sRGB (it is for display), decoded at a reduced scale where the codec can (JPEG DCT
// scaling). Nothing on failure.
std::optional<DecodedImage> thumbnail(std::span<const uint8_t> bytes, int maxPixelSize);

// properties(), thumbnailPeakBytes() and thumbnail() over `source`, holding bytes of
// `format`, which its reader takes as its library asks: a file's header and thumbnail read
// what they need of it, never a copy of it whole. The source is rewound first.
std::optional<Properties> properties(ImageFormat format, ByteSource& source);
std::optional<uint64_t> thumbnailPeakBytes(ImageFormat format, ByteSource& source, int maxPixelSize);
std::optional<DecodedImage> thumbnail(ImageFormat format, ByteSource& source, int maxPixelSize);

}  // namespace quillane::ImageService
