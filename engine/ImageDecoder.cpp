#include "engine/ImageDecoder.h"

#include <sys/stat.h>

#include <algorithm>

#include "engine/ByteSource.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/ImageService.h"
#include "engine/Resample.h"

namespace quillane::ImageDecoder {
namespace {

std::optional<std::vector<uint8_t>> readAll(const std::string& path) {
  try {
    return readSource(path);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

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
  if (!header || header->width <= 0 || header->height <= 0) return kMetadataAllowance;
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

namespace {

// How inspection reads one file: from the file as its reader asks (PNG, JPEG), or from its
// bytes read whole (the others, bounded by maxSourceBytes).
class InspectedFile {
 public:
  InspectedFile(const std::string& path, ImageFormat format) : format_(format) {
    if (ImageService::streams(format))
      file_.emplace(path);
    else
      bytes_ = readSource(path);
  }
  // The bytes held besides the reader's own work.
  uint64_t heldBytes() const { return bytes_.size(); }
  std::optional<ImageService::Properties> properties() {
    return file_ ? ImageService::properties(format_, *file_) : ImageService::properties(bytes_);
  }
  std::optional<uint64_t> thumbnailPeakBytes() {
    return file_ ? ImageService::thumbnailPeakBytes(format_, *file_, kThumbnailSize)
                 : ImageService::thumbnailPeakBytes(bytes_, kThumbnailSize);
  }
  std::optional<DecodedImage> thumbnail(int maxPixelSize) {
    return file_ ? ImageService::thumbnail(format_, *file_, maxPixelSize)
                 : ImageService::thumbnail(bytes_, maxPixelSize);
  }

 private:
  ImageFormat format_;
  std::optional<FileSource> file_;
  std::vector<uint8_t> bytes_;
};

}  // namespace

LightDecodedImage inspect(const std::string& path) {
  std::optional<ImageFormat> format;
  std::optional<InspectedFile> file;
  try {
    const std::vector<uint8_t> head = FileIO::readHead(path, kHeaderBytes);
    format = ImageFormats::detect(head);
    // Refused as readSource refuses, whether the file is then read whole or not.
    if (format &&
        uint64_t(std::max<int64_t>(fileSize(path), 0)) > maxSourceBytes(ImageService::properties(head)))
      throw ImageProcessingError::decodingFailed("larger than its pixels can take: " + path);
    if (format) file.emplace(path, *format);
  } catch (const ImageProcessingError&) {
    throw;
  } catch (const std::exception&) {
    throw ImageProcessingError::decodingFailed("unreadable file: " + path);
  }
  if (!format) throw ImageProcessingError::decodingFailed("not one of the six formats: " + path);
  auto props = file->properties();
  if (!props || props->width <= 0 || props->height <= 0)
    throw ImageProcessingError::decodingFailed("no image properties: " + path);
  // What can never be encoded is refused at import, not after it.
  if (props->width > kMaxDimension || props->height > kMaxDimension ||
      uint64_t(props->width) * uint64_t(props->height) > kMaxPixels)
    throw ImageProcessingError::decodingFailed("picture larger than the accepted maximum: " + path);
  LightDecodedImage light{*format, props->width, props->height, fileSize(path), props->frameCount, {}};
  // A header that gives no estimate counts as too costly: not decoding is the safe side.
  const uint64_t peak = file->thumbnailPeakBytes().value_or(UINT64_MAX);
  if (peak <= kInspectionMemory - std::min<uint64_t>(file->heldBytes(), kInspectionMemory)) {
    auto thumb = file->thumbnail(kThumbnailSize);
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
  // A file that its reader streams is never held; the others are read whole.
  const uint64_t size = ImageService::streams(*format) ? 0 : uint64_t(std::max<int64_t>(fileSize(path), 0));
  const auto decode = ImageService::thumbnailPeakBytes(head, kThumbnailSize);
  if (!decode) return std::max(size, kInspectionMemory);
  return *decode <= kInspectionMemory - std::min(size, kInspectionMemory) ? size + *decode : size;
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
    const auto format = ImageFormats::detect(FileIO::readHead(path, kHeaderBytes));
    if (format && ImageService::streams(*format)) {
      FileSource file(path);
      if (maxPeakBytes != UINT64_MAX) {
        const auto peak = ImageService::thumbnailPeakBytes(*format, file, maxPixelSize);
        if (!peak || *peak > maxPeakBytes) return std::nullopt;
      }
      return ImageService::thumbnail(*format, file, maxPixelSize);
    }
  } catch (const std::exception&) {
    return std::nullopt;
  }
  auto bytes = readAll(path);
  if (!bytes) return std::nullopt;
  return loadPreview(*bytes, maxPixelSize, maxPeakBytes);
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
