#pragma once
// Reading images: headers and thumbnails for import, full first frames for encoding,
// bounded previews for the comparison view. Stateless; every function works on any thread.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/DecodedImage.h"
#include "engine/ImageFormat.h"
#include "engine/ImageService.h"

namespace quillane {

namespace ImageDecoder {

// The longer side of an inspection's thumbnail, at most.
inline constexpr int kThumbnailSize = 256;

struct LightDecodedImage {
  ImageFormat format;
  int pixelWidth = 0;  // displayed size: swapped already when the orientation turns by a quarter
  int pixelHeight = 0;
  int64_t fileSizeBytes = 0;
  int frameCount = 1;  // above 1 means animated
  // At most 256 pixels on the longer side, upright, 8-bit; empty when making it would take
  // more than kInspectionMemory.
  DecodedImage thumbnail;
  // Of a picture made of cells decoded whole, the most held at once beside it
  // (ImageService::Properties::heldCellPixels): what its decode costs besides its own pixels.
  uint64_t heldCellPixels = 0;
};

// What inspection may take at its peak besides the process's own memory: the file's bytes
// and the estimated peak of its thumbnail's decode (ImageService::thumbnailPeakBytes). A
// picture whose thumbnail would take more is inspected without one.
inline constexpr uint64_t kInspectionMemory = 256ull << 20;

struct DecodedSource {
  ImageFormat format;
  DecodedImage image;  // first frame, full size, upright, at its own depth
  int frameCount = 1;
};

// Leading bytes that hold the dimensions of an ordinary file of any of the six formats.
inline constexpr size_t kHeaderBytes = size_t(256) * 1024;

// The header of image 0 from the first kHeaderBytes of a regular file, without reading the
// rest. Nothing when it is not a regular file, can't be read or has no header there.
std::optional<ImageService::Properties> readHeader(const std::string& path);

// Reads an image file whole for decoding. Refuses at once what is not a regular file; from
// its first kHeaderBytes, what does not start as one of the six formats, and a file larger
// than its pixels can honestly take (maxSourceBytes), before reading the rest. Throws
// ImageProcessingError::decodingFailed for those, FileError when the file can't be read.
std::vector<uint8_t> readSource(const std::string& path);

// The largest file taken for a picture with this header, or for one whose header was not
// found in the first kHeaderBytes: memory for a source follows its pixels, never its size.
uint64_t maxSourceBytes(const std::optional<ImageService::Properties>& header);

// Reads headers and makes a thumbnail within kInspectionMemory; never decodes the full picture
// where the codec can decode at a reduced scale. Throws FileError with the system's reason for
// a file that can't be opened or read (missing, not permitted), else
// ImageProcessingError::decodingFailed (a folder, pipe, device or socket among them).
LightDecodedImage inspect(const std::string& path);

// What inspect(path) takes at its peak besides the process's own memory, from the file's first
// kHeaderBytes alone (the file is read as its reader asks, never held whole): its thumbnail's
// decode where that fits within kInspectionMemory; kInspectionMemory when the header is not
// there to tell. Next to nothing for a file that inspection refuses from its first bytes.
uint64_t inspectionPeakBytes(const std::string& path);

// Decodes the first frame in full and bakes its orientation into the pixels: the full decode of
// the readers in engine/codecs (a fixed name: no platform image source is involved). Throws
// ImageProcessingError::decodingFailed.
DecodedSource decodeCGImageSource(std::span<const uint8_t> fileData);

// Bakes an EXIF orientation (2 to 8) into the pixels. Any other value: nothing, and the
// caller keeps the image as it is. Keeps the depth and the alpha of the source.
std::optional<DecodedImage> applyOrientation(int orientation, const DecodedImage& image);

// An upright picture of at most `maxPixelSize` on its longer side, 8-bit RGBA; nothing when
// the file can't be read. No format check of its own: whatever the readers read (the six
// formats) gives a preview, and a missing one is no error. Nothing either when its decode
// would take more than `maxPeakBytes` (ImageService::thumbnailPeakBytes): a preview is no
// reason to hold gigabytes for a picture of hundreds of megapixels.
inline constexpr uint64_t kPreviewMemory = 1ull << 30;
std::optional<DecodedImage> loadPreview(const std::string& path, int maxPixelSize,
                                        uint64_t maxPeakBytes = kPreviewMemory);
std::optional<DecodedImage> loadPreview(std::span<const uint8_t> data, int maxPixelSize,
                                        uint64_t maxPeakBytes = kPreviewMemory);

// The file's size in bytes, 0 when it can't be read. Never throws.
int64_t fileSize(const std::string& path);

}  // namespace ImageDecoder
}  // namespace quillane
