#pragma once
// Small files that lie about what they hold, for the tests, the fuzz seeds and
// bench/make_hostile_files: each one made in code from a real file or from nothing.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quillane::fixtures {

using Bytes = std::vector<uint8_t>;

// `file` (a HEIC or AVIF) with every "ispe" box, and the track header of an image sequence,
// rewritten to declare `width` x `height`: the coded pictures stay as they were.
Bytes withDeclaredSize(Bytes file, uint32_t width, uint32_t height);

// A PNG of `width` x `height`, 8-bit RGBA, whose image data (`dataBytes` of deflated noise) can
// fill only a part of it; `truncated` cuts the file inside its image data, otherwise it ends
// properly with IEND.
Bytes starvedPng(uint32_t width, uint32_t height, int bitDepth, size_t dataBytes, bool truncated,
                 bool interlaced = false);

// The first `keep` bytes of a simple WebP (one VP8 or VP8L chunk), its RIFF and chunk sizes
// rewritten to match: a well-formed file whose bitstream ends early.
Bytes cutWebp(const Bytes& webp, size_t keep);

// `png` with `chunks` zTXt chunks inserted after its header, each inflating to `inflatedBytes`
// of zeros (a few hundred bytes of text a megabyte of inflated data, none of it used).
Bytes withTextChunks(const Bytes& png, int chunks, size_t inflatedBytes);

// A 1-bit grey PNG of `width` x `height`, all black, deflated at the highest level (22000 x
// 22000 is about 60 KB).
Bytes blackPng(uint32_t width, uint32_t height, bool interlaced = false);

}  // namespace quillane::fixtures
