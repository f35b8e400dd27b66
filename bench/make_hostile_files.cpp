// Writes the largest files of the modern formats that inspection has to bound, into the folder
// given: grids of one repeated tile (HEIC up to 20480 x 20480, AVIF at libavif's 16384 x
// 16384) and JPEG XL pictures of 16384 x 16384. Measure with
//   /usr/bin/time -f '%U s %M KB' quillane-cli inspect FILE
// (bench/README.md, "Hostile inputs").

#include <cstdio>
#include <string>

#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

using namespace quillane;

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: make_hostile_files FOLDER [NAME-PART]\n");
    return 2;
  }
  const std::string folder = argv[1], only = argc > 2 ? argv[2] : "";
  auto write = [&](const std::string& name, const auto& make) {
    if (name.find(only) == std::string::npos) return;
    const fixtures::Bytes bytes = make();
    testing::writeBytes(folder + "/" + name, bytes);
    std::printf("%s: %zu bytes\n", name.c_str(), bytes.size());
  };
  const DecodedImage tile = testing::makeImage(512, 512, testing::Pattern::photo);
  write("grid-16384.heic", [&] { return fixtures::grid(fixtures::heic(tile, {.alpha = false}), 32, 32); });
  write("grid-20480.heic", [&] { return fixtures::grid(fixtures::heic(tile, {.alpha = false}), 40, 40); });
  write("grid-16384.avif", [&] { return fixtures::grid(fixtures::avif(tile, {.alpha = false}), 32, 32); });
  // Single pictures as cameras write them, for the bytes a pixel of each reader.
  const DecodedImage photo = testing::makeImage(4096, 4096, testing::Pattern::photo);
  write("single-4096.heic", [&] { return fixtures::heic(photo, {.alpha = false}); });
  write("single-4096.avif", [&] { return fixtures::avif(photo, {.alpha = false}); });
  write("single-4096-10bit.avif", [&] { return fixtures::avif(photo, {.depth = 10, .alpha = false}); });
  write("single-4096-lossless.jxl", [&] { return fixtures::jxl(photo, {.lossless = true}); });
  write("single-4096-lossy.jxl", [&] { return fixtures::jxl(photo, {.lossless = false}); });
  write("16383-lossless.webp",
        [&] { return fixtures::webp(fixtures::quadrants(16383, 16383), {.lossless = true}); });
  write("16384-lossless.jxl",
        [&] { return fixtures::jxl(fixtures::quadrants(16384, 16384), {.lossless = true}); });
  write("16384-lossy.jxl",
        [&] { return fixtures::jxl(fixtures::quadrants(16384, 16384), {.lossless = false}); });
  return 0;
}
