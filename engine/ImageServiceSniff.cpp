// Recognising a file's type from its first bytes, for ImageService::typeIdentifier.

#include <cstring>

#include "engine/ImageService.h"

namespace quillane::ImageService {
namespace {

bool startsWith(std::span<const uint8_t> b, std::initializer_list<uint8_t> magic, size_t offset = 0) {
  if (b.size() < offset + magic.size()) return false;
  return std::equal(magic.begin(), magic.end(), b.begin() + std::ptrdiff_t(offset));
}

bool fourcc(std::span<const uint8_t> b, size_t offset, const char* code) {
  return b.size() >= offset + 4 && std::memcmp(b.data() + offset, code, 4) == 0;
}

uint32_t be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// HEIF family: decides from the ftyp box's major and compatible brands. AVIF brands win
// over the generic still-image brands, and HEVC brands make HEIC.
std::optional<std::string> isoBmffType(std::span<const uint8_t> b) {
  if (!fourcc(b, 4, "ftyp") || b.size() < 16) return std::nullopt;
  size_t boxSize = be32(b.data());
  if (boxSize < 16) return std::nullopt;
  size_t end = std::min(boxSize, b.size());
  auto isAvif = [](const uint8_t* p) { return !std::memcmp(p, "avif", 4) || !std::memcmp(p, "avis", 4); };
  auto isHeic = [](const uint8_t* p) {
    for (const char* brand : {"heic", "heix", "heim", "heis", "hevc", "hevx"})
      if (!std::memcmp(p, brand, 4)) return true;
    return false;
  };
  const uint8_t* major = b.data() + 8;
  if (isAvif(major)) return "public.avif";
  if (isHeic(major)) return "public.heic";
  bool avif = false, heic = false;
  for (size_t off = 16; off + 4 <= end; off += 4) {
    avif |= isAvif(b.data() + off);
    heic |= isHeic(b.data() + off);
  }
  if (avif) return "public.avif";
  if (heic) return "public.heic";
  if (!std::memcmp(major, "mif1", 4) || !std::memcmp(major, "msf1", 4)) return "public.heif";
  return std::nullopt;
}

}  // namespace

std::optional<std::string> typeIdentifier(std::span<const uint8_t> b) {
  if (startsWith(b, {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A})) return "public.png";
  if (startsWith(b, {0xFF, 0xD8, 0xFF})) return "public.jpeg";
  if (fourcc(b, 0, "RIFF") && fourcc(b, 8, "WEBP")) return "org.webmproject.webp";
  if (startsWith(b, {0xFF, 0x0A})) return "public.jpeg-xl";
  if (startsWith(b, {0x00, 0x00, 0x00, 0x0C, 'J', 'X', 'L', ' ', 0x0D, 0x0A, 0x87, 0x0A}))
    return "public.jpeg-xl";
  if (auto iso = isoBmffType(b)) return iso;
  if (fourcc(b, 0, "GIF8")) return "com.compuserve.gif";
  if (startsWith(b, {'I', 'I', 0x2A, 0x00}) || startsWith(b, {'M', 'M', 0x00, 0x2A})) return "public.tiff";
  if (startsWith(b, {'B', 'M'}) && b.size() >= 14) return "com.microsoft.bmp";
  return std::nullopt;
}

}  // namespace quillane::ImageService
