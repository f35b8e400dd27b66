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
void reorder(const SampleVector<T>& in, SampleVector<T>& out, int outW, int outH, SourceOf source) {
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
DecodedImage downscale(const DecodedImage& image, const SampleVector<T>& px, int outW, int outH) {
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
  SampleVector<uint16_t>().swap(image.pixels16);
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

namespace quillane::Resample {
namespace {

double lanczos3(double x) {
  x = std::abs(x);
  if (x < 1e-9) return 1.0;
  if (x >= 3.0) return 0.0;
  const double px = M_PI * x;
  return 3.0 * std::sin(px) * std::sin(px / 3.0) / (px * px);
}

// For each output position, the source pixels its filter reaches and their weights (adding
// up to 1). The kernel is stretched by the reduction, so that it averages what it drops.
Coverage lanczosTaps(int source, int target) {
  Coverage c;
  const double scale = double(source) / target;
  const double support = 3.0 * std::max(scale, 1.0);
  for (int o = 0; o < target; ++o) {
    const double centre = (o + 0.5) * scale;
    const int i0 = std::max(0, int(std::floor(centre - support)));
    const int i1 = std::min(source, int(std::ceil(centre + support)));
    c.first.push_back(i0);
    c.count.push_back(i1 - i0);
    c.offset.push_back(c.weight.size());
    double sum = 0;
    for (int i = i0; i < i1; ++i) sum += lanczos3((i + 0.5 - centre) / std::max(scale, 1.0));
    for (int i = i0; i < i1; ++i)
      c.weight.push_back(float(lanczos3((i + 0.5 - centre) / std::max(scale, 1.0)) / sum));
  }
  return c;
}

double toLinear(double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }
double fromLinear(double v) { return v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055; }

// Linear light to 16-bit sRGB samples, indexed by the linear value times 65535.
const std::vector<uint16_t>& encodeTable() {
  static const std::vector<uint16_t> table = [] {
    std::vector<uint16_t> t(65536);
    for (size_t i = 0; i < t.size(); ++i)
      t[i] = uint16_t(std::lround(fromLinear(double(i) / 65535.0) * 65535.0));
    return t;
  }();
  return table;
}

template <class T>
const std::vector<float>& decodeTable() {
  static const std::vector<float> table = [] {
    const double maxValue = double(T(~T(0)));
    std::vector<float> t(size_t(maxValue) + 1);
    for (size_t i = 0; i < t.size(); ++i) t[i] = float(toLinear(double(i) / maxValue));
    return t;
  }();
  return table;
}

template <class T>
void linearResize(const DecodedImage& image, const SampleVector<T>& px, SampleVector<T>& outPx, int outW,
                  int outH) {
  const float maxValue = float(T(~T(0)));
  const std::vector<float>& linear = decodeTable<T>();
  const std::vector<uint16_t>& encode = encodeTable();
  const Coverage cx = lanczosTaps(image.width, outW), cy = lanczosTaps(image.height, outH);
  const size_t inW = size_t(image.width);

  // Source rows filtered across, premultiplied in linear light, kept in a ring as long as an
  // output row still reaches them: each source row is filtered once.
  int ringSize = 1;
  for (int n : cy.count) ringSize = std::max(ringSize, n);
  std::vector<float> ring(size_t(ringSize) * size_t(outW) * 4);
  std::vector<int> held(size_t(ringSize), -1);
  std::vector<float> line(inW * 4);
  auto filteredRow = [&](int y) -> const float* {
    float* dst = &ring[size_t(y % ringSize) * size_t(outW) * 4];
    if (held[size_t(y % ringSize)] == y) return dst;
    const T* src = px.data() + size_t(y) * inW * 4;
    for (size_t x = 0; x < inW; ++x) {
      const T* p = src + x * 4;
      const float a = image.alpha == AlphaInfo::none ? 1.0f : float(p[3]) / maxValue;
      float* l = &line[x * 4];
      for (int c = 0; c < 3; ++c) {
        T v = p[c];
        if (image.alpha == AlphaInfo::premultiplied)
          v = a > 0 ? T(std::min(maxValue, std::round(float(v) / a))) : T(0);
        l[c] = linear[v] * a;
      }
      l[3] = a;
    }
    for (int ox = 0; ox < outW; ++ox) {
      float acc[4] = {0, 0, 0, 0};
      const float* l = &line[size_t(cx.first[size_t(ox)]) * 4];
      const float* w = &cx.weight[cx.offset[size_t(ox)]];
      for (int i = 0; i < cx.count[size_t(ox)]; ++i, l += 4)
        for (int c = 0; c < 4; ++c) acc[c] += w[i] * l[c];
      std::memcpy(dst + size_t(ox) * 4, acc, sizeof acc);
    }
    held[size_t(y % ringSize)] = y;
    return dst;
  };

  outPx.resize(size_t(outW) * size_t(outH) * 4);
  std::vector<float> acc(size_t(outW) * 4);
  const float outMax = float(T(~T(0)));
  for (int oy = 0; oy < outH; ++oy) {
    std::fill(acc.begin(), acc.end(), 0.0f);
    for (int k = 0; k < cy.count[size_t(oy)]; ++k) {
      const float wy = cy.weight[cy.offset[size_t(oy)] + size_t(k)];
      const float* row = filteredRow(cy.first[size_t(oy)] + k);
      for (size_t i = 0; i < acc.size(); ++i) acc[i] += wy * row[i];
    }
    T* out = outPx.data() + size_t(oy) * size_t(outW) * 4;
    for (size_t i = 0; i < acc.size(); i += 4) {
      const float a = std::clamp(acc[i + 3], 0.0f, 1.0f);
      for (int c = 0; c < 3; ++c) {
        const float v = a > 0 ? std::clamp(acc[i + size_t(c)] / a, 0.0f, 1.0f) : 0.0f;
        float encoded = float(encode[size_t(std::lround(v * 65535.0f))]) / 65535.0f;
        if (image.alpha == AlphaInfo::premultiplied) encoded *= a;
        out[i + size_t(c)] = T(std::lround(encoded * outMax));
      }
      out[i + 3] = image.alpha == AlphaInfo::none ? T(~T(0)) : T(std::lround(a * outMax));
    }
  }
}

}  // namespace

Size fittedSize(int width, int height, int maxWidth, int maxHeight) {
  double scale = 1.0;
  if (maxWidth > 0 && width > maxWidth) scale = std::min(scale, double(maxWidth) / width);
  if (maxHeight > 0 && height > maxHeight) scale = std::min(scale, double(maxHeight) / height);
  if (scale >= 1.0) return {width, height};
  Size size{std::max(1, int(std::lround(width * scale))), std::max(1, int(std::lround(height * scale)))};
  if (maxWidth > 0) size.width = std::min(size.width, maxWidth);
  if (maxHeight > 0) size.height = std::min(size.height, maxHeight);
  return size;
}

DecodedImage fitBox(DecodedImage image, int maxWidth, int maxHeight) {
  const Size size = fittedSize(image.width, image.height, maxWidth, maxHeight);
  if (image.empty() || (size.width == image.width && size.height == image.height)) return image;
  DecodedImage out;
  out.width = size.width;
  out.height = size.height;
  out.bitsPerComponent = image.bitsPerComponent;
  out.alpha = image.alpha;
  out.colorSpace = image.colorSpace;
  if (image.bitsPerComponent == 16)
    linearResize(image, image.pixels16, out.pixels16, size.width, size.height);
  else
    linearResize(image, image.pixels8, out.pixels8, size.width, size.height);
  return out;
}

}  // namespace quillane::Resample
