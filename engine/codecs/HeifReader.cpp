// HEIC through libheif. libheif applies irot/imir (and clap) when it decodes and reports the
// turned size, so no orientation is reported here and any EXIF orientation inside the file
// is ignored: honouring it would turn the picture twice.

#include <libheif/heif.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "engine/Cancellation.h"
#include "engine/ColorConvert.h"
#include "engine/codecs/HeifHandles.h"
#include "engine/codecs/QuietStderr.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {
using OptionsPtr = CHandle<heif_decoding_options, heif_decoding_options_free>;
using NclxPtr = CHandle<heif_color_profile_nclx, heif_nclx_color_profile_free>;

// libheif 1.15 sizes a plane in an int (its rows times their bytes), which a picture of 16-bit
// interleaved RGBA, 8 bytes a pixel, overflows from 268 megapixels (2 GiB): such a decode
// fails only after the decoder's and the conversion's planes, some 4 GB, were made. Pictures
// wider than 8 bits are taken up to a limit that leaves room for the rows' padding.
constexpr uint64_t kMaxWidePixels = 256ull * 1000 * 1000;

uint64_t maxPixels(heif_image_handle* handle) {
  return heif_image_handle_get_luma_bits_per_pixel(handle) > 8 ? kMaxWidePixels : kMaxPixels;
}

struct Opened {
  HeifContextPtr context;
  HeifHandlePtr primary;
};

// libheif's reader over a ByteSource: boxes are passed by their headers, and only the item
// information and the data of the items decoded are read.
const heif_reader kSourceReader = {
    1, [](void* source) { return int64_t(static_cast<ByteSource*>(source)->position()); },
    [](void* data, size_t size, void* source) {
      return static_cast<ByteSource*>(source)->read(static_cast<uint8_t*>(data), size) == size ? 0 : 1;
    },
    [](int64_t position, void* source) {
      return position >= 0 && static_cast<ByteSource*>(source)->seek(uint64_t(position)) ? 0 : 1;
    },
    [](int64_t size, void* source) {
      return size >= 0 && uint64_t(size) <= static_cast<ByteSource*>(source)->size()
                 ? heif_reader_grow_status_size_reached
                 : heif_reader_grow_status_size_beyond_eof;
    }};

// The context reads `source` (its bytes in place where they are in memory): it outlives it.
std::optional<Opened> open(ByteSource& source) {
  Opened opened{HeifContextPtr(heif_context_alloc()), nullptr};
  if (!opened.context) return std::nullopt;
  heif_context_set_maximum_image_size_limit(opened.context.get(), kMaxDimension);
  source.rewind();
  const std::optional<Input> bytes = source.contiguous();
  const heif_error error =
      bytes ? heif_context_read_from_memory_without_copy(opened.context.get(), bytes->data(), bytes->size(),
                                                         nullptr)
            : heif_context_read_from_reader(opened.context.get(), &kSourceReader, &source, nullptr);
  if (error.code != heif_error_Ok) return std::nullopt;
  heif_image_handle* handle = nullptr;
  if (heif_context_get_primary_image_handle(opened.context.get(), &handle).code != heif_error_Ok || !handle)
    return std::nullopt;
  opened.primary.reset(handle);
  return opened;
}

// Gives `image`, decoded from `handle`, its colour space (and, for a high dynamic range
// transfer, the samples that go with it).
void applyColorSpace(heif_image_handle* handle, DecodedImage& image) {
  image.colorSpace = ColorSpace::sRGB();
  switch (heif_image_handle_get_color_profile_type(handle)) {
    case heif_color_profile_type_prof:
    case heif_color_profile_type_rICC: {
      std::vector<uint8_t> icc(heif_image_handle_get_raw_color_profile_size(handle));
      if (!icc.empty() && heif_image_handle_get_raw_color_profile(handle, icc.data()).code == heif_error_Ok)
        image.colorSpace = ColorConvert::rgbSpace(std::move(icc));
      return;
    }
    case heif_color_profile_type_nclx: {
      heif_color_profile_nclx* raw = nullptr;
      const heif_error error = heif_image_handle_get_nclx_color_profile(handle, &raw);
      NclxPtr nclx(raw);  // owned even when handed back together with an error
      if (error.code == heif_error_Ok && nclx)
        ColorConvert::applyCodePoints(image, int(nclx->color_primaries), int(nclx->transfer_characteristics));
      return;
    }
    default:
      return;
  }
}

// Copies libheif's interleaved rows into `image`, widening samples of `bits` bits to 16; rows
// without alpha come out opaque.
void copyPixels(const uint8_t* plane, int stride, int channels, int bits, DecodedImage& image) {
  const size_t width = size_t(image.width);
  for (int y = 0; y < image.height; ++y) {
    const uint8_t* row = plane + size_t(y) * size_t(stride);
    if (image.bitsPerComponent == 8) {
      uint8_t* out = image.pixels8.data() + size_t(y) * width * 4;
      for (size_t x = 0; x < width; ++x) {
        for (int c = 0; c < channels; ++c) out[x * 4 + size_t(c)] = row[x * size_t(channels) + size_t(c)];
        if (channels == 3) out[x * 4 + 3] = 0xFF;
      }
    } else {
      const double scale = 65535.0 / double((1u << bits) - 1);
      uint16_t* out = image.pixels16.data() + size_t(y) * width * 4;
      for (size_t x = 0; x < width; ++x) {
        for (int c = 0; c < channels; ++c) {
          uint16_t v;
          std::memcpy(&v, row + (x * size_t(channels) + size_t(c)) * 2, 2);  // little-endian host
          out[x * 4 + size_t(c)] = uint16_t(std::min(65535.0, std::round(v * scale)));
        }
        if (channels == 3) out[x * 4 + 3] = 0xFFFF;
      }
    }
  }
}

}  // namespace

std::optional<Properties> heifProperties(Input bytes) {
  MemorySource source(bytes);
  return heifProperties(source);
}

std::optional<Properties> heifProperties(ByteSource& source) {
  // Refuses a second item list, which libheif would read in place of the first.
  const DerivedCells cells = derivedCells(metaPayload(source));
  auto opened = open(source);
  if (!opened) return std::nullopt;
  Properties props;
  props.width = heif_image_handle_get_width(opened->primary.get());
  props.height = heif_image_handle_get_height(opened->primary.get());
  props.frameCount = std::max(1, heif_context_get_number_of_top_level_images(opened->context.get()));
  props.cellPixels = cells.all;
  props.heldCellPixels = std::min(cells.heldAtOnce, kMaxPixels);
  props.maxPixels = maxPixels(opened->primary.get());
  if (props.width <= 0 || props.height <= 0) return std::nullopt;
  return props;
}

namespace {

// Whether a stored thumbnail shows the primary picture as it is: the same shape (a thumbnail
// stored without the primary's rotation lies on its side) and alpha where the primary has it
// (some writers store an opaque one, with black where the picture is transparent).
bool matchesPrimary(heif_image_handle* thumbnail, heif_image_handle* primary) {
  const double tw = heif_image_handle_get_width(thumbnail), th = heif_image_handle_get_height(thumbnail);
  const double pw = heif_image_handle_get_width(primary), ph = heif_image_handle_get_height(primary);
  if (tw < 1 || th < 1 || pw < 1 || ph < 1) return false;
  // Within the rounding of the thumbnail's own pixel grid.
  const bool sameShape = std::abs(tw / th - pw / ph) <= (pw / ph) * (1.0 / tw + 1.0 / th) + 1e-9;
  return sameShape && (heif_image_handle_has_alpha_channel(primary) == 0 ||
                       heif_image_handle_has_alpha_channel(thumbnail) != 0);
}

// The smallest stored thumbnail of `primary` whose longer side reaches `minLongSide` and that
// matches the primary picture; else none, and the primary picture is decoded.
HeifHandlePtr thumbnailOf(heif_image_handle* primary, int minLongSide) {
  int count = heif_image_handle_get_number_of_thumbnails(primary);
  if (minLongSide <= 0 || count <= 0) return nullptr;
  std::vector<heif_item_id> ids(static_cast<size_t>(count));
  count = heif_image_handle_get_list_of_thumbnail_IDs(primary, ids.data(), count);
  HeifHandlePtr best;
  int bestSide = 0;
  for (int i = 0; i < count; ++i) {
    heif_image_handle* raw = nullptr;
    if (heif_image_handle_get_thumbnail(primary, ids[size_t(i)], &raw).code != heif_error_Ok || !raw)
      continue;
    HeifHandlePtr candidate(raw);
    if (!matchesPrimary(raw, primary)) continue;
    int side = std::max(heif_image_handle_get_width(raw), heif_image_handle_get_height(raw));
    if (side >= minLongSide && (!best || side < bestSide)) best = std::move(candidate), bestSide = side;
  }
  return best;
}

HeifImagePtr decodeQuietly(heif_image_handle* handle, heif_colorspace colorspace, heif_chroma chroma) {
  OptionsPtr options(heif_decoding_options_alloc());
  if (!options) fail("heif_decoding_options_alloc");
  options->convert_hdr_to_8bit = 0;
  Cancellation::check();
  QuietStderr quiet;  // dav1d's complaints about damaged AV1 data inside a HEIF
  heif_image* raw = nullptr;
  const heif_error error = heif_decode_image(handle, &raw, colorspace, chroma, options.get());
  HeifImagePtr decoded(raw);
  if (error.code != heif_error_Ok || !decoded) fail("heif_decode_image");
  return decoded;
}

// One plane of a decoded picture, 8 bits or up to 16 in two little-endian bytes a sample.
struct Plane {
  const uint8_t* data = nullptr;
  int stride = 0;
  bool wide = false;
  double max = 255;  // the largest sample value
  unsigned at(int x, int y) const {
    const uint8_t* row = data + size_t(y) * size_t(stride);
    if (!wide) return row[x];
    uint16_t v;
    std::memcpy(&v, row + size_t(x) * 2, 2);
    return v;
  }
};

std::optional<Plane> planeOf(const heif_image* image, heif_channel channel) {
  if (!heif_image_has_channel(image, channel)) return std::nullopt;
  Plane plane;
  plane.data = heif_image_get_plane_readonly(image, channel, &plane.stride);
  const int bits = heif_image_get_bits_per_pixel_range(image, channel);
  if (!plane.data || bits < 1 || bits > 16) return std::nullopt;
  plane.wide = bits > 8;
  plane.max = double((1u << bits) - 1);
  return plane;
}

// A picture for a thumbnail from the planes libheif gives when asked for no colour model in
// particular: planar RGB, which this version makes of single pictures and grids alike,
// averaged down by a whole factor to a longer side between minLongSide and twice that. The
// full picture is held once, planar (3 bytes a pixel at 8 bits), never as interleaved RGB and
// then as RGBA besides. Nothing when the planes are of another kind.
std::optional<DecodedImage> decodeReduced(heif_image_handle* handle, int minLongSide) {
  HeifImagePtr decoded = decodeQuietly(handle, heif_colorspace_undefined, heif_chroma_undefined);
  if (heif_image_get_colorspace(decoded.get()) != heif_colorspace_RGB ||
      heif_image_get_chroma_format(decoded.get()) != heif_chroma_444)
    return std::nullopt;
  const int width = heif_image_get_width(decoded.get(), heif_channel_R);
  const int height = heif_image_get_height(decoded.get(), heif_channel_R);
  std::optional<Plane> planes[4] = {
      planeOf(decoded.get(), heif_channel_R), planeOf(decoded.get(), heif_channel_G),
      planeOf(decoded.get(), heif_channel_B), planeOf(decoded.get(), heif_channel_Alpha)};
  if (!planes[0] || !planes[1] || !planes[2] || width <= 0 || height <= 0) return std::nullopt;
  for (int c = 0; c < 4; ++c)
    if (planes[c] && (heif_image_get_width(decoded.get(), heif_channel(heif_channel_R + c)) < width ||
                      heif_image_get_height(decoded.get(), heif_channel(heif_channel_R + c)) < height))
      return std::nullopt;
  const bool alpha = planes[3].has_value();

  const int factor = std::max(1, std::max(width, height) / minLongSide);
  const int outWidth = (width + factor - 1) / factor, outHeight = (height + factor - 1) / factor;
  DecodedImage image =
      allocateImage(outWidth, outHeight, 8,
                    !alpha                                             ? AlphaInfo::none
                    : heif_image_handle_is_premultiplied_alpha(handle) ? AlphaInfo::premultiplied
                                                                       : AlphaInfo::straight);
  ReducedSums sums(size_t(outWidth), 3, image.alpha == AlphaInfo::straight);
  for (int oy = 0; oy < outHeight; ++oy) {
    Cancellation::check();
    sums.clear();
    const int y0 = oy * factor, y1 = std::min(height, y0 + factor);
    for (int y = y0; y < y1; ++y)
      for (int x = 0; x < width; ++x) {
        const unsigned colour[3] = {planes[0]->at(x, y), planes[1]->at(x, y), planes[2]->at(x, y)};
        sums.add(size_t(x / factor), colour, alpha ? planes[3]->at(x, y) : 1);
      }
    uint8_t* out = image.pixels8.data() + size_t(oy) * size_t(outWidth) * 4;
    for (int ox = 0; ox < outWidth; ++ox) {
      const uint64_t count = uint64_t(y1 - y0) * uint64_t(std::min(width, (ox + 1) * factor) - ox * factor);
      for (int c = 0; c < 3; ++c)
        out[ox * 4 + c] =
            uint8_t(std::lround(sums.colour(size_t(ox), size_t(c), count) / planes[c]->max * 255));
      out[ox * 4 + 3] =
          alpha ? uint8_t(std::lround(sums.alpha(size_t(ox), count) / planes[3]->max * 255)) : uint8_t(0xFF);
    }
  }
  applyColorSpace(handle, image);
  return image;
}

}  // namespace

std::optional<uint64_t> heifReducedDecodeBytes(Input bytes, int minLongSide) {
  MemorySource source(bytes);
  return heifReducedDecodeBytes(source, minLongSide);
}

std::optional<uint64_t> heifReducedDecodeBytes(ByteSource& source, int minLongSide) {
  // The boxes are scanned by name: the whole file where it is in memory, else its items.
  const std::optional<Input> whole = source.contiguous();
  const std::vector<uint8_t> meta = metaPayload(source);
  const Input boxes = whole ? *whole : Input(meta);
  const uint64_t cells = derivedCells(meta).heldAtOnce;
  const CodedLayout layout = codedLayout(boxes);
  uint64_t pixels = layout.largestPixels;
  double sample = layout.bytesPerSample, alpha = 1;
  // From the first bytes of a longer file libheif reads nothing (it checks that every item lies
  // within the bytes): then the largest picture the boxes name counts, with alpha.
  if (auto opened = open(source)) {
    HeifHandlePtr thumbnail = thumbnailOf(opened->primary.get(), minLongSide);
    heif_image_handle* handle = thumbnail ? thumbnail.get() : opened->primary.get();
    pixels = uint64_t(std::max(0, heif_image_handle_get_width(handle))) *
             uint64_t(std::max(0, heif_image_handle_get_height(handle)));
    sample = heif_image_handle_get_luma_bits_per_pixel(handle) > 8 ? 2 : 1;
    alpha = heif_image_handle_has_alpha_channel(handle) ? 1 : 0;
  } else if (pixels == 0) {
    return std::nullopt;
  }
  // libheif's planar RGB of the whole picture, and for a single picture the decoder's planes
  // and libheif's copy of them besides (measured: 7.1 bytes a pixel for 8-bit 4:2:0, 3.0 for
  // a grid of such cells, decoded one at a time); the reduced picture is small. The cells of
  // a grid or overlay held at once take what a single picture does.
  const double decoder = hasGridItem(boxes) ? 0.1 : 2.6;
  const double perPixel = sample * ((3 + alpha) + (layout.samplesPerPixel + alpha) * decoder);
  const double perCellPixel = sample * ((3 + alpha) + (layout.samplesPerPixel + alpha) * 2.6);
  return estimatedBytes(double(pixels) * perPixel + double(cells) * perCellPixel + double(8u << 20));
}

DecodedImage decodeHeif(Input bytes, int minLongSide) {
  MemorySource source(bytes);
  return decodeHeif(source, minLongSide);
}

DecodedImage decodeHeif(ByteSource& source, int minLongSide) {
  auto opened = open(source);
  if (!opened) fail("heif_context_read: damaged or truncated HEIF");
  checkCodedSizes(source);
  HeifHandlePtr thumbnail = thumbnailOf(opened->primary.get(), minLongSide);
  heif_image_handle* handle = thumbnail ? thumbnail.get() : opened->primary.get();
  const uint64_t declaredWidth = uint64_t(std::max(0, heif_image_handle_get_width(handle))),
                 declaredHeight = uint64_t(std::max(0, heif_image_handle_get_height(handle)));
  checkSize(declaredWidth, declaredHeight);
  if (declaredWidth * declaredHeight > maxPixels(handle)) fail(kTooLarge);
  bool alpha = heif_image_handle_has_alpha_channel(handle) != 0;
  bool wide = heif_image_handle_get_luma_bits_per_pixel(handle) > 8;
  heif_chroma chroma = wide
                           ? (alpha ? heif_chroma_interleaved_RRGGBBAA_LE : heif_chroma_interleaved_RRGGBB_LE)
                           : (alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB);
  if (minLongSide > 0)
    if (auto reduced = decodeReduced(handle, minLongSide)) return std::move(*reduced);
  HeifImagePtr decoded = decodeQuietly(handle, heif_colorspace_RGB, chroma);
  int width = heif_image_get_width(decoded.get(), heif_channel_interleaved);
  int height = heif_image_get_height(decoded.get(), heif_channel_interleaved);
  int bits = heif_image_get_bits_per_pixel_range(decoded.get(), heif_channel_interleaved);
  int stride = 0;
  const uint8_t* plane = heif_image_get_plane_readonly(decoded.get(), heif_channel_interleaved, &stride);
  if (!plane || width <= 0 || height <= 0 || (wide && (bits <= 8 || bits > 16))) fail("heif_image_get_plane");
  AlphaInfo alphaInfo = !alpha                                             ? AlphaInfo::none
                        : heif_image_handle_is_premultiplied_alpha(handle) ? AlphaInfo::premultiplied
                                                                           : AlphaInfo::straight;
  DecodedImage image = allocateImage(width, height, wide ? 16 : 8, alphaInfo);
  copyPixels(plane, stride, alpha ? 4 : 3, bits, image);
  applyColorSpace(handle, image);
  return image;
}

}  // namespace quillane::codecs
