#pragma once
// The cost rules of the compression budget (CompressionBudget), in megabytes. Stateless; any
// thread.

#include <cstdint>
#include <span>
#include <string>

#include "engine/EncodeCost.h"
#include "engine/ImageFormat.h"

namespace quillane::CompressionCost {

// The process's budget: one eighth of the memory, at most 4096; 512 for machines under 4 GiB.
int memoryBudgetMB(uint64_t physicalMemoryBytes);

// The peak memory of one encode of `source` into `format` at `quality`: the engine's cost
// model (EncodeCost::peakBytes), at least 1.
int encodeCostMB(const EncodeCost::Source& source, ImageFormat format, double quality);

// The encode cost of the file at `path` into `format`, from its size and the header in its
// first bytes; a file whose header can't be read there (or that is no regular file) costs the
// most there is, and so runs alone.
int fileCostMB(const std::string& path, ImageFormat format, double quality);

// The working memory of measuring how a result looks (PerceptualDistance::between) for a
// `width` x `height` picture whose source and result files take `fileBytes` together: the
// distance's peak, the cells the source's decode holds beside it (`cellPixels`,
// ImageService::Properties::heldCellPixels), the files and 8 MB.
int measureCostMB(int width, int height, uint64_t cellPixels, uint64_t fileBytes);

// The larger of fileCostMB and measureCostMB for the file at `path`: what a compression that
// measures its result claims (the one follows the other).
int measuredFileCostMB(const std::string& path, ImageFormat format, double quality);

// What a preview of at most `maxPixelSize` made from `bytes` (ImageDecoder::loadPreview) takes:
// the bytes and the decode, which is never made beyond ImageDecoder::kPreviewMemory.
int previewCostMB(std::span<const uint8_t> bytes, int maxPixelSize);

// `bytes` in megabytes, rounded up, at most INT32_MAX.
int megabytes(uint64_t bytes);

}  // namespace quillane::CompressionCost
