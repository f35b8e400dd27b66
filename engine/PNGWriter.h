#pragma once
// The PNG file format, written by hand: signature, chunks, row filters, zlib streams.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace quillane::PNGWriter {

using Bytes = std::vector<uint8_t>;

inline constexpr std::array<uint8_t, 8> pngSignature = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};

enum class Filter : uint8_t { none = 0, sub = 1, up = 2, average = 3, paeth = 4 };
inline constexpr std::array<Filter, 5> allFilters = {Filter::none, Filter::sub, Filter::up, Filter::average,
                                                     Filter::paeth};

struct PaletteEntry {
  uint8_t r, g, b, a;
};

// At 1, 2, 4 or 8 bits an index, the fewest that hold the palette (of at most 256 entries),
// translucent entries first. Throws ZlibError.
Bytes writeIndexedPNG(int width, int height, std::span<const uint8_t> indices,
                      std::span<const PaletteEntry> palette, const std::optional<Bytes>& iccProfile);
struct Deflate {
  // Rows through a filter, whose small differences want zlib's filtered strategy (more literals,
  // fewer short matches): 4 % smaller on photographs.
  bool filteredRows = false;
  // Level 6 whatever the size: on a photograph's filtered rows level 9 took four times the time
  // for 1 to 2 % fewer bytes.
  bool quick = false;
};
// Level 9 up to 2 MiB of input, 6 above. Throws ZlibError.
Bytes zlibCompress(std::span<const uint8_t> data, Deflate how = {});
// Filters `count` bytes of `row` against `previous` into `out`; returns the score.
int64_t apply(Filter filter, const uint8_t* row, const uint8_t* previous, size_t count, size_t bpp,
              uint8_t* out);

void appendUInt32BE(Bytes& data, uint32_t value);
// `type` must be four ASCII letters.
void appendPNGChunk(Bytes& data, std::string_view type, std::span<const uint8_t> payload);
void appendIHDR(Bytes& data, int width, int height, uint8_t colourType, uint8_t bitDepth = 8);
// Nothing for an absent or empty profile. Throws ZlibError.
void appendICCProfileIfPresent(Bytes& data, const std::optional<Bytes>& profile);

}  // namespace quillane::PNGWriter
