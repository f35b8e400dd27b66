// The byte budget and the fit against one plain encode, over a folder of pictures:
//
//   budget_bench DIR [FORMAT...]     (default jpeg webp avif)
//
// For each picture and format: one plain encode at quality 75 (its size S and CPU time), then
// the same under a budget of S / 2 (the encodes the search made, its CPU time, the size it
// reached against the budget). Then the resample alone: each picture fitted within
// 1920 x 1920, in CPU milliseconds per source megapixel. CPU time of this thread, so that a
// loaded machine moves the figures little; one pass, no warm-up.

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/Resample.h"

using namespace quillane;

namespace {

double cpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: budget_bench DIR [FORMAT...]\n");
    return 2;
  }
  std::vector<ImageFormat> formats;
  for (int i = 2; i < argc; ++i)
    if (auto format = ImageFormats::fromRawValue(argv[i])) formats.push_back(*format);
  if (formats.empty()) formats = {ImageFormat::jpeg, ImageFormat::webp, ImageFormat::avif};
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1]))
    files.push_back(entry.path().string());
  std::sort(files.begin(), files.end());

  for (ImageFormat format : formats) {
    double plainTime = 0, budgetTime = 0, fill = 0;
    int encodes = 0, maxEncodes = 0, count = 0, failed = 0;
    for (const std::string& file : files) {
      const std::vector<uint8_t> source = ImageDecoder::readSource(file);
      double t0 = cpuSeconds();
      const size_t plain = ImageCompressor::encodeData(source, format, 75).size();
      const size_t budget = plain / 2;
      double t1 = cpuSeconds();
      try {
        auto budgeted = ImageCompressor::encode(source, format, 75, {.maxBytes = int64_t(budget)});
        double t2 = cpuSeconds();
        plainTime += t1 - t0, budgetTime += t2 - t1;
        encodes += budgeted.encodes, maxEncodes = std::max(maxEncodes, budgeted.encodes);
        fill += double(budgeted.bytes.size()) / double(budget);
        ++count;
        std::printf("%-6s %-40s S=%9zu  q=%3.0f  encodes=%d  size/budget=%.2f  time x%.2f\n",
                    std::string(ImageFormats::rawValue(format)).c_str(),
                    std::filesystem::path(file).filename().c_str(), plain, budgeted.quality, budgeted.encodes,
                    double(budgeted.bytes.size()) / double(budget), (t2 - t1) / (t1 - t0));
      } catch (const std::exception& e) {
        ++failed;
        std::printf("%-6s %-40s budget %zu unreachable\n",
                    std::string(ImageFormats::rawValue(format)).c_str(),
                    std::filesystem::path(file).filename().c_str(), plain / 2);
      }
    }
    std::printf(
        "== %s: %d files (%d unreachable): %.2f encodes a file (at most %d), size/budget %.2f, "
        "time %.2fx one plain encode (total %.1f s against %.1f s)\n\n",
        std::string(ImageFormats::rawValue(format)).c_str(), count, failed, double(encodes) / count,
        maxEncodes, fill / count, budgetTime / plainTime, budgetTime, plainTime);
  }

  double resizeTime = 0, megapixels = 0;
  for (const std::string& file : files) {
    const std::vector<uint8_t> source = ImageDecoder::readSource(file);
    DecodedImage image = ImageDecoder::decodeCGImageSource(source).image;
    const double mp = double(image.pixelCount()) / 1e6;
    const double t0 = cpuSeconds();
    DecodedImage fitted = Resample::fitBox(std::move(image), 1920, 1920);
    const double t1 = cpuSeconds();
    if (fitted.width >= 1920 || fitted.height >= 1920) {  // reduced: counted
      resizeTime += t1 - t0, megapixels += mp;
    }
  }
  std::printf("== fit within 1920 x 1920: %.1f MP reduced in %.2f s CPU, %.1f ms a source megapixel\n",
              megapixels, resizeTime, resizeTime * 1000 / std::max(megapixels, 1e-9));
  return 0;
}
