#pragma once
// Test pictures made in code from a seed, so that no binary fixtures are needed.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/DecodedImage.h"
#include "engine/RGBABuffer.h"

namespace quillane {
// A picture's samples compare with plain bytes (and words) element by element, so that tests can
// state the samples they expect as a vector.
template <class T>
bool operator==(const SampleVector<T>& samples, const std::vector<T>& expected) {
  return std::equal(samples.begin(), samples.end(), expected.begin(), expected.end());
}
}  // namespace quillane

namespace quillane::testing {

enum class Pattern {
  photo,       // smooth gradients with mild noise: many colours, few flat samples
  noisyPhoto,  // strong per-pixel noise
  screenshot,  // flat background, hard-edged text-like blocks
  flatLogo,    // a few flat colours, transparent surround
};

// An 8-bit RGBA picture; `withAlpha` keeps the pattern's transparency (flatLogo has some).
DecodedImage makeImage(int width, int height, Pattern pattern, uint32_t seed = 1, bool withAlpha = false);
// The same picture as a straight RGBA buffer.
RGBABuffer makeBuffer(int width, int height, Pattern pattern, uint32_t seed = 1, bool withAlpha = false);

// A photograph stand-in with texture at several scales, hard-edged objects and mild sensor
// noise, opaque: the photo pattern is so smooth that every codec finds it trivial, which hides
// the real cost of the HEVC, AV1 and JPEG XL encoders.
DecodedImage texturedPhoto(int width, int height, uint32_t seed = 7);

// A fresh empty folder under the system's temporary folder, removed with the object.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Writes `bytes` to the file `name` here; gives its path.
  std::string write(const std::string& name, const std::vector<uint8_t>& bytes) const;

 private:
  std::string path_;
};

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> readBytes(const std::string& path);

// Removes files by their bytes when the test ends, however it ends: a temporary folder's own
// removal cannot remove a name that is no UTF-8, and would leave the whole folder behind.
struct UnlinkAtExit {
  std::vector<std::string> paths;
  ~UnlinkAtExit();
};

}  // namespace quillane::testing
