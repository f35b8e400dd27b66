#include "engine/ImageDecoder.h"

#include <sys/stat.h>

#include <algorithm>

#include "engine/ByteSource.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/ImageService.h"
#include "engine/Resample.h"

namespace quillane::ImageDecoder {

std::optional<ImageService::Properties> readHeader(const std::string& path) {
  try {
    return ImageService::properties(FileIO::readHead(path, kHeaderBytes));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

uint64_t maxSourceBytes(const std::optional<ImageService::Properties>& header) {
  // Room for metadata (EXIF, XMP, colour profiles, embedded previews) beside the pixels. A
  // file whose header lies beyond the first kHeaderBytes (long metadata before it, HEIF's
  // media data before its boxes) is taken up to this much alone.
  constexpr uint64_t kMetadataAllowance = 64ull << 20;
  // An animation holds many frames of its size, which its first bytes don't count: it is
  // taken up to 1 GiB, minutes of honest animation, and only its first frame is decoded.
  constexpr uint64_t kAnimationAllowance = 1ull << 30;
  // A picture no decoder takes is refused once read, whatever its header's size says: taken
  // as one whose header wasn't found.
  if (!header || header->width <= 0 || header->height <= 0 || ImageService::beyondLimits(*header))
    return kMetadataAllowance;
  // 8 bytes a pixel is 16-bit RGBA stored uncompressed, the most any of the six formats
  // needs for a pixel; real files are far smaller.
  const uint64_t still = uint64_t(header->width) * uint64_t(header->height) * 8 + kMetadataAllowance;
  return header->frameCount > 1 ? std::max(still, kAnimationAllowance) : still;
}

std::vector<uint8_t> readSource(const std::string& path) {
  try {
    return FileIO::readFile(
        path,
        [&path](std::span<const uint8_t> head, uint64_t fileSize) {
          if (!ImageFormats::detect(head))
            throw ImageProcessingError::decodingFailed("not one of the six formats: " + path);
          if (fileSize > maxSourceBytes(ImageService::properties(head)))
            throw ImageProcessingError::decodingFailed("larger than its pixels can take: " + path);
        },
        kHeaderBytes);
  } catch (const FileIO::NotARegularFile& e) {
    throw ImageProcessingError::decodingFailed(e.what());
  }
}

LightDecodedImage inspect(const std::string& path) {
  std::optional<ImageFormat> format;
  std::optional<FileSource> file;
  try {
    const std::vector<uint8_t> head = FileIO::readHead(path, kHeaderBytes);
    format = ImageFormats::detect(head);
    // Refused as readSource refuses, whether the file is then read whole or not.
    if (format &&
        uint64_t(std::max<int64_t>(fileSize(path), 0)) > maxSourceBytes(ImageService::properties(head)))
      throw ImageProcessingError::decodingFailed("larger than its pixels can take: " + path);
    if (format) file.emplace(path);
  } catch (const ImageProcessingError&) {
    throw;
  } catch (const FileIO::NotARegularFile& e) {
    throw ImageProcessingError::decodingFailed(e.what());  // as readSource refuses it
  } catch (const FileError&) {
    throw;  // missing or unreadable: the system's reason, as every front end's read gives it
  } catch (const std::exception&) {
    throw ImageProcessingError::decodingFailed("unreadable file: " + path);
  }
  if (!format) throw ImageProcessingError::decodingFailed("not one of the six formats: " + path);
  auto props = ImageService::properties(*format, *file);
  if (!props || props->width <= 0 || props->height <= 0)
    throw ImageProcessingError::decodingFailed("no image properties: " + path);
  // What can never be encoded is refused at import, not after it.
  if (ImageService::beyondLimits(*props))
    throw ImageProcessingError::decodingFailed("picture larger than the accepted maximum: " + path);
  LightDecodedImage light{*format, props->width, props->height, fileSize(path), props->frameCount, {}};
  light.heldCellPixels = props->heldCellPixels;
  // A header that gives no estimate counts as too costly: not decoding is the safe side.
  const uint64_t peak = ImageService::thumbnailPeakBytes(*format, *file, kThumbnailSize).value_or(UINT64_MAX);
  if (peak <= kInspectionMemory) {
    auto thumb = ImageService::thumbnail(*format, *file, kThumbnailSize);
    if (!thumb) throw ImageProcessingError::decodingFailed("no thumbnail: " + path);
    light.thumbnail = std::move(*thumb);
  }
  int orientation = props->orientation.value_or(1);
  if (orientation >= 5 && orientation <= 8) std::swap(light.pixelWidth, light.pixelHeight);
  return light;
}

uint64_t inspectionPeakBytes(const std::string& path) {
  std::vector<uint8_t> head;
  try {
    head = FileIO::readHead(path, kHeaderBytes);
  } catch (const std::exception&) {
    return 0;  // unreadable: refused before anything is allocated
  }
  const auto format = ImageFormats::detect(head);
  if (!format) return 0;
  // The file is read as its reader asks, never held whole.
  const auto decode = ImageService::thumbnailPeakBytes(head, kThumbnailSize);
  if (!decode) return kInspectionMemory;
  return *decode <= kInspectionMemory ? *decode : 0;
}

DecodedSource decodeCGImageSource(std::span<const uint8_t> fileData) {
  auto format = ImageFormats::detect(fileData);
  if (!format) throw ImageProcessingError::decodingFailed("not one of the six formats");
  DecodedImage image = ImageService::decodeFirstFrame(fileData);
  auto props = ImageService::properties(fileData);
  int orientation = props && props->orientation ? *props->orientation : 1;
  int frameCount = props ? props->frameCount : 1;
  if (auto turned = applyOrientation(orientation, image)) image = std::move(*turned);
  return {*format, std::move(image), frameCount};
}

std::optional<DecodedImage> applyOrientation(int orientation, const DecodedImage& image) {
  if (orientation < 2 || orientation > 8 || image.empty()) return std::nullopt;
  try {
    return Resample::orient(image, orientation);
  } catch (const std::exception&) {
    return std::nullopt;  // a failed turn never fails an encode: the caller keeps the picture
  }
}

std::optional<DecodedImage> loadPreview(const std::string& path, int maxPixelSize, uint64_t maxPeakBytes) {
  try {
    const std::vector<uint8_t> head = FileIO::readHead(path, kHeaderBytes);
    const auto format = ImageFormats::detect(head);
    // Refused as readSource refuses, though the file is never read whole.
    if (!format ||
        uint64_t(std::max<int64_t>(fileSize(path), 0)) > maxSourceBytes(ImageService::properties(head)))
      return std::nullopt;
    FileSource file(path);
    if (maxPeakBytes != UINT64_MAX) {
      const auto peak = ImageService::thumbnailPeakBytes(*format, file, maxPixelSize);
      if (!peak || *peak > maxPeakBytes) return std::nullopt;
    }
    return ImageService::thumbnail(*format, file, maxPixelSize);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<DecodedImage> loadPreview(std::span<const uint8_t> data, int maxPixelSize,
                                        uint64_t maxPeakBytes) {
  if (maxPeakBytes != UINT64_MAX) {
    const std::optional<uint64_t> peak = ImageService::thumbnailPeakBytes(data, maxPixelSize);
    if (!peak || *peak > maxPeakBytes) return std::nullopt;
  }
  return ImageService::thumbnail(data, maxPixelSize);
}

int64_t fileSize(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  return int64_t(st.st_size);
}

}  // namespace quillane::ImageDecoder
