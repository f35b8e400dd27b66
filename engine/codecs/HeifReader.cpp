// HEIC through libheif. libheif applies irot/imir (and clap) when it decodes and reports the
// turned size, so no orientation is reported here and any EXIF orientation inside the file
// is ignored: honouring it would turn the picture twice.

#include <libheif/heif.h>

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

struct Opened {
  HeifContextPtr context;
  HeifHandlePtr primary;
};

// The context reads `bytes` without copying them: they outlive it.
std::optional<Opened> open(Input bytes) {
  Opened opened{HeifContextPtr(heif_context_alloc()), nullptr};
  if (!opened.context) return std::nullopt;
  heif_context_set_maximum_image_size_limit(opened.context.get(), kMaxDimension);
  if (heif_context_read_from_memory_without_copy(opened.context.get(), bytes.data(), bytes.size(), nullptr).code !=
      heif_error_Ok)
    return std::nullopt;
  heif_image_handle* handle = nullptr;
  if (heif_context_get_primary_image_handle(opened.context.get(), &handle).code != heif_error_Ok || !handle)
    return std::nullopt;
  opened.primary.reset(handle);
  return opened;
}

ColorSpace colorSpaceOf(heif_image_handle* handle) {
  switch (heif_image_handle_get_color_profile_type(handle)) {
    case heif_color_profile_type_prof:
    case heif_color_profile_type_rICC: {
      std::vector<uint8_t> icc(heif_image_handle_get_raw_color_profile_size(handle));
      if (icc.empty() || heif_image_handle_get_raw_color_profile(handle, icc.data()).code != heif_error_Ok)
        return ColorSpace::sRGB();
      return ColorConvert::rgbSpace(std::move(icc));
    }
    case heif_color_profile_type_nclx: {
      heif_color_profile_nclx* raw = nullptr;
      const heif_error error = heif_image_handle_get_nclx_color_profile(handle, &raw);
      NclxPtr nclx(raw);  // owned even when handed back together with an error
      if (error.code != heif_error_Ok || !nclx) return ColorSpace::sRGB();
      return ColorConvert::fromCodePoints(int(nclx->color_primaries), int(nclx->transfer_characteristics));
    }
    default: return ColorSpace::sRGB();
  }
}

// Copies libheif's interleaved rows into `image`, widening samples of `bits` bits to 16.
void copyPixels(const uint8_t* plane, int stride, int channels, int bits, DecodedImage& image) {
  const size_t width = size_t(image.width);
  for (int y = 0; y < image.height; ++y) {
    const uint8_t* row = plane + size_t(y) * size_t(stride);
    if (image.bitsPerComponent == 8) {
      uint8_t* out = image.pixels8.data() + size_t(y) * width * 4;
      for (size_t x = 0; x < width; ++x)
        for (int c = 0; c < channels; ++c) out[x * 4 + size_t(c)] = row[x * size_t(channels) + size_t(c)];
    } else {
      const double scale = 65535.0 / double((1u << bits) - 1);
      uint16_t* out = image.pixels16.data() + size_t(y) * width * 4;
      for (size_t x = 0; x < width; ++x)
        for (int c = 0; c < channels; ++c) {
          uint16_t v;
          std::memcpy(&v, row + (x * size_t(channels) + size_t(c)) * 2, 2);  // little-endian host
          out[x * 4 + size_t(c)] = uint16_t(std::min(65535.0, std::round(v * scale)));
        }
    }
  }
}

}  // namespace

std::optional<Properties> heifProperties(Input bytes) {
  auto opened = open(bytes);
  if (!opened) return std::nullopt;
  Properties props;
  props.width = heif_image_handle_get_width(opened->primary.get());
  props.height = heif_image_handle_get_height(opened->primary.get());
  props.frameCount = std::max(1, heif_context_get_number_of_top_level_images(opened->context.get()));
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
    if (heif_image_handle_get_thumbnail(primary, ids[size_t(i)], &raw).code != heif_error_Ok || !raw) continue;
    HeifHandlePtr candidate(raw);
    if (!matchesPrimary(raw, primary)) continue;
    int side = std::max(heif_image_handle_get_width(raw), heif_image_handle_get_height(raw));
    if (side >= minLongSide && (!best || side < bestSide)) best = std::move(candidate), bestSide = side;
  }
  return best;
}

HeifImagePtr decodeQuietly(heif_image_handle* handle, heif_chroma chroma) {
  OptionsPtr options(heif_decoding_options_alloc());
  if (!options) fail("heif_decoding_options_alloc");
  options->convert_hdr_to_8bit = 0;
  Cancellation::check();
  QuietStderr quiet;  // dav1d's complaints about damaged AV1 data inside a HEIF
  heif_image* raw = nullptr;
  const heif_error error = heif_decode_image(handle, &raw, heif_colorspace_RGB, chroma, options.get());
  HeifImagePtr decoded(raw);
  if (error.code != heif_error_Ok || !decoded) fail("heif_decode_image");
  return decoded;
}

}  // namespace

std::optional<uint64_t> heifReducedDecodeBytes(Input bytes, int minLongSide) {
  auto opened = open(bytes);
  if (!opened) return std::nullopt;
  HeifHandlePtr thumbnail = thumbnailOf(opened->primary.get(), minLongSide);
  heif_image_handle* handle = thumbnail ? thumbnail.get() : opened->primary.get();
  const uint64_t pixels = uint64_t(std::max(0, heif_image_handle_get_width(handle))) *
                          uint64_t(std::max(0, heif_image_handle_get_height(handle)));
  const uint64_t sample = heif_image_handle_get_luma_bits_per_pixel(handle) > 8 ? 2 : 1;
  const uint64_t channels = heif_image_handle_has_alpha_channel(handle) ? 4 : 3;
  // The decoder's planes and libheif's copy of them (4:4:4 at worst), its interleaved RGB and
  // this reader's RGBA.
  return pixels * sample * (2 * channels + channels + 4) + (4u << 20);
}

DecodedImage decodeHeif(Input bytes, int minLongSide) {
  auto opened = open(bytes);
  if (!opened) fail("heif_context_read_from_memory: damaged or truncated HEIF");
  HeifHandlePtr thumbnail = thumbnailOf(opened->primary.get(), minLongSide);
  heif_image_handle* handle = thumbnail ? thumbnail.get() : opened->primary.get();
  checkSize(uint64_t(std::max(0, heif_image_handle_get_width(handle))),
            uint64_t(std::max(0, heif_image_handle_get_height(handle))));
  bool alpha = heif_image_handle_has_alpha_channel(handle) != 0;
  bool wide = heif_image_handle_get_luma_bits_per_pixel(handle) > 8;
  heif_chroma chroma = wide ? (alpha ? heif_chroma_interleaved_RRGGBBAA_LE : heif_chroma_interleaved_RRGGBB_LE)
                            : (alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB);
  HeifImagePtr decoded = decodeQuietly(handle, chroma);
  int width = heif_image_get_width(decoded.get(), heif_channel_interleaved);
  int height = heif_image_get_height(decoded.get(), heif_channel_interleaved);
  int bits = heif_image_get_bits_per_pixel_range(decoded.get(), heif_channel_interleaved);
  int stride = 0;
  const uint8_t* plane = heif_image_get_plane_readonly(decoded.get(), heif_channel_interleaved, &stride);
  if (!plane || width <= 0 || height <= 0 || (wide && (bits <= 8 || bits > 16))) fail("heif_image_get_plane");
  AlphaInfo alphaInfo = !alpha ? AlphaInfo::none
                        : heif_image_handle_is_premultiplied_alpha(handle) ? AlphaInfo::premultiplied
                                                                            : AlphaInfo::straight;
  DecodedImage image = allocateImage(width, height, wide ? 16 : 8, alphaInfo);
  copyPixels(plane, stride, alpha ? 4 : 3, bits, image);
  image.colorSpace = colorSpaceOf(handle);
  return image;
}

}  // namespace quillane::codecs
