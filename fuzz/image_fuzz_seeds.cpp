// Writes the seed corpus of the image fuzz targets: small real files of each format, made
// by the tests' own writers, and small hostile ones (tests/support/CodecFixtures.h), one folder
// per format (DIR/png, DIR/jpeg, ...).
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

using namespace quillane;
using fixtures::Bytes;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: image_fuzz_seeds DIR\n");
    return 2;
  }
  const std::filesystem::path root = argv[1];
  const DecodedImage photo = testing::makeImage(24, 16, testing::Pattern::photo, 5, true);
  const DecodedImage quarters = fixtures::quadrants(16, 12), wide = fixtures::quadrants(12, 10, 16, true);
  const DecodedImage coded = fixtures::quadrants(160, 128);  // declared 12 x 16
  const DecodedImage cell = fixtures::quadrants(64, 64);     // as small as libavif takes a grid's cells
  const std::vector<std::pair<std::string, std::function<Bytes()>>> seeds = {
      {"png/rgba", [&] { return fixtures::png(photo, {.icc = fixtures::displayP3ICC(), .orientation = 6}); }},
      {"png/wide", [&] { return fixtures::png(wide, {.interlaced = true}); }},
      {"png/grey", [&] { return fixtures::png(quarters, {.grey = true, .alpha = false}); }},
      {"png/palette", [&] { return fixtures::png(photo, {.palette = true, .interlaced = true}); }},
      {"png/text", [&] { return fixtures::withTextChunks(fixtures::png(photo), 3, 1 << 20); }},
      {"png/starved", [&] { return fixtures::starvedPng(4096, 4096, 8, 2048, false); }},
      {"png/truncated", [&] { return fixtures::starvedPng(2048, 2048, 16, 2048, true); }},
      {"png/starved_interlaced", [&] { return fixtures::starvedPng(4096, 4096, 8, 2048, false, true); }},
      {"jpeg/plain", [&] { return fixtures::jpeg(photo, {.orientation = 3, .icc = fixtures::srgbICC()}); }},
      {"jpeg/progressive", [&] { return fixtures::jpeg(quarters, {.quality = 70, .progressive = true}); }},
      {"jpeg/grey", [&] { return fixtures::jpeg(quarters, {.grey = true}); }},
      {"jpeg/cmyk",
       [&] { return fixtures::cmykJpeg(8, 8, Bytes(size_t(8 * 8 * 4), 90), fixtures::cmykICC()); }},
      {"webp/lossy", [&] { return fixtures::webp(photo, {.icc = fixtures::srgbICC(), .orientation = 8}); }},
      {"webp/lossless", [&] { return fixtures::webp(quarters, {.lossless = true}); }},
      {"webp/cut",
       [&] {
         const Bytes webp = fixtures::webp(fixtures::quadrants(160, 128), {.lossless = true});
         return fixtures::cutWebp(webp, webp.size() / 2);
       }},
      {"webp/animated",
       [&] {
         return fixtures::animatedWebp({quarters, quarters});
       }},
      {"heic/alpha", [&] { return fixtures::heic(photo, {.quality = 40}); }},
      {"heic/turned",
       [&] { return fixtures::heic(quarters, {.quality = 40, .alpha = false, .orientation = 6}); }},
      {"heic/av1", [&] { return fixtures::heic(quarters, {.quality = 40, .av1 = true}); }},
      {"heic/understated",
       [&] {
         return fixtures::withDeclaredSize(fixtures::heic(coded, {.quality = 40, .alpha = false}), 12, 16);
       }},
      {"heic/grid",
       [&] { return fixtures::grid(fixtures::heic(cell, {.quality = 40, .alpha = false}), 2, 1); }},
      {"heic/overlay",  // of cells larger than itself
       [&] {
         return fixtures::grid(fixtures::heic(cell, {.quality = 40, .alpha = false}), 2, 1,
                               {.overlayWidth = 24, .overlayHeight = 16, .width = 24, .height = 16});
       }},
      {"avif/plain", [&] { return fixtures::avif(photo, {.quantizer = 40, .irotAngle = 1}); }},
      {"avif/ten_bit",
       [&] { return fixtures::avif(wide, {.quantizer = 40, .depth = 10, .icc = fixtures::srgbICC()}); }},
      {"avif/understated",
       [&] { return fixtures::withDeclaredSize(fixtures::avif(coded, {.quantizer = 50}), 12, 16); }},
      {"avif/sequence",
       [&] { return fixtures::avif(quarters, {.quantizer = 50, .alpha = false, .frames = 2}); }},
      {"avif/grid",
       [&] { return fixtures::grid(fixtures::avif(cell, {.quantizer = 50, .alpha = false}), 1, 2); }},
      {"jxl/lossless", [&] { return fixtures::jxl(photo, {.orientation = 5}); }},
      {"jxl/lossy",
       [&] { return fixtures::jxl(quarters, {.lossless = false, .icc = fixtures::displayP3ICC()}); }},
      {"jxl/animated", [&] { return fixtures::jxl(wide, {.frames = 2}); }},
      {"jxl/cut",
       [&] {
         const Bytes jxl = fixtures::jxl(coded, {.lossless = false});
         return Bytes(jxl.begin(), jxl.begin() + std::ptrdiff_t(jxl.size() / 2));
       }},
  };
  try {
    for (const auto& [name, make] : seeds) {
      const std::filesystem::path path = root / name;
      std::filesystem::create_directories(path.parent_path());
      testing::writeBytes(path.string(), make());
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "image_fuzz_seeds: %s\n", e.what());
    return 1;
  }
  return 0;
}
