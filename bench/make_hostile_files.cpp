// Writes the largest files of the modern formats that inspection has to bound, into the folder
// given: grids of one repeated tile (HEIC up to 20480 x 20480, AVIF at libavif's 16384 x
// 16384) and JPEG XL pictures of 16384 x 16384; and files that lie about what they hold
// (tests/support/CodecFixtures.h): coded pictures larger than declared, PNG text chunks, image
// data too short for its rows, a sparse file, a picture above the hard limits. Measure with
//   /usr/bin/time -f '%U s %M KB' quillane-cli inspect FILE
// (bench/README.md, "Hostile inputs" and "Files that lie").

#include <avif/avif.h>
#include <libheif/heif.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "engine/CHandle.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

using namespace quillane;

namespace {

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

// A flat grey 4:2:0 picture of `size` x `size` as AVIF (aom, fastest), written from its planes.
fixtures::Bytes flatAvif(uint32_t size) {
  CHandle<avifImage, avifImageDestroy> image(avifImageCreate(size, size, 8, AVIF_PIXEL_FORMAT_YUV420));
  require(avifImageAllocatePlanes(image.get(), AVIF_PLANES_YUV) == AVIF_RESULT_OK, "planes");
  for (int c = 0; c < 3; ++c)
    std::memset(image->yuvPlanes[c], 128, size_t(image->yuvRowBytes[c]) * (c ? (size + 1) / 2 : size));
  CHandle<avifEncoder, avifEncoderDestroy> encoder(avifEncoderCreate());
  encoder->codecChoice = AVIF_CODEC_CHOICE_AOM;
  encoder->speed = AVIF_SPEED_FASTEST;
  encoder->minQuantizer = encoder->maxQuantizer = 63;
  avifRWData out = AVIF_DATA_EMPTY;
  require(avifEncoderAddImage(encoder.get(), image.get(), 1, AVIF_ADD_IMAGE_FLAG_SINGLE) == AVIF_RESULT_OK &&
              avifEncoderFinish(encoder.get(), &out) == AVIF_RESULT_OK,
          "avif encode");
  fixtures::Bytes bytes(out.data, out.data + out.size);
  avifRWDataFree(&out);
  return bytes;
}

heif_error append(heif_context*, const void* data, size_t size, void* out) {
  auto* bytes = static_cast<fixtures::Bytes*>(out);
  bytes->insert(bytes->end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
  return {heif_error_Ok, heif_suberror_Unspecified, ""};
}

// The same as HEIC (x265, ultrafast), of 8 or 10 bits.
fixtures::Bytes flatHeic(int size, int depth = 8) {
  CHandle<heif_context, heif_context_free> context(heif_context_alloc());
  heif_image* raw = nullptr;
  require(heif_image_create(size, size, heif_colorspace_YCbCr, heif_chroma_420, &raw).code == heif_error_Ok,
          "heif_image_create");
  CHandle<heif_image, heif_image_release> image(raw);
  for (heif_channel channel : {heif_channel_Y, heif_channel_Cb, heif_channel_Cr}) {
    const int side = channel == heif_channel_Y ? size : (size + 1) / 2;
    require(heif_image_add_plane(raw, channel, side, side, depth).code == heif_error_Ok, "plane");
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(raw, channel, &stride);
    for (int y = 0; y < side; ++y)
      for (int x = 0; x < side; ++x)
        if (depth > 8) {
          const uint16_t grey = uint16_t(1 << (depth - 1));
          std::memcpy(plane + size_t(y) * size_t(stride) + size_t(x) * 2, &grey, 2);
        } else {
          plane[size_t(y) * size_t(stride) + size_t(x)] = 128;
        }
  }
  heif_encoder* rawEncoder = nullptr;
  require(heif_context_get_encoder_for_format(context.get(), heif_compression_HEVC, &rawEncoder).code ==
              heif_error_Ok,
          "encoder");
  CHandle<heif_encoder, heif_encoder_release> encoder(rawEncoder);
  heif_encoder_set_lossy_quality(rawEncoder, 10);
  heif_encoder_set_parameter(rawEncoder, "preset", "ultrafast");
  heif_encoder_set_parameter(rawEncoder, "x265:log-level", "none");
  require(heif_context_encode_image(context.get(), raw, rawEncoder, nullptr, nullptr).code == heif_error_Ok,
          "heif_context_encode_image");
  fixtures::Bytes out;
  heif_writer writer{1, append};
  require(heif_context_write(context.get(), &writer, &out).code == heif_error_Ok, "heif_context_write");
  return out;
}

}  // namespace

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
  // Files that lie.
  write("understated-16384.avif", [] { return fixtures::withDeclaredSize(flatAvif(16384), 12, 16); });
  write("understated-8192.heic", [] { return fixtures::withDeclaredSize(flatHeic(8192), 12, 16); });
  // 20480 x 20480 at 10 bits: 419 megapixels, 2.5 GB as 16-bit RGB, which libheif sizes in an int.
  write("grid-20480-10bit.heic", [] { return fixtures::grid(flatHeic(512, 10), 40, 40); });
  // Overlays of 16 x 16 made of flat cells of 8192 x 8192 that libheif decodes whole: one, and
  // nine (604 megapixels together, beyond the limit).
  for (const int cells : {1, 3})
    write("overlay-16-of-" + std::to_string(cells * cells) + "x8192.heic", [cells] {
      return fixtures::grid(flatHeic(8192), cells, cells,
                            {.overlayWidth = 16, .overlayHeight = 16, .width = 16, .height = 16});
    });
  write("text-chunks.png", [] {
    return fixtures::withTextChunks(fixtures::png(testing::makeImage(640, 480, testing::Pattern::photo)), 360,
                                    16u << 20);
  });
  write("truncated-16384-16bit.png", [] { return fixtures::starvedPng(16384, 16384, 16, 174 << 10, true); });
  // Cut short: the pictures' samples must not be touched beyond what their data reaches.
  write("starved-16384-interlaced.png",
        [] { return fixtures::starvedPng(16384, 16384, 8, 2 << 20, false, true); });
  write("cut-8192.jpg", [] {
    const fixtures::Bytes jpeg = fixtures::jpeg(fixtures::quadrants(8192, 8192));
    return fixtures::Bytes(jpeg.begin(), jpeg.begin() + std::ptrdiff_t(jpeg.size() / 4));
  });
  write("cut-16383-lossless.webp", [] {
    const fixtures::Bytes webp = fixtures::webp(fixtures::quadrants(16383, 16383), {.lossless = true});
    return fixtures::cutWebp(webp, webp.size() / 2);
  });
  write("cut-8192-lossy.webp", [] {
    const fixtures::Bytes webp = fixtures::webp(fixtures::quadrants(8192, 8192), {.lossless = false});
    return fixtures::cutWebp(webp, webp.size() / 2);
  });
  write("cut-6144-lossy.jxl", [] {
    const fixtures::Bytes jxl = fixtures::jxl(fixtures::quadrants(6144, 6144), {.lossless = false});
    return fixtures::Bytes(jxl.begin(), jxl.begin() + std::ptrdiff_t(jxl.size() / 2));
  });
  write("100000.png", [] { return fixtures::starvedPng(100000, 100000, 8, 1000, false); });
  write("sparse-1.9GB.png", [] { return fixtures::blackPng(16384, 16384); });
  if (std::string("sparse-1.9GB.png").find(only) != std::string::npos &&
      truncate((folder + "/sparse-1.9GB.png").c_str(), 1900ll << 20) != 0)
    return 1;
  return 0;
}
