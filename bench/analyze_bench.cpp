// The two steps every encode starts with, on a 12-megapixel picture: making the straight
// 8-bit buffer from a decoded frame, and measuring it with the analyzer.

#include <benchmark/benchmark.h>

#include "engine/EncodingStrategy.h"
#include "engine/RGBABuffer.h"
#include "tests/support/TestImages.h"

namespace {

using namespace quillane;
using testing::Pattern;

constexpr int kWidth = 4000, kHeight = 3000;

const DecodedImage& photo8(bool alpha) {
  static const DecodedImage opaque = testing::makeImage(kWidth, kHeight, Pattern::photo, 1, false);
  static const DecodedImage straight = testing::makeImage(kWidth, kHeight, Pattern::photo, 1, true);
  return alpha ? straight : opaque;
}

// The opaque photo widened to 16 bits, with low bytes that vary so that dithering has work.
const DecodedImage& photo16() {
  static const DecodedImage image = [] {
    const DecodedImage& source = photo8(false);
    DecodedImage wide = source;
    wide.pixels8.clear();
    wide.bitsPerComponent = 16;
    wide.pixels16.resize(source.pixels8.size());
    for (size_t i = 0; i < source.pixels8.size(); ++i) {
      wide.pixels16[i] = uint16_t(size_t(source.pixels8[i]) * 257 + (i * 7919) % 251);
    }
    return wide;
  }();
  return image;
}

void setRate(benchmark::State& state) {
  state.counters["MP/s"] = benchmark::Counter(double(kWidth) * kHeight / 1e6 * double(state.iterations()),
                                              benchmark::Counter::kIsRate);
}

void BM_RGBABuffer_Opaque8(benchmark::State& state) {
  const DecodedImage& image = photo8(false);
  for (auto _ : state) benchmark::DoNotOptimize(RGBABuffer(image));
  setRate(state);
}

void BM_RGBABuffer_Straight8(benchmark::State& state) {
  const DecodedImage& image = photo8(true);
  for (auto _ : state) benchmark::DoNotOptimize(RGBABuffer(image));
  setRate(state);
}

void BM_RGBABuffer_Dithered16(benchmark::State& state) {
  const DecodedImage& image = photo16();
  for (auto _ : state) benchmark::DoNotOptimize(RGBABuffer(image));
  setRate(state);
}

void analyze(benchmark::State& state, Pattern pattern) {
  const RGBABuffer buffer = testing::makeBuffer(kWidth, kHeight, pattern);
  for (auto _ : state) benchmark::DoNotOptimize(ImageAnalyzer::analyze(buffer));
  setRate(state);
  const ImageCharacteristics c = ImageAnalyzer::analyze(buffer);
  state.SetLabel(std::string(ImageCharacteristics::name(c.contentClass)));
}

void BM_Analyze_Photo(benchmark::State& state) { analyze(state, Pattern::photo); }
void BM_Analyze_NoisyPhoto(benchmark::State& state) { analyze(state, Pattern::noisyPhoto); }
void BM_Analyze_Screenshot(benchmark::State& state) { analyze(state, Pattern::screenshot); }

BENCHMARK(BM_RGBABuffer_Opaque8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RGBABuffer_Straight8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RGBABuffer_Dithered16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Analyze_Photo)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Analyze_NoisyPhoto)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Analyze_Screenshot)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
