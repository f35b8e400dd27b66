// Chroma layout of the JPEG, HEIC and AVIF writers: the tool behind bench/rd_sweep.sh.
//
//   chroma_bench crop IN OUT.png X Y W H     cut a reference picture out of any readable file
//   chroma_bench measure FILE...             share of blocks with colour edges above 16 and 32, the
//                                            layout chosen, the decision's CPU time in ms
//   chroma_bench encode IN FORMAT Q LAYOUT OUT
//                                            FORMAT avif, heic or jpeg; Q the slider's 1...100;
//                                            LAYOUT auto, 420 or 444; prints bytes, layout and
//                                            the encode's process CPU time in ms; IN may also be
//                                            screenshot:WxH or photo:WxH, generated
//   chroma_bench time                        CPU time of the measure on 12 MP pictures
//
// Pictures are read by the engine's own decoder; alpha is kept where the file has it (JPEG
// drops it, as the writer does).

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "engine/FileIO.h"
#include "engine/ImageService.h"
#include "engine/PNGWriter.h"
#include "engine/codecs/Writers.h"
#include "tests/support/TestImages.h"

namespace {

using namespace quillane;
using codecs::ChromaLayout;

double cpuMilliseconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// A file, or "screenshot:WxH" / "photo:WxH" for a generated picture (tests/support/TestImages.h).
DecodedImage load(const std::string& path) {
  for (auto [prefix, pattern] : {std::pair{"screenshot:", testing::Pattern::screenshot},
                                 std::pair{"photo:", testing::Pattern::photo}}) {
    int w = 0, h = 0;
    if (path.rfind(prefix, 0) == 0 && std::sscanf(path.c_str() + std::strlen(prefix), "%dx%d", &w, &h) == 2)
      return testing::makeImage(w, h, pattern, 1, false);
  }
  const auto bytes = FileIO::readFile(path);
  return NativeImageIOEncoder::straightEightBit(ImageService::decodeFirstFrame(bytes));
}

bool hasTransparency(const DecodedImage& image) {
  if (!image.hasAlphaChannel()) return false;
  for (size_t i = 3; i < image.pixels8.size(); i += 4)
    if (image.pixels8[i] != 255) return true;
  return false;
}

// RGB, or RGBA where some pixel is transparent; rows unfiltered.
void writePng(const DecodedImage& image, const std::string& path) {
  const bool alpha = hasTransparency(image);
  const int channels = alpha ? 4 : 3;
  std::vector<uint8_t> raw;
  raw.reserve(image.pixelCount() * size_t(channels) + size_t(image.height));
  for (int y = 0; y < image.height; ++y) {
    raw.push_back(0);
    const uint8_t* p = image.pixels8.data() + size_t(y) * size_t(image.width) * 4;
    for (int x = 0; x < image.width; ++x, p += 4) raw.insert(raw.end(), p, p + channels);
  }
  PNGWriter::Bytes png(PNGWriter::pngSignature.begin(), PNGWriter::pngSignature.end());
  PNGWriter::appendIHDR(png, image.width, image.height, alpha ? 6 : 2);
  PNGWriter::appendPNGChunk(png, "IDAT", PNGWriter::zlibCompress(raw));
  PNGWriter::appendPNGChunk(png, "IEND", {});
  FileIO::writeFileAtomically(path, png);
}

int crop(char** argv) {
  const DecodedImage source = load(argv[0]);
  const int x = std::atoi(argv[2]), y = std::atoi(argv[3]);
  const int w = std::min(std::atoi(argv[4]), source.width - x),
            h = std::min(std::atoi(argv[5]), source.height - y);
  if (x < 0 || y < 0 || w <= 0 || h <= 0) return std::fprintf(stderr, "crop outside the picture\n"), 2;
  DecodedImage out = source;
  out.width = w, out.height = h;
  out.pixels8.assign(size_t(w) * size_t(h) * 4, 0);
  for (int row = 0; row < h; ++row)
    std::copy_n(source.pixels8.data() + (size_t(y + row) * size_t(source.width) + size_t(x)) * 4,
                size_t(w) * 4, out.pixels8.data() + size_t(row) * size_t(w) * 4);
  writePng(out, argv[1]);
  return 0;
}

int measure(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    const DecodedImage image = load(argv[i]);
    const bool alpha = hasTransparency(image);
    const double start = cpuMilliseconds();
    const bool full = codecs::usesFullChroma(ChromaLayout::automatic, image, alpha);
    const double spent = cpuMilliseconds() - start;
    std::printf("%s %.5f %.5f %s %.2f\n", argv[i], codecs::chromaEdgeShare(image, alpha, 16),
                codecs::chromaEdgeShare(image, alpha), full ? "444" : "420", spent);
  }
  return 0;
}

int encode(char** argv) {
  const DecodedImage image = load(argv[0]);
  const std::string format = argv[1], layoutName = argv[3];
  const double quality = std::clamp(std::atof(argv[2]) / 100.0, 0.0, format == "avif" ? 0.99 : 1.0);
  const bool alpha = format != "jpeg" && hasTransparency(image);
  codecs::Bytes out;
  const double start = cpuMilliseconds();
  ChromaLayout layout = ChromaLayout::automatic;
  if (format == "jpeg") {
    auto s = codecs::jpegSettings(quality);
    if (layoutName != "auto") s.chroma = layoutName == "444" ? ChromaLayout::full : ChromaLayout::subsampled;
    layout = s.chroma;
    out = codecs::writeJpeg(image, s, std::nullopt);
  } else if (format == "heic") {
    auto s = codecs::heifSettings(quality);
    if (layoutName != "auto") s.chroma = layoutName == "444" ? ChromaLayout::full : ChromaLayout::subsampled;
    layout = s.chroma;
    out = codecs::writeHeic(image, alpha, s, std::nullopt);
  } else {
    auto s = codecs::avifSettings(quality, image.pixelCount());
    if (layoutName != "auto") s.chroma = layoutName == "444" ? ChromaLayout::full : ChromaLayout::subsampled;
    layout = s.chroma;
    out = codecs::writeAvif(image, alpha, s, std::nullopt);
  }
  const double spent = cpuMilliseconds() - start;
  FileIO::writeFileAtomically(argv[4], out);
  std::printf("%zu %s %.0f\n", out.size(), codecs::usesFullChroma(layout, image, alpha) ? "444" : "420",
              spent);
  return 0;
}

int timeMeasure() {
  for (auto [name, pattern] :
       {std::pair{"photo", testing::Pattern::photo}, std::pair{"screenshot", testing::Pattern::screenshot}}) {
    const DecodedImage image = testing::makeImage(4000, 3000, pattern, 1, false);
    std::vector<double> runs;
    for (int i = 0; i < 9; ++i) {
      const double start = cpuMilliseconds();
      volatile bool full = codecs::usesFullChroma(ChromaLayout::automatic, image, false);
      (void)full;
      runs.push_back(cpuMilliseconds() - start);
    }
    std::sort(runs.begin(), runs.end());
    std::printf("%s 4000x3000: median %.2f ms CPU (min %.2f, max %.2f)\n", name, runs[4], runs[0], runs[8]);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "crop" && argc == 8) return crop(argv + 2);
    if (command == "measure" && argc > 2) return measure(argc - 2, argv + 2);
    if (command == "encode" && argc == 7) return encode(argv + 2);
    if (command == "time") return timeMeasure();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "chroma_bench: %s\n", e.what());
    return 1;
  }
  std::fprintf(stderr, "usage: see the top of bench/chroma_bench.cpp\n");
  return 2;
}
