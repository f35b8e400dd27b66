#pragma once
// The one compression pipeline: decode, analyse, plan, encode, keep the smaller of two
// competing encodings. Stateless; any number of calls may run at once on any threads.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/ImageFormat.h"

namespace quillane {

// What a compression is asked for besides its format and quality. All off by default, which
// leaves the result exactly as without them.
struct CompressionOptions {
  int maxWidth = 0;         // fit within maxWidth x maxHeight, proportions kept, never enlarged;
  int maxHeight = 0;        // 0: that side unbounded
  int64_t maxBytes = 0;     // the highest quality up to the one asked whose file fits; 0: none
  bool skipLarger = false;  // a result not smaller than its source is not written

  bool fits() const { return maxWidth > 0 || maxHeight > 0; }
  bool any() const { return fits() || maxBytes > 0 || skipLarger; }
  bool operator==(const CompressionOptions&) const = default;
};

// Even quality 1 gives a file above the byte budget: "cannot get under 100 kB at 4000 × 3000".
class BudgetError : public QuillaneError {
 public:
  BudgetError(int64_t maxBytes, int width, int height)
      : QuillaneError("budget unreachable"), maxBytes_(maxBytes), width_(width), height_(height) {}
  std::string description() const override;

 private:
  int64_t maxBytes_;
  int width_, height_;
};

struct ImageCompressionResult {
  std::string path;  // the source path as the caller gave it
  int64_t originalSizeBytes = 0;
  std::optional<int64_t> compressedSizeBytes;
  std::optional<double> ratio;  // 1 - compressed / max(original, 1)
  std::optional<std::string> destination;
  std::optional<double> butteraugli;  // PerceptualDistance::between, when asked for and measurable
  std::optional<std::string> error;
  std::optional<double> quality;  // the quality encoded at (below the one asked for under a byte budget)
  std::optional<int> pixelWidth;  // the result's size in pixels
  std::optional<int> pixelHeight;
  std::optional<std::string> skipped;  // why the original was kept and nothing written
  // The result was made but its destination refused it (full, read-only, gone): a later try
  // may write it where one of a source that can't be read would fail again.
  bool unwritten = false;

  bool succeeded() const { return !error.has_value(); }
  // {"butteraugli":..,"compressedSizeBytes":..,"destination":..,"originalSizeBytes":..,"path":..,"ratio":..}
  // with sorted keys, "/" escaped and empty optionals left out; "quality", "pixelWidth" and
  // "pixelHeight" where an encoding was made, "skipped": true and "reason" for a kept original.
  std::string toJSON() const;
};

namespace ImageCompressor {

// Source bytes to compressed bytes at a perceptual quality (1...100). Runs on the calling
// thread and may take seconds. Throws ImageProcessingError, ZlibError.
std::vector<uint8_t> encodeData(std::span<const uint8_t> fileData, ImageFormat format, double quality);

struct Encoded {
  std::vector<uint8_t> bytes;
  double quality = 0;  // the quality encoded at
  int width = 0, height = 0;
  bool fitted = false;  // scaled down to fit the box
  int encodes = 0;      // encodings made (a budget's search makes several)
};

// The same under `options` (their skipLarger is the writer's business and ignored here). A
// byte budget encodes at `quality` first, then predicts from that size and bisects among
// lower whole qualities, at most about seven encodings; throws BudgetError when quality 1
// does not fit either.
Encoded encode(std::span<const uint8_t> fileData, ImageFormat format, double quality,
               const CompressionOptions& options);

// "100 kB", "1.5 MB", "900 bytes": a byte count in decimal units, as budgets are given.
std::string byteCountText(int64_t bytes);

// A byte count as users write it: "250000", "500k", "1.5M" (k and M are 1,000 and 1,000,000,
// in either case, optionally followed by "B"). Nothing for anything else, zero or negative.
std::optional<int64_t> parseByteCount(std::string_view text);

// Reads `path`, encodes, writes atomically into `directory` as `destinationFilename` (or the
// source's base name with the format's extension), replacing a file of that name. With
// `measure`, the written result's distance to its source follows (absent where it can't be
// measured, which fails nothing). Under `options.skipLarger` a result not smaller than its
// source is not written and the result says so. `mayReplace` limits what the write may replace
// (FileIO::writeFileAtomically); a file it refuses makes the result's error. Never throws.
ImageCompressionResult compress(const std::string& path, const std::string& directory, ImageFormat format,
                                double quality, const std::optional<std::string>& destinationFilename,
                                bool measure = false, const CompressionOptions& options = {},
                                const FileIO::ReplaceCheck& mayReplace = {});

// Size attribute of the file, 0 when unreadable.
int64_t fileSize(const std::string& path);

// JSON array of results, sorted keys; "[]" if encoding fails.
std::string jsonString(const std::vector<ImageCompressionResult>& results);

}  // namespace ImageCompressor
}  // namespace quillane
