// Encode time and output size of the WebP, JPEG XL and PNG encoders on generated pictures,
// with plans made the way the strategy makes them at quality 75: effort from the pixel count,
// mode from the content class.

#include <benchmark/benchmark.h>

#include <map>
#include <string>

#include "engine/Encoders.h"
#include "tests/support/TestImages.h"

namespace {

using namespace quillane;
using testing::Pattern;
using Class = ImageCharacteristics::ContentClass;

struct Picture {
  const char* name;
  int width, height;
  Pattern pattern;
  bool alpha;
  Class contentClass;
};

const Picture kPictures[] = {
    {"photo_1MP", 1155, 866, Pattern::photo, false, Class::photo},
    {"photo_12MP", 4000, 3000, Pattern::photo, false, Class::photo},
    {"screenshot_1MP", 1155, 866, Pattern::screenshot, false, Class::screenText},
    {"logo_alpha_1MP", 1000, 1000, Pattern::flatLogo, true, Class::flatGraphic},
};

const RGBABuffer& buffer(const Picture& p) {
  static std::map<std::string, RGBABuffer> cache;
  auto it = cache.find(p.name);
  if (it == cache.end())
    it = cache.emplace(p.name, testing::makeBuffer(p.width, p.height, p.pattern, 1, p.alpha)).first;
  return it->second;
}

ImageCharacteristics characteristics(const Picture& p, const RGBABuffer& rgba) {
  ImageCharacteristics c;
  c.width = p.width;
  c.height = p.height;
  c.contentClass = p.contentClass;
  c.hasAlpha = rgba.hasAlpha;
  return c;
}

// Quality 75: flat graphics are lossless for WebP and JPEG XL, everything else lossy at 75
// (screen text turns near-lossless only from 85); PNG takes the palette path.
EncodingPlan planFor(const Picture& p) {
  const long long n = (long long)p.width * p.height;
  EncodingPlan plan;
  plan.quality = 75;
  plan.effort = n <= 2'000'000 ? 2 : n <= 12'000'000 ? 1 : 0;
  plan.mode =
      p.contentClass == Class::flatGraphic ? EncodingPlan::Mode::lossless() : EncodingPlan::Mode::lossy(75);
  plan.dithering = p.contentClass == Class::flatGraphic ? 0.2f : 0.7f;
  return plan;
}

void report(benchmark::State& state, const Picture& p, size_t bytes) {
  state.counters["bytes"] = double(bytes);
  state.counters["Mpx/s"] =
      benchmark::Counter(double(p.width) * p.height * 1e-6, benchmark::Counter::kIsIterationInvariantRate);
}

void webp(benchmark::State& state, const Picture& p) {
  const RGBABuffer& rgba = buffer(p);
  const EncodingPlan plan = planFor(p);
  const ImageCharacteristics c = characteristics(p, rgba);
  size_t bytes = 0;
  for (auto _ : state) bytes = WebPEncoder::encode(rgba, plan, c).size();
  report(state, p, bytes);
}

void jxl(benchmark::State& state, const Picture& p) {
  const RGBABuffer& rgba = buffer(p);
  const EncodingPlan plan = planFor(p);
  size_t bytes = 0;
  for (auto _ : state) bytes = JXLEncoder::encode(rgba, rgba.hasAlpha, plan).size();
  report(state, p, bytes);
}

void png(benchmark::State& state, const Picture& p) {
  const RGBABuffer& rgba = buffer(p);
  const EncodingPlan plan = planFor(p);
  size_t bytes = 0;
  for (auto _ : state) bytes = PNGQuantEncoder::encode(rgba, plan).size();
  report(state, p, bytes);
}

void pngTruecolour(benchmark::State& state, const Picture& p) {
  const RGBABuffer& rgba = buffer(p);
  const EncodingPlan plan = planFor(p);
  size_t bytes = 0;
  for (auto _ : state) bytes = PNGQuantEncoder::encodeLossless(rgba, plan).size();
  report(state, p, bytes);
}

int registerAll() {
  for (const Picture& p : kPictures) {
    const bool large = (long long)p.width * p.height > 2'000'000;
    const int iterations = large ? 1 : 3;
    for (auto [label, fn] :
         {std::pair{"WebP", &webp}, {"JXL", &jxl}, {"PNG", &png}, {"PNG_truecolour", &pngTruecolour}})
      benchmark::RegisterBenchmark((std::string(label) + "/" + p.name).c_str(), fn, p)
          ->Unit(benchmark::kMillisecond)
          ->Iterations(iterations);
  }
  return 0;
}
const int registered = registerAll();

}  // namespace

BENCHMARK_MAIN();
