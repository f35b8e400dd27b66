#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "engine/EncodingStrategy.h"

namespace quillane {

namespace {

using ContentClass = ImageCharacteristics::ContentClass;

constexpr int kColorSaturation = 16'384;
constexpr uint32_t kTableSlots = 65'536;
constexpr uint32_t kEmptySlot = 0xFFFFFFFFu;

// The set of sampled colours: open addressing over a fixed table, Fibonacci hashing, linear
// probing. It never fills: counting stops at a quarter of its slots.
class ColorSet {
 public:
  ColorSet() : slots_(new uint32_t[kTableSlots]) { std::fill_n(slots_.get(), kTableSlots, kEmptySlot); }

  // True when `key` was not in the set yet (it is now).
  bool insert(uint32_t key) {
    uint32_t slot = (key * 0x9E3779B1u) >> 16;
    while (true) {
      const uint32_t held = slots_[slot];
      if (held == key) return false;
      if (held == kEmptySlot) {
        slots_[slot] = key;
        return true;
      }
      slot = (slot + 1) & (kTableSlots - 1);
    }
  }

 private:
  std::unique_ptr<uint32_t[]> slots_;
};

// Luma of raw 8-bit values, no gamma: each weighted term is the same product the plain
// formula computes, added in the same order, so the tables change no result.
struct LumaTables {
  std::array<double, 256> r, g, b;
  LumaTables() {
    for (int v = 0; v < 256; ++v) {
      r[size_t(v)] = 0.299 * v;
      g[size_t(v)] = 0.587 * v;
      b[size_t(v)] = 0.114 * v;
    }
  }
  double operator()(const uint8_t* p) const { return r[p[0]] + g[p[1]] + b[p[2]]; }
};

const LumaTables& lumaTables() {
  static const LumaTables tables;
  return tables;
}

}  // namespace

namespace ImageAnalyzer {

ContentClass classify(const ImageCharacteristics& c) {
  if (!c.colorCountSaturated && c.distinctColorCount <= 4096 && c.flatFraction > 0.45) {
    return ContentClass::flatGraphic;
  }
  if (c.flatFraction > 0.35 && c.edgeFraction > 0.01) return ContentClass::screenText;
  if (c.noiseLevel < 3.0 && !c.colorCountSaturated && c.flatFraction > 0.08)
    return ContentClass::illustration;
  if (c.noiseLevel > 8.0) return ContentClass::noisyPhoto;
  return ContentClass::photo;
}

int samplingStep(uint64_t pixelCount) {
  return std::max(1, int(std::ceil(std::sqrt(double(pixelCount) / 1'200'000.0))));
}

ImageCharacteristics analyze(const RGBABuffer& rgba) {
  ImageCharacteristics c;
  c.width = rgba.width;
  c.height = rgba.height;
  c.hasAlpha = rgba.hasAlpha;
  if (rgba.width < 3 || rgba.height < 3) {
    c.contentClass = ContentClass::flatGraphic;
    c.distinctColorCount = 1;
    c.flatFraction = 1.0;
    return c;
  }

  const int step = samplingStep(uint64_t(rgba.width) * uint64_t(rgba.height));
  const size_t stride = size_t(rgba.width) * 4;
  const LumaTables& luma = lumaTables();
  ColorSet colors;
  int distinct = 0;
  bool saturated = false;
  bool partialAlpha = false;
  uint64_t samples = 0, flat = 0, edges = 0, gradient = 0, nonEdge = 0;
  double laplacianSum = 0;

  for (int y = 1; y < rgba.height - 1; y += step) {
    const uint8_t* row = rgba.pixels.data() + size_t(y) * stride;
    for (int x = 1; x < rgba.width - 1; x += step) {
      const uint8_t* p = row + size_t(x) * 4;
      ++samples;
      if (p[3] != 0 && p[3] != 255) partialAlpha = true;
      if (!saturated && colors.insert(uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2])) {
        if (++distinct == kColorSaturation) saturated = true;
      }
      const double l = luma(p);
      const double right = luma(p + 4);
      const double below = luma(p + stride);
      const double g = std::max(std::fabs(l - right), std::fabs(l - below));
      if (g == 0) ++flat;
      if (g >= 24.0) {
        ++edges;
        continue;
      }
      if (g >= 0.5 && g <= 4.0) ++gradient;
      ++nonEdge;
      const double left = luma(p - 4);
      const double above = luma(p - stride);
      laplacianSum += std::fabs(4 * l - left - right - above - below);
    }
  }

  c.distinctColorCount = distinct;
  c.colorCountSaturated = saturated;
  c.hasPartialAlpha = partialAlpha;
  c.flatFraction = double(flat) / double(samples);
  c.edgeFraction = double(edges) / double(samples);
  c.gradientFraction = double(gradient) / double(samples);
  c.noiseLevel = nonEdge > 0 ? laplacianSum / double(nonEdge) : 0.0;
  c.contentClass = classify(c);
  return c;
}

}  // namespace ImageAnalyzer
}  // namespace quillane
