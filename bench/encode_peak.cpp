// Peak memory of encodes, each measured in a child process of its own: the child prepares
// what the case starts from, notes its resident size, resets its high-water mark
// (/proc/self/clear_refs), runs the case and reads the mark again (VmHWM). The figure is what
// the case added to the process at its peak.
//
//   encode_peak sources FOLDER            writes the generated sources (photos, screenshot, logo,
//                                         hostile files) that the other modes read
//   encode_peak encoders [-F TEXT] [SIDE...]
//                                         each encoder in each mode and effort on generated
//                                         pictures of SIDE x SIDE (default 1000 and 2000), called
//                                         as the pipeline calls its last encoding (consuming the
//                                         picture where the encoder can): the peak, the picture
//                                         included, in bytes a pixel
//   encode_peak pipeline [-q Q] [-f FORMAT,...] FILE...
//                                         ImageCompressor::compress of each file to each format
//                                         (default all six at 75): measured peak against
//                                         EncodeCost's claim
//
// bench/README.md, "Memory of an encode", has the figures.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "engine/EncodeCost.h"
#include "engine/Encoders.h"
#include "engine/EncodingStrategy.h"
#include "engine/FileIO.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageFormat.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace {

using namespace quillane;
using Mode = EncodingPlan::Mode;

uint64_t statusKB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t length = std::strlen(field);
  while (std::getline(status, line))
    if (line.compare(0, length, field) == 0) return std::stoull(line.substr(length + 1)) * 1024;
  return 0;
}

// Handed to a case's body: start() marks where the measured part begins.
class Probe {
 public:
  void start() {
    baseline_ = statusKB("VmRSS");
    std::ofstream("/proc/self/clear_refs") << "5";
  }
  uint64_t added() const { return statusKB("VmHWM") - baseline_; }

 private:
  uint64_t baseline_ = 0;
};

struct Measured {
  bool ok = false;
  uint64_t peak = 0;  // bytes added at the peak
  std::string note;   // the body's result (output bytes) or its error
};

// Runs `body` in a child; what it returns becomes the note.
Measured inChild(const std::function<std::string(Probe&)>& body) {
  int fds[2];
  if (::pipe(fds) != 0) return {false, 0, "pipe"};
  std::fflush(stdout);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    Probe probe;
    std::string out;
    try {
      const std::string note = body(probe);
      out = "ok " + std::to_string(probe.added()) + " " + note;
    } catch (const std::exception& e) {
      out = "error " + std::to_string(probe.added()) + " " + e.what();
    }
    (void)!::write(fds[1], out.data(), out.size());
    ::_exit(0);
  }
  ::close(fds[1]);
  std::string reply;
  char buffer[512];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) reply.append(buffer, size_t(n));
  ::close(fds[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  Measured m;
  std::istringstream in(reply);
  std::string word;
  in >> word >> m.peak;
  m.ok = word == "ok";
  std::getline(in, m.note);
  if (!m.note.empty() && m.note[0] == ' ') m.note.erase(0, 1);
  if (reply.empty()) m.note = "child died (status " + std::to_string(status) + ")";
  return m;
}

double mb(uint64_t bytes) { return double(bytes) / 1e6; }

// ---- sources ----

void writeSources(const std::string& folder) {
  auto write = [&](const std::string& name, const std::function<fixtures::Bytes()>& make) {
    const Measured m = inChild([&](Probe&) {
      const fixtures::Bytes bytes = make();
      testing::writeBytes(folder + "/" + name, bytes);
      return std::to_string(bytes.size());
    });
    std::printf("%s: %s bytes\n", name.c_str(), m.note.c_str());
  };
  for (const auto& photo : {std::pair{std::pair{4000, 3000}, "photo-12mp"}, {{8000, 6000}, "photo-48mp"}}) {
    const std::pair<int, int> side = photo.first;
    write(std::string(photo.second) + ".jpg", [side] {
      return fixtures::jpeg(testing::texturedPhoto(side.first, side.second), {.quality = 92});
    });
  }
  write("photo-12mp.png", [] { return fixtures::png(testing::texturedPhoto(4000, 3000), {.alpha = false}); });
  write("screenshot-12mp.png", [] {
    return fixtures::png(testing::makeImage(4000, 3000, testing::Pattern::screenshot), {.alpha = false});
  });
  write("logo-12mp.png",
        [] { return fixtures::png(testing::makeImage(4000, 3000, testing::Pattern::flatLogo, 1, true)); });
  write("screenshot-2mp.png", [] {
    return fixtures::png(testing::makeImage(1732, 1155, testing::Pattern::screenshot), {.alpha = false});
  });
  // Hostile: a few bytes that decode to a flat picture of 64 megapixels.
  write("flat-8000.jpg", [] { return fixtures::arithmeticGreyJpeg(8000, 8000); });
  write("quadrants-8000-progressive.jpg",
        [] { return fixtures::jpeg(fixtures::quadrants(8000, 8000), {.quality = 80, .progressive = true}); });
}

// ---- encoders ----

struct EncoderCase {
  const char* name;
  ImageFormat format;
  Mode mode;
  int effort;
};

std::vector<EncoderCase> encoderCases() {
  std::vector<EncoderCase> cases = {
      {"JPEG q75", ImageFormat::jpeg, Mode::lossy(75), 2},
      {"JPEG q90 (4:4:4)", ImageFormat::jpeg, Mode::lossy(90), 2},
      {"HEIC q75", ImageFormat::heic, Mode::lossy(75), 2},
      {"HEIC q90 (4:4:4)", ImageFormat::heic, Mode::lossy(90), 2},
      {"AVIF q75", ImageFormat::avif, Mode::lossy(75), 2},
      {"AVIF q90 (4:4:4)", ImageFormat::avif, Mode::lossy(90), 2},
      {"PNG palette", ImageFormat::png, Mode::lossy(75), 2},
      {"PNG truecolour", ImageFormat::png, Mode::lossless(), 2},
      {"JPEG XL lossless light", ImageFormat::jxl, Mode::lossless(), -1},
  };
  static const char* webpNames[3][3] = {
      {"WebP lossy e0", "WebP lossy e1", "WebP lossy e2"},
      {"WebP near-lossless e0", "WebP near-lossless e1", "WebP near-lossless e2"},
      {"WebP lossless e0", "WebP lossless e1", "WebP lossless e2"}};
  static const char* jxlNames[2][3] = {{"JPEG XL lossy e0", "JPEG XL lossy e1", "JPEG XL lossy e2"},
                                       {"JPEG XL lossless e0", "JPEG XL lossless e1", "JPEG XL lossless e2"}};
  // Effort 1 costs what effort 0 does in every mode measured; effort 2 differs for JPEG XL.
  for (int e : {0, 2}) {
    cases.push_back({webpNames[0][e], ImageFormat::webp, Mode::lossy(75), e});
    cases.push_back({webpNames[1][e], ImageFormat::webp, Mode::nearLossless(60), e});
    cases.push_back({webpNames[2][e], ImageFormat::webp, Mode::lossless(), e});
    cases.push_back({jxlNames[0][e], ImageFormat::jxl, Mode::lossy(75), e});
    cases.push_back({jxlNames[1][e], ImageFormat::jxl, Mode::lossless(), e});
  }
  return cases;
}

// The encoder's call as the pipeline makes its last encoding, on the picture in the form it
// reads, which it consumes where it can. Effort -1 is JPEG XL's light lossless effort. The
// probe starts with the picture made, whose bytes the caller adds.
std::string encodeCase(const EncoderCase& c, DecodedImage image, Probe& probe) {
  RGBABuffer rgba(std::move(image));
  const ImageCharacteristics characteristics = ImageAnalyzer::analyze(rgba);
  EncodingPlan plan = EncodingStrategy::plan(characteristics, c.format, c.mode.quality ? c.mode.quality : 75);
  plan.mode = c.mode;
  plan.effort = std::max(c.effort, 0);
  plan.lightLossless = c.effort < 0;
  plan.alternative.reset();
  Bytes out;
  if (c.format == ImageFormat::jpeg || c.format == ImageFormat::heic || c.format == ImageFormat::avif) {
    DecodedImage decoded;
    const bool alpha = rgba.hasAlpha;
    decoded.width = rgba.width, decoded.height = rgba.height;
    decoded.alpha = alpha ? AlphaInfo::straight : AlphaInfo::none;
    decoded.pixels8 = std::move(rgba.pixels);
    probe.start();
    out = NativeImageIOEncoder::encode(std::move(decoded), alpha, c.format, plan);
  } else if (c.format == ImageFormat::webp) {
    const WebPEncoder::ARGBPicture argb(std::move(rgba));
    probe.start();
    out = WebPEncoder::encode(argb, plan, characteristics);
  } else if (c.format == ImageFormat::jxl) {
    probe.start();
    const bool alpha = rgba.hasAlpha;
    out = JXLEncoder::encode(std::move(rgba), alpha, plan);
  } else {
    probe.start();
    out = c.mode.kind == Mode::Kind::lossless ? PNGQuantEncoder::encodeLossless(rgba, plan)
                                              : PNGQuantEncoder::encodePalette(rgba, plan);
  }
  return std::to_string(out.size());
}

void runEncoders(const std::vector<int>& sides, const std::string& filter) {
  struct Kind {
    const char* name;
    std::function<DecodedImage(int)> make;
  };
  const Kind kinds[] = {
      {"photo", [](int s) { return testing::texturedPhoto(s, s); }},
      {"screenshot", [](int s) { return testing::makeImage(s, s, testing::Pattern::screenshot); }},
      {"logo with alpha",
       [](int s) { return testing::makeImage(s, s, testing::Pattern::flatLogo, 1, true); }},
      {"flat", [](int s) { return fixtures::quadrants(s, s); }},
  };
  std::printf("| Picture | Encoding | Peak, picture included | Bytes a pixel | Output bytes |\n");
  std::printf("|---|---|---:|---:|---:|\n");
  for (int side : sides) {
    const double pixels = double(side) * side;
    for (const Kind& kind : kinds) {
      for (const EncoderCase& c : encoderCases()) {
        const std::string label = std::string(kind.name) + " " + std::to_string(side) + " " + c.name;
        if (!filter.empty() && label.find(filter) == std::string::npos) continue;
        const Measured m = inChild([&](Probe& probe) { return encodeCase(c, kind.make(side), probe); });
        const uint64_t peak = m.peak + uint64_t(pixels) * 4;
        std::printf("| %s, %d x %d | %s | %.1f MB | %.1f | %s |\n", kind.name, side, side, c.name, mb(peak),
                    double(peak) / pixels, m.ok ? m.note.c_str() : ("failed: " + m.note).c_str());
      }
    }
  }
}

// ---- pipeline ----

void runPipeline(const std::vector<std::string>& files, const std::vector<ImageFormat>& formats,
                 double quality) {
  testing::TempDir out;
  std::printf(
      "| File | Pixels | Format | Claimed | Measured | Measured / claimed | Bytes a pixel | Result |\n");
  std::printf("|---|---:|---|---:|---:|---:|---:|---|\n");
  for (const std::string& file : files) {
    const auto header = ImageDecoder::readHeader(file);
    const auto sourceFormat = ImageFormats::detect(file);
    if (!header || !sourceFormat) {
      std::printf("| %s | no header | | | | | | |\n", file.c_str());
      continue;
    }
    const uint64_t pixels = uint64_t(header->width) * uint64_t(header->height);
    const uint64_t fileBytes = uint64_t(ImageDecoder::fileSize(file));
    for (ImageFormat format : formats) {
      const EncodeCost::Source source{*sourceFormat, header->width, header->height, fileBytes};
      const uint64_t claim = EncodeCost::peakBytes(source, format, quality);
      const Measured m = inChild([&](Probe& probe) {
        probe.start();
        const ImageCompressionResult r = ImageCompressor::compress(file, out.path(), format, quality, "out");
        return r.succeeded() ? std::to_string(*r.compressedSizeBytes) + " bytes" : *r.error;
      });
      const std::string name = file.substr(file.find_last_of('/') + 1);
      std::printf("| %s | %.1f MP | %s | %.0f MB | %.0f MB | %.2f | %.1f | %s |\n", name.c_str(),
                  double(pixels) / 1e6, std::string(ImageFormats::label(format)).c_str(), mb(claim),
                  mb(m.peak), double(m.peak) / double(std::max<uint64_t>(claim, 1)),
                  double(m.peak) / double(pixels), m.note.c_str());
    }
  }
}

std::vector<ImageFormat> parseFormats(const std::string& list) {
  std::vector<ImageFormat> formats;
  std::stringstream in(list);
  for (std::string item; std::getline(in, item, ',');) {
    if (auto f = ImageFormats::fromRawValue(item)) formats.push_back(*f);
  }
  return formats;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "sources" && argc == 3) {
    writeSources(argv[2]);
    return 0;
  }
  if (mode == "encoders") {
    std::vector<int> sides;
    std::string filter;
    for (int i = 2; i < argc; ++i) {
      if (std::string(argv[i]) == "-F" && i + 1 < argc)
        filter = argv[++i];
      else
        sides.push_back(std::atoi(argv[i]));
    }
    if (sides.empty()) sides = {1000, 2000};
    runEncoders(sides, filter);
    return 0;
  }
  if (mode == "pipeline") {
    double quality = 75;
    std::vector<ImageFormat> formats = {ImageFormat::jpeg, ImageFormat::png,  ImageFormat::webp,
                                        ImageFormat::heic, ImageFormat::avif, ImageFormat::jxl};
    std::vector<std::string> files;
    for (int i = 2; i < argc; ++i) {
      const std::string arg = argv[i];
      if (arg == "-q" && i + 1 < argc)
        quality = std::atof(argv[++i]);
      else if (arg == "-f" && i + 1 < argc)
        formats = parseFormats(argv[++i]);
      else
        files.push_back(arg);
    }
    runPipeline(files, formats, quality);
    return 0;
  }
  std::fprintf(stderr,
               "usage: encode_peak sources FOLDER | encoders [-F FILTER] [SIDE...] | "
               "pipeline [-q Q] [-f jpeg,png,...] FILE...\n");
  return 2;
}
