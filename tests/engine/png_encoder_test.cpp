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

// --- The file writer --------------------------------------------------------------------------

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

}  // namespace
}  // namespace quillane::testing
