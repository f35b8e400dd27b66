#include "budget/CompressionCost.h"

#include <algorithm>
#include <limits>

#include "engine/FileIO.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"

namespace quillane::CompressionCost {

int memoryBudgetMB(uint64_t physicalMemoryBytes) {
  if (physicalMemoryBytes > 4294967295ull) return int(std::min<uint64_t>(physicalMemoryBytes >> 23, 4096));
  return 512;
}

int encodeCostMB(const EncodeCost::Source& source, ImageFormat target, double quality) {
  return std::max(megabytes(EncodeCost::peakBytes(source, target, quality)), 1);
}

int fileCostMB(const std::string& path, ImageFormat target, double quality) {
  std::vector<uint8_t> head;
  try {
    head = FileIO::readHead(path, ImageDecoder::kHeaderBytes);
  } catch (const std::exception&) {
    return std::numeric_limits<int>::max();
  }
  const auto format = ImageFormats::detect(head);
  const auto header = ImageService::properties(head);
  if (!format || !header) return std::numeric_limits<int>::max();
  const auto fileBytes = uint64_t(std::max<int64_t>(ImageDecoder::fileSize(path), 0));
  return encodeCostMB({*format, header->width, header->height, fileBytes}, target, quality);
}

int previewCostMB(std::span<const uint8_t> bytes, int maxPixelSize) {
  const auto decode = ImageService::thumbnailPeakBytes(bytes, maxPixelSize);
  const uint64_t peak = decode && *decode <= ImageDecoder::kPreviewMemory ? *decode : 0;
  return megabytes(bytes.size() + peak);
}

int megabytes(uint64_t bytes) {
  return int(std::min<uint64_t>((bytes + (1u << 20) - 1) >> 20, std::numeric_limits<int32_t>::max()));
}

}  // namespace quillane::CompressionCost
