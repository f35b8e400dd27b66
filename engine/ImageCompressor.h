#pragma once
// The one compression pipeline: decode, analyse, plan, encode, keep the smaller of two
// competing encodings. Stateless; any number of calls may run at once on any threads.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/ImageFormat.h"

namespace quillane {

struct ImageCompressionResult {
  std::string path;  // the source path as the caller gave it
  int64_t originalSizeBytes = 0;
  std::optional<int64_t> compressedSizeBytes;
  std::optional<double> ratio;  // 1 - compressed / max(original, 1)
  std::optional<std::string> destination;
  std::optional<double> butteraugli;  // PerceptualDistance::between, when asked for and measurable
  std::optional<std::string> error;

  bool succeeded() const { return !error.has_value(); }
  // {"butteraugli":..,"compressedSizeBytes":..,"destination":..,"originalSizeBytes":..,"path":..,"ratio":..}
  // with sorted keys, "/" escaped and empty optionals left out.
  std::string toJSON() const;
};

namespace ImageCompressor {

// Source bytes to compressed bytes at a perceptual quality (1...100). Runs on the calling
// thread and may take seconds. Throws ImageProcessingError, ZlibError.
std::vector<uint8_t> encodeData(std::span<const uint8_t> fileData, ImageFormat format, double quality);

// Reads `path`, encodes, writes atomically into `directory` as `destinationFilename` (or the
// source's base name with the format's extension), replacing a file of that name. With
// `measure`, the written result's distance to its source follows (absent where it can't be
// measured, which fails nothing). Never throws.
ImageCompressionResult compress(const std::string& path, const std::string& directory, ImageFormat format,
                                double quality, const std::optional<std::string>& destinationFilename,
                                bool measure = false);

// Size attribute of the file, 0 when unreadable.
int64_t fileSize(const std::string& path);

// JSON array of results, sorted keys; "[]" if encoding fails.
std::string jsonString(const std::vector<ImageCompressionResult>& results);

}  // namespace ImageCompressor
}  // namespace quillane
