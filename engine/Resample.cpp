#include "engine/Resample.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <vector>

namespace quillane::Resample {
namespace {

// Where the displayed pixel (x, y) comes from in a stored picture of w x h, as a pixel index
// base + x * stepX + y * stepY.
struct SourceOf {
  ptrdiff_t base, stepX, stepY;
  SourceOf(int orientation, int w, int h) {
    const ptrdiff_t W = w, last = ptrdiff_t(h - 1) * W, right = W - 1;
    switch (orientation) {
      case 2:
        base = right, stepX = -1, stepY = W;
        break;
      case 3:
        base = last + right, stepX = -1, stepY = -W;
        break;
      case 4:
        base = last, stepX = 1, stepY = -W;
        break;
      case 5:
        base = 0, stepX = W, stepY = 1;
        break;  // transpose
      case 6:
        base = last, stepX = -W, stepY = 1;
        break;  // quarter turn clockwise
      case 7:
        base = last + right, stepX = -W, stepY = -1;
        break;  // transverse
      case 8:
        base = right, stepX = W, stepY = -1;
        break;  // quarter turn anticlockwise
      default:
        base = 0, stepX = 1, stepY = W;
        break;
    }
  }
};

// Copies whole pixels (four samples) in tiles, so that the quarter turns read each source
// row from cache rather than from memory once per pixel.
template <class T>
void reorder(const std::vector<T>& in, std::vector<T>& out, int outW, int outH, SourceOf source) {
  using Pixel = std::conditional_t<sizeof(T) == 1, uint32_t, uint64_t>;
  constexpr int kTile = 32;
  out.resize(in.size());
  const T* src = in.data();
  T* dst = out.data();
  for (int ty = 0; ty < outH; ty += kTile)
    for (int tx = 0; tx < outW; tx += kTile) {
      const int yEnd = std::min(outH, ty + kTile), xEnd = std::min(outW, tx + kTile);
      for (int y = ty; y < yEnd; ++y) {
        ptrdiff_t from = source.base + ptrdiff_t(tx) * source.stepX + ptrdiff_t(y) * source.stepY;
        T* to = dst + (size_t(y) * size_t(outW) + size_t(tx)) * 4;
        for (int x = tx; x < xEnd; ++x, from += source.stepX, to += 4) {
          Pixel p;
          std::memcpy(&p, src + from * 4, sizeof p);
          std::memcpy(to, &p, sizeof p);
        }
      }
    }
}

// For each output position, the first source index and the share of each source pixel its
// area covers (the shares of one output position add up to 1).
struct Coverage {
  std::vector<int> first, count;
  std::vector<size_t> offset;
  std::vector<float> weight;
};

Coverage coverage(int source, int target) {
  Coverage c;
  double scale = double(source) / target;
  for (int o = 0; o < target; ++o) {
    double a = o * scale, b = std::min(double(source), (o + 1) * scale);
    int i0 = int(std::floor(a)), i1 = std::min(source, int(std::ceil(b)));
    c.first.push_back(i0);
    c.count.push_back(i1 - i0);
    c.offset.push_back(c.weight.size());
    for (int i = i0; i < i1; ++i)
      c.weight.push_back(float((std::min(b, double(i + 1)) - std::max(a, double(i))) / scale));
  }
  return c;
}

template <class T>
DecodedImage downscale(const DecodedImage& image, const std::vector<T>& px, int outW, int outH) {
  const float maxValue = float(T(~T(0)));
  const bool weighByAlpha = image.alpha == AlphaInfo::straight;
  Coverage cx = coverage(image.width, outW), cy = coverage(image.height, outH);
  DecodedImage out;
  out.width = outW;
  out.height = outH;
  out.bitsPerComponent = 8;
  out.alpha = image.alpha;
  out.colorSpace = image.colorSpace;
  out.pixels8.resize(size_t(outW) * size_t(outH) * 4);
  std::vector<float> acc(size_t(outW) * 4);
  for (int oy = 0; oy < outH; ++oy) {
    std::fill(acc.begin(), acc.end(), 0.0f);
    for (int k = 0; k < cy.count[size_t(oy)]; ++k) {
      const float wy = cy.weight[cy.offset[size_t(oy)] + size_t(k)];
      const T* row = px.data() + size_t(cy.first[size_t(oy)] + k) * size_t(image.width) * 4;
      for (int ox = 0; ox < outW; ++ox) {
        float r = 0, g = 0, b = 0, a = 0;
        const T* p = row + size_t(cx.first[size_t(ox)]) * 4;
        const float* w = &cx.weight[cx.offset[size_t(ox)]];
        for (int i = 0; i < cx.count[size_t(ox)]; ++i, p += 4) {
          float wa = w[i] * (weighByAlpha ? float(p[3]) / maxValue : 1.0f);
          r += wa * float(p[0]), g += wa * float(p[1]), b += wa * float(p[2]), a += w[i] * float(p[3]);
        }
        float* dst = &acc[size_t(ox) * 4];
        dst[0] += wy * r, dst[1] += wy * g, dst[2] += wy * b, dst[3] += wy * a;
      }
    }
    uint8_t* out8 = out.pixels8.data() + size_t(oy) * size_t(outW) * 4;
    for (size_t i = 0; i < acc.size(); i += 4) {
      float alphaShare = acc[i + 3] / maxValue;
      float divisor = weighByAlpha ? alphaShare : 1.0f;
      for (int c = 0; c < 3; ++c) {
        float v = divisor > 0 ? acc[i + size_t(c)] / divisor / maxValue : 0.0f;
        out8[i + size_t(c)] = uint8_t(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f));
      }
      out8[i + 3] = image.alpha == AlphaInfo::none
                        ? 255
                        : uint8_t(std::lround(std::clamp(alphaShare, 0.0f, 1.0f) * 255.0f));
    }
  }
  return out;
}

}  // namespace

DecodedImage orient(const DecodedImage& image, int orientation) {
  DecodedImage out;
  bool quarter = orientation >= 5 && orientation <= 8;
  out.width = quarter ? image.height : image.width;
  out.height = quarter ? image.width : image.height;
  out.bitsPerComponent = image.bitsPerComponent;
  out.alpha = image.alpha;
  out.colorSpace = image.colorSpace;
  SourceOf source(orientation, image.width, image.height);
  if (image.bitsPerComponent == 16)
    reorder(image.pixels16, out.pixels16, out.width, out.height, source);
  else
    reorder(image.pixels8, out.pixels8, out.width, out.height, source);
  return out;
}

DecodedImage toEightBit(DecodedImage image) {
  if (image.bitsPerComponent != 16) return image;
  image.pixels8.resize(image.pixels16.size());
  for (size_t i = 0; i < image.pixels16.size(); ++i)
    image.pixels8[i] = uint8_t((image.pixels16[i] + 128u) / 257u);
  std::vector<uint16_t>().swap(image.pixels16);
  image.bitsPerComponent = 8;
  return image;
}

DecodedImage fitWithin(const DecodedImage& image, int maxPixelSize) {
  int longSide = std::max(image.width, image.height);
  if (maxPixelSize <= 0 || longSide <= maxPixelSize) return toEightBit(image);
  double scale = double(maxPixelSize) / longSide;
  int outW = std::clamp(int(std::lround(image.width * scale)), 1, maxPixelSize);
  int outH = std::clamp(int(std::lround(image.height * scale)), 1, maxPixelSize);
  return image.bitsPerComponent == 16 ? downscale(image, image.pixels16, outW, outH)
                                      : downscale(image, image.pixels8, outW, outH);
}

}  // namespace quillane::Resample
