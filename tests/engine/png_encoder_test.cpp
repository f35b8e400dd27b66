#include <gtest/gtest.h>

#include "engine/Encoders.h"
#include "engine/PNGWriter.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

EncodingPlan planWithEffort(int effort, double quality = 75) {
  EncodingPlan plan;
  plan.effort = effort;
  plan.quality = quality;
  plan.mode = EncodingPlan::Mode::lossy(quality);
  return plan;
}

uint8_t colourType(const Bytes& png) { return findChunk(pngChunks(png), "IHDR")->payload[9]; }

// The filter type byte of every row of a truecolour file.
std::vector<uint8_t> filterBytes(const Bytes& png, size_t rowLength, size_t rows) {
  const Bytes raw = inflate(findChunk(pngChunks(png), "IDAT")->payload, rows * (rowLength + 1));
  std::vector<uint8_t> filters;
  for (size_t y = 0; y < rows && y * (rowLength + 1) < raw.size(); ++y) filters.push_back(raw[y * (rowLength + 1)]);
  return filters;
}

TEST(PngLossless, RoundTripsExactlyAtEveryEffort) {
  // Flat screenshot areas make the Paeth predictors tie; the photo brings every filter into play.
  for (bool alpha : {false, true})
    for (auto [w, h] : {std::pair{1, 1}, {17, 3}, {64, 23}})
      for (int effort : {0, 2})
        for (Pattern pattern : {Pattern::photo, Pattern::screenshot}) {
          const RGBABuffer rgba = makeBuffer(w, h, pattern, 3, alpha);
          const Bytes png = PNGQuantEncoder::encodeLossless(rgba, planWithEffort(effort));
          EXPECT_EQ(colourType(png), alpha ? 6 : 2);
          const auto decoded = decodePNG(png);
          ASSERT_TRUE(decoded) << w << "x" << h;
          EXPECT_EQ(decoded->rgba, rgba.pixels) << w << "x" << h << " alpha " << alpha << " effort " << effort;
        }
}

TEST(PngLossless, EffortZeroUsesPaethEverywhereOtherwiseFiltersAreChosenPerRow) {
  const RGBABuffer rgba = makeBuffer(30, 12, Pattern::gradient);
  for (uint8_t f : filterBytes(PNGQuantEncoder::encodeLossless(rgba, planWithEffort(0)), 30 * 3, 12)) EXPECT_EQ(f, 4);
  // A smooth gradient never scores best unfiltered below its first row.
  const auto tried = filterBytes(PNGQuantEncoder::encodeLossless(rgba, planWithEffort(1)), 30 * 3, 12);
  ASSERT_EQ(tried.size(), 12u);
  for (size_t y = 1; y < tried.size(); ++y) EXPECT_NE(tried[y], 0) << "row " << y;
  // An all-black first row scores 0 unfiltered, which ties with every filter: none wins.
  RGBABuffer black = makeBuffer(8, 4, Pattern::photo);
  for (size_t i = 0; i < 8 * 4; i += 4) black.pixels[i] = black.pixels[i + 1] = black.pixels[i + 2] = 0;
  EXPECT_EQ(filterBytes(PNGQuantEncoder::encodeLossless(black, planWithEffort(2)), 8 * 3, 4).at(0), 0);
}

TEST(PngPalette, DecodesCloseToTheSourceWithTransparency) {
  const RGBABuffer logo = makeBuffer(48, 40, Pattern::flatLogo, 1, true);
  for (double quality : {1.0, 80.0}) {  // a minimum of 0 means even quality 1 gives a file
    const Bytes png = PNGQuantEncoder::encodePalette(logo, planWithEffort(2, quality));
    const auto chunks = pngChunks(png);
    EXPECT_EQ(colourType(png), 3);
    EXPECT_NE(findChunk(chunks, "tRNS"), nullptr);
    const auto decoded = decodePNG(png);
    ASSERT_TRUE(decoded);
    // Colour under fully transparent pixels is free to change.
    int worst = 0;
    for (size_t i = 0; i < logo.pixels.size(); i += 4)
      for (size_t c = logo.pixels[i + 3] == 0 ? 3 : 0; c < 4; ++c)
        worst = std::max(worst, std::abs(int(decoded->rgba[i + c]) - int(logo.pixels[i + c])));
    EXPECT_LE(worst, quality > 50 ? 8 : 128) << quality;
  }
  const RGBABuffer photo = makeBuffer(40, 30, Pattern::photo);
  const auto decoded = decodePNG(PNGQuantEncoder::encodePalette(photo, planWithEffort(0, 90)));
  ASSERT_TRUE(decoded);
  EXPECT_LE(maxDifference(decoded->rgba, photo.pixels), 40);
}

TEST(PngEncode, PrefersLosslessRoutesToTruecolour) {
  const RGBABuffer rgba = makeBuffer(20, 20, Pattern::screenshot);
  EncodingPlan plan = planWithEffort(2, 80);
  EXPECT_EQ(colourType(PNGQuantEncoder::encode(rgba, plan)), 3);
  plan.prefersLossless = true;
  EXPECT_EQ(colourType(PNGQuantEncoder::encode(rgba, plan)), 2);
}

// --- The file writer --------------------------------------------------------------------------

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
