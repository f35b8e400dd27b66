#pragma once
// The memory an encode takes at its peak, from what is known before the source is decoded:
// the one cost model that every front end claims from (the batch's memory budget, the command
// line, hot folders, D-Bus, the API), and that the strategy plans within. The figures were
// measured per format, mode and effort (bench/encode_peak.cpp; bench/README.md, "Memory of an
// encode"). Pure functions, any thread.

#include <cstdint>
#include <optional>
#include <string>

#include "engine/EncodingStrategy.h"
#include "engine/ImageFormat.h"

namespace quillane::EncodeCost {

// What an encoding may take, its picture included: 16 bytes a pixel, and never less than
// 1.5 GiB, so that a screenshot up to a 4K screen (8.3 megapixels) keeps lossless JPEG XL's
// full effort, whose files are up to six times smaller than the light effort's. The strategy plans every
// encoding within it where the format has a cheaper way (EncodingStrategy::plan); lossy JPEG XL in one frame
// (40 to 47 bytes a pixel in libjxl 0.7; up to 8 megapixels, or 24 at low qualities where the machine holds
// it, and strip by strip above), HEIC and AVIF at 4:4:4 (25 to 26) and lossless WebP of a photograph (36)
// have none, and claim what they take.
inline constexpr uint64_t kBytesPerPixel = 16;

// a + b, or UINT64_MAX where that passes 64 bits: a cost that can't be held stays one.
inline uint64_t addBytes(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

inline constexpr uint64_t kSmallPictureBytes = 1536ull << 20;
uint64_t allowance(uint64_t pixels);

// The peak of one encoding in `mode` at the plan's `effort` (0 to 2, or -1 for JPEG XL's light
// lossless effort), its picture and output included, as the pipeline runs its last
// encoding, for a picture of `width` x `height` whose content is a graphic (flat
// graphic or screen text: flat areas and hard edges) or not, and with or without alpha: the
// worst of the pictures measured of that kind.
uint64_t encodingBytes(ImageFormat format, const EncodingPlan::Mode& mode, int effort, int width, int height,
                       bool graphic, bool alpha);

// The same for an encoding the strategy planned.
uint64_t encodingBytes(ImageFormat format, const EncodingPlan& plan, const EncodingPlan::Mode& mode,
                       const ImageCharacteristics& characteristics);

// The peak of a lossy JPEG XL of `pixels` in one frame, at the effort of pictures above 2
// megapixels, for the costliest content (a graphic with alpha), its picture included: what
// JXLEncoder::lossyStripRows asks the machine to hold before it leaves out the strips.
uint64_t lossyJXLFrameBytes(uint64_t pixels);

// Whether `bytes` fit in the machine's memory and the process's address-space limit.
bool fitsInMemory(uint64_t bytes);

// What is known of a source before it is read: its format and size from its header, and the
// file's length.
struct Source {
  ImageFormat format = ImageFormat::png;
  int width = 0;  // as stored; orientation does not change the cost
  int height = 0;
  uint64_t fileBytes = 0;
  // Of a picture made of cells decoded whole beside it: the most held at once
  // (ImageService::Properties::heldCellPixels), decoded at the format's cost a pixel.
  uint64_t cellPixels = 0;
};

// The peak of ImageCompressor::compress of such a source to `target` at `quality`, in bytes
// beyond the process's own memory: the file's bytes, the decode, the picture, and the
// costliest plan the strategy can make for any content of that size (both encodings where
// two compete). Never below what the encode takes by more than a quarter (the bench checks).
// UINT64_MAX for a source beyond the decoders' limits (kMaxDimension, kMaxPixels), which
// never fits.
uint64_t peakBytes(const Source& source, ImageFormat target, double quality);

// The same for the file at `path`, from its size and the header in its first bytes
// (ImageDecoder::readHeader); nothing when that header can't be read, or the file is none of
// the six formats.
std::optional<uint64_t> peakBytes(const std::string& path, ImageFormat target, double quality);

}  // namespace quillane::EncodeCost
