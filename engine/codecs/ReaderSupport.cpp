// Helpers shared by the readers.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "engine/Errors.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {

void fail(const char* what) { throw ImageProcessingError::decodingFailed(what); }

void checkSize(uint64_t width, uint64_t height) {
  if (width == 0 || height == 0) fail("empty picture");
  if (width > uint64_t(kMaxDimension) || height > uint64_t(kMaxDimension) || width * height > kMaxPixels)
    fail(kTooLarge);
}

void checkFitsInMemory(uint64_t pixels, uint64_t bytesPerPixel) {
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
  uint64_t available = pages > 0 && pageSize > 0 ? uint64_t(pages) * uint64_t(pageSize) : UINT64_MAX;
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
    available = std::min<uint64_t>(available, limit.rlim_cur);
  if (pixels > available / std::max<uint64_t>(bytesPerPixel, 1)) fail(kTooLarge);
}

DecodedImage allocateImage(int width, int height, int bitsPerComponent, AlphaInfo alpha) {
  checkSize(uint64_t(width), uint64_t(height));
  DecodedImage image;
  image.width = width;
  image.height = height;
  image.bitsPerComponent = bitsPerComponent;
  image.alpha = alpha;
  // Every sample starts at its maximum, so readers that write no alpha leave it opaque.
  if (bitsPerComponent == 16)
    image.pixels16.assign(image.pixelCount() * 4, 0xFFFF);
  else
    image.pixels8.assign(image.pixelCount() * 4, 0xFF);
  return image;
}

int orientationFromRotationMirror(int quarterTurnsAnticlockwise, int mirrorMode) {
  // Rows: quarter turns anticlockwise 0...3; columns: no mirror, mode 0 (top and bottom
  // exchanged after turning), mode 1 (left and right exchanged after turning).
  static constexpr int kTable[4][3] = {{1, 4, 2}, {8, 5, 7}, {3, 2, 4}, {6, 7, 5}};
  int turns = ((quarterTurnsAnticlockwise % 4) + 4) % 4;
  int column = mirrorMode == 0 ? 1 : mirrorMode == 1 ? 2 : 0;
  return kTable[turns][column];
}

}  // namespace quillane::codecs
