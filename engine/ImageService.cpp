// The image service's reading side: each source handed to the reader of its sniffed type, and the
// thumbnail pipeline (reduced-scale decode, area downscale, orientation).

#include "engine/ImageService.h"

#include <algorithm>

#include "engine/ColorConvert.h"
#include "engine/Errors.h"
#include "engine/ImageFormat.h"
#include "engine/Resample.h"
#include "engine/codecs/Readers.h"

namespace quillane::ImageService {
namespace {

std::optional<ImageFormat> formatOf(std::span<const uint8_t> bytes) { return ImageFormats::detect(bytes); }

DecodedImage decode(ImageFormat format, std::span<const uint8_t> bytes, int minLongSide) {
  switch (format) {
    case ImageFormat::png:
      return codecs::decodePng(bytes, minLongSide);
    case ImageFormat::jpeg:
      return codecs::decodeJpeg(bytes, minLongSide);
    case ImageFormat::heic:
      return codecs::decodeHeif(bytes, minLongSide);
    case ImageFormat::avif:
      return codecs::decodeAvif(bytes, minLongSide);
    case ImageFormat::webp:
      return codecs::decodeWebp(bytes, minLongSide);
    case ImageFormat::jxl:
      return codecs::decodeJxl(bytes, minLongSide);
  }
  codecs::fail("unknown format");
}

DecodedImage decode(ImageFormat format, ByteSource& source, int minLongSide) {
  switch (format) {
    case ImageFormat::png:
      return codecs::decodePng(source, minLongSide);
    case ImageFormat::jpeg:
      return codecs::decodeJpeg(source, minLongSide);
    case ImageFormat::heic:
      return codecs::decodeHeif(source, minLongSide);
    case ImageFormat::avif:
      return codecs::decodeAvif(source, minLongSide);
    case ImageFormat::webp:
      return codecs::decodeWebp(source, minLongSide);
    case ImageFormat::jxl:
      return codecs::decodeJxl(source, minLongSide);
  }
  codecs::fail("unknown format");
}

// JPEG, PNG and WebP decode reduced; the others need their full picture for a moment.
bool reducesWhileDecoding(ImageFormat format) {
  return format == ImageFormat::jpeg || format == ImageFormat::png || format == ImageFormat::webp;
}

// A reduced decode brought within `maxPixelSize` and turned upright.
DecodedImage finishThumbnail(DecodedImage image, const std::optional<Properties>& props, int maxPixelSize) {
  image = Resample::fitWithin(image, maxPixelSize);
  int orientation = props && props->orientation ? *props->orientation : 1;
  if (orientation >= 2 && orientation <= 8) image = Resample::orient(image, orientation);
  // Thumbnails are only ever shown, and the desktop takes pixels as sRGB.
  ColorConvert::toSRGBInPlace(image);
  return image;
}

}  // namespace

std::optional<Properties> properties(std::span<const uint8_t> bytes) {
  auto format = formatOf(bytes);
  if (!format) return std::nullopt;
  try {
    switch (*format) {
      case ImageFormat::png:
        return codecs::pngProperties(bytes);
      case ImageFormat::jpeg:
        return codecs::jpegProperties(bytes);
      case ImageFormat::heic:
        return codecs::heifProperties(bytes);
      case ImageFormat::avif:
        return codecs::avifProperties(bytes);
      case ImageFormat::webp:
        return codecs::webpProperties(bytes);
      case ImageFormat::jxl:
        return codecs::jxlProperties(bytes);
    }
  } catch (const std::exception&) {
    // A damaged header is no properties, whatever failed while reading it.
  }
  return std::nullopt;
}

DecodedImage decodeFirstFrame(std::span<const uint8_t> bytes) {
  auto format = formatOf(bytes);
  if (!format) throw ImageProcessingError::decodingFailed("not one of the six formats");
  try {
    // Refused before anything is allocated when the decode and the encode after it would not
    // fit; a picture whose header can't be read fails in its reader.
    if (auto props = properties(bytes))
      codecs::checkFitsInMemory(uint64_t(props->width) * uint64_t(props->height) + props->heldCellPixels,
                                codecs::kPeakBytesPerPixel);
    return decode(*format, bytes, 0);
  } catch (const ImageProcessingError&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw ImageProcessingError::decodingFailed("out of memory");
  } catch (const std::exception& e) {
    throw ImageProcessingError::decodingFailed(e.what());
  }
}

bool beyondLimits(const Properties& props) {
  return props.width > kMaxDimension || props.height > kMaxDimension ||
         uint64_t(std::max(props.width, 0)) * uint64_t(std::max(props.height, 0)) >
             std::min(kMaxPixels, props.maxPixels) ||
         props.cellPixels > kMaxPixels;
}

std::optional<uint64_t> thumbnailPeakBytes(std::span<const uint8_t> bytes, int maxPixelSize) {
  auto format = formatOf(bytes);
  if (!format || maxPixelSize <= 0) return std::nullopt;
  try {
    return codecs::reducedDecodeBytes(*format, bytes, maxPixelSize);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<DecodedImage> thumbnail(std::span<const uint8_t> bytes, int maxPixelSize) {
  auto format = formatOf(bytes);
  if (!format || maxPixelSize <= 0) return std::nullopt;
  try {
    auto props = properties(bytes);
    if (props && !reducesWhileDecoding(*format))
      codecs::checkFitsInMemory(uint64_t(props->width) * uint64_t(props->height), 8);
    return finishThumbnail(decode(*format, bytes, maxPixelSize), props, maxPixelSize);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<Properties> properties(ImageFormat format, ByteSource& source) {
  try {
    switch (format) {
      case ImageFormat::png:
        return codecs::pngProperties(source);
      case ImageFormat::jpeg:
        return codecs::jpegProperties(source);
      case ImageFormat::heic:
        return codecs::heifProperties(source);
      case ImageFormat::avif:
        return codecs::avifProperties(source);
      case ImageFormat::webp:
        return codecs::webpProperties(source);
      case ImageFormat::jxl:
        return codecs::jxlProperties(source);
    }
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

std::optional<uint64_t> thumbnailPeakBytes(ImageFormat format, ByteSource& source, int maxPixelSize) {
  if (maxPixelSize <= 0) return std::nullopt;
  try {
    switch (format) {
      case ImageFormat::png:
        if (auto props = codecs::pngProperties(source))
          return codecs::pngReducedDecodeBytes(*props, maxPixelSize);
        return std::nullopt;
      case ImageFormat::jpeg:
        return codecs::jpegReducedDecodeBytes(source, maxPixelSize);
      case ImageFormat::heic:
        return codecs::heifReducedDecodeBytes(source, maxPixelSize);
      case ImageFormat::avif:
        return codecs::avifReducedDecodeBytes(source);
      case ImageFormat::webp:
        return codecs::webpReducedDecodeBytes(source, maxPixelSize);
      case ImageFormat::jxl:
        return codecs::jxlReducedDecodeBytes(source);
    }
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

std::optional<DecodedImage> thumbnail(ImageFormat format, ByteSource& source, int maxPixelSize) {
  if (maxPixelSize <= 0) return std::nullopt;
  try {
    auto props = properties(format, source);
    if (props && !reducesWhileDecoding(format))
      codecs::checkFitsInMemory(uint64_t(props->width) * uint64_t(props->height), 8);
    return finishThumbnail(decode(format, source, maxPixelSize), props, maxPixelSize);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace quillane::ImageService
