// The perceptual distance's cost and agreement (bench/README.md, "Perceptual distance").
//
//   distance_bench [--format F] [--quality Q] [--tool] [--only full|bounded] FILE...
//   distance_bench encode FORMAT QUALITY SOURCE OUTPUT
//   distance_bench between SOURCE RESULT
//
// Each file is encoded as the batch encodes it, both sides are decoded as the distance
// decodes them, and one line a file gives the megapixels, the distance of the whole picture
// (libjxl's API), the bounded distance, and the thread CPU time of each. With --tool the
// pair is written as PPM/PAM and butteraugli_main's 3-norm of it is printed as well. With
// --only, only that method runs (for the peak memory under /usr/bin/time).
//
// For bench/corpus.sh --equal-look: `encode` writes what the batch writes for one file (read,
// decode, analysis, plan, encoding; no measure), so that its process can be timed beside a
// codec tool's; `between` prints the distance the program shows for a source and any result,
// a tool's too.

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageFormat.h"
#include "engine/PerceptualDistance.h"

using namespace quillane;

namespace {

double cpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// PPM for opaque pictures, PAM with alpha otherwise: both read by butteraugli_main as sRGB.
void writePNM(const std::string& path, const RGBABuffer& picture, bool alpha) {
  std::ofstream out(path, std::ios::binary);
  if (alpha) {
    out << "P7\nWIDTH " << picture.width << "\nHEIGHT " << picture.height
        << "\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n";
    out.write(reinterpret_cast<const char*>(picture.pixels.data()), std::streamsize(picture.pixels.size()));
    return;
  }
  out << "P6\n" << picture.width << " " << picture.height << "\n255\n";
  for (size_t i = 0; i < picture.pixels.size(); i += 4)
    out.write(reinterpret_cast<const char*>(&picture.pixels[i]), 3);
}

double toolDistance(const RGBABuffer& a, const RGBABuffer& b) {
  const bool alpha = a.hasAlpha || b.hasAlpha;
  const std::string ext = alpha ? ".pam" : ".ppm";
  const std::string pa = "/tmp/distance_bench_a" + ext, pb = "/tmp/distance_bench_b" + ext;
  writePNM(pa, a, alpha);
  writePNM(pb, b, alpha);
  FILE* pipe = popen(("butteraugli_main " + pa + " " + pb + " --pnorm 3 2>/dev/null").c_str(), "r");
  if (!pipe) return -1;
  char line[256];
  double norm = -1;
  while (fgets(line, sizeof line, pipe))
    if (std::strncmp(line, "3-norm: ", 8) == 0) norm = std::atof(line + 8);
  pclose(pipe);
  return norm;
}

}  // namespace

int encodeOne(const char* formatName, const char* quality, const char* sourcePath, const char* outputPath) {
  const auto format = ImageFormats::fromRawValue(formatName);
  if (!format) return 2;
  const std::vector<uint8_t> result =
      ImageCompressor::encodeData(ImageDecoder::readSource(sourcePath), *format, std::atof(quality));
  std::ofstream out(outputPath, std::ios::binary);
  out.write(reinterpret_cast<const char*>(result.data()), std::streamsize(result.size()));
  return out ? 0 : 1;
}

int printBetween(const char* sourcePath, const char* resultPath) {
  const double distance =
      PerceptualDistance::between(ImageDecoder::readSource(sourcePath), ImageDecoder::readSource(resultPath));
  std::printf("%.4f\n", distance);
  return 0;
}

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  try {
    if (verb == "encode" && argc == 6) return encodeOne(argv[2], argv[3], argv[4], argv[5]);
    if (verb == "between" && argc == 4) return printBetween(argv[2], argv[3]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", verb.c_str(), error.what());
    return 1;
  }
  ImageFormat format = ImageFormat::jpeg;
  double quality = 75;
  bool tool = false;
  std::string only;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--format" && i + 1 < argc) {
      if (auto f = ImageFormats::fromRawValue(argv[++i])) format = *f;
    } else if (arg == "--quality" && i + 1 < argc) {
      quality = std::atof(argv[++i]);
    } else if (arg == "--tool") {
      tool = true;
    } else if (arg == "--only" && i + 1 < argc) {
      only = argv[++i];
    } else {
      files.push_back(arg);
    }
  }
  std::printf(
      "| Picture | MP | Full | Bounded | Tool | Full CPU s | Bounded CPU s "
      "|\n|---|---|---|---|---|---|---|\n");
  for (const std::string& file : files) {
    try {
      const std::vector<uint8_t> source = ImageDecoder::readSource(file);
      const std::vector<uint8_t> result = ImageCompressor::encodeData(source, format, quality);
      RGBABuffer a = PerceptualDistance::comparable(source);
      const RGBABuffer b = PerceptualDistance::comparable(result);
      if (a.hasAlpha && !b.hasAlpha) {
        for (size_t i = 0; i < a.pixels.size(); i += 4) {
          const unsigned alpha = a.pixels[i + 3];
          for (size_t c = 0; c < 3; ++c)
            a.pixels[i + c] = uint8_t((a.pixels[i + c] * alpha + 255 * (255 - alpha) + 127) / 255);
          a.pixels[i + 3] = 255;
        }
        a.hasAlpha = false;
      }
      double full = -1, bounded = -1, fullCPU = 0, boundedCPU = 0;
      if (only.empty() || only == "full") {
        const double t0 = cpuSeconds();
        full = PerceptualDistance::butteraugli(a, b);
        fullCPU = cpuSeconds() - t0;
      }
      if (only.empty() || only == "bounded") {
        const double t0 = cpuSeconds();
        bounded = PerceptualDistance::bounded(a, b);
        boundedCPU = cpuSeconds() - t0;
      }
      const double byTool = tool ? toolDistance(a, b) : -1;
      const auto slash = file.find_last_of('/');
      std::printf("| %s | %.2f | %.3f | %.3f | %.3f | %.2f | %.2f |\n", file.substr(slash + 1).c_str(),
                  double(a.width) * a.height / 1e6, full, bounded, byTool, fullCPU, boundedCPU);
      std::fflush(stdout);
    } catch (const std::exception& error) {
      std::printf("| %s | error: %s |\n", file.c_str(), error.what());
    }
  }
  return 0;
}
