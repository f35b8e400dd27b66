#include "engine/PNGWriter.h"

#include <zlib.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <string>

#include "engine/Cancellation.h"
#include "engine/Errors.h"

namespace quillane::PNGWriter {
namespace {

// Inputs up to 2 MiB get zlib's best compression; above that level 9 costs far more time
// than it saves bytes, so the default level takes over.
constexpr size_t kBestLevelLimit = 2'097'152;

// Up to this many pixels a palette's indices are also deflated a byte each, in case that comes
// out smaller than packed: above it, zlib's best level on few distinct bytes takes too long (a
// two-colour 1.6 MP picture took a second more).
constexpr size_t kIndexTrialPixels = 524'288;

// The score counts each filtered byte as a signed value without its sign, the usual
// "minimum sum of absolute differences" heuristic.
inline int64_t byteScore(uint8_t v) { return v < 128 ? v : 256 - v; }

inline uint8_t paethPredictor(int a, int b, int c) {
  const int s = a + b - c;
  const int pa = std::abs(s - a), pb = std::abs(s - b), pc = std::abs(s - c);
  if (pa <= pb && pa <= pc) return uint8_t(a);
  if (pb <= pc) return uint8_t(b);
  return uint8_t(c);
}

}  // namespace

void appendUInt32BE(Bytes& data, uint32_t value) {
  data.push_back(uint8_t(value >> 24));
  data.push_back(uint8_t(value >> 16));
  data.push_back(uint8_t(value >> 8));
  data.push_back(uint8_t(value));
}

void appendPNGChunk(Bytes& data, std::string_view type, std::span<const uint8_t> payload) {
  assert(type.size() == 4 && "a chunk type is four ASCII letters");
  appendUInt32BE(data, uint32_t(payload.size()));
  const size_t typeStart = data.size();
  data.insert(data.end(), type.begin(), type.end());
  data.insert(data.end(), payload.begin(), payload.end());
  uLong crc = crc32(0L, Z_NULL, 0);
  crc = crc32(crc, data.data() + typeStart, uInt(data.size() - typeStart));
  appendUInt32BE(data, uint32_t(crc));
}

void appendIHDR(Bytes& data, int width, int height, uint8_t colourType, uint8_t bitDepth) {
  Bytes payload;
  payload.reserve(13);
  appendUInt32BE(payload, uint32_t(width));
  appendUInt32BE(payload, uint32_t(height));
  payload.push_back(bitDepth);
  payload.push_back(colourType);  // 0 grey, 2 RGB, 3 palette, 4 grey and alpha, 6 RGBA
  payload.push_back(0);           // compression method
  payload.push_back(0);           // filter method
  payload.push_back(0);           // no interlace
  appendPNGChunk(data, "IHDR", payload);
}

Bytes zlibCompress(std::span<const uint8_t> data, Deflate how) {
  // Deflated in blocks of 4 MiB so that a cancelled call stops between them.
  constexpr size_t kBlock = 4'194'304;
  struct Stream {
    z_stream z{};
    bool open = false;
    ~Stream() {
      if (open) deflateEnd(&z);
    }
  } stream;
  const int level = data.size() <= kBestLevelLimit && !how.quick ? 9 : 6;
  const int strategy = how.filteredRows ? Z_FILTERED : Z_DEFAULT_STRATEGY;
  if (const int status = deflateInit2(&stream.z, level, Z_DEFLATED, 15, 8, strategy); status != Z_OK)
    throw ZlibError("deflateInit failed with status " + std::to_string(status));
  stream.open = true;
  Bytes out(compressBound(uLong(data.size())));
  size_t consumed = 0;
  for (;;) {
    Cancellation::check();
    const size_t block = std::min(kBlock, data.size() - consumed);
    const bool last = consumed + block == data.size();
    stream.z.next_in = const_cast<Bytef*>(data.data() + consumed);
    stream.z.avail_in = uInt(block);
    stream.z.next_out = out.data() + stream.z.total_out;
    stream.z.avail_out = uInt(std::min<size_t>(out.size() - stream.z.total_out, 1u << 30));
    const int status = deflate(&stream.z, last ? Z_FINISH : Z_NO_FLUSH);
    if (last && status == Z_STREAM_END) break;
    if (status != Z_OK || stream.z.avail_in != 0)
      throw ZlibError("deflate failed with status " + std::to_string(status));
    consumed += block;
  }
  out.resize(stream.z.total_out);
  return out;
}

void appendICCProfileIfPresent(Bytes& data, const std::optional<Bytes>& profile) {
  if (!profile || profile->empty()) return;
  static constexpr std::string_view kName = "ICC profile";
  Bytes payload(kName.begin(), kName.end());
  payload.push_back(0);  // end of the name
  payload.push_back(0);  // compression method 0: zlib
  const Bytes compressed = zlibCompress(*profile);
  payload.insert(payload.end(), compressed.begin(), compressed.end());
  appendPNGChunk(data, "iCCP", payload);
}

Bytes writeIndexedPNG(int width, int height, std::span<const uint8_t> indices,
                      std::span<const PaletteEntry> palette, const std::optional<Bytes>& iccProfile) {
  // The translucent entries go first, so that tRNS stops at the last of them: the opaque ones
  // after it need no alpha of their own.
  std::array<uint8_t, 256> slot{};
  std::vector<PaletteEntry> ordered;
  ordered.reserve(palette.size());
  for (const bool translucent : {true, false})
    for (size_t i = 0; i < palette.size() && i < slot.size(); ++i)
      if ((palette[i].a != 255) == translucent) {
        slot[i] = uint8_t(ordered.size());
        ordered.push_back(palette[i]);
      }
  // An index takes the fewest bits its palette allows, several to a byte: most flat pictures
  // have a few colours, and fewer bytes usually deflate to fewer. Not always: up to
  // kIndexTrialPixels, a byte a pixel competes, and the smaller stream is written.
  const auto deflated = [&](uint8_t depth) {
    const size_t w = size_t(width), h = size_t(height), perByte = 8 / depth;
    const size_t rowBytes = (w + perByte - 1) / perByte;
    Bytes raw(h * (rowBytes + 1), 0);  // each row's filter byte 0: palette indices don't predict well
    for (size_t y = 0; y < h; ++y) {
      uint8_t* row = &raw[y * (rowBytes + 1) + 1];
      const uint8_t* source = indices.data() + y * w;
      for (size_t x = 0; x < w; ++x)  // the first pixel in the highest bits
        row[x / perByte] |= uint8_t(slot[source[x]] << (8 - depth - (x % perByte) * depth));
    }
    return zlibCompress(raw);
  };
  uint8_t depth = ordered.size() <= 2 ? 1 : ordered.size() <= 4 ? 2 : ordered.size() <= 16 ? 4 : 8;
  Bytes idat = deflated(depth);
  if (depth < 8 && size_t(width) * size_t(height) <= kIndexTrialPixels)
    if (Bytes bytewise = deflated(8); bytewise.size() < idat.size()) idat = std::move(bytewise), depth = 8;

  Bytes file(pngSignature.begin(), pngSignature.end());
  appendIHDR(file, width, height, 3, depth);
  appendICCProfileIfPresent(file, iccProfile);
  Bytes plte, trns;
  plte.reserve(ordered.size() * 3);
  for (const PaletteEntry& e : ordered) {
    plte.insert(plte.end(), {e.r, e.g, e.b});
    if (e.a != 255) trns.push_back(e.a);
  }
  appendPNGChunk(file, "PLTE", plte);
  if (!trns.empty()) appendPNGChunk(file, "tRNS", trns);
  appendPNGChunk(file, "IDAT", idat);
  appendPNGChunk(file, "IEND", {});
  return file;
}

int64_t apply(Filter filter, const uint8_t* row, const uint8_t* previous, size_t count, size_t bpp,
              uint8_t* out) {
  int64_t score = 0;
  switch (filter) {
    case Filter::none:
      for (size_t i = 0; i < count; ++i) out[i] = row[i];
      break;
    case Filter::sub:
      for (size_t i = 0; i < count; ++i) out[i] = uint8_t(row[i] - (i >= bpp ? row[i - bpp] : 0));
      break;
    case Filter::up:
      for (size_t i = 0; i < count; ++i) out[i] = uint8_t(row[i] - previous[i]);
      break;
    case Filter::average:
      for (size_t i = 0; i < count; ++i) {
        const int left = i >= bpp ? row[i - bpp] : 0;
        out[i] = uint8_t(row[i] - ((left + previous[i]) >> 1));  // the sum before halving: no overflow
      }
      break;
    case Filter::paeth:
      for (size_t i = 0; i < count; ++i) {
        const int left = i >= bpp ? row[i - bpp] : 0;
        const int upperLeft = i >= bpp ? previous[i - bpp] : 0;
        out[i] = uint8_t(row[i] - paethPredictor(left, previous[i], upperLeft));
      }
      break;
  }
  for (size_t i = 0; i < count; ++i) score += byteScore(out[i]);
  return score;
}

}  // namespace quillane::PNGWriter
