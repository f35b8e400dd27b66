// PNG through libpng (8 and 16 bits, palette, grey, tRNS, interlace, iCCP). The header probe
// walks the chunk list itself, which finds an eXIf chunk wherever it sits and reads APNG's
// frame count without inflating anything.

#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <vector>

#include "engine/Cancellation.h"
#include "engine/ColorConvert.h"
#include "engine/Exif.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {

constexpr uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
// Ancillary chunks (iCCP, eXIf) larger than this are refused by libpng.
constexpr png_alloc_size_t kMaxChunkBytes = 64u << 20;
// Text chunks are never used, and inflating compressed ones costs seconds a megabyte: libpng
// skips them unread (it still checks their CRC).
constexpr png_byte kSkippedChunks[] = "tEXt\0zTXt\0iTXt";
// Deflate's largest ratio: 258 bytes from a match coded in two bits.
constexpr uint64_t kMaxDeflateRatio = 1032;

uint32_t be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// How a reduced picture is read. A large non-interlaced picture is read row by row and
// averaged over blocks of `factor` x `factor` pixels as it comes; an interlaced one is read
// only as far as the Adam7 passes that sample every `factor`-th pixel both ways (8, 4 or 2).
enum class Reduction { none, rowAverage, interlacePasses };

// Plain data between decodeWithLibpng and its caller: trivially destructible, so that a
// longjmp out of libpng skips no destructor.
struct PngJob {
  ByteSource* source;  // at its first byte
  int minLongSide;     // 0: full size
  png_uint_32 width, height;
  int bitDepth, colorType;
  bool alpha;
  bool tooLarge;
  int channels;  // of the output: 2 (grey, alpha) or 4 (RGBA)
  Reduction reduction;
  png_uint_32 factor;
  png_uint_32 outWidth, outHeight;
  // The colours' description besides iCCP: an sRGB chunk, gAMA, cHRM (times 100000; a gamma
  // of 0 and no chromaticities where absent).
  bool srgbChunk;
  png_fixed_point gamma;
  bool hasChromaticities;
  png_fixed_point chromaticities[8];  // white, red, green, blue: x and y of each
  // Called by decodeWithLibpng itself, never from inside libpng. All are noexcept.
  void* context;
  void (*iccFound)(void* context, const uint8_t* data, size_t size) noexcept;
  png_bytep* (*allocate)(void* context, const PngJob& job) noexcept;  // row pointers; null refuses
  // Full reads: makes the first `rows` rows writable before libpng writes them.
  void (*growTo)(void* context, png_uint_32 rows) noexcept;
  // Reduced reads: a buffer for one row of the full width, then each row as read (`pass` is
  // the Adam7 pass, or -1 when not interlaced; `y` the row within the pass).
  png_bytep (*rowBuffer)(void* context, const PngJob& job, size_t bytes) noexcept;  // null refuses
  void (*takeRow)(void* context, const PngJob& job, int pass, png_uint_32 y, png_const_bytep row) noexcept;
};

void chooseReduction(PngJob& job, int interlace) {
  job.reduction = Reduction::none;
  job.factor = 1;
  job.outWidth = job.width;
  job.outHeight = job.height;
  if (job.minLongSide <= 0) return;
  const png_uint_32 longSide = std::max(job.width, job.height), wanted = png_uint_32(job.minLongSide);
  if (interlace == PNG_INTERLACE_ADAM7) {
    for (png_uint_32 step : {8u, 4u, 2u})
      if (longSide / step >= wanted) {
        job.reduction = Reduction::interlacePasses;
        job.factor = step;
        break;
      }
  } else if (longSide / wanted >= 2) {
    job.reduction = Reduction::rowAverage;
    job.factor = longSide / wanted;
  }
  job.outWidth = (job.width + job.factor - 1) / job.factor;
  job.outHeight = (job.height + job.factor - 1) / job.factor;
}

// Stops a full read between rows when its caller gave up.
void onRowRead(png_structp png, png_uint_32, int) {
  if (Cancellation::requested()) png_error(png, "cancelled");
}

void readData(png_structp png, png_bytep out, size_t length) {
  auto* job = static_cast<PngJob*>(png_get_io_ptr(png));
  if (job->source->read(out, length) != length) png_error(png, "truncated");
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
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, kSkippedChunks, 3);
  png_read_info(png, info);
  int interlace = 0;
  png_get_IHDR(png, info, &job.width, &job.height, &job.bitDepth, &job.colorType, &interlace, nullptr,
               nullptr);
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
  job.srgbChunk = png_get_valid(png, info, PNG_INFO_sRGB) != 0;
  if (!png_get_gAMA_fixed(png, info, &job.gamma)) job.gamma = 0;
  png_fixed_point* c = job.chromaticities;
  job.hasChromaticities =
      png_get_cHRM_fixed(png, info, &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6], &c[7]) != 0;

  bool tRNS = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
  job.alpha = (job.colorType & PNG_COLOR_MASK_ALPHA) != 0 || tRNS;
  if (job.colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (job.colorType == PNG_COLOR_TYPE_GRAY && job.bitDepth < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (tRNS) png_set_tRNS_to_alpha(png);
  if (job.bitDepth == 16) png_set_swap(png);  // samples in host order (little-endian here)
  if (!job.alpha) png_set_add_alpha(png, 0xFFFF, PNG_FILLER_AFTER);
  chooseReduction(job, interlace);
  if (job.reduction == Reduction::none) png_set_interlace_handling(png);
  png_read_update_info(png, info);
  job.channels = png_get_channels(png, info);
  if (job.channels != 2 && job.channels != 4) png_error(png, "unexpected channel count");

  png_bytep* rows = job.allocate(job.context, job);
  if (!rows) png_error(png, "allocation refused");
  if (job.reduction == Reduction::none) {
    png_set_read_status_fn(png, onRowRead);
    if (interlace == PNG_INTERLACE_NONE) {
      // Row by row, each made writable as it comes: data that ends early leaves the rest of
      // the picture untouched.
      for (png_uint_32 y = 0; y < job.height; ++y) {
        job.growTo(job.context, y + 1);
        png_read_row(png, rows[y], nullptr);
      }
    } else {
      job.growTo(job.context, job.height);  // every pass writes across the whole picture
      png_read_image(png, rows);
    }
    png_read_end(png, nullptr);
  } else {
    png_bytep row = job.rowBuffer(job.context, job, png_get_rowbytes(png, info));
    if (!row) png_error(png, "allocation refused");
    // Passes 1, 3 and 5 (of 7) end the ones that sample every 8th, 4th and 2nd pixel.
    const int passes = job.reduction == Reduction::rowAverage ? 1
                       : job.factor == 8                      ? 1
                       : job.factor == 4                      ? 3
                                                              : 5;
    for (int pass = 0; pass < passes; ++pass) {
      const bool interlaced = job.reduction == Reduction::interlacePasses;
      const png_uint_32 count = interlaced ? PNG_PASS_ROWS(job.height, pass) : job.height;
      if (interlaced && PNG_PASS_COLS(job.width, pass) == 0) continue;  // libpng skips empty passes
      for (png_uint_32 y = 0; y < count; ++y) {
        if ((y & 63) == 0 && Cancellation::requested()) png_error(png, "cancelled");
        png_read_row(png, row, nullptr);
        job.takeRow(job.context, job, interlaced ? pass : -1, y, row);
      }
    }
    // The rest of the file (later passes, trailing chunks) is never read.
  }
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}

struct PngTarget {
  DecodedImage image;
  std::vector<png_bytep> rows;
  std::vector<uint8_t> icc;
  std::vector<uint8_t> row;       // reduced reads: one row as libpng hands it over
  std::vector<uint64_t> sums;     // row averaging: per output sample of the current block row
  std::vector<uint64_t> weights;  // and the alpha summed under each output pixel
};

template <class Sample>
void takeRow(PngTarget& t, const PngJob& j, int pass, png_uint_32 y, const Sample* in) {
  const size_t channels = size_t(j.channels), alphaIndex = channels - 1;
  auto* out = reinterpret_cast<Sample*>(j.bitDepth == 16 ? reinterpret_cast<uint8_t*>(t.image.pixels16.data())
                                                         : t.image.pixels8.data());
  const size_t outStride = size_t(j.outWidth) * channels;
  if (pass >= 0) {
    // Every pixel of the passes read so far lies on the grid of `factor`.
    const png_uint_32 fullY = PNG_ROW_FROM_PASS_ROW(y, pass);
    Sample* dst = out + size_t(fullY / j.factor) * outStride;
    for (png_uint_32 x = 0; x < PNG_PASS_COLS(j.width, pass); ++x) {
      const size_t outX = PNG_COL_FROM_PASS_COL(x, pass) / j.factor;
      for (size_t c = 0; c < channels; ++c) dst[outX * channels + c] = in[size_t(x) * channels + c];
    }
    return;
  }
  // Colour is weighted by alpha, as in Resample::fitWithin, so that transparent pixels
  // leave no dark fringe.
  constexpr uint64_t kMax = sizeof(Sample) == 2 ? 65535 : 255;
  for (png_uint_32 x = 0; x < j.width; ++x) {
    const Sample* p = in + size_t(x) * channels;
    const size_t o = size_t(x / j.factor);
    const uint64_t a = p[alphaIndex];
    for (size_t c = 0; c < alphaIndex; ++c) t.sums[o * channels + c] += uint64_t(p[c]) * a;
    t.sums[o * channels + alphaIndex] += a;
    t.weights[o] += 1;
  }
  if ((y + 1) % j.factor != 0 && y + 1 != j.height) return;
  Sample* dst = out + size_t(y / j.factor) * outStride;
  for (size_t o = 0; o < j.outWidth; ++o) {
    const uint64_t alphaSum = t.sums[o * channels + alphaIndex], n = t.weights[o];
    for (size_t c = 0; c < alphaIndex; ++c)
      dst[o * channels + c] = alphaSum ? Sample((t.sums[o * channels + c] + alphaSum / 2) / alphaSum) : 0;
    dst[o * channels + alphaIndex] = Sample(std::min(kMax, (alphaSum + n / 2) / n));
  }
  std::fill(t.sums.begin(), t.sums.end(), 0);
  std::fill(t.weights.begin(), t.weights.end(), 0);
}

struct Header {
  uint32_t width, height;
  uint8_t depth, colourType;
};

// The IHDR fields, read from the first bytes of `source`.
std::optional<Header> readHeader(ByteSource& source) {
  uint8_t p[33];
  source.rewind();
  if (source.read(p, sizeof p) != sizeof p || std::memcmp(p, kSignature, 8) != 0 || be32(p + 8) != 13 ||
      std::memcmp(p + 12, "IHDR", 4) != 0)
    return std::nullopt;
  const Header header{be32(p + 16), be32(p + 20), p[24], p[25]};
  if (header.width == 0 || header.height == 0 || header.width > 0x7FFFFFFFu || header.height > 0x7FFFFFFFu)
    return std::nullopt;
  return header;
}

// Calls `visit(type, length)` for each chunk after IHDR, in order, with `source` at the chunk's
// payload, as long as the chunk's type is four letters and its bytes are all there; `visit`
// returns how many bytes of the payload it read. Stops after IEND, and returns whether it came.
// Payloads are skipped, never read: a file of holes costs its chunk headers.
template <class Visit>
bool walkChunks(ByteSource& source, Visit&& visit) {
  uint8_t header[8];
  while (source.read(header, 8) == 8) {
    const uint32_t length = be32(header);
    const uint8_t* type = header + 4;
    if (length > 0x7FFFFFFFu ||
        !std::all_of(type, type + 4, [](uint8_t c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }))
      return false;
    const uint32_t used = visit(type, length);
    if (!std::memcmp(type, "IEND", 4)) return true;
    if (used > length || !source.skip(uint64_t(length - used) + 4)) return false;
  }
  return false;
}

// Whether the data can hold the picture its header declares: every chunk is there up to IEND
// (libpng reads to the end of a full decode), and the image data, inflated at deflate's largest
// ratio, reaches the samples of every pixel. A full-size picture is allocated only then: a
// truncated file saying 16384 x 16384 would otherwise take gigabytes before failing.
bool dataCanFill(ByteSource& source) {
  static constexpr double kChannels[7] = {1, 0, 3, 1, 2, 0, 4};  // by colour type
  const auto header = readHeader(source);
  if (!header || header->colourType > 6 || kChannels[header->colourType] == 0) return false;
  const double sampleBits =
      double(header->width) * double(header->height) * kChannels[header->colourType] * header->depth;
  uint64_t data = 0;
  const bool complete = walkChunks(source, [&](const uint8_t* type, uint32_t length) {
    if (!std::memcmp(type, "IDAT", 4)) data += length;
    return 0u;
  });
  return complete && double(data) * kMaxDeflateRatio >= sampleBits / 8;
}

}  // namespace

std::optional<Properties> pngProperties(ByteSource& source) {
  const auto header = readHeader(source);
  if (!header) return std::nullopt;
  Properties props{int(header->width), int(header->height), std::nullopt, 1};
  std::vector<uint8_t> payload;
  walkChunks(source, [&](const uint8_t* type, uint32_t length) -> uint32_t {
    const bool exif = !std::memcmp(type, "eXIf", 4), animation = !std::memcmp(type, "acTL", 4);
    // An EXIF block larger than libpng would take is no EXIF block.
    if ((!exif && !animation) || length > kMaxChunkBytes) return 0;
    payload.resize(length);
    if (source.read(payload.data(), length) != length) return length + 1;  // ends the walk
    if (exif) props.orientation = Exif::orientation(payload);
    if (animation && length >= 8 && be32(payload.data()) > 0)
      props.frameCount = int(std::min<uint32_t>(be32(payload.data()), 1u << 20));
    return length;
  });
  return props;
}

std::optional<Properties> pngProperties(Input bytes) {
  MemorySource source(bytes);
  return pngProperties(source);
}

DecodedImage decodePng(Input bytes, int minLongSide) {
  MemorySource source(bytes);
  if (minLongSide <= 0 && readHeader(source) && !dataCanFill(source))
    fail("libpng: truncated PNG, or too little image data for its size");
  return decodePng(source, minLongSide);
}

DecodedImage decodePng(ByteSource& source, int minLongSide) {
  source.rewind();
  PngJob job{};
  job.source = &source;
  job.minLongSide = minLongSide;
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
      const AlphaInfo alpha = j.alpha ? AlphaInfo::straight : AlphaInfo::none;
      const int bits = j.bitDepth == 16 ? 16 : 8;
      t->image = j.reduction == Reduction::none
                     ? reserveImage(int(j.outWidth), int(j.outHeight), bits, alpha)
                     : allocateImage(int(j.outWidth), int(j.outHeight), bits, alpha);
      t->rows.assign(1, nullptr);
      if (j.reduction != Reduction::none) return t->rows.data();  // rows come one by one, through takeRow
      uint8_t* base =
          j.bitDepth == 16 ? reinterpret_cast<uint8_t*>(t->image.pixels16.data()) : t->image.pixels8.data();
      size_t stride = size_t(j.width) * size_t(j.channels) * (j.bitDepth == 16 ? 2 : 1);
      t->rows.resize(j.height);
      for (size_t y = 0; y < j.height; ++y) t->rows[y] = base + y * stride;
      return t->rows.data();
    } catch (...) {
      return nullptr;
    }
  };
  // Within the storage reserved: the rows never move.
  job.growTo = [](void* context, png_uint_32 rows) noexcept {
    growImage(static_cast<PngTarget*>(context)->image, rows);
  };
  job.rowBuffer = [](void* context, const PngJob& j, size_t size) noexcept -> png_bytep {
    try {
      auto* t = static_cast<PngTarget*>(context);
      t->row.assign(size + 16, 0);
      if (j.reduction == Reduction::rowAverage) {
        t->sums.assign(size_t(j.outWidth) * size_t(j.channels), 0);
        t->weights.assign(j.outWidth, 0);
      }
      return t->row.data();
    } catch (...) {
      return nullptr;
    }
  };
  job.takeRow = [](void* context, const PngJob& j, int pass, png_uint_32 y, png_const_bytep row) noexcept {
    auto* t = static_cast<PngTarget*>(context);
    if (j.bitDepth == 16)
      takeRow(*t, j, pass, y, reinterpret_cast<const uint16_t*>(row));
    else
      takeRow(*t, j, pass, y, row);
  };
  const bool ok = decodeWithLibpng(job);
  if (!ok) {
    Cancellation::check();
    fail(job.tooLarge ? kTooLarge : "libpng: damaged or truncated PNG");
  }
  DecodedImage& image = target.image;
  if (target.icc.empty() && !job.srgbChunk)
    target.icc = ColorConvert::profileOfPngChunks(job.channels == 2, job.gamma,
                                                  job.hasChromaticities ? job.chromaticities : nullptr);
  if (job.channels == 2)
    ColorConvert::expandGreyInPlace(image, 2, &target.icc);
  else
    image.colorSpace = ColorConvert::rgbSpace(std::move(target.icc));
  return std::move(image);
}

}  // namespace quillane::codecs
