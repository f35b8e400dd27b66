// Reading a 12-megapixel photo: inspection as import does it (header, orientation and a
// 256-pixel thumbnail, decoded at a reduced DCT scale), and the full decode that every encode
// starts with. Plus the same for the other formats at 2 megapixels.

#include <benchmark/benchmark.h>

#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace {

using namespace quillane;

const fixtures::Bytes& photoJpeg() {
  static const fixtures::Bytes file = fixtures::jpeg(
      testing::makeImage(4000, 3000, testing::Pattern::photo, 3), {.quality = 90, .orientation = 6});
  return file;
}

const std::string& photoJpegPath() {
  static testing::TempDir dir;
  static const std::string path = [] {
    testing::writeBytes(dir.file("photo.jpg"), photoJpeg());
    return dir.file("photo.jpg");
  }();
  return path;
}

void BM_InspectJpeg12MP(benchmark::State& state) {
  const std::string& path = photoJpegPath();
  for (auto _ : state) benchmark::DoNotOptimize(ImageDecoder::inspect(path));
  state.counters["file_MB"] = double(photoJpeg().size()) / 1e6;
}
BENCHMARK(BM_InspectJpeg12MP)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

void BM_DecodeJpeg12MP(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(ImageService::decodeFirstFrame(photoJpeg()));
}
BENCHMARK(BM_DecodeJpeg12MP)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

// The whole pipeline step: full decode and the quarter turn of orientation 6.
void BM_DecodeCGImageSourceJpeg12MP(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(ImageDecoder::decodeCGImageSource(photoJpeg()));
}
BENCHMARK(BM_DecodeCGImageSourceJpeg12MP)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

enum Format { png, webp, heic, avif, jxl };

const fixtures::Bytes& file2MP(Format format) {
  static const DecodedImage picture = testing::makeImage(1732, 1155, testing::Pattern::photo, 5);
  static std::vector<fixtures::Bytes> files = [] {
    return std::vector<fixtures::Bytes>{fixtures::png(picture, {.alpha = false}), fixtures::webp(picture),
                                        fixtures::heic(picture, {.alpha = false}),
                                        fixtures::avif(picture, {.quantizer = 20, .alpha = false}),
                                        fixtures::jxl(picture, {.lossless = false})};
  }();
  return files[size_t(format)];
}

void BM_Decode2MP(benchmark::State& state) {
  const auto& file = file2MP(Format(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(ImageService::decodeFirstFrame(file));
  state.SetLabel(std::vector<const char*>{"png", "webp", "heic", "avif", "jxl"}[size_t(state.range(0))]);
}
BENCHMARK(BM_Decode2MP)->DenseRange(0, 4)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

void BM_Thumbnail2MP(benchmark::State& state) {
  const auto& file = file2MP(Format(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(ImageService::thumbnail(file, 256));
  state.SetLabel(std::vector<const char*>{"png", "webp", "heic", "avif", "jxl"}[size_t(state.range(0))]);
}
BENCHMARK(BM_Thumbnail2MP)->DenseRange(0, 4)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
