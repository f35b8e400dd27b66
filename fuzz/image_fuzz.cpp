// Fuzz target for reading images of one format (QUILLANE_FUZZ_FORMAT, a raw value such as
// png): inspection (type, header properties, thumbnail) and the full decode. Whatever the
// bytes, reading ends in a picture or ImageProcessingError::decodingFailed; pictures are
// consistent with their own size, no larger than the file declares, and the thumbnail within
// its bound.
//
// Built with libFuzzer when the compiler has it; otherwise (QUILLANE_FUZZ_DRIVER) a plain
// driver replays the seed files given on its command line, and a bounded number of mutations
// of them, through the same entry.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

#include "engine/ByteSource.h"
#include "engine/Errors.h"
#include "engine/ImageFormat.h"
#include "engine/ImageService.h"

#ifndef QUILLANE_FUZZ_FORMAT
#error "QUILLANE_FUZZ_FORMAT names the format to read"
#endif
#define QUILLANE_STRINGIFY2(x) #x
#define QUILLANE_STRINGIFY(x) QUILLANE_STRINGIFY2(x)

namespace {

using quillane::DecodedImage;
using quillane::ImageProcessingError;
namespace ImageService = quillane::ImageService;

const quillane::ImageFormat kFormat =
    *quillane::ImageFormats::fromRawValue(QUILLANE_STRINGIFY(QUILLANE_FUZZ_FORMAT));

// Pictures above this, themselves or the cells they are made of, are refused here rather than
// decoded: the size limits are the bomb tests' subject, and a fuzzer that allocates gigabytes
// finds nothing faster.
constexpr uint64_t kMaxFuzzPixels = 16u << 20;

bool fuzzable(const ImageService::Properties& props) {
  return uint64_t(props.width) * uint64_t(props.height) <= kMaxFuzzPixels &&
         props.cellPixels <= kMaxFuzzPixels;
}

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "image_fuzz: %s\n", what);
  std::abort();
}

// What a decoder allocates follows the size the file declares, whichever way round; a HEIF
// picture may be coded in whole blocks (up to 64 pixels) that its declared size crops.
bool withinDeclared(const DecodedImage& image, const ImageService::Properties& declared) {
  const bool blocks = kFormat == quillane::ImageFormat::heic || kFormat == quillane::ImageFormat::avif;
  auto up = [blocks](int side) { return blocks ? (int64_t(side) + 63) / 64 * 64 : int64_t(side); };
  auto within = [&](int width, int height) { return image.width <= up(width) && image.height <= up(height); };
  return within(declared.width, declared.height) || within(declared.height, declared.width);
}

void checkPicture(const DecodedImage& image) {
  if (image.empty()) fail("empty picture");
  const size_t samples = image.pixelCount() * 4;
  if (image.bitsPerComponent == 8 ? image.pixels8.size() != samples : image.pixels16.size() != samples)
    fail("pixel storage does not match the size");
}

// The bytes as a file gives them: in pieces, as the reader asks, never whole at once, as
// inspection reads a file.
class PiecewiseSource final : public quillane::ByteSource {
 public:
  explicit PiecewiseSource(std::span<const uint8_t> bytes) : memory_(bytes) {}
  size_t read(uint8_t* out, size_t size) noexcept override { return memory_.read(out, size); }
  bool skip(uint64_t count) noexcept override { return memory_.skip(count); }
  bool seek(uint64_t position) noexcept override { return memory_.seek(position); }
  uint64_t position() const noexcept override { return memory_.position(); }
  uint64_t size() const noexcept override { return memory_.size(); }

 private:
  quillane::MemorySource memory_;
};

void checkThumbnail(const std::optional<DecodedImage>& thumb, int bound) {
  if (!thumb) return;
  checkPicture(*thumb);
  if (thumb->bitsPerComponent != 8 || std::max(thumb->width, thumb->height) > bound)
    fail("thumbnail out of bounds");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  if (quillane::ImageFormats::detect(bytes) != kFormat) return 0;
  auto props = ImageService::properties(bytes);
  if (props && (props->width <= 0 || props->height <= 0)) fail("properties with an empty size");
  if (props && !fuzzable(*props)) return 0;

  for (int bound : {1, 64}) checkThumbnail(ImageService::thumbnail(bytes, bound), bound);
  // And read as inspection reads a file.
  PiecewiseSource piecewise(bytes);
  const auto read = ImageService::properties(kFormat, piecewise);
  if (read && (read->width <= 0 || read->height <= 0)) fail("properties with an empty size");
  if (!read || fuzzable(*read)) {
    ImageService::thumbnailPeakBytes(kFormat, piecewise, 64);
    checkThumbnail(ImageService::thumbnail(kFormat, piecewise, 64), 64);
  }
  try {
    const DecodedImage picture = ImageService::decodeFirstFrame(bytes);
    checkPicture(picture);
    if (props && !withinDeclared(picture, *props)) fail("picture larger than its file declares");
  } catch (const ImageProcessingError& e) {
    if (e.kind() != ImageProcessingError::Kind::decodingFailed) fail("not decodingFailed");
  }
  return 0;
}

#ifdef QUILLANE_FUZZ_DRIVER
// Without libFuzzer: every seed file as it is, then mutations of them from a fixed-seed
// generator (flipped bytes, cuts, repeated and dropped runs).
#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

int main(int argc, char** argv) {
  long runs = 2000;
  std::vector<std::vector<uint8_t>> seeds;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]).rfind("-runs=", 0) == 0) {
      runs = std::strtol(argv[i] + 6, nullptr, 10);
      continue;
    }
    std::ifstream in(argv[i], std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  if (seeds.empty()) fail("no seed files given");
  for (const auto& seed : seeds) LLVMFuzzerTestOneInput(seed.data(), seed.size());
  std::mt19937_64 random(20240601);
  std::vector<uint8_t> input;
  for (long run = 0; run < runs; ++run) {
    input = seeds[random() % seeds.size()];
    const int mutations = 1 + int(random() % 4);
    for (int m = 0; m < mutations && input.size() > 16; ++m) {
      // The first 16 bytes keep the signature, so that the input reaches the reader.
      const size_t at = 16 + random() % (input.size() - 16);
      switch (random() % 5) {
        case 0:
          input[at] ^= uint8_t(1 + random() % 255);
          break;
        case 1:
          input[at] = uint8_t(random() % 2 ? 0xFF : 0x00);
          break;
        case 2:
          input.resize(at);
          break;
        case 3:
          input.erase(input.begin() + std::ptrdiff_t(at),
                      input.begin() + std::ptrdiff_t(std::min(input.size(), at + 1 + random() % 32)));
          break;
        default: {
          const size_t length = std::min<size_t>(input.size() - at, 1 + random() % 32);
          std::vector<uint8_t> repeat(input.begin() + std::ptrdiff_t(at),
                                      input.begin() + std::ptrdiff_t(at + length));
          input.insert(input.begin() + std::ptrdiff_t(at), repeat.begin(), repeat.end());
        }
      }
    }
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::printf(
      "image_fuzz " QUILLANE_STRINGIFY(QUILLANE_FUZZ_FORMAT) ": %zu seeds, %ld mutations, no failure\n",
      seeds.size(), runs);
  return 0;
}
#endif
