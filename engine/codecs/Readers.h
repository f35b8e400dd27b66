#pragma once
// One reader per codec library, behind ImageService. Internal to the engine.
//
// Every reader has the same shape: a header probe that never decodes pixels, and a decoder of
// the first frame. Decoders return the picture as stored (not turned), at its own depth (8 or
// 16 bits), with alpha and colour space; grey and CMYK sources arrive converted to RGB. They
// check kMaxPixels and kMaxDimension against the header before allocating, throw only
// ImageProcessingError::decodingFailed, and never print anything. Library objects live for one
// call. Any thread.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "engine/ByteSource.h"
#include "engine/DecodedImage.h"
#include "engine/ImageFormat.h"
#include "engine/ImageService.h"

namespace quillane::codecs {

using ImageService::Properties;
using Input = std::span<const uint8_t>;

// The internal message of a picture refused for its size.
inline constexpr const char* kTooLarge = "picture larger than the accepted maximum";
// What a reduced decode (thumbnail, preview) may take in a library's own buffers, such as a
// progressive JPEG's coefficients: inspection of any file stays within about 300 MB.
inline constexpr long kReducedDecodeMemory = 256l << 20;
// The peak memory, in bytes, of the reduced decode `decodeX(bytes, minLongSide)` makes: the
// reader's and its library's buffers, estimated from the header alone (the measured figures
// are in bench/README.md, "Hostile inputs"). Nothing when the header can't be read.
std::optional<uint64_t> reducedDecodeBytes(ImageFormat format, Input bytes, int minLongSide);
// Peak memory of a full decode and encode, in bytes a pixel, checked against the machine's
// memory (and the process's address-space limit) before any pixel memory is allocated.
inline constexpr uint64_t kPeakBytesPerPixel = 10;

// Whether an ISO-BMFF file (HEIC, AVIF) declares a grid item, a picture made of many coded
// cells.
bool hasGridItem(Input bytes);
// What the boxes of an ISO-BMFF file say of its coded pictures, found by name wherever they
// are (so the first bytes of a file serve, and a chance match only makes an estimate more
// cautious): from the HEVC or AV1 configurations, the colour samples a pixel (3 for 4:4:4, 2
// for 4:2:2, 1.5 for 4:2:0, 1 for grey; 3 when none says) and their bytes (2 above 8 bits);
// from the "ispe" boxes, the largest picture's pixels (0 when none). The largest when they
// differ.
struct CodedLayout {
  double samplesPerPixel = 3;
  int bytesPerSample = 1;
  uint64_t largestPixels = 0;
};
CodedLayout codedLayout(Input bytes);
// The payload of an ISO-BMFF file's top-level "meta" box (its items, their properties and
// where their data lies), read alone: the other boxes are passed by their headers. Empty when
// there is none; throws ImageProcessingError::decodingFailed when it is absurdly large.
std::vector<uint8_t> metaPayload(ByteSource& file);
// The cells of the derived pictures (grids, overlays, "iden") of an item list (metaPayload),
// which libheif decodes whole at their own size whatever part of them a picture shows: the
// pixels of all of them (a cell as often as it is used, a nested picture's cells too) and the
// most held at once beside the picture (one cell of an overlay, up to four of a grid, which
// are decoded in parallel); each the largest over the file's pictures, 0 for a file of coded
// pictures alone. Throws ImageProcessingError::decodingFailed for a picture made of itself.
struct DerivedCells {
  uint64_t all = 0, heldAtOnce = 0;
};
DerivedCells derivedCells(const std::vector<uint8_t>& meta);
// Refuses an ISO-BMFF file (HEIC, AVIF) whose coded pictures are larger than their items
// declare: the size in each HEVC sequence parameter set or AV1 sequence header, in the item's
// configuration or its data, against its "ispe" (rounded up to whole 64-pixel blocks), before
// any decoder allocates what the bitstream says, and a grid whose own output size exceeds its
// "ispe". Also refuses a coded picture with no declared size, a header it cannot read, and
// (as kTooLarge) a derived picture whose cells together exceed kMaxPixels. Items whose data lies beyond
// `bytes` are judged by their configuration alone. Throws ImageProcessingError::decodingFailed.
void checkCodedSizes(Input bytes);
// The same over a file, reading its item information and the items' data alone.
void checkCodedSizes(ByteSource& file);
// The same for the AV1 OBUs of one stretch of data (an image sequence's first frame), against
// the size libavif reports for it.
void checkAv1Size(Input obus, uint64_t width, uint64_t height);
// Sums for a picture averaged down by a whole factor, per output pixel ("cell"): with straight
// alpha, colour samples are weighted by their alpha, so that the colour of transparent pixels
// leaves no dark fringe; a cell that is transparent throughout takes its plain mean.
class ReducedSums {
 public:
  ReducedSums(size_t cells, size_t colourChannels, bool weighByAlpha)
      : channels_(colourChannels),
        weigh_(weighByAlpha),
        plain_(cells * colourChannels),
        weighted_(weighByAlpha ? cells * colourChannels : 0),
        alpha_(cells) {}
  void clear() {
    std::fill(plain_.begin(), plain_.end(), 0);
    std::fill(weighted_.begin(), weighted_.end(), 0);
    std::fill(alpha_.begin(), alpha_.end(), 0);
  }
  void add(size_t cell, const unsigned* colour, unsigned alpha) {
    for (size_t c = 0; c < channels_; ++c) {
      plain_[cell * channels_ + c] += colour[c];
      if (weigh_) weighted_[cell * channels_ + c] += uint64_t(colour[c]) * alpha;
    }
    alpha_[cell] += alpha;
  }
  // Means over the `count` pixels of a cell, in sample units.
  double colour(size_t cell, size_t c, uint64_t count) const {
    if (weigh_ && alpha_[cell] > 0) return double(weighted_[cell * channels_ + c]) / double(alpha_[cell]);
    return double(plain_[cell * channels_ + c]) / double(count);
  }
  double alpha(size_t cell, uint64_t count) const { return double(alpha_[cell]) / double(count); }

 private:
  size_t channels_;
  bool weigh_;
  std::vector<uint64_t> plain_, weighted_, alpha_;
};

// An estimate in bytes, UINT64_MAX where it is beyond what 64 bits hold (a size no header of
// an honest file declares).
inline uint64_t estimatedBytes(double bytes) { return bytes < 1.8e19 ? uint64_t(bytes) : UINT64_MAX; }
// Throws ImageProcessingError::decodingFailed naming the failing call.
[[noreturn]] void fail(const char* what);
// Throws when a stored size is zero or beyond kMaxDimension / kMaxPixels.
void checkSize(uint64_t width, uint64_t height);
// Throws kTooLarge when `pixels` at `bytesPerPixel` would not fit in the memory the process
// can have: the machine's physical memory, or its address-space limit when that is lower.
void checkFitsInMemory(uint64_t pixels, uint64_t bytesPerPixel);
// An 8- or 16-bit RGBA image of the given size, its samples unset and their memory untouched:
// the reader writes all four samples of every pixel (alpha too, when the source has none), and
// a file whose data ends early costs only the pages of the rows it reached.
DecodedImage allocateImage(int width, int height, int bitsPerComponent, AlphaInfo alpha);
// The same with its samples' storage reserved and none of them yet in the picture, for a reader
// that adds it row by row through growImage.
DecodedImage reserveImage(int width, int height, int bitsPerComponent, AlphaInfo alpha);
// The first `rows` rows of a reserved image, new samples unset; never moves them.
void growImage(DecodedImage& image, size_t rows);

// Every reader also reads from a ByteSource (a file read as its library asks): it is rewound
// first, and left anywhere.
std::optional<Properties> jpegProperties(Input bytes);
std::optional<Properties> jpegProperties(ByteSource& source);
// `minLongSide` 0 decodes at full size; otherwise at the smallest DCT scale whose longer side
// is still at least `minLongSide` (or 1/8, the smallest scale).
DecodedImage decodeJpeg(Input bytes, int minLongSide = 0);
DecodedImage decodeJpeg(ByteSource& source, int minLongSide = 0);
std::optional<uint64_t> jpegReducedDecodeBytes(Input bytes, int minLongSide);
std::optional<uint64_t> jpegReducedDecodeBytes(ByteSource& source, int minLongSide);

std::optional<Properties> pngProperties(Input bytes);
std::optional<Properties> pngProperties(ByteSource& source);
uint64_t pngReducedDecodeBytes(const Properties& header, int minLongSide);
// `minLongSide` above 0 reads a large picture reduced, without ever holding it whole: at
// least `minLongSide` on the longer side, at most about twice that (an interlaced one: every
// 8th, 4th or 2nd pixel, up to 1/8 of the full size).
// A full decode from memory is refused before allocating when the data can't fill the picture
// (cut short, or less image data than deflate's largest ratio needs).
DecodedImage decodePng(Input bytes, int minLongSide = 0);
DecodedImage decodePng(ByteSource& source, int minLongSide = 0);

std::optional<Properties> webpProperties(Input bytes);
// `minLongSide` above 0 decodes scaled to that longer side; an animation's reduced picture
// is its first frame alone, not the canvas.
DecodedImage decodeWebp(Input bytes, int minLongSide = 0);
std::optional<uint64_t> webpReducedDecodeBytes(Input bytes, int minLongSide);
// From a file: its chunks walked by their headers, the picture read alone.
std::optional<Properties> webpProperties(ByteSource& source);
DecodedImage decodeWebp(ByteSource& source, int minLongSide = 0);
std::optional<uint64_t> webpReducedDecodeBytes(ByteSource& source, int minLongSide);

// HEIF reports no orientation: libheif applies irot/imir itself, and the size it reports is
// the turned one.
// `minLongSide` above 0 lets the reader decode instead the smallest thumbnail stored in the
// file whose longer side is at least that long, when there is one.
std::optional<Properties> heifProperties(Input bytes);
DecodedImage decodeHeif(Input bytes, int minLongSide = 0);
std::optional<uint64_t> heifReducedDecodeBytes(Input bytes, int minLongSide);
// From a source, which libheif reads as it needs (boxes by their headers, the data of the
// items it decodes).
std::optional<Properties> heifProperties(ByteSource& source);
DecodedImage decodeHeif(ByteSource& source, int minLongSide = 0);
std::optional<uint64_t> heifReducedDecodeBytes(ByteSource& source, int minLongSide);

// libavif never turns pixels: irot/imir are reported as the equivalent EXIF orientation.
std::optional<Properties> avifProperties(Input bytes);
// `minLongSide` above 0 averages the decoded planes down before they are turned into RGB.
DecodedImage decodeAvif(Input bytes, int minLongSide = 0);
std::optional<uint64_t> avifReducedDecodeBytes(Input bytes);
// From a source, which libavif reads as it needs.
std::optional<Properties> avifProperties(ByteSource& source);
DecodedImage decodeAvif(ByteSource& source, int minLongSide = 0);
std::optional<uint64_t> avifReducedDecodeBytes(ByteSource& source);

std::optional<Properties> jxlProperties(Input bytes);
// `minLongSide` above 0 averages the picture down as libjxl hands it over, without a
// full-size output buffer.
DecodedImage decodeJxl(Input bytes, int minLongSide = 0);
std::optional<uint64_t> jxlReducedDecodeBytes(Input bytes);
// From a source, fed to libjxl in chunks until what is asked for is out.
std::optional<Properties> jxlProperties(ByteSource& source);
DecodedImage decodeJxl(ByteSource& source, int minLongSide = 0);
std::optional<uint64_t> jxlReducedDecodeBytes(ByteSource& source);

// The EXIF orientation equivalent to HEIF's irot (anticlockwise quarter turns, 0...3) followed
// by imir (mode 0: top and bottom exchanged, 1: left and right exchanged, -1: none).
int orientationFromRotationMirror(int quarterTurnsAnticlockwise, int mirrorMode);

}  // namespace quillane::codecs
