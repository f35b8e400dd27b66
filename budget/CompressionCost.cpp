#include "budget/CompressionCost.h"

#include <algorithm>
#include <limits>

#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/PerceptualDistance.h"

namespace quillane::CompressionCost {

int memoryBudgetMB(uint64_t physicalMemoryBytes) {
  if (physicalMemoryBytes > 4294967295ull) return int(std::min<uint64_t>(physicalMemoryBytes >> 23, 4096));
  return 512;
}

int encodeCostMB(const EncodeCost::Source& source, ImageFormat format, double quality) {
  return std::max(megabytes(EncodeCost::peakBytes(source, format, quality)), 1);
}

int fileCostMB(const std::string& path, ImageFormat format, double quality) {
  const auto peak = EncodeCost::peakBytes(path, format, quality);
  return peak ? std::max(megabytes(*peak), 1) : std::numeric_limits<int>::max();
}

int measureCostMB(int width, int height, uint64_t cellPixels, uint64_t fileBytes) {
  // The source's cells at a HEIC decode's 12 bytes a pixel, as the encode's cost counts them.
  using EncodeCost::addBytes;
  const uint64_t cells = std::min(cellPixels, UINT64_MAX / 12) * 12;
  const uint64_t bytes =
      addBytes(addBytes(PerceptualDistance::peakBytes(width, height), cells), addBytes(fileBytes, 8u << 20));
  return std::max(megabytes(bytes), 1);
}

int measuredFileCostMB(const std::string& path, ImageFormat format, double quality) {
  const auto header = ImageDecoder::readHeader(path);
  if (!header) return std::numeric_limits<int>::max();
  const uint64_t file = uint64_t(std::max<int64_t>(ImageDecoder::fileSize(path), 0));
  return std::max(fileCostMB(path, format, quality),
                  measureCostMB(header->width, header->height, header->heldCellPixels, file * 2));
}

int previewCostMB(std::span<const uint8_t> bytes, int maxPixelSize) {
  const auto decode = ImageService::thumbnailPeakBytes(bytes, maxPixelSize);
  const uint64_t peak = decode && *decode <= ImageDecoder::kPreviewMemory ? *decode : 0;
  return megabytes(bytes.size() + peak);
}

int megabytes(uint64_t bytes) {
  const uint64_t rounded = (bytes >> 20) + ((bytes & ((1u << 20) - 1)) != 0);
  return int(std::min<uint64_t>(rounded, std::numeric_limits<int32_t>::max()));
}

}  // namespace quillane::CompressionCost
