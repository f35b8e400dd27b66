// Hostile files, written chunk by chunk and box by box.

#include "tests/support/HostileFiles.h"

#include <zlib.h>

#include <cstring>
#include <random>
#include <stdexcept>

namespace quillane::fixtures {
namespace {

void put32(Bytes& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}

Bytes pngChunk(const char* type, const Bytes& payload) {
  Bytes out;
  put32(out, uint32_t(payload.size()));
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), payload.begin(), payload.end());
  put32(out, uint32_t(crc32(0, out.data() + 4, uInt(out.size() - 4))));
  return out;
}

Bytes pngHeader(uint32_t width, uint32_t height, int bitDepth, int colourType, bool interlaced) {
  Bytes png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}, ihdr;
  put32(ihdr, width);
  put32(ihdr, height);
  ihdr.insert(ihdr.end(), {uint8_t(bitDepth), uint8_t(colourType), 0, 0, uint8_t(interlaced ? 1 : 0)});
  const Bytes chunk = pngChunk("IHDR", ihdr);
  png.insert(png.end(), chunk.begin(), chunk.end());
  return png;
}

// Deflates what `feed` hands over (it returns false when done) into `out`, stopping early once
// `limit` bytes are written.
template <class Feed>
Bytes deflateAll(Feed&& feed, size_t limit = SIZE_MAX) {
  z_stream z{};
  if (deflateInit(&z, 9) != Z_OK) throw std::runtime_error("deflateInit");
  Bytes out, in, buffer(1 << 16);
  bool more = true;
  while (out.size() < limit) {
    more = more && feed(in);
    z.next_in = in.data();
    z.avail_in = uInt(in.size());
    int status = Z_OK;
    do {
      z.next_out = buffer.data();
      z.avail_out = uInt(buffer.size());
      status = deflate(&z, more ? Z_NO_FLUSH : Z_FINISH);
      out.insert(out.end(), buffer.data(), buffer.data() + (buffer.size() - z.avail_out));
    } while (z.avail_out == 0 || (!more && status != Z_STREAM_END));
    if (!more) break;
  }
  deflateEnd(&z);
  if (out.size() > limit) out.resize(limit);
  return out;
}

}  // namespace

Bytes withDeclaredSize(Bytes file, uint32_t width, uint32_t height) {
  for (size_t at = 4; at + 16 <= file.size(); ++at) {
    // ispe: after its version and flags. tkhd: 16.16 fixed point after its times, id and
    // duration (20 bytes, 32 in version 1), then layer, volume and matrix (52 bytes).
    const bool ispe = std::memcmp(&file[at], "ispe", 4) == 0, tkhd = std::memcmp(&file[at], "tkhd", 4) == 0;
    const size_t offset = ispe ? at + 8 : at + 8 + (file[at + 4] == 1 ? 32 : 20) + 52;
    if ((!ispe && !tkhd) || offset + 8 > file.size()) continue;
    Bytes size;
    put32(size, tkhd ? width << 16 : width);
    put32(size, tkhd ? height << 16 : height);
    std::memcpy(&file[offset], size.data(), 8);
  }
  return file;
}

Bytes starvedPng(uint32_t width, uint32_t height, int bitDepth, size_t dataBytes, bool truncated,
                 bool interlaced) {
  Bytes png = pngHeader(width, height, bitDepth, 6, interlaced);
  std::mt19937 random(7);
  const Bytes data = deflateAll(
      [&](Bytes& in) {
        in.resize(1 << 16);
        for (uint8_t& b : in) b = uint8_t(random());
        return true;
      },
      dataBytes);
  const Bytes idat = pngChunk("IDAT", data);
  png.insert(png.end(), idat.begin(), truncated ? idat.end() - std::ptrdiff_t(idat.size() / 4) : idat.end());
  if (truncated) return png;
  const Bytes end = pngChunk("IEND", {});
  png.insert(png.end(), end.begin(), end.end());
  return png;
}

Bytes cutWebp(const Bytes& webp, size_t keep) {
  keep &= ~size_t(1);  // chunks are of even length
  if (keep < 20 || keep > webp.size()) throw std::invalid_argument("cutWebp");
  Bytes out(webp.begin(), webp.begin() + std::ptrdiff_t(keep));
  auto putLE32 = [&out](size_t at, size_t v) {
    for (size_t i = 0; i < 4; ++i) out[at + i] = uint8_t(v >> (8 * i));
  };
  putLE32(4, keep - 8);
  putLE32(16, keep - 20);
  return out;
}

Bytes withTextChunks(const Bytes& png, int chunks, size_t inflatedBytes) {
  size_t fed = 0;
  Bytes text = {'C', 'o', 'm', 'm', 'e', 'n', 't', 0, 0};  // keyword, compression method 0
  const Bytes zeros = deflateAll([&](Bytes& in) {
    in.assign(std::min<size_t>(1 << 20, inflatedBytes - fed), 0);
    fed += in.size();
    return fed < inflatedBytes;
  });
  text.insert(text.end(), zeros.begin(), zeros.end());
  const Bytes chunk = pngChunk("zTXt", text);
  Bytes out(png.begin(), png.begin() + 33);  // signature and IHDR
  for (int i = 0; i < chunks; ++i) out.insert(out.end(), chunk.begin(), chunk.end());
  out.insert(out.end(), png.begin() + 33, png.end());
  return out;
}

Bytes blackPng(uint32_t width, uint32_t height, bool interlaced) {
  Bytes png = pngHeader(width, height, 1, 0, interlaced);
  // Rows of the passes (or of the picture), each a filter byte and zeros.
  static const uint32_t kStart[7][2] = {{0, 0}, {4, 0}, {0, 4}, {2, 0}, {0, 2}, {1, 0}, {0, 1}};
  static const uint32_t kStep[7][2] = {{8, 8}, {8, 8}, {4, 8}, {4, 4}, {2, 4}, {2, 2}, {1, 2}};
  int pass = interlaced ? 0 : -1;
  uint32_t row = 0;
  const Bytes data = deflateAll([&](Bytes& in) {
    in.clear();
    while (in.size() < (1 << 16) && pass < 7) {
      const uint32_t rows =
          pass < 0 ? height : (height - kStart[pass][1] + kStep[pass][1] - 1) / kStep[pass][1];
      const uint32_t columns =
          pass < 0 ? width : (width - kStart[pass][0] + kStep[pass][0] - 1) / kStep[pass][0];
      if (row >= rows || columns == 0) {
        row = 0;
        pass = pass < 0 ? 7 : pass + 1;
        continue;
      }
      in.insert(in.end(), 1 + (columns + 7) / 8, 0);
      ++row;
    }
    return pass < 7;
  });
  for (const Bytes& chunk : {pngChunk("IDAT", data), pngChunk("IEND", {})})
    png.insert(png.end(), chunk.begin(), chunk.end());
  return png;
}

}  // namespace quillane::fixtures
