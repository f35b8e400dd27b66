// PNG files from RGBA pixels: a palette image through libimagequant, or truecolour with a
// filter chosen per row. The file layout itself is PNGWriter's.

#include <libimagequant.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "engine/CHandle.h"
#include "engine/Cancellation.h"
#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/PNGWriter.h"

namespace quillane::PNGQuantEncoder {
namespace {

using LiqAttrPtr = CHandle<liq_attr, liq_attr_destroy>;
using LiqImagePtr = CHandle<liq_image, liq_image_destroy>;
using LiqResultPtr = CHandle<liq_result, liq_result_destroy>;

ImageProcessingError pngFailed(const std::string& call) {
  return ImageProcessingError::encodingFailed("PNG", call + " failed");
}

// libimagequant's speed by plan effort: the largest images (effort 0) get the fastest setting.
int speedForEffort(int effort) {
  static constexpr int kSpeed[3] = {8, 4, 3};
  return kSpeed[std::clamp(effort, 0, 2)];
}

struct Quantized {
  Bytes indices;
  std::vector<PNGWriter::PaletteEntry> palette;
};

// libimagequant reports progress while it quantizes and remaps; 0 aborts with LIQ_ABORTED.
int continueUnlessCancelled(float, void* flag) { return Cancellation::raised(flag) ? 0 : 1; }

void failUnlessCancelled(const std::string& call) {
  Cancellation::check();
  throw pngFailed(call);
}

Quantized quantize(liq_attr* attr, const uint8_t* pixels, int width, int height, float dithering) {
  LiqImagePtr image(liq_image_create_rgba(attr, pixels, width, height, 0.0));  // 0: libimagequant's gamma
  if (!image) throw pngFailed("liq_image_create_rgba");
  liq_result* rawResult = nullptr;
  const liq_error status = liq_image_quantize(image.get(), attr, &rawResult);
  LiqResultPtr result(rawResult);
  if (status != LIQ_OK || !result) failUnlessCancelled("liq_image_quantize");
  liq_result_set_progress_callback(result.get(), continueUnlessCancelled,
                                   const_cast<Cancellation::Flag*>(Cancellation::current()));
  // Dithering belongs to the result: it must be set after quantizing and before remapping.
  liq_set_dithering_level(result.get(), dithering);

  Quantized out;
  out.indices.resize(size_t(width) * size_t(height));
  if (liq_write_remapped_image(result.get(), image.get(), out.indices.data(), out.indices.size()) != LIQ_OK)
    failUnlessCancelled("liq_write_remapped_image");
  const liq_palette* palette = liq_get_palette(result.get());
  if (!palette) throw pngFailed("liq_get_palette");
  out.palette.reserve(palette->count);
  for (unsigned i = 0; i < palette->count; ++i) {
    const liq_color& c = palette->entries[i];
    out.palette.push_back({c.r, c.g, c.b, c.a});
  }
  return out;
}

// The picture's own palette, in the order its colours first appear, when it has at most 256
// colours: it is then exact whatever the quality, where libimagequant would merge colours
// that its quality allows (a gentle ramp of 14 greys became 2 at quality 90).
std::optional<Quantized> exactPalette(const RGBABuffer& rgba) {
  const size_t count = size_t(rgba.width) * size_t(rgba.height);
  std::unordered_map<uint32_t, uint8_t> indexOf;
  Quantized out;
  out.indices.resize(count);
  uint32_t last = 0;
  uint8_t lastIndex = 0;
  for (size_t i = 0; i < count; ++i) {
    if ((i & 0xFFFF) == 0) Cancellation::check();
    uint32_t colour;
    std::memcpy(&colour, &rgba.pixels[i * 4], 4);
    if (i == 0 || colour != last) {
      const auto [it, added] = indexOf.try_emplace(colour, uint8_t(indexOf.size()));
      if (added) {
        if (indexOf.size() > 256) return std::nullopt;
        const uint8_t* p = &rgba.pixels[i * 4];
        out.palette.push_back({p[0], p[1], p[2], p[3]});
      }
      last = colour, lastIndex = it->second;
    }
    out.indices[i] = lastIndex;
  }
  return out;
}

// Whether every pixel's red, green and blue are alike, as a grey picture's are.
bool isGrey(const RGBABuffer& rgba) {
  const size_t end = size_t(rgba.width) * size_t(rgba.height) * 4;
  for (size_t i = 0; i < end; i += 4)
    if (rgba.pixels[i] != rgba.pixels[i + 1] || rgba.pixels[i] != rgba.pixels[i + 2]) return false;
  return true;
}

// The row of `pixels` at `y` with `channels` bytes a pixel: RGBA, RGB, grey and alpha, or grey.
void fillRow(const RGBABuffer& rgba, int y, int channels, uint8_t* row) {
  const uint8_t* src = rgba.pixels.data() + size_t(y) * size_t(rgba.width) * 4;
  if (channels == 4) {
    std::copy(src, src + size_t(rgba.width) * 4, row);
    return;
  }
  for (int x = 0; x < rgba.width; ++x, src += 4) {
    *row++ = src[0];
    if (channels == 3) {
      *row++ = src[1];
      *row++ = src[2];
    } else if (channels == 2) {
      *row++ = src[3];
    }
  }
}

// Truecolour, or grey (with alpha or without) for a grey picture in sRGB: a third of the bytes to
// filter. A picture of another profile stays RGB, as grey PNGs carry grey profiles only.
Bytes encodeTruecolour(const RGBABuffer& rgba, const EncodingPlan& plan) {
  const std::optional<Bytes> icc = ColorProfile::embeddableICC(rgba.colorSpace);
  const bool grey = !icc && isGrey(rgba);
  const int channels = (grey ? 1 : 3) + (rgba.hasAlpha ? 1 : 0);
  const size_t rowLength = size_t(rgba.width) * size_t(channels);
  const size_t bpp = size_t(channels);

  Bytes file(PNGWriter::pngSignature.begin(), PNGWriter::pngSignature.end());
  static constexpr uint8_t kColourType[5] = {0, 0, 4, 2, 6};  // by channels: grey, grey and alpha, RGB, RGBA
  PNGWriter::appendIHDR(file, rgba.width, rgba.height, kColourType[channels]);
  PNGWriter::appendICCProfileIfPresent(file, icc);

  Bytes current(rowLength), previous(rowLength, 0), candidate(rowLength), best(rowLength);
  Bytes raw;
  raw.reserve(size_t(rgba.height) * (rowLength + 1));
  for (int y = 0; y < rgba.height; ++y) {
    if ((y & 63) == 0) Cancellation::check();
    fillRow(rgba, y, channels, current.data());
    PNGWriter::Filter chosen = PNGWriter::Filter::paeth;
    if (plan.effort == 0) {
      // The largest images skip the five-way trial.
      PNGWriter::apply(chosen, current.data(), previous.data(), rowLength, bpp, best.data());
    } else {
      int64_t bestScore = INT64_MAX;
      for (PNGWriter::Filter filter : PNGWriter::allFilters) {
        const int64_t score =
            PNGWriter::apply(filter, current.data(), previous.data(), rowLength, bpp, candidate.data());
        if (score < bestScore) {  // strictly lower: a tie keeps the earlier filter
          bestScore = score;
          chosen = filter;
          std::swap(best, candidate);
        }
      }
    }
    raw.push_back(uint8_t(chosen));
    raw.insert(raw.end(), best.begin(), best.end());
    std::swap(previous, current);  // filters always see the unfiltered previous row
  }

  PNGWriter::appendPNGChunk(file, "IDAT",
                            PNGWriter::zlibCompress(raw, {.filteredRows = true, .quick = plan.photographic}));
  PNGWriter::appendPNGChunk(file, "IEND", {});
  return file;
}

// A picture of at most 256 colours loses nothing in its own palette either, which takes a byte
// a pixel or less where truecolour takes three or four; truecolour's row filters still win on
// smooth ramps and grey photographs. Both compete, but on the largest pictures, which take the
// palette. The indices go before truecolour starts, which then takes no more memory than alone.
Bytes paletteOrTruecolour(const RGBABuffer& rgba, const EncodingPlan& plan, Quantized exact) {
  Bytes indexed = PNGWriter::writeIndexedPNG(rgba.width, rgba.height, exact.indices, exact.palette,
                                             ColorProfile::embeddableICC(rgba.colorSpace));
  exact = {};
  if (plan.effort == 0) return indexed;
  Bytes truecolour = encodeTruecolour(rgba, plan);
  return indexed.size() <= truecolour.size() ? indexed : truecolour;
}

// Below this quality libimagequant may still merge colours, so that a byte budget can shrink a
// picture of few colours.
constexpr double kExactPaletteQuality = 50;

void checkSize(const RGBABuffer& rgba) {
  // Width and height are ints already, so they fit libimagequant's signed 32-bit sizes.
  if (rgba.width <= 0 || rgba.height <= 0 ||
      rgba.pixels.size() < size_t(rgba.width) * size_t(rgba.height) * 4)
    throw pngFailed("size check");
}

Bytes quantizedPalette(const RGBABuffer& rgba, const EncodingPlan& plan) {
  LiqAttrPtr attr(liq_attr_create());
  if (!attr) throw pngFailed("liq_attr_create");
  // A minimum of 0 means libimagequant never refuses an image for missing the target.
  const int target = int(std::clamp(std::lround(plan.quality), 0L, 100L));
  if (liq_set_quality(attr.get(), 0, target) != LIQ_OK) throw pngFailed("liq_set_quality");
  if (liq_set_speed(attr.get(), speedForEffort(plan.effort)) != LIQ_OK) throw pngFailed("liq_set_speed");
  liq_attr_set_progress_callback(attr.get(), continueUnlessCancelled,
                                 const_cast<Cancellation::Flag*>(Cancellation::current()));
  const Quantized q = quantize(attr.get(), rgba.pixels.data(), rgba.width, rgba.height, plan.dithering);
  return PNGWriter::writeIndexedPNG(rgba.width, rgba.height, q.indices, q.palette,
                                    ColorProfile::embeddableICC(rgba.colorSpace));
}

}  // namespace

Bytes encodePalette(const RGBABuffer& rgba, const EncodingPlan& plan) {
  checkSize(rgba);
  if (std::optional<Quantized> exact =
          plan.quality >= kExactPaletteQuality ? exactPalette(rgba) : std::nullopt) {
    // Exact either way: a grey photograph's filtered grey takes far fewer bytes than its palette.
    if (isGrey(rgba)) return paletteOrTruecolour(rgba, plan, std::move(*exact));
    return PNGWriter::writeIndexedPNG(rgba.width, rgba.height, exact->indices, exact->palette,
                                      ColorProfile::embeddableICC(rgba.colorSpace));
  }
  return quantizedPalette(rgba, plan);
}

Bytes encodeLossyAlternative(const RGBABuffer& rgba, const EncodingPlan& plan) {
  checkSize(rgba);
  if (plan.quality >= kExactPaletteQuality && exactPalette(rgba)) return {};
  return quantizedPalette(rgba, plan);
}

Bytes encode(const RGBABuffer& rgba, const EncodingPlan& plan) {
  if (plan.prefersLossless) return encodeLossless(rgba, plan);
  try {
    return encodePalette(rgba, plan);
  } catch (const std::exception&) {
    // The palette is an optional step, whatever failed in it (memory included): truecolour
    // needs no library that can refuse. A cancelled call ends here.
    Cancellation::check();
    return encodeLossless(rgba, plan);
  }
}

Bytes encodeLossless(const RGBABuffer& rgba, const EncodingPlan& plan) {
  if (std::optional<Quantized> exact = exactPalette(rgba))
    return paletteOrTruecolour(rgba, plan, std::move(*exact));
  return encodeTruecolour(rgba, plan);
}

}  // namespace quillane::PNGQuantEncoder
