// Small files that claim huge pictures, or huge work, and inputs that are not files at all.
// Each case runs in a child process under the limit it is about (1 GB of address space, a
// CPU-time limit, an alarm), so that a regression is an exit code, not a machine out of
// memory or a hung test.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <webp/mux.h>
#include <zlib.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>

#include "engine/Cancellation.h"
#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using fixtures::Bytes;

constexpr rlim_t kOneGigabyte = 1ull << 30;

void put32(Bytes& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}
void chunk(Bytes& out, const char* type, const Bytes& payload) {
  put32(out, uint32_t(payload.size()));
  const size_t start = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), payload.begin(), payload.end());
  put32(out, uint32_t(crc32(0, out.data() + start, uInt(out.size() - start))));
}

// A 1-bit grey PNG of `size` x `size` pixels, all black, deflated row by row (22000 x 22000
// is about 60 KB).
Bytes blackPng(uint32_t size, bool interlaced) {
  Bytes png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}, ihdr;
  put32(ihdr, size);
  put32(ihdr, size);
  ihdr.insert(ihdr.end(), {1, 0, 0, 0, uint8_t(interlaced ? 1 : 0)});
  chunk(png, "IHDR", ihdr);
  z_stream z{};
  deflateInit(&z, 9);
  Bytes idat(1 << 20), row;
  z.next_out = idat.data();
  z.avail_out = uInt(idat.size());
  auto feed = [&](uint32_t rows, uint32_t columns) {
    row.assign(1 + (columns + 7) / 8, 0);
    for (uint32_t y = 0; y < rows && columns > 0; ++y) {
      z.next_in = row.data();
      z.avail_in = uInt(row.size());
      while (z.avail_in > 0) deflate(&z, Z_NO_FLUSH);
    }
  };
  if (!interlaced) feed(size, size);
  static const uint32_t kStart[7][2] = {{0, 0}, {4, 0}, {0, 4}, {2, 0}, {0, 2}, {1, 0}, {0, 1}};
  static const uint32_t kStep[7][2] = {{8, 8}, {8, 8}, {4, 8}, {4, 4}, {2, 4}, {2, 2}, {1, 2}};
  for (int pass = 0; interlaced && pass < 7; ++pass)
    feed((size - kStart[pass][1] + kStep[pass][1] - 1) / kStep[pass][1],
         (size - kStart[pass][0] + kStep[pass][0] - 1) / kStep[pass][0]);
  while (deflate(&z, Z_FINISH) != Z_STREAM_END) {
  }
  idat.resize(z.total_out);
  deflateEnd(&z);
  chunk(png, "IDAT", idat);
  chunk(png, "IEND", {});
  return png;
}

// An animation of one 1 x 1 frame on a 16383 x 16383 canvas: a couple of hundred bytes.
Bytes hugeCanvasWebp() {
  const Bytes pixel = fixtures::webp(fixtures::quadrants(1, 1), {.lossless = true});
  WebPMux* mux = WebPMuxNew();
  WebPMuxFrameInfo frame{};
  frame.bitstream = {pixel.data(), pixel.size()};
  frame.id = WEBP_CHUNK_ANMF;
  frame.duration = 100;
  WebPMuxAnimParams params{0, 0};
  WebPData assembled{};
  const bool ok = WebPMuxPushFrame(mux, &frame, 1) == WEBP_MUX_OK &&
                  WebPMuxSetCanvasSize(mux, 16383, 16383) == WEBP_MUX_OK &&
                  WebPMuxSetAnimationParams(mux, &params) == WEBP_MUX_OK &&
                  WebPMuxAssemble(mux, &assembled) == WEBP_MUX_OK;
  WebPMuxDelete(mux);
  Bytes out(assembled.bytes, assembled.bytes + (ok ? assembled.size : 0));
  WebPDataClear(&assembled);
  return out;
}

// A flat progressive JPEG whose last AC scan, a few bytes, is repeated `copies` times before
// the end: each copy walks every block of the picture again.
Bytes scanBomb(int size, int copies) {
  Bytes file = fixtures::jpeg(fixtures::quadrants(size, size), {.quality = 80, .progressive = true});
  size_t lastScan = 0;
  for (size_t i = 0; i + 1 < file.size(); ++i)
    if (file[i] == 0xFF && file[i + 1] == 0xDA) lastScan = i;
  const Bytes scan(file.begin() + std::ptrdiff_t(lastScan), file.end() - 2);  // up to EOI
  Bytes bomb(file.begin(), file.end() - 2);
  for (int i = 0; i < copies; ++i) bomb.insert(bomb.end(), scan.begin(), scan.end());
  bomb.insert(bomb.end(), {0xFF, 0xD9});
  return bomb;
}

bool refusedAsUndecodable(const std::function<void()>& call) {
  try {
    call();
  } catch (const ImageProcessingError& e) {
    return e.kind() == ImageProcessingError::Kind::decodingFailed;
  } catch (...) {
  }
  return false;
}

// Runs `body` in a child process under `resource` limited to `limit`, with an alarm as a
// last guard against a hang; the child exits 0 when `body` returns true.
[[noreturn]] void runLimited(int resource, rlim_t limit, const std::function<bool()>& body) {
  const struct rlimit r = {limit, limit};
  setrlimit(resource, &r);
  alarm(120);
  _exit(body() ? 0 : 1);
}
void expectInChild(int resource, rlim_t limit, const std::function<bool()>& body) {
#ifdef __SANITIZE_ADDRESS__
  // AddressSanitizer's shadow memory cannot be mapped under an address-space limit.
  if (resource == RLIMIT_AS) GTEST_SKIP() << "address-space limits need a build without AddressSanitizer";
#endif
  EXPECT_EXIT(runLimited(resource, limit, body), ::testing::ExitedWithCode(0), "");
}

class Bombs : public ::testing::Test {
 protected:
  testing::TempDir dir;
};

TEST_F(Bombs, InspectUnderOneGigabyteAndRefuseTheFullDecodeBeforeAllocating) {
  struct Bomb {
    std::string name;
    Bytes bytes;
    int size;
    bool thumbnail = true;  // false: one would cost more than inspection may take
    bool preview = true;    // false: the comparison's preview would cost more than it may take
  };
  // Grids of 32 x 32 cells of one 512 x 512 tile: libheif and libavif decode a grid whole.
  const DecodedImage tile = fixtures::quadrants(512, 512);
  const Bomb bombs[] = {
      {"bomb.png", blackPng(22000, false), 22000},
      {"interlaced.png", blackPng(22000, true), 22000},
      {"bomb.jpg", fixtures::arithmeticGreyJpeg(22000, 22000, 128, 120000), 22000},
      {"canvas.webp", hugeCanvasWebp(), 16383},
      {"grid.heic", fixtures::grid(fixtures::heic(tile, {.alpha = false}), 32, 32), 16384, false},
      {"grid.avif", fixtures::grid(fixtures::avif(tile, {.alpha = false}), 32, 32), 16384, false, false}};
  for (const Bomb& bomb : bombs) {
    SCOPED_TRACE(bomb.name);
    ASSERT_LT(bomb.bytes.size(), 200u << 10);
    const std::string path = dir.file(bomb.name);
    testing::writeBytes(path, bomb.bytes);
    // What the batch counts for the inspection: the file, and the thumbnail's decode if made.
    const uint64_t cost = ImageDecoder::inspectionPeakBytes(path);
    EXPECT_EQ(cost > bomb.bytes.size(), bomb.thumbnail) << cost;
    EXPECT_LE(cost, ImageDecoder::kInspectionMemory);
    // Refused from the header alone: without the bound this decodes some 2 GB here.
    if (!bomb.preview) {
      EXPECT_FALSE(ImageDecoder::loadPreview(path, 1600));
    }
    expectInChild(RLIMIT_AS, kOneGigabyte, [&] {
      const auto light = ImageDecoder::inspect(path);
      if (light.pixelWidth != bomb.size || light.pixelHeight != bomb.size || light.frameCount != 1 ||
          light.thumbnail.empty() == bomb.thumbnail ||
          std::max(light.thumbnail.width, light.thumbnail.height) > 256)
        return false;
      // Inspection made no full-size copy, and the encode is refused with the usual text.
      const auto result =
          ImageCompressor::compress(path, dir.path(), ImageFormat::heic, 70, bomb.name + ".heic");
      return result.error == ImageProcessingError::decodingFailed().description();
    });
  }
}

TEST_F(Bombs, ThousandsOfScansAreRefusedWithinACPULimit) {
  const std::string path = dir.file("scans.jpg");
  // Without the limit, reading it takes minutes of CPU.
  testing::writeBytes(path, scanBomb(2048, 20000));
  expectInChild(RLIMIT_CPU, 30, [&] {
    return refusedAsUndecodable([&] { ImageDecoder::inspect(path); }) &&
           refusedAsUndecodable([&] { ImageDecoder::decodeCGImageSource(ImageDecoder::readSource(path)); });
  });
  // A real progressive file still reads.
  EXPECT_NO_THROW(ImageDecoder::decodeCGImageSource(scanBomb(64, 0)));
}

TEST_F(Bombs, WhatIsNotARegularImageFileIsRefusedWithoutReadingIt) {
  const std::string fifo = dir.file("pipe.png"), socketPath = dir.file("socket.png"),
                    sparse = dir.file("sparse.png");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  // 3 GB that start as no image: refused from the first bytes, never read whole.
  testing::writeBytes(sparse, {'h', 'e', 'l', 'l', 'o'});
  ASSERT_EQ(truncate(sparse.c_str(), 3ll << 30), 0);

  testing::writeBytes(dir.file("empty.png"), {});
  for (const std::string& path :
       {fifo, socketPath, sparse, std::string("/dev/zero"), dir.path(), dir.file("empty.png")}) {
    SCOPED_TRACE(path);
    // Under an alarm and 1 GB: a read that blocks or grows without end kills the child.
    expectInChild(RLIMIT_AS, kOneGigabyte, [&] {
      alarm(10);
      const auto result = ImageCompressor::compress(path, dir.path(), ImageFormat::jpeg, 70, "out.jpg");
      return !ImageFormats::detect(path) && ImageDecoder::inspectionPeakBytes(path) == 0 &&
             (path == sparse || ImageDecoder::fileSize(path) == 0) &&
             refusedAsUndecodable([&] { ImageDecoder::readSource(path); }) &&
             refusedAsUndecodable([&] { ImageDecoder::inspect(path); }) &&
             !ImageDecoder::loadPreview(path, 64) &&
             result.error == ImageProcessingError::decodingFailed().description();
    });
  }
  close(sock);
  EXPECT_TRUE(refusedAsUndecodable([&] { ImageDecoder::inspect(dir.file("missing.png")); }));
  EXPECT_FALSE(ImageDecoder::loadPreview(dir.file("missing.png"), 64));
}

TEST_F(Bombs, AFileLargerThanItsPixelsCanTakeIsRefusedBeforeItsBodyIsRead) {
  // A valid 64 x 64 PNG followed by 3 GB of holes: refused from its header, never read whole.
  const std::string path = dir.file("sparse.png");
  testing::writeBytes(path, fixtures::png(fixtures::quadrants(64, 64)));
  ASSERT_EQ(truncate(path.c_str(), 3ll << 30), 0);
  expectInChild(RLIMIT_AS, kOneGigabyte, [&] {
    alarm(10);
    const auto result = ImageCompressor::compress(path, dir.path(), ImageFormat::jpeg, 70, "out.jpg");
    return refusedAsUndecodable([&] { ImageDecoder::readSource(path); }) &&
           refusedAsUndecodable([&] { ImageDecoder::inspect(path); }) &&
           result.error == ImageProcessingError::decodingFailed().description();
  });
  // The header alone still gives the size that schedules the file.
  const auto header = ImageDecoder::readHeader(path);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->width, 64);
}

// Every codec with a hook stops on a raised flag with Cancelled, never with a failure that a
// fallback would take for its cue (the sanitizer build checks that nothing it held leaks), and
// works again once the scope has ended.
void expectCancelled(const char* what, const std::function<void()>& call) {
  try {
    call();
    ADD_FAILURE() << what << ": a cancelled call ran to its end";
  } catch (const Cancellation::Cancelled&) {
  } catch (const std::exception& e) {
    ADD_FAILURE() << what << ": cancelled as a failure: " << e.what();
  }
}

TEST(Cancellation, ARaisedFlagStopsADecodeAndOnlyOnItsOwnThread) {
  const DecodedImage photo = testing::makeImage(300, 200, testing::Pattern::photo);
  const Bytes png = fixtures::png(photo);
  const Bytes jpeg = fixtures::jpeg(photo, {.progressive = true});
  const Bytes jxl = fixtures::jxl(photo, {.lossless = false});
  const Bytes webp = fixtures::webp(photo);
  std::atomic<bool> flag{true};
  {
    Cancellation::Scope scope(&flag);
    for (const Bytes* file : {&png, &jpeg, &jxl, &webp})
      expectCancelled("decode", [&] { ImageDecoder::decodeCGImageSource(*file); });
  }
  for (const Bytes* file : {&png, &jxl, &webp})
    EXPECT_NO_THROW(ImageDecoder::decodeCGImageSource(*file));  // the scope ended

  // WebP is shown to its decoder in slices: one of several slices gives libwebp's own pixels.
  const Bytes noisy =
      fixtures::webp(testing::makeImage(400, 300, testing::Pattern::noisyPhoto), {.lossless = true});
  ASSERT_GT(noisy.size(), 262'144u);
  const auto reference = testing::decodeWebP(noisy);
  ASSERT_TRUE(reference);
  EXPECT_TRUE(ImageDecoder::decodeCGImageSource(noisy).image.pixels8 == reference->rgba);
}

TEST(Cancellation, ARaisedFlagStopsEachHookedEncoder) {
  using Mode = EncodingPlan::Mode;
  const RGBABuffer rgba = testing::makeBuffer(300, 200, testing::Pattern::photo, 4, true);
  ImageCharacteristics photo;
  photo.hasAlpha = true;
  const std::pair<const char*, std::function<Bytes()>> encoders[] = {
      {"WebP lossy", [&] { return WebPEncoder::encode(rgba, testing::makePlan(Mode::lossy(80)), photo); }},
      {"WebP lossless",
       [&] { return WebPEncoder::encode(rgba, testing::makePlan(Mode::lossless()), photo); }},
      {"JPEG XL", [&] { return JXLEncoder::encode(rgba, true, testing::makePlan(Mode::lossy(80), 0)); }},
      {"PNG palette",
       [&] { return PNGQuantEncoder::encodePalette(rgba, testing::makePlan(Mode::lossy(80))); }},
      // The palette's failure must not fall back to truecolour once cancelled.
      {"PNG", [&] { return PNGQuantEncoder::encode(rgba, testing::makePlan(Mode::lossy(80))); }},
      {"PNG truecolour",
       [&] { return PNGQuantEncoder::encodeLossless(rgba, testing::makePlan(Mode::lossless())); }},
  };
  std::atomic<bool> flag{true};
  for (const auto& [name, encode] : encoders) {
    {
      Cancellation::Scope scope(&flag);
      expectCancelled(name, [&] { encode(); });
    }
    EXPECT_FALSE(encode().empty()) << name;
  }
}

}  // namespace
}  // namespace quillane
