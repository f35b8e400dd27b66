// The chroma layout the JPEG, HEIC and AVIF writers choose from the picture, read back from
// each file's own headers, and the files read by our readers and by libheif's own colour
// conversion (the JPEG reader is libjpeg-turbo itself).

#include <avif/avif.h>
#include <gtest/gtest.h>
#include <libheif/heif.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>

#include "engine/CHandle.h"
#include "engine/Encoders.h"
#include "engine/ImageService.h"
#include "engine/codecs/Writers.h"
#include "tests/engine/encoder_test_support.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using Bytes = std::vector<uint8_t>;

// Dark-on-white "code": letter-sized cells of one-pixel strokes in four syntax colours.
DecodedImage colouredText(int w, int h) {
  static const uint8_t kInk[4][3] = {{190, 20, 30}, {20, 60, 200}, {0, 128, 40}, {140, 0, 160}};
  DecodedImage img;
  img.width = w, img.height = h;
  img.pixels8.assign(size_t(w) * size_t(h) * 4, 255);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const int cellX = x / 7, cellY = y / 14, cx = x % 7, cy = y % 14;
      const unsigned hash = unsigned(cellX * 7919 + cellY * 104729) * 2654435761u;
      const bool stroke = cy >= 2 && cy < 11 && cx < 5 &&
                          ((cx == 0 && (hash & 1)) || (cx == 4 && (hash & 2)) || (cy == 2 && (hash & 4)) ||
                           (cy == 6 && (hash & 8)) || (cy == 10 && (hash & 16)));
      if (!stroke || (cellX / 6 + cellY) % 3 == 2) continue;  // gaps between words
      uint8_t* p = &img.pixels8[(size_t(y) * size_t(w) + size_t(x)) * 4];
      const uint8_t* ink = kInk[(cellX / 6 + cellY * 3) % 4];
      p[0] = ink[0], p[1] = ink[1], p[2] = ink[2];
    }
  }
  return img;
}

// "444" or "420", from the file's own description of its colour planes.
std::string avifLayout(const Bytes& file) {
  CHandle<avifDecoder, avifDecoderDestroy> decoder(avifDecoderCreate());
  EXPECT_EQ(avifDecoderSetIOMemory(decoder.get(), file.data(), file.size()), AVIF_RESULT_OK);
  EXPECT_EQ(avifDecoderParse(decoder.get()), AVIF_RESULT_OK);
  return decoder->image->yuvFormat == AVIF_PIXEL_FORMAT_YUV444   ? "444"
         : decoder->image->yuvFormat == AVIF_PIXEL_FORMAT_YUV420 ? "420"
                                                                 : "other";
}

// From the HEVC decoder configuration ("hvcC" box): chroma_format_idc, 1 for 4:2:0, 3 for 4:4:4.
// libheif hands out every decoded HEVC picture as 4:4:4, so the header is the only witness.
std::string heicLayout(const Bytes& file) {
  const std::string tag = "hvcC";
  const auto box = std::search(file.begin(), file.end(), tag.begin(), tag.end());
  if (file.end() - box < 4 + 17) return "no hvcC box";
  const int idc = box[4 + 16] & 3;
  return idc == 3 ? "444" : idc == 1 ? "420" : "other";
}

// libheif to RGBA.
DecodedImage heifDecode(const Bytes& file) {
  DecodedImage out;
  CHandle<heif_context, heif_context_free> context(heif_context_alloc());
  EXPECT_EQ(heif_context_read_from_memory_without_copy(context.get(), file.data(), file.size(), nullptr).code,
            heif_error_Ok);
  heif_image_handle* rawHandle = nullptr;
  EXPECT_EQ(heif_context_get_primary_image_handle(context.get(), &rawHandle).code, heif_error_Ok);
  CHandle<heif_image_handle, heif_image_handle_release> handle(rawHandle);
  heif_image* raw = nullptr;
  EXPECT_EQ(
      heif_decode_image(rawHandle, &raw, heif_colorspace_RGB, heif_chroma_interleaved_RGBA, nullptr).code,
      heif_error_Ok);
  CHandle<heif_image, heif_image_release> rgba(raw);
  int stride = 0;
  const uint8_t* plane = heif_image_get_plane_readonly(raw, heif_channel_interleaved, &stride);
  out.width = heif_image_get_width(raw, heif_channel_interleaved);
  out.height = heif_image_get_height(raw, heif_channel_interleaved);
  for (int y = 0; y < out.height; ++y)
    out.pixels8.insert(out.pixels8.end(), plane + size_t(y) * size_t(stride),
                       plane + size_t(y) * size_t(stride) + size_t(out.width) * 4);
  return out;
}

std::string jpegLayout(const Bytes& file) {
  CHandle<void, tjDestroy> tj(tjInitDecompress());
  int w = 0, h = 0, subsampling = -1, colourspace = 0;
  tjDecompressHeader3(tj.get(), file.data(), (unsigned long)file.size(), &w, &h, &subsampling, &colourspace);
  return subsampling == TJSAMP_444 ? "444" : subsampling == TJSAMP_420 ? "420" : "other";
}

struct Case {
  const char* name;
  DecodedImage picture;
  const char* layout;
  double maxError;  // mean absolute error per colour sample a decoder may show at quality 75
};

TEST(ChromaLayout, ColouredTextKeepsFullChromaAndAPhotoIsSubsampledInEveryDecoder) {
  const Case cases[] = {
      {"coloured text", colouredText(320, 200), "444", 7.0},
      {"smooth photo", testing::makeImage(320, 200, testing::Pattern::photo, 3), "420", 3.0},
  };
  const EncodingPlan plan = testing::makePlan(EncodingPlan::Mode::lossy(75));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes avif = NativeImageIOEncoder::encode(c.picture, false, ImageFormat::avif, plan);
    EXPECT_EQ(avifLayout(avif), c.layout);
    std::vector<std::pair<std::string, std::function<DecodedImage()>>> readers = {
        {"own reader", [&] { return ImageService::decodeFirstFrame(avif); }}};
    // The own reader is libavif's colour conversion; libheif's is the independent one.
    ASSERT_TRUE(heif_have_decoder_for_format(heif_compression_AV1));
    readers.push_back({"libheif AV1", [&] { return heifDecode(avif); }});

    const Bytes heic = NativeImageIOEncoder::encode(c.picture, false, ImageFormat::heic, plan);
    EXPECT_EQ(heicLayout(heic), c.layout);
    readers.push_back({"own reader HEIC", [&] { return ImageService::decodeFirstFrame(heic); }});
    readers.push_back({"libheif HEVC", [&] { return heifDecode(heic); }});

    const Bytes jpeg = NativeImageIOEncoder::encode(c.picture, false, ImageFormat::jpeg, plan);
    EXPECT_EQ(jpegLayout(jpeg), c.layout);
    readers.push_back({"own reader JPEG", [&] { return ImageService::decodeFirstFrame(jpeg); }});

    for (auto& [name, read] : readers) {
      SCOPED_TRACE(name);
      EXPECT_LT(testing::meanColourError(read(), c.picture), c.maxError);
    }
  }
}

TEST(ChromaLayout, ColourUnderFullTransparencyDoesNotCount) {
  DecodedImage hidden = colouredText(200, 120);
  for (size_t i = 3; i < hidden.pixels8.size(); i += 4) hidden.pixels8[i] = 0;
  hidden.alpha = AlphaInfo::straight;
  EXPECT_TRUE(codecs::usesFullChroma(codecs::ChromaLayout::automatic, hidden, false));
  EXPECT_FALSE(codecs::usesFullChroma(codecs::ChromaLayout::automatic, hidden, true));
}

}  // namespace
}  // namespace quillane
