#pragma once
// Readers for what the WebP, JPEG XL and PNG encoders write, built on the libraries' own
// decoders, plus a wide-gamut ICC profile and small JPEG files made in code.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/ColorSpace.h"
#include "engine/RGBABuffer.h"

namespace quillane::testing {

using Bytes = std::vector<uint8_t>;

// A Display P3 profile (P3 primaries, D65, sRGB curve) made with lcms2; not sRGB.
Bytes displayP3Profile();
// lcms2's own sRGB profile: a tagged space that counts as sRGB.
Bytes srgbProfile();

// One chunk of a PNG file or of a RIFF (WebP) file.
struct Chunk {
  std::string type;
  Bytes payload;
  bool crcValid = true;  // PNG only
};
std::vector<Chunk> pngChunks(std::span<const uint8_t> png);
std::vector<Chunk> riffChunks(std::span<const uint8_t> webp);
std::vector<std::string> chunkTypes(const std::vector<Chunk>& chunks);
const Chunk* findChunk(const std::vector<Chunk>& chunks, const std::string& type);
Bytes inflate(std::span<const uint8_t> zlibStream, size_t expectedSize);

struct Decoded {
  int width = 0, height = 0;
  Bytes rgba;  // always 4 bytes a pixel
};
// libpng's simplified reader; nothing when libpng refuses the file.
std::optional<Decoded> decodePNG(std::span<const uint8_t> png);
std::optional<Decoded> decodeWebP(std::span<const uint8_t> webp);

struct DecodedJXL {
  Decoded image;
  bool usesOriginalProfile = false;
  uint32_t extraChannels = 0;
  int orientation = 1;          // as stored, not applied
  Bytes icc;                    // the original profile, as ICC
  bool taggedSRGB = false;      // the original colour encoding is plain sRGB
  Bytes reconstructedJPEG;      // when the file carries JPEG reconstruction data
};
std::optional<DecodedJXL> decodeJXL(std::span<const uint8_t> jxl);

// Largest difference of any sample between two RGBA pictures of the same size.
int maxDifference(const Bytes& a, const Bytes& b);

// A small RGB (or grey) JPEG made with TurboJPEG; `orientation` above 1 adds an EXIF APP1.
Bytes makeJPEG(int width, int height, bool progressive, int orientation = 1, bool grey = false);

}  // namespace quillane::testing
