// What the comparison window's pictures cost, one step a process, for farm-bench to time and
// to take the peak of:
//
//   comparison_preview write FILE SIDE_W SIDE_H   writes a photo-like JPEG (quality 90)
//   comparison_preview fit FILE SIZE               the bounded picture for fit (ImageDecoder::loadPreview)
//   comparison_preview full FILE SIZE              the full picture and the fit's one made from it,
//                                                  as a zoom past the fit's pixels asks
//
// bench/README.md, "Comparison pictures", has the figures.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "engine/FileIO.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/Resample.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

using namespace quillane;

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: comparison_preview write FILE W H | fit FILE SIZE | full FILE SIZE\n");
    return 2;
  }
  const std::string mode = argv[1], path = argv[2];
  if (mode == "write" && argc == 5) {
    const DecodedImage image =
        testing::makeImage(std::atoi(argv[3]), std::atoi(argv[4]), testing::Pattern::photo, 5);
    testing::writeBytes(path, fixtures::jpeg(image, {.quality = 90}));
    return 0;
  }
  const int size = std::atoi(argv[3]);
  const std::vector<uint8_t> bytes = ImageDecoder::readSource(path);
  // What the window claims for the fit's picture: the bytes and the decode's peak.
  const auto claim = [&](int maxPixelSize) {
    return (bytes.size() + ImageService::thumbnailPeakBytes(bytes, maxPixelSize).value_or(0)) >> 20;
  };
  if (mode == "fit") {
    const auto fit = ImageDecoder::loadPreview(bytes, size);
    std::printf("%d x %d, claim %zu MiB\n", fit ? fit->width : 0, fit ? fit->height : 0, size_t(claim(size)));
    return fit ? 0 : 1;
  }
  if (mode == "full") {
    const auto header = ImageService::properties(bytes);
    const int side = header ? std::max(header->width, header->height) : 0;
    auto full = ImageDecoder::loadPreview(bytes, side, UINT64_MAX);
    if (!full) return 1;
    const DecodedImage fit = Resample::fitWithin(*full, size);
    // The window claims 10 bytes a pixel for this step, and the file's bytes.
    std::printf("%d x %d, %d x %d, claim %zu MiB\n", full->width, full->height, fit.width, fit.height,
                size_t((bytes.size() + uint64_t(full->width) * uint64_t(full->height) * 10) >> 20));
    return 0;
  }
  return 2;
}
