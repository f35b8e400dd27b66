// The compression pipeline on generated pictures of about 1 and 12 megapixels:
//   Encode/...    the bare encoder calls the plan asks for (main and competing encoding),
//                 on a picture already decoded, measured and planned;
//   Prepare/...   decoding the source file, the RGBA buffer, the analysis and the plan;
//   Pipeline/...  ImageCompressor::encodeData on the source file, all of the above.
// Pipeline - Prepare - Encode is what the pipeline itself adds.
//   Fidelity/...  the JPEG, HEIC, AVIF and WebP writers at a slider value: bytes, PSNR and
//                 SSIM against the source, for matching the formats' quality scales.
// Output bytes are reported as the counter "bytes". At 12 MP keep to --benchmark_filter.

#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <random>
#include <string>

#include "engine/Encoders.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace {

using namespace quillane;
using Bytes = std::vector<uint8_t>;

enum class Kind { photo, screenshot, logo };

struct Picture {
  std::string name;
  Kind kind;
  int width, height;
};

const DecodedImage& picture(const Picture& p) {
  static std::map<std::string, DecodedImage> cache;
  auto it = cache.find(p.name);
  if (it == cache.end()) {
    DecodedImage img = p.kind == Kind::photo ? testing::texturedPhoto(p.width, p.height, 7)
                       : p.kind == Kind::screenshot
                           ? testing::makeImage(p.width, p.height, testing::Pattern::screenshot, 1)
                           : testing::makeImage(p.width, p.height, testing::Pattern::flatLogo, 1, true);
    it = cache.emplace(p.name, std::move(img)).first;
  }
  return it->second;
}

// The source file the pipeline starts from: a PNG, which every picture survives unchanged.
const Bytes& sourceFile(const Picture& p) {
  static std::map<std::string, Bytes> cache;
  auto it = cache.find(p.name);
  if (it == cache.end())
    it = cache.emplace(p.name, fixtures::png(picture(p), {.alpha = p.kind == Kind::logo})).first;
  return it->second;
}

struct Prepared {
  DecodedImage decoded;
  RGBABuffer rgba;
  ImageCharacteristics characteristics;
  EncodingPlan plan;
};

Prepared prepare(const Bytes& file, ImageFormat format, double quality) {
  Prepared out;
  out.decoded = ImageDecoder::decodeCGImageSource(file).image;
  out.rgba = RGBABuffer(out.decoded);
  out.characteristics = ImageAnalyzer::analyze(out.rgba);
  out.plan = EncodingStrategy::plan(out.characteristics, format, quality);
  return out;
}

size_t encodeOnce(const Prepared& p, ImageFormat format, const EncodingPlan& plan, bool alternative) {
  switch (format) {
    case ImageFormat::jpeg:
    case ImageFormat::heic:
    case ImageFormat::avif:
      return NativeImageIOEncoder::encode(p.decoded, p.rgba.hasAlpha, format, plan).size();
    case ImageFormat::webp:
      return WebPEncoder::encode(p.rgba, plan, p.characteristics).size();
    case ImageFormat::jxl:
      return JXLEncoder::encode(p.rgba, p.rgba.hasAlpha, plan).size();
    case ImageFormat::png:
      if (!alternative) return PNGQuantEncoder::encode(p.rgba, plan).size();
      if (plan.mode.kind == EncodingPlan::Mode::Kind::lossless)
        return PNGQuantEncoder::encodeLossless(p.rgba, plan).size();
      return PNGQuantEncoder::encodeLossyAlternative(p.rgba, plan).size();
  }
  return 0;
}

void Encode(benchmark::State& state, const Picture& pic, ImageFormat format) {
  const Prepared p = prepare(sourceFile(pic), format, 75);
  size_t bytes = 0;
  for (auto _ : state) {
    bytes = encodeOnce(p, format, p.plan, false);
    if (p.plan.alternative) {
      EncodingPlan second = p.plan;
      second.mode = *p.plan.alternative;
      // A PNG's lossy alternative gives no bytes where the lossless encoding tried its palette.
      if (const size_t alternative = encodeOnce(p, format, second, true))
        bytes = std::min(bytes, alternative);
    }
  }
  state.counters["bytes"] = double(bytes);
  state.counters["alternative"] = p.plan.alternative ? 1 : 0;
}

void Prepare(benchmark::State& state, const Picture& pic, ImageFormat format) {
  const Bytes& file = sourceFile(pic);
  for (auto _ : state) benchmark::DoNotOptimize(prepare(file, format, 75));
}

void Pipeline(benchmark::State& state, const Picture& pic, ImageFormat format) {
  const Bytes& file = sourceFile(pic);
  size_t bytes = 0;
  for (auto _ : state) bytes = ImageCompressor::encodeData(file, format, 75).size();
  state.counters["bytes"] = double(bytes);
}

// --- Fidelity ----------------------------------------------------------------------------------

double psnr(const DecodedImage& a, const DecodedImage& b) {
  double sum = 0;
  size_t n = 0;
  for (size_t i = 0; i < a.pixels8.size(); ++i) {
    if (i % 4 == 3) continue;
    const double d = double(a.pixels8[i]) - double(b.pixels8[i]);
    sum += d * d, ++n;
  }
  return sum == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / (sum / double(n)));
}

// Mean SSIM of luma over 8 x 8 windows placed every 4 pixels.
double ssim(const DecodedImage& a, const DecodedImage& b) {
  auto luma = [](const DecodedImage& img, size_t i) {
    return 0.299 * img.pixels8[i * 4] + 0.587 * img.pixels8[i * 4 + 1] + 0.114 * img.pixels8[i * 4 + 2];
  };
  const double c1 = 6.5025, c2 = 58.5225;
  double total = 0;
  int windows = 0;
  for (int by = 0; by + 8 <= a.height; by += 4)
    for (int bx = 0; bx + 8 <= a.width; bx += 4) {
      double ma = 0, mb = 0, va = 0, vb = 0, cv = 0;
      for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) {
          const size_t i = size_t(by + y) * size_t(a.width) + size_t(bx + x);
          const double p = luma(a, i), q = luma(b, i);
          ma += p, mb += q, va += p * p, vb += q * q, cv += p * q;
        }
      ma /= 64, mb /= 64, va = va / 64 - ma * ma, vb = vb / 64 - mb * mb, cv = cv / 64 - ma * mb;
      total += ((2 * ma * mb + c1) * (2 * cv + c2)) / ((ma * ma + mb * mb + c1) * (va + vb + c2));
      ++windows;
    }
  return total / windows;
}

void Fidelity(benchmark::State& state, const Picture& pic, ImageFormat format, double quality) {
  const DecodedImage& source = picture(pic);
  EncodingPlan plan;
  plan.mode = EncodingPlan::Mode::lossy(quality);
  Bytes file;
  for (auto _ : state) {
    if (format == ImageFormat::webp) {
      RGBABuffer rgba(source);
      ImageCharacteristics c;
      c.width = source.width, c.height = source.height,
      c.contentClass = ImageCharacteristics::ContentClass::photo;
      file = WebPEncoder::encode(rgba, plan, c);
    } else {
      file = NativeImageIOEncoder::encode(source, false, format, plan);
    }
  }
  DecodedImage back = ImageService::decodeFirstFrame(file);
  state.counters["bytes"] = double(file.size());
  state.counters["psnr"] = psnr(source, back);
  state.counters["ssim"] = ssim(source, back);
}

void registerAll() {
  const Picture pictures[] = {
      {"photo_1MP", Kind::photo, 1155, 866},           {"photo_12MP", Kind::photo, 4000, 3000},
      {"screenshot_1MP", Kind::screenshot, 1155, 866}, {"screenshot_12MP", Kind::screenshot, 4000, 3000},
      {"logo_alpha_1MP", Kind::logo, 1000, 1000},      {"logo_alpha_12MP", Kind::logo, 4000, 3000},
  };
  // Process CPU time counts x265's worker threads too and is what a loaded machine disturbs
  // least; three runs at 1 MP for medians, one at 12 MP, where each runs for seconds.
  auto configure = [](benchmark::internal::Benchmark* b, const Picture& pic) {
    b->Unit(benchmark::kMillisecond)->Iterations(1)->MeasureProcessCPUTime();
    if (pic.width * pic.height < 4'000'000) b->Repetitions(3)->ReportAggregatesOnly(true);
  };
  for (const Picture& pic : pictures) {
    for (ImageFormat format : ImageFormats::allCases) {
      const std::string suffix = pic.name + "/" + std::string(ImageFormats::rawValue(format));
      configure(benchmark::RegisterBenchmark(("Encode/" + suffix).c_str(), Encode, pic, format), pic);
      configure(benchmark::RegisterBenchmark(("Pipeline/" + suffix).c_str(), Pipeline, pic, format), pic);
    }
    configure(benchmark::RegisterBenchmark(("Prepare/" + pic.name).c_str(), Prepare, pic, ImageFormat::webp),
              pic);
  }
  const Picture fidelity[] = {{"photo_0.8MP", Kind::photo, 1024, 768},
                              {"screenshot_0.8MP", Kind::screenshot, 1024, 768}};
  for (const Picture& pic : fidelity)
    for (ImageFormat format : {ImageFormat::jpeg, ImageFormat::heic, ImageFormat::avif, ImageFormat::webp})
      for (double quality : {30.0, 50.0, 75.0, 90.0, 100.0})
        benchmark::RegisterBenchmark(
            ("Fidelity/" + pic.name + "/" + std::string(ImageFormats::rawValue(format)) + "/" +
             std::to_string(int(quality)))
                .c_str(),
            Fidelity, pic, format, quality)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(1)
            ->MeasureProcessCPUTime();
}

}  // namespace

int main(int argc, char** argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
