// Bad input. Truncated files of every format fail with decodingFailed (or decode), never crash, hang or
// print; files whose headers or boxes say they cannot be read are refused before any pixel memory. Small
// files that claim huge pictures, or huge work, and inputs that are not files at all each run in a child
// process under the limit they are about (1 GB of address space, CPU time, an alarm), so that a regression
// is an exit code, not a machine out of memory or a hung test.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <webp/encode.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string_view>
#include <thread>

#include "engine/Cancellation.h"
#include "engine/EncodeCost.h"
#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/PerceptualDistance.h"
#include "engine/codecs/Readers.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using fixtures::Bytes;
using namespace std::literals;

// Flipped, dropped and repeated bytes are the image_fuzz_* tests' subject (fuzz/); here every cut in the
// headers: only decodingFailed may escape any reading entry point, and every reader stays silent.
TEST(DamagedFiles, TruncatedFilesOnlyEverFailCleanlyAndSilently) {
  const DecodedImage picture = testing::makeImage(40, 28, testing::Pattern::photo, 7, true);
  const std::pair<const char*, Bytes> samples[] = {
      {"jpeg", fixtures::jpeg(picture, {.orientation = 6, .icc = fixtures::displayP3ICC()})},
      {"cmyk jpeg", fixtures::cmykJpeg(8, 8, Bytes(size_t(8 * 8 * 4), 60), fixtures::cmykICC())},
      {"png", fixtures::png(picture, {.icc = fixtures::displayP3ICC(), .orientation = 3})},
      {"png16", fixtures::png(fixtures::quadrants(20, 10, 16, true))},
      {"webp", fixtures::webp(picture, {.icc = fixtures::displayP3ICC(), .orientation = 8})},
      {"webp animation", fixtures::animatedWebp({picture, fixtures::quadrants(40, 28)})},
      {"heic", fixtures::heic(picture, {.quality = 50})},
      {"heic av1", fixtures::heic(picture, {.quality = 50, .av1 = true})},
      {"avif", fixtures::avif(picture, {.quantizer = 30, .irotAngle = 1})},
      {"jxl", fixtures::jxl(picture, {.orientation = 5})},
      {"jxl lossy animation", fixtures::jxl(picture, {.lossless = false, .frames = 2})},
  };
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  for (const auto& [name, file] : samples) {
    EXPECT_NO_THROW(ImageDecoder::decodeCGImageSource(file)) << name;
    // Every byte of the first 64 (headers), then 40 places spread over the rest.
    std::vector<size_t> cuts = {file.size() - 1};
    for (size_t n = 0; n < std::min<size_t>(64, file.size()); ++n) cuts.push_back(n);
    for (int i = 1; i < 40; ++i) cuts.push_back(file.size() * size_t(i) / 40);
    for (size_t n : cuts) {
      SCOPED_TRACE(std::string(name) + " cut at " + std::to_string(n));
      const std::span<const uint8_t> cut = std::span(file).first(n);
      const std::string failure =
          testing::failureOf([&] { EXPECT_FALSE(ImageDecoder::decodeCGImageSource(cut).image.empty()); });
      EXPECT_TRUE(failure.empty() || failure == "decoding failed") << failure;
      ImageService::properties(cut);
      const auto thumb = ImageService::thumbnail(cut, 16);
      EXPECT_TRUE(!thumb || std::max(thumb->width, thumb->height) <= 16);
    }
  }
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

// Files refused whole, from their headers or boxes, before any picture memory: every decode,
// thumbnail and inspection of them fails as undecodable, never by a failed allocation.
TEST(RefusedFiles, AreRefusedFromWhatTheyDeclareBeforeAnyPixelMemory) {
  enum Why { tooLarge, tooLongToEncode, notOurFormat, codedLargerThanDeclared };
  struct Refused {
    std::string name;
    Bytes file;
    Why why = codedLargerThanDeclared;
  };
  const auto bytes = [](std::string_view text) { return Bytes(text.begin(), text.end()); };
  Bytes jpeg = fixtures::jpeg(fixtures::quadrants(8, 8));
  const uint8_t sof0[] = {0xFF, 0xC0};  // then length, precision, height, width
  const auto sof = std::search(jpeg.begin(), jpeg.end(), std::begin(sof0), std::end(sof0));
  ASSERT_LT(sof + 9, jpeg.end());
  sof[5] = sof[7] = 0xEA;  // 0xEA60 = 60000, high byte first
  sof[6] = sof[8] = 0x60;
  std::vector<Refused> files = {
      // Their headers read, but such pictures can never be encoded.
      {"100000 x 100000", fixtures::starvedPng(100'000, 100'000, 8, 1000, false), tooLarge},
      {"60000 x 60000 JPEG", jpeg, tooLarge},  // within libjpeg's own limit of 65500
      {"300000 x 1", fixtures::starvedPng(300'000, 1, 8, 1000, false), tooLongToEncode},
      {"GIF", bytes("GIF89a\1\0\1\0\0\0\0,\0\0\0\0\1\0\1\0\0\2\2D\1\0;"sv), notOurFormat},
      {"TIFF", bytes("II*\0\x08\0\0\0\0\0\0\0\0\0"sv), notOurFormat},
      {"BMP", bytes("BM:\0\0\0\0\0\0\0\x36\0\0\0(\0\0\0\1\0\0\0\1\0\0\0\1\0\x18\0"sv), notOurFormat}};
  // HEIC and AVIF files that declare 12 x 16 for a picture coded at 256 x 256: the same lie at 16384 x 16384
  // took 900 MB to inspect. Honest files of odd sizes read: their coded pictures are whole blocks larger.
  using Writer = std::function<Bytes(const DecodedImage&)>;
  const std::pair<const char*, Writer> writers[] = {
      {"HEVC", [](const DecodedImage& i) { return fixtures::heic(i, {.quality = 40, .alpha = false}); }},
      {"HEVC and alpha", [](const DecodedImage& i) { return fixtures::heic(i, {.quality = 40}); }},
      {"AV1 in HEIC", [](const DecodedImage& i) { return fixtures::heic(i, {.quality = 40, .av1 = true}); }},
      {"AVIF", [](const DecodedImage& i) { return fixtures::avif(i, {.quantizer = 40}); }},
      {"AVIF sequence",
       [](const DecodedImage& i) {
         return fixtures::avif(i, {.quantizer = 40, .alpha = false, .frames = 2});
       }},
      {"AVIF grid", [](const DecodedImage& i) {  // cells of at least 64 x 64, as libavif wants
         const DecodedImage cell = fixtures::quadrants(std::max(i.width, 64), std::max(i.height, 64));
         return fixtures::grid(fixtures::avif(cell, {.quantizer = 40, .alpha = false}), 2, 2);
       }}};
  for (const auto& [name, write] : writers) {
    EXPECT_NO_THROW(ImageDecoder::decodeCGImageSource(write(fixtures::quadrants(37, 21)))) << name;
    files.push_back({name, fixtures::withDeclaredSize(write(fixtures::quadrants(256, 256)), 12, 16)});
  }
  // Grids that declare 12 x 16 for honest cells that make 128 x 128.
  const Bytes cell = fixtures::heic(fixtures::quadrants(64, 64), {.quality = 40, .alpha = false});
  auto understated = [&](bool decoy) {
    Bytes grid = fixtures::grid(cell, 2, 2, {.decoy = decoy});
    for (size_t at = 0; at + 16 <= grid.size(); ++at)
      if (!std::memcmp(&grid[at], "ispe", 4) && grid[at + 11] == 128 && grid[at + 15] == 128)
        grid[at + 11] = 12, grid[at + 15] = 16;
    return grid;
  };
  files.push_back({"grid of honest cells", understated(false)});
  // An overlay of honest cells on a canvas of 8000 x 8000, declared 128 x 128: libheif
  // drew it at 8000 x 8000 (at 30000 x 30000 it crashed).
  EXPECT_NO_THROW(ImageDecoder::decodeCGImageSource(
      fixtures::grid(cell, 2, 2, {.overlayWidth = 128, .overlayHeight = 128})));
  files.push_back({"overlay on a larger canvas",
                   fixtures::grid(cell, 2, 2, {.overlayWidth = 8000, .overlayHeight = 8000})});
  // An honest overlay whose first cell is of an unknown type: libheif asserted on it. Its list of
  // cells in a box of a 64-bit size, and counted one too many, libheif reads too (the four to the end).
  for (const int large : {0, 1}) {
    const std::string name =
        large ? "overlay of an unknown item, listed at length" : "overlay of an unknown item";
    Bytes file = fixtures::grid(cell, 2, 2,
                                {.overlayWidth = 128, .overlayHeight = 128, .largeReference = bool(large)});
    std::search(file.begin(), file.end(), std::begin("hvc1"), std::end("hvc1") - 1)[3] = '2';
    files.push_back({name, file});
    std::search(file.begin(), file.end(), std::begin("dimg"), std::end("dimg") - 1)[7 + 8 * large] = 5;
    files.push_back({name + ", miscounted", file});
  }
  // Cells decoded whole however little of them the picture shows: 64 x 64 cells declared
  // 12000 x 12000 (24000 x 24000), four times 144 megapixels in an overlay of 16 x 16 and one
  // of 576 in a grid of 16 x 16, each within the limit alone. Without the limit libheif's work
  // follows the cells' true size, whatever they declare.
  const Bytes cells = fixtures::withDeclaredSize(cell, 12000, 12000);
  files.push_back(
      {"overlay of cells beyond the limit together",
       fixtures::grid(cells, 2, 2, {.overlayWidth = 16, .overlayHeight = 16, .width = 16, .height = 16}),
       tooLarge});
  files.push_back(
      {"grid of a cell beyond the limit",
       fixtures::grid(fixtures::withDeclaredSize(cell, 24000, 24000), 1, 1, {.width = 16, .height = 16}),
       tooLarge});
  // 16384 x 16384 at 10 bits (by its configuration), 2 GiB as 16-bit RGBA: libheif sizes that in an int.
  Bytes deep = fixtures::withDeclaredSize(
      fixtures::heic(fixtures::quadrants(64, 64), {.quality = 40, .alpha = false}), 16384, 16384);
  std::search(deep.begin(), deep.end(), std::begin("hvcC"), std::end("hvcC") - 1)[4 + 17] |= 2;
  files.push_back({"16-bit picture of 268 megapixels", deep, tooLarge});
  // Located a second time, at a 1 x 1 grid: libheif reads the first location, so a reader that
  // kept the last would check the wrong grid.
  files.push_back({"grid located twice", understated(true)});
  // Followed by the same item information declaring it 1 x 1: libheif reads the last.
  files.push_back({"grid described twice", fixtures::grid(cell, 2, 2, {.secondMeta = true})});
  // Its item locations claiming 2-byte base offsets, a size libheif reads as none: a reader
  // that took 2 bytes would miss the grid's data and so its size.
  Bytes grid = understated(false);
  std::search(grid.begin(), grid.end(), std::begin("iloc"), std::end("iloc") - 1)[9] = 0x20;
  files.push_back({"grid located in fields of an unknown size", grid});

  testing::TempDir dir;
  for (const auto& [name, file, why] : files) {
    SCOPED_TRACE(name);
    try {
      ImageService::decodeFirstFrame(file);
      ADD_FAILURE() << "decoded";
    } catch (const ImageProcessingError& e) {
      EXPECT_EQ(e.kind(), ImageProcessingError::Kind::decodingFailed);
      EXPECT_TRUE(why != tooLarge || std::string(e.what()) == codecs::kTooLarge) << e.what();
    }
    EXPECT_FALSE(ImageService::thumbnail(file, 256));
    const std::string path = dir.write("refused", file);
    EXPECT_EQ(testing::failureOf([&] { ImageDecoder::inspect(path); }), "decoding failed");
    EXPECT_TRUE((why != tooLarge && why != tooLongToEncode) || ImageDecoder::readHeader(path))
        << "its header reads";
    EXPECT_EQ(bool(ImageService::typeIdentifier(file)) && !ImageFormats::detect(file), why == notOurFormat);
  }
  EXPECT_EQ(ImageService::properties(files[0].file)->width, 100000);
  // Within the limit, an overlay's cost counts the cells it decodes: 100 megapixels, 16 x 16 shown.
  const std::string costly = dir.write(
      "costly.heic", fixtures::grid(fixtures::withDeclaredSize(cell, 10000, 10000), 1, 1,
                                    {.overlayWidth = 16, .overlayHeight = 16, .width = 16, .height = 16}));
  EXPECT_GT(EncodeCost::peakBytes(costly, ImageFormat::jpeg, 75).value_or(0), 1'000'000'000u);
  EXPECT_EQ(ImageDecoder::inspect(costly).heldCellPixels, 10048u * 10048);  // in whole blocks
}

TEST(ValidJpegs, APartlyDownloadedPhotoAndAFlatArithmeticCodedOneDecode) {
  const DecodedImage photo = testing::makeImage(64, 64, testing::Pattern::photo, 3);
  const Bytes full = fixtures::jpeg(photo, {.quality = 90});
  const DecodedImage whole = ImageService::decodeFirstFrame(full);
  const DecodedImage partial = ImageService::decodeFirstFrame(std::span(full).first(full.size() * 2 / 3));
  ASSERT_EQ(partial.width, 64);
  ASSERT_EQ(partial.height, 64);
  // What arrived is shown as it is.
  EXPECT_TRUE(std::equal(whole.pixels8.begin(), whole.pixels8.begin() + std::ptrdiff_t(64) * 4 * 8,
                         partial.pixels8.begin()));

  const Bytes flat = fixtures::arithmeticGreyJpeg(6000, 6000);
  ASSERT_LT(flat.size(), 4000u);
  const DecodedImage grey = ImageService::decodeFirstFrame(flat);
  EXPECT_EQ(grey.width, 6000);
  EXPECT_NEAR(grey.pixels8[(size_t(3000) * 6000 + 3000) * 4], 90, 1);
}

// --- Under limits, in a child process ------------------------------------------------------------

constexpr rlim_t kOneGigabyte = 1ull << 30;

// A flat progressive JPEG whose last AC scan, a few bytes, is repeated `copies` times before
// the end: each copy walks every block of the picture again.
Bytes scanBomb(int size, int copies) {
  Bytes file = fixtures::jpeg(fixtures::quadrants(size, size), {.quality = 80, .progressive = true});
  const uint8_t sos[] = {0xFF, 0xDA};
  const Bytes scan(std::find_end(file.begin(), file.end(), std::begin(sos), std::end(sos)),
                   file.end() - 2);  // up to EOI
  Bytes bomb(file.begin(), file.end() - 2);
  for (int i = 0; i < copies; ++i) bomb.insert(bomb.end(), scan.begin(), scan.end());
  bomb.insert(bomb.end(), {0xFF, 0xD9});
  return bomb;
}

bool refusedAsUndecodable(const std::function<void()>& call) {
  return testing::failureOf(call) == "decoding failed";
}

// Runs `body` in a child process under `resource` limited to `limit`, with an alarm as a
// last guard against a hang; the child exits 0 when `body` returns true.
// NOLINTNEXTLINE(readability-function-size): EXPECT_EXIT expands to a few hundred statements
void expectInChild(int resource, rlim_t limit, const std::function<bool()>& body) {
#ifdef __SANITIZE_ADDRESS__
  // AddressSanitizer's shadow memory cannot be mapped under an address-space limit.
  if (resource == RLIMIT_AS) GTEST_SKIP() << "address-space limits need a build without AddressSanitizer";
#endif
  const struct rlimit r = {limit, limit};
  EXPECT_EXIT((setrlimit(resource, &r), alarm(120), _exit(body() ? 0 : 1)), ::testing::ExitedWithCode(0), "");
}

struct Bombs : ::testing::Test {
  testing::TempDir dir;
};

TEST_F(Bombs, ThousandsOfScansAreRefusedWithinACPULimit) {
  // Without the limit, reading it takes minutes of CPU.
  const std::string path = dir.write("scans.jpg", scanBomb(2048, 20000));
  expectInChild(RLIMIT_CPU, 30, [&] {
    return refusedAsUndecodable([&] { ImageDecoder::inspect(path); }) &&
           refusedAsUndecodable([&] { ImageDecoder::decodeCGImageSource(ImageDecoder::readSource(path)); });
  });
}

TEST_F(Bombs, WhatIsNotARegularImageFileOrIsLargerThanItsPixelsIsRefusedWithoutReadingIt) {
  const std::string fifo = dir.file("pipe.png"), socketPath = dir.file("socket.png");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  // 3 GB that start as no image, a valid 64 x 64 PNG followed by 3 GB of holes, and a PNG header
  // of the largest size it states (2^62 pixels, whose 8 bytes a pixel pass 64 bits) followed by
  // 3 GB: refused from the first bytes or the header, never read whole.
  const std::string sparse = dir.write("sparse.png", {'h', 'e', 'l', 'l', 'o'}),
                    sparsePng = dir.write("sparse-picture.png", fixtures::png(fixtures::quadrants(64, 64))),
                    hugePng = dir.write("huge-picture.png",
                                        fixtures::starvedPng(0x7FFFFFFF, 0x7FFFFFFF, 8, 64, false));
  for (const std::string& path : {sparse, sparsePng, hugePng})
    ASSERT_EQ(truncate(path.c_str(), 3ll << 30), 0);

  for (const std::string& path : {fifo, socketPath, sparse, std::string("/dev/zero"), dir.path(),
                                  dir.write("empty.png", {}), sparsePng, hugePng}) {
    SCOPED_TRACE(path);
    const bool image = path == sparsePng || path == hugePng, regular = image || path == sparse;
    // Under an alarm and 1 GB: a read that blocks or grows without end kills the child.
    expectInChild(RLIMIT_AS, kOneGigabyte, [&] {
      alarm(10);
      const auto result = ImageCompressor::compress(path, dir.path(), ImageFormat::jpeg, 70, "out.jpg");
      return (image || (!ImageFormats::detect(path) && ImageDecoder::inspectionPeakBytes(path) == 0 &&
                        !ImageDecoder::loadPreview(path, 64))) &&
             (regular || ImageDecoder::fileSize(path) == 0) &&
             refusedAsUndecodable([&] { ImageDecoder::readSource(path); }) &&
             refusedAsUndecodable([&] { ImageDecoder::inspect(path); }) &&
             result.error == ImageProcessingError::decodingFailed().description();
    });
  }
  close(sock);
  // A missing file is told as such, as a compression of it is.
  EXPECT_THROW(ImageDecoder::inspect(dir.file("missing.png")), FileError);
  EXPECT_FALSE(ImageDecoder::loadPreview(dir.file("missing.png"), 64));
  // The header alone still gives the size that schedules the picture.
  const auto header = ImageDecoder::readHeader(sparsePng);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->width, 64);
}

uint64_t peakResidentBytes() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return uint64_t(usage.ru_maxrss) << 10;
}

TEST_F(Bombs, APngWhoseDataCannotFillItsRowsIsRefusedBeforeAllocating) {
  // 8192 x 8192 (256 MB of RGBA) from 40 KB of data, cut short or ended with too little; and
  // from 1 MB, enough at deflate's ratio, but noise that fails within its first rows: refused
  // before allocating, or with only those rows touched.
  for (const auto& [truncated, data] :
       {std::pair(true, 40 << 10), std::pair(false, 40 << 10), std::pair(false, 1 << 20)}) {
    SCOPED_TRACE(data);
    const Bytes file = fixtures::starvedPng(8192, 8192, 8, size_t(data), truncated);
    expectInChild(RLIMIT_AS, kOneGigabyte, [&] {
      const uint64_t before = peakResidentBytes();
      return refusedAsUndecodable([&] { ImageDecoder::decodeCGImageSource(file); }) &&
             peakResidentBytes() - before < (64u << 20);
    });
  }
  // Data at deflate's highest ratio fills its rows: a black 4096 x 4096 picture from 2 KB.
  const Bytes black = fixtures::blackPng(4096, 4096);
  ASSERT_LT(black.size(), 4u << 10);
  EXPECT_EQ(ImageDecoder::decodeCGImageSource(black).image.width, 4096);
}

// A JPEG XL of 24 megapixels at a low quality goes in one frame, up to some 1.6 GB, only where
// the address space holds that: under 1 GB it keeps its strips, and is claimed as strips.
TEST(JxlStrips, ALowQualityFrameTheAddressSpaceCannotHoldKeepsItsStrips) {
  constexpr int width = 6000, height = 4000;
  ASSERT_EQ(JXLEncoder::lossyStripRows(width, height, 35), height);
  expectInChild(RLIMIT_AS, kOneGigabyte, [&] {
    return JXLEncoder::lossyStripRows(width, height, 35) < height &&
           EncodeCost::encodingBytes(ImageFormat::jxl, EncodingPlan::Mode::lossy(35), 0, width, height, true,
                                     true) < kOneGigabyte;
  });
}

TEST_F(Bombs, TextChunksAreNeverInflated) {
  // 3 MB of zTXt chunks that inflate to 3 GB: seconds of CPU a megabyte when they are read.
  const DecodedImage photo = testing::makeImage(64, 48, testing::Pattern::photo);
  const Bytes plain = fixtures::png(photo), texts = fixtures::withTextChunks(plain, 200, 16u << 20);
  ASSERT_GT(texts.size(), 3u << 20);
  const std::string path = dir.write("texts.png", texts);
  expectInChild(RLIMIT_CPU, 2, [&] {
    return !ImageDecoder::inspect(path).thumbnail.empty() &&
           ImageDecoder::decodeCGImageSource(texts).image.pixels8 ==
               ImageDecoder::decodeCGImageSource(plain).image.pixels8;
  });
}

// Bytes this process has read from files and pipes so far.
uint64_t bytesRead() {
  std::string key;  // "rchar:", the first line's
  uint64_t rchar = 0;
  std::ifstream("/proc/self/io") >> key >> rchar;
  return rchar;
}

// Small files that claim huge pictures, and pictures followed by holes within what their pixels
// may take. Inspection stays under 1 GB and reads what it needs, not the whole file; the batch
// counts for it the file and the thumbnail's decode if one is made, never a copy of the file.
// The claims' full decode is refused from the header before allocating (without the bound it
// takes some 2 GB here); the others give their previews.
TEST_F(Bombs, InspectionStaysUnderOneGigabyteAndReadsWhatItNeeds) {
  struct File {
    std::string name;
    Bytes bytes;
    int side;  // of a claim; 0: a picture followed by holes up to `holes` bytes
    int64_t holes = 0;
    bool thumbnail = true;  // false: one would cost more than inspection may take
    bool preview = true;    // false: the comparison's preview would cost more than it may take
  };
  // Grids of 32 x 32 cells of one 512 x 512 tile: libheif and libavif decode a grid whole.
  const DecodedImage tile = fixtures::quadrants(512, 512);
  const DecodedImage photo = testing::makeImage(320, 240, testing::Pattern::photo);
  const File files[] = {
      {"bomb.png", fixtures::blackPng(22000, 22000), 22000},
      {"interlaced.png", fixtures::blackPng(22000, 22000, true), 22000},
      {"bomb.jpg", fixtures::arithmeticGreyJpeg(22000, 22000, 128, 120000), 22000},
      {"canvas.webp", fixtures::animatedWebp({fixtures::quadrants(1, 1)}, 16383, 16383), 16383},
      {"grid.heic", fixtures::grid(fixtures::heic(tile, {.alpha = false}), 32, 32), 16384, 0, false},
      {"grid.avif", fixtures::grid(fixtures::avif(tile, {.alpha = false}), 32, 32), 16384, 0, false, false},
      {"sparse.png", fixtures::blackPng(16384, 16384, true), 0, 1900ll << 20},
      {"sparse.jpg", fixtures::arithmeticGreyJpeg(16384, 16384), 0, 1900ll << 20},
      {"sparse.webp", fixtures::webp(photo), 0, 64ll << 20},
      {"sparse.heic", fixtures::heic(photo), 0, 64ll << 20},
      {"sparse.avif", fixtures::avif(photo), 0, 64ll << 20},
      {"sparse.jxl", fixtures::jxl(photo), 0, 64ll << 20}};
  for (const File& file : files) {
    SCOPED_TRACE(file.name);
    ASSERT_LT(file.bytes.size(), 200u << 10);
    const std::string path = dir.write(file.name, file.bytes);
    ASSERT_EQ(file.holes ? truncate(path.c_str(), file.holes) : 0, 0);
    const uint64_t cost = ImageDecoder::inspectionPeakBytes(path);
    EXPECT_LE(cost, file.holes ? 64u << 20 : ImageDecoder::kInspectionMemory);
    EXPECT_TRUE(file.holes || (cost > file.bytes.size()) == file.thumbnail) << cost;
    EXPECT_TRUE(file.preview || !ImageDecoder::loadPreview(path, 1600));
    expectInChild(RLIMIT_AS, kOneGigabyte, [&] {
      const uint64_t before = bytesRead();
      const auto light = ImageDecoder::inspect(path);
      if (light.frameCount != 1 || light.thumbnail.empty() == file.thumbnail ||
          (file.holes && light.thumbnail.width != std::min(light.pixelWidth, 256)) ||
          std::max(light.thumbnail.width, light.thumbnail.height) > 256 ||
          bytesRead() - before >= (16u << 20))
        return false;
      if (file.holes) {
        const auto preview = ImageDecoder::loadPreview(path, 64);
        return preview && preview->width == 64 && peakResidentBytes() < (256u << 20);
      }
      // Inspection made no full-size copy, and the encode is refused with the usual text.
      const auto result =
          ImageCompressor::compress(path, dir.path(), ImageFormat::heic, 70, file.name + ".heic");
      return light.pixelWidth == file.side && light.pixelHeight == file.side &&
             result.error == ImageProcessingError::decodingFailed().description();
    });
  }
}

// Every codec with a hook stops on a raised flag with Cancelled, never with a failure that a fallback would
// take for its cue (the sanitizer build checks that nothing it held leaks), and works again once the scope
// has ended. A flag raised while libjxl is at work (a newer result while its distance is measured, a quit
// during an encode) ends the call with a result or the cancellation error, wherever in the call it lands:
// libjxl aborts the process on a failed work item in some of its passes.
TEST(Cancellation, ARaisedFlagStopsEachHookedCodecAndNeverAbortsLibjxlWhereverItLands) {
  using Mode = EncodingPlan::Mode;
  const DecodedImage photo = testing::makeImage(400, 300, testing::Pattern::photo, 6);
  const Bytes png = fixtures::png(photo), jpeg = fixtures::jpeg(photo, {.progressive = true}),
              jxl = fixtures::jxl(photo, {.lossless = false}), webp = fixtures::webp(photo);
  const RGBABuffer rgba = testing::makeBuffer(400, 300, testing::Pattern::photo, 6, true);
  const EncodingPlan lossy = testing::makePlan(Mode::lossy(80)),
                     lossless = testing::makePlan(Mode::lossless());
  const auto decode = [](const Bytes& file) {
    return [&file] { return !ImageDecoder::decodeCGImageSource(file).image.empty(); };
  };
  // Each gives a picture or a file once the scope has ended; libjxl's own come first.
  const std::pair<const char*, std::function<bool()>> calls[] = {
      {"JPEG XL decode", decode(jxl)},
      {"JPEG XL",
       [&] { return !JXLEncoder::encode(rgba, true, testing::makePlan(Mode::lossy(80), 0)).empty(); }},
      {"PNG decode", decode(png)},
      {"JPEG decode", decode(jpeg)},
      {"WebP decode", decode(webp)},
      {"WebP lossy", [&] { return !WebPEncoder::encode(rgba, lossy, {.hasAlpha = true}).empty(); }},
      {"WebP lossless", [&] { return !WebPEncoder::encode(rgba, lossless, {.hasAlpha = true}).empty(); }},
      {"PNG palette", [&] { return !PNGQuantEncoder::encodePalette(rgba, lossy).empty(); }},
      // The palette's failure must not fall back to truecolour once cancelled.
      {"PNG", [&] { return !PNGQuantEncoder::encode(rgba, lossy).empty(); }},
      {"PNG truecolour", [&] { return !PNGQuantEncoder::encodeLossless(rgba, lossless).empty(); }},
  };
  std::atomic<bool> raised{true};
  for (const auto& [name, call] : calls) {
    {
      Cancellation::Scope scope(&raised);
      EXPECT_EQ(testing::failureOf([&call = call] { call(); }), "cancelled") << name;
    }
    EXPECT_TRUE(call()) << name;
  }

  const Bytes result = ImageCompressor::encodeData(jpeg, ImageFormat::jpeg, 30);
  const std::pair<const char*, std::function<bool()>> libjxl[] = {
      {"distance", [&] { return PerceptualDistance::between(jpeg, result) > 0; }}, calls[0], calls[1]};
  for (const auto& [name, call] : libjxl) {
    const auto start = std::chrono::steady_clock::now();
    call();
    const auto whole = std::chrono::steady_clock::now() - start;
    // The flag goes up at twenty points spread over the call's uncancelled length.
    for (int step = 0; step < 20; ++step) {
      std::atomic<bool> flag{false};
      std::thread raiser([&] {
        std::this_thread::sleep_for(whole * step / 20);
        flag = true;
      });
      const std::string end = testing::failureOf([&call = call, &flag] {
        Cancellation::Scope scope(&flag);
        call();
      });
      EXPECT_TRUE(end.empty() || end == "cancelled") << name << ": " << end;
      raiser.join();
    }
  }

  // WebP is shown to its decoder in slices: one of several slices gives libwebp's own pixels.
  const Bytes noisy =
      fixtures::webp(testing::makeImage(400, 300, testing::Pattern::noisyPhoto), {.lossless = true});
  ASSERT_GT(noisy.size(), 262'144u);
  const auto reference = testing::decodeWebP(noisy);
  ASSERT_TRUE(reference);
  EXPECT_TRUE(ImageDecoder::decodeCGImageSource(noisy).image.pixels8 == *reference);
}

// WebP's lossless main encoding with a lossy try first: a flat graphic (half flat, half a gentle ramp) at
// quality 70, where the lossless one cannot win. engine_tests links with --wrap=WebPEncode, so that each
// call's mode is seen and the lossy one can be made to fail or be cancelled from inside libwebp.
struct WebPEncodeSpy {
  std::vector<int> lossless{};                 // config->lossless of each call
  Cancellation::Flag* raiseOnLossy = nullptr;  // raised as the lossy encode starts
  bool failLossy = false;                      // the lossy encode fails without running
};
WebPEncodeSpy* webpSpy = nullptr;

TEST(Cancellation, ACancelDuringWebPsLossyTryNeverStartsTheLosslessEncoding) {
  DecodedImage image = testing::solid(200, 200, 200, 200, 200);
  for (size_t i = size_t{100} * 200; i < size_t{200} * 200; ++i)
    std::fill_n(&image.pixels8[i * 4], 3, uint8_t(i % 200 * 2 % 256));
  const Bytes png = fixtures::png(image, {.alpha = false});

  WebPEncodeSpy spy{.failLossy = true};
  webpSpy = &spy;
  EXPECT_FALSE(ImageCompressor::encodeData(png, ImageFormat::webp, 70).empty());
  ASSERT_GE(spy.lossless.size(), 2u);
  EXPECT_EQ(spy.lossless[1], 1) << "a failed lossy try falls through to lossless";

  std::atomic<bool> flag{false};
  spy = {.raiseOnLossy = &flag};
  EXPECT_EQ(testing::failureOf([&] {
              Cancellation::Scope scope(&flag);
              ImageCompressor::encodeData(png, ImageFormat::webp, 70);
            }),
            "cancelled");
  webpSpy = nullptr;
  EXPECT_EQ(spy.lossless, std::vector<int>{0});
}

}  // namespace
}  // namespace quillane

// NOLINTNEXTLINE(bugprone-reserved-identifier): the name --wrap gives the real function
extern "C" int __real_WebPEncode(const WebPConfig* config, WebPPicture* picture);
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name --wrap gives its stand-in
extern "C" int __wrap_WebPEncode(const WebPConfig* config, WebPPicture* picture) {
  using quillane::webpSpy;
  if (webpSpy) {
    webpSpy->lossless.push_back(config->lossless);
    if (!config->lossless && webpSpy->failLossy) {
      picture->error_code = VP8_ENC_ERROR_OUT_OF_MEMORY;
      return 0;
    }
    if (!config->lossless && webpSpy->raiseOnLossy) *webpSpy->raiseOnLossy = true;
  }
  return __real_WebPEncode(config, picture);
}
