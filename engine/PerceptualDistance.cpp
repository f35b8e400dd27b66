#include "engine/PerceptualDistance.h"

#include <jxl/butteraugli.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "engine/CHandle.h"
#include "engine/Cancellation.h"
#include "engine/Errors.h"
#include "engine/ImageDecoder.h"
#include "engine/LcmsHandles.h"

namespace quillane::PerceptualDistance {
namespace {

using ButteraugliApiPtr = CHandle<JxlButteraugliApi, JxlButteraugliApiDestroy>;
using ButteraugliResultPtr = CHandle<JxlButteraugliResult, JxlButteraugliResultDestroy>;

ImageProcessingError failure(const char* what) {
  return ImageProcessingError::decodingFailed(std::string("butteraugli: ") + what);
}

// The sums libjxl's 3-norm pools a distance map into: the means of d^3, d^6 and d^12, each
// taken back to distance units and averaged. Kept as sums so that tiles can be pooled.
struct NormSums {
  double cubes = 0, sixths = 0, twelfths = 0;
  uint64_t pixels = 0;

  void add(const float* row, size_t count) {
    for (size_t x = 0; x < count; ++x) {
      const double d3 = double(row[x]) * row[x] * row[x];
      cubes += d3;
      sixths += d3 * d3;
      twelfths += d3 * d3 * d3 * d3;
    }
    pixels += count;
  }
  double norm() const {
    if (pixels == 0) return 0;
    const double n = double(pixels);
    return (std::pow(cubes / n, 1.0 / 3) + std::pow(sixths / n, 1.0 / 6) + std::pow(twelfths / n, 1.0 / 12)) /
           3;
  }
};

// One comparison through libjxl, serially on this thread; cancellable before and after it,
// not within: libjxl 0.7 aborts the process when a work item of its colour conversion fails
// (a JXL_CHECK in its comparator), so no runner may stop it half way. `alpha`: both are
// compared with their alpha (libjxl then compares over black and over white, twice the
// work); otherwise as RGB.
ButteraugliResultPtr compute(const uint8_t* reference, const uint8_t* distorted, int width, int height,
                             size_t stride, bool alpha, std::vector<uint8_t>& scratchA,
                             std::vector<uint8_t>& scratchB) {
  Cancellation::check();
  // No parallel runner: libjxl's own serial one, which never fails an item.
  ButteraugliApiPtr api(JxlButteraugliApiCreate(nullptr));
  if (!api) throw failure("JxlButteraugliApiCreate");
  // The API takes 255 nits for white; butteraugli_main, like the metric's own default, takes
  // 80, the sRGB reference display. The numbers users compare with are butteraugli_main's.
  JxlButteraugliApiSetIntensityTarget(api.get(), 80.0f);
  // The API reads packed rows of 3 or 4 samples: the pixels are copied out as it needs them.
  const size_t channels = alpha ? 4 : 3;
  const size_t rowBytes = size_t(width) * channels;
  auto packed = [&](const uint8_t* pixels, std::vector<uint8_t>& scratch) {
    if (alpha && stride == rowBytes) return pixels;
    scratch.resize(rowBytes * size_t(height));
    uint8_t* out = scratch.data();
    for (int y = 0; y < height; ++y) {
      const uint8_t* row = pixels + size_t(y) * stride;
      if (alpha) {
        std::memcpy(out, row, rowBytes);
        out += rowBytes;
        continue;
      }
      for (int x = 0; x < width; ++x, out += 3, row += 4) {
        out[0] = row[0];
        out[1] = row[1];
        out[2] = row[2];
      }
    }
    return static_cast<const uint8_t*>(scratch.data());
  };
  const uint8_t* a = packed(reference, scratchA);
  const uint8_t* b = packed(distorted, scratchB);
  const JxlPixelFormat format{uint32_t(channels), JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  const size_t bytes = rowBytes * size_t(height);
  ButteraugliResultPtr result(JxlButteraugliCompute(api.get(), uint32_t(width), uint32_t(height), &format, a,
                                                    bytes, &format, b, bytes));
  Cancellation::check();
  if (!result) throw failure("JxlButteraugliCompute");
  return result;
}

// Adds the part of `result`'s map inside [x0, x1) x [y0, y1) (map coordinates) to `sums`.
void pool(const JxlButteraugliResult* result, int x0, int y0, int x1, int y1, NormSums& sums) {
  const float* map = nullptr;
  uint32_t stride = 0;
  JxlButteraugliResultGetDistmap(result, &map, &stride);
  if (!map) throw failure("JxlButteraugliResultGetDistmap");
  for (int y = y0; y < y1; ++y) sums.add(map + size_t(y) * stride + size_t(x0), size_t(x1 - x0));
}

// Tiles of the bounded method: kTile pixels square (smaller at the right and bottom edges),
// each computed with kContext more pixels on every side that the picture has (butteraugli's
// blurs reach that far), only its own square pooled. One tile's comparison takes about
// 85 MB, where the whole of a 12 MP picture would take 3 GB.
constexpr int kTile = 512;
constexpr int kContext = 32;

// `count` of the `total` tiles of a row or column, spread evenly, first and last included.
std::vector<int> pick(int total, int count) {
  std::vector<int> picked;
  if (count >= total) {
    for (int i = 0; i < total; ++i) picked.push_back(i);
  } else if (count <= 1) {
    picked.push_back(total / 2);
  } else {
    for (int i = 0; i < count; ++i) picked.push_back(int(int64_t(total - 1) * i / (count - 1)));
  }
  return picked;
}

double tiled(const RGBABuffer& reference, const RGBABuffer& distorted, uint64_t pixelLimit) {
  const int width = reference.width, height = reference.height;
  const int columns = (width + kTile - 1) / kTile, rows = (height + kTile - 1) / kTile;
  // Every tile up to the limit; above it, rows and columns of them in the picture's
  // proportions, about pixelLimit pixels in all.
  int pickedColumns = columns, pickedRows = rows;
  if (uint64_t(width) * uint64_t(height) > pixelLimit) {
    const double tiles = std::max(1.0, double(pixelLimit) / (double(kTile) * kTile));
    const double share = std::sqrt(tiles / (double(columns) * rows));
    pickedColumns = std::clamp(int(std::lround(columns * share)), 1, columns);
    pickedRows = std::clamp(int(std::lround(rows * share)), 1, rows);
  }
  NormSums sums;
  std::vector<uint8_t> scratchA, scratchB;
  const bool alpha = reference.hasAlpha || distorted.hasAlpha;
  const size_t stride = size_t(width) * 4;
  for (int row : pick(rows, pickedRows)) {
    for (int column : pick(columns, pickedColumns)) {
      const int tx = column * kTile, ty = row * kTile;
      const int tw = std::min(kTile, width - tx), th = std::min(kTile, height - ty);
      const int x0 = std::max(0, tx - kContext), y0 = std::max(0, ty - kContext);
      const int x1 = std::min(width, tx + tw + kContext), y1 = std::min(height, ty + th + kContext);
      const size_t offset = size_t(y0) * stride + size_t(x0) * 4;
      ButteraugliResultPtr result =
          compute(reference.pixels.data() + offset, distorted.pixels.data() + offset, x1 - x0, y1 - y0,
                  stride, alpha, scratchA, scratchB);
      pool(result.get(), tx - x0, ty - y0, tx - x0 + tw, ty - y0 + th, sums);
    }
  }
  return sums.norm();
}

// Converts 8-bit RGBA in `space` to sRGB in place; untagged and sRGB pictures stay as they are.
void toSRGB(RGBABuffer& picture) {
  if (picture.colorSpace.isSRGB || !picture.colorSpace.icc) return;
  const std::vector<uint8_t>& icc = *picture.colorSpace.icc;
  CmsProfilePtr source(cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size())));
  CmsProfilePtr srgb(cmsCreate_sRGBProfile());
  if (!source || !srgb || cmsGetColorSpace(source.get()) != cmsSigRgbData) return;
  CmsTransformPtr transform(cmsCreateTransform(source.get(), TYPE_RGBA_8, srgb.get(), TYPE_RGBA_8,
                                               INTENT_RELATIVE_COLORIMETRIC,
                                               cmsFLAGS_COPY_ALPHA | cmsFLAGS_NOCACHE));
  if (!transform) return;
  const size_t rowBytes = size_t(picture.width) * 4;
  for (int y = 0; y < picture.height; ++y) {
    uint8_t* row = picture.pixels.data() + size_t(y) * rowBytes;
    cmsDoTransform(transform.get(), row, row, cmsUInt32Number(picture.width));
  }
  picture.colorSpace = ColorSpace::sRGB();
}

// Straight alpha over white, as the JPEG and HEIC writers flatten a transparent source.
void flattenOnWhite(RGBABuffer& picture) {
  for (size_t i = 0; i + 3 < picture.pixels.size(); i += 4) {
    const unsigned alpha = picture.pixels[i + 3];
    for (size_t c = 0; c < 3; ++c)
      picture.pixels[i + c] = uint8_t((picture.pixels[i + c] * alpha + 255 * (255 - alpha) + 127) / 255);
    picture.pixels[i + 3] = 255;
  }
  picture.hasAlpha = false;
}

}  // namespace

RGBABuffer comparable(std::span<const uint8_t> file) {
  RGBABuffer picture(ImageDecoder::decodeCGImageSource(file).image);
  toSRGB(picture);
  return picture;
}

double bounded(const RGBABuffer& reference, const RGBABuffer& distorted, uint64_t pixelLimit) {
  if (reference.width != distorted.width || reference.height != distorted.height ||
      uint64_t(reference.width) * uint64_t(reference.height) <= kWholePixelLimit)
    return butteraugli(reference, distorted);
  return tiled(reference, distorted, pixelLimit);
}

double butteraugli(const RGBABuffer& reference, const RGBABuffer& distorted) {
  if (reference.width != distorted.width || reference.height != distorted.height || reference.width <= 0 ||
      reference.height <= 0)
    throw failure("the pictures differ in size");
  std::vector<uint8_t> scratchA, scratchB;
  ButteraugliResultPtr result =
      compute(reference.pixels.data(), distorted.pixels.data(), reference.width, reference.height,
              size_t(reference.width) * 4, reference.hasAlpha || distorted.hasAlpha, scratchA, scratchB);
  return JxlButteraugliResultGetDistance(result.get(), 3.0f);
}

double between(std::span<const uint8_t> sourceFile, std::span<const uint8_t> resultFile) {
  RGBABuffer source = comparable(sourceFile);
  Cancellation::check();
  RGBABuffer result = comparable(resultFile);
  Cancellation::check();
  if (source.hasAlpha && !result.hasAlpha) flattenOnWhite(source);
  return bounded(source, result);
}

uint64_t peakBytes(int width, int height) {
  // Two 8-bit pictures, and libjxl's float planes of the area compared at once: the whole
  // picture up to kWholePixelLimit, else one tile with its margins (measured: about 260
  // bytes a pixel at the peak, bench/README.md).
  const uint64_t pixels = uint64_t(std::max(width, 0)) * uint64_t(std::max(height, 0));
  const uint64_t tile = uint64_t(kTile + 2 * kContext) * uint64_t(kTile + 2 * kContext);
  const uint64_t compared = pixels <= kWholePixelLimit ? pixels : tile;
  // A header may name up to 2^62 pixels: the most there is where the figure passes 64 bits.
  return pixels > (UINT64_MAX - compared * 260) / 8 ? UINT64_MAX : pixels * 8 + compared * 260;
}

}  // namespace quillane::PerceptualDistance
