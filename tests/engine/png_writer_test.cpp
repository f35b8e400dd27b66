#include "engine/PNGWriter.h"

#include <gtest/gtest.h>

#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"

namespace quillane::testing {
namespace {

using PNGWriter::Filter;
using PNGWriter::PaletteEntry;

// A 3 by 2 indexed picture over `palette`, every index valid.
Bytes indexedFile(const std::vector<PaletteEntry>& palette, const std::optional<Bytes>& icc = std::nullopt) {
  std::vector<uint8_t> indices(6);
  for (size_t i = 0; i < indices.size(); ++i) indices[i] = uint8_t(i % palette.size());
  return PNGWriter::writeIndexedPNG(3, 2, indices, palette, icc);
}

TEST(PngWriterChunks, IndexedFileDecodesWithValidChunksInOrder) {
  const std::vector<PaletteEntry> palette = {{255, 0, 0, 255}, {0, 255, 0, 128}, {0, 0, 255, 0}};
  const Bytes profile = fixtures::displayP3ICC();
  const Bytes file = indexedFile(palette, profile);
  const auto chunks = pngChunks(file);
  EXPECT_EQ(chunkTypes(chunks), (std::vector<std::string>{"IHDR", "iCCP", "PLTE", "tRNS", "IDAT", "IEND"}));
  for (const Chunk& c : chunks) EXPECT_TRUE(c.crcValid) << c.type;
  // iCCP: "ICC profile", two zero bytes, then a zlib stream of the profile.
  EXPECT_EQ(inflate(std::span(findChunk(chunks, "iCCP")->payload).subspan(13), profile.size()), profile);

  const auto decoded = decodePNG(file);
  ASSERT_TRUE(decoded);
  const Bytes expected = {255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 255, 0, 255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 255, 0};
  EXPECT_EQ(decoded->rgba, expected);
}

TEST(PngWriterChunks, OptionalChunksOnlyWhenNeeded) {
  std::vector<PaletteEntry> palette(256, PaletteEntry{10, 20, 30, 255});
  const auto opaque = chunkTypes(pngChunks(indexedFile(palette, Bytes{})));
  EXPECT_EQ(opaque, (std::vector<std::string>{"IHDR", "PLTE", "IDAT", "IEND"}));  // no tRNS, no empty iCCP

  palette[0].a = 254;  // trailing 255s are kept: the chunk covers the whole palette
  const auto chunks = pngChunks(indexedFile(palette));
  const Chunk* trns = findChunk(chunks, "tRNS");
  ASSERT_NE(trns, nullptr);
  EXPECT_EQ(trns->payload.size(), 256u);
  EXPECT_EQ(trns->payload[0], 254);
}

struct FilterCase {
  Filter filter;
  Bytes row, previous;
  size_t bpp;
  Bytes expected;
};

TEST(PngWriterFilters, ArithmeticAndScore) {
  const FilterCase cases[] = {
      // sub copies the first bpp bytes, then subtracts the byte one pixel to the left
      {Filter::sub, {10, 20, 15, 5}, {0, 0, 0, 0}, 2, {10, 20, 5, 241}},
      {Filter::up, {10, 20}, {30, 5}, 1, {236, 15}},
      // average halves the sum, not the bytes: 255 and 255 predict 255, not 127
      {Filter::average, {255, 0}, {0, 255}, 1, {255, 1}},
      {Filter::average, {100, 50}, {10, 21}, 1, {95, 246}},
      // paeth on the first bpp bytes has left and upper-left 0, so it equals up
      {Filter::paeth, {200, 100, 7}, {50, 60, 70}, 2, {150, 40, 63}},
      {Filter::none, {1, 255}, {9, 9}, 1, {1, 255}},
  };
  for (const FilterCase& c : cases) {
    Bytes out(c.row.size());
    const int64_t score = PNGWriter::apply(c.filter, c.row.data(), c.previous.data(), c.row.size(), c.bpp, out.data());
    EXPECT_EQ(out, c.expected) << int(c.filter);
    int64_t expectedScore = 0;
    for (uint8_t v : c.expected) expectedScore += v < 128 ? v : 256 - v;
    EXPECT_EQ(score, expectedScore) << int(c.filter);
  }
}

}  // namespace
}  // namespace quillane::testing
