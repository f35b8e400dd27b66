// PNG through libpng (8 and 16 bits, palette, grey, tRNS, interlace, iCCP). The header probe
// walks the chunk list itself, which finds an eXIf chunk wherever it sits and reads APNG's
// frame count without inflating anything.

#include <png.h>

#include <csetjmp>
#include <cstring>
#include <vector>

#include "engine/ColorConvert.h"
#include "engine/Exif.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {

constexpr uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
// Ancillary chunks (iCCP, eXIf, text) larger than this are refused by libpng.
constexpr png_alloc_size_t kMaxChunkBytes = 64u << 20;

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

// Plain data between decodeWithLibpng and its caller: trivially destructible, so that a
// longjmp out of libpng skips no destructor.
struct PngJob {
  const uint8_t* data;
  size_t size;
  size_t offset;
  png_uint_32 width, height;
  int bitDepth, colorType;
  bool alpha;
  bool tooLarge;
  int channels;  // of the output: 2 (grey, alpha) or 4 (RGBA)
  // Called by decodeWithLibpng itself, never from inside libpng. Both are noexcept.
  void* context;
  void (*iccFound)(void* context, const uint8_t* data, size_t size) noexcept;
  png_bytep* (*allocate)(void* context, const PngJob& job) noexcept;  // row pointers; null refuses
};

void readData(png_structp png, png_bytep out, size_t length) {
  auto* job = static_cast<PngJob*>(png_get_io_ptr(png));
  if (job->size - job->offset < length) png_error(png, "truncated");
  std::memcpy(out, job->data + job->offset, length);
  job->offset += length;
}
void onError(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void onWarning(png_structp, png_const_charp) {}

// Every libpng call sits in this one function; returns false on any error.
bool decodeWithLibpng(PngJob& job) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &job, onError, onWarning);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info) {
    png_destroy_read_struct(&png, nullptr, nullptr);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return false;
  }
  png_set_read_fn(png, &job, readData);
  png_set_user_limits(png, png_uint_32(kMaxDimension), png_uint_32(kMaxDimension));
  png_set_chunk_malloc_max(png, kMaxChunkBytes);
  png_read_info(png, info);
  int interlace = 0;
  png_get_IHDR(png, info, &job.width, &job.height, &job.bitDepth, &job.colorType, &interlace, nullptr, nullptr);
  if (uint64_t(job.width) * uint64_t(job.height) > kMaxPixels) {
    job.tooLarge = true;
    png_error(png, "too large");
  }

  png_charp name = nullptr;
  int compression = 0;
  png_bytep profile = nullptr;
  png_uint_32 profileLength = 0;
  if (png_get_iCCP(png, info, &name, &compression, &profile, &profileLength) && profile && job.iccFound)
    job.iccFound(job.context, profile, profileLength);

  bool tRNS = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
  job.alpha = (job.colorType & PNG_COLOR_MASK_ALPHA) != 0 || tRNS;
  if (job.colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (job.colorType == PNG_COLOR_TYPE_GRAY && job.bitDepth < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (tRNS) png_set_tRNS_to_alpha(png);
  if (job.bitDepth == 16) png_set_swap(png);  // samples in host order (little-endian here)
  if (!job.alpha) png_set_add_alpha(png, 0xFFFF, PNG_FILLER_AFTER);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  job.channels = png_get_channels(png, info);
  if (job.channels != 2 && job.channels != 4) png_error(png, "unexpected channel count");

  png_bytep* rows = job.allocate(job.context, job);
  if (!rows) png_error(png, "allocation refused");
  png_read_image(png, rows);
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}

struct PngTarget {
  DecodedImage image;
  std::vector<png_bytep> rows;
  std::vector<uint8_t> icc;
};

}  // namespace

std::optional<Properties> pngProperties(Input bytes) {
  if (bytes.size() < 8 + 8 + 13 || std::memcmp(bytes.data(), kSignature, 8) != 0) return std::nullopt;
  const uint8_t* p = bytes.data();
  if (be32(p + 8) != 13 || std::memcmp(p + 12, "IHDR", 4) != 0) return std::nullopt;
  uint32_t width = be32(p + 16), height = be32(p + 20);
  if (width == 0 || height == 0 || width > 0x7FFFFFFFu || height > 0x7FFFFFFFu) return std::nullopt;
  Properties props{int(width), int(height), std::nullopt, 1};
  // Chunk by chunk, reading only lengths and types, up to IEND or the end of the data.
  size_t offset = 8;
  while (bytes.size() - offset >= 12) {
    uint32_t length = be32(p + offset);
    const uint8_t* type = p + offset + 4;
    if (length > bytes.size() - offset - 12) break;
    const uint8_t* payload = p + offset + 8;
    if (!std::memcmp(type, "eXIf", 4)) props.orientation = Exif::orientation({payload, length});
    if (!std::memcmp(type, "acTL", 4) && length >= 8 && be32(payload) > 0)
      props.frameCount = int(std::min<uint32_t>(be32(payload), 1u << 20));
    if (!std::memcmp(type, "IEND", 4)) break;
    offset += size_t(length) + 12;
  }
  return props;
}

DecodedImage decodePng(Input bytes) {
  PngJob job{};
  job.data = bytes.data();
  job.size = bytes.size();
  PngTarget target;
  job.context = &target;
  job.iccFound = [](void* context, const uint8_t* data, size_t size) noexcept {
    try {
      static_cast<PngTarget*>(context)->icc.assign(data, data + size);
    } catch (...) {
    }
  };
  job.allocate = [](void* context, const PngJob& j) noexcept -> png_bytep* {
    try {
      auto* t = static_cast<PngTarget*>(context);
      t->image = allocateImage(int(j.width), int(j.height), j.bitDepth == 16 ? 16 : 8,
                               j.alpha ? AlphaInfo::straight : AlphaInfo::none);
      uint8_t* base = j.bitDepth == 16 ? reinterpret_cast<uint8_t*>(t->image.pixels16.data()) : t->image.pixels8.data();
      size_t stride = size_t(j.width) * size_t(j.channels) * (j.bitDepth == 16 ? 2 : 1);
      t->rows.resize(j.height);
      for (size_t y = 0; y < j.height; ++y) t->rows[y] = base + y * stride;
      return t->rows.data();
    } catch (...) {
      return nullptr;
    }
  };
  if (bytes.size() < 8 || !decodeWithLibpng(job)) fail(job.tooLarge ? kTooLarge : "libpng: damaged or truncated PNG");
  DecodedImage& image = target.image;
  if (job.channels == 2)
    ColorConvert::expandGreyInPlace(image, 2, &target.icc);
  else
    image.colorSpace = ColorConvert::rgbSpace(std::move(target.icc));
  return std::move(image);
}

}  // namespace quillane::codecs
