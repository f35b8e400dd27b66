// How much colour detail 4:2:0 subsampling would remove, measured on a sample of 2x2 blocks.

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "engine/codecs/Writers.h"

namespace quillane::codecs {
namespace {

// About 200,000 blocks (800,000 pixels) at most a grid, whatever the picture's size: about 4 ms
// of one core for both grids of 12 megapixels.
constexpr double kMaxSampledBlocks = 200'000;

// Where 4:4:4 starts: a thousandth of the blocks with a sharp colour edge. Measured on
// screenshots, diagrams, illustrations and photographs (bench/README.md, "Chroma layout"):
// every picture above it came out smaller or level at equal butteraugli with full chroma (and
// sharper at equal bytes); every photograph but one lies below a third of it, and there 4:2:0
// wins.
constexpr double kFullChromaEdgeShare = 0.001;

// The share of the 2 x 2 blocks whose top left pixel lies at `phase` (0 or 1) in both directions.
double edgeShareAt(const DecodedImage& image, bool keepAlpha, int step, int phase) {
  const int blocksX = (image.width - phase) / 2, blocksY = (image.height - phase) / 2;
  if (blocksX <= 0 || blocksY <= 0) return 0;
  const int stride = std::max(1, int(std::ceil(std::sqrt(double(blocksX) * blocksY / kMaxSampledBlocks))));
  const size_t rowBytes = size_t(image.width) * 4;
  const int limit = step * 256;

  long long counted = 0, edges = 0;
  for (int by = 0; by < blocksY; by += stride) {
    const uint8_t* top =
        image.pixels8.data() + (size_t(by) * 2 + size_t(phase)) * rowBytes + size_t(phase) * 4;
    for (int bx = 0; bx < blocksX; bx += stride) {
      const uint8_t* q[4] = {top + size_t(bx) * 8, top + size_t(bx) * 8 + 4, top + rowBytes + size_t(bx) * 8,
                             top + rowBytes + size_t(bx) * 8 + 4};
      // BT.601 chroma scaled by 256; colour under transparency weighs by its alpha.
      int cb[4], cr[4], alphaSum = 0;
      for (int i = 0; i < 4; ++i) {
        const int r = q[i][0], g = q[i][1], b = q[i][2];
        cb[i] = -43 * r - 85 * g + 128 * b;
        cr[i] = 128 * r - 107 * g - 21 * b;
        if (keepAlpha) {
          const int a = q[i][3];
          alphaSum += a;
          cb[i] = cb[i] * a / 255, cr[i] = cr[i] * a / 255;
        }
      }
      if (keepAlpha && alphaSum == 0) continue;
      const int meanB = (cb[0] + cb[1] + cb[2] + cb[3]) / 4, meanR = (cr[0] + cr[1] + cr[2] + cr[3]) / 4;
      int worst = 0;
      for (int i = 0; i < 4; ++i) worst = std::max({worst, std::abs(cb[i] - meanB), std::abs(cr[i] - meanR)});
      ++counted;
      edges += worst > limit;
    }
  }
  return counted == 0 ? 0 : double(edges) / double(counted);
}

}  // namespace

double chromaEdgeShare(const DecodedImage& image, bool keepAlpha, int step) {
  if (image.empty() || image.bitsPerComponent != 8 || image.pixels8.size() != image.pixelCount() * 4)
    return 0;
  // Both alignments of the blocks: an edge between two blocks escapes the one grid, and 4:2:0
  // blurs it all the same (decoders interpolate chroma across blocks). Where every edge falls
  // between blocks, as in a picture scaled up by two with its pixels doubled, one grid sees none.
  return std::max(edgeShareAt(image, keepAlpha, step, 0), edgeShareAt(image, keepAlpha, step, 1));
}

bool usesFullChroma(ChromaLayout layout, const DecodedImage& image, bool keepAlpha) {
  if (layout != ChromaLayout::automatic) return layout == ChromaLayout::full;
  return chromaEdgeShare(image, keepAlpha) >= kFullChromaEdgeShare;
}

}  // namespace quillane::codecs
