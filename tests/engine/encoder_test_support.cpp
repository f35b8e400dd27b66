#include "tests/engine/encoder_test_support.h"

#include <jxl/decode.h>
#include <jxl/decode_cxx.h>
#include <png.h>
#include <webp/decode.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace quillane::testing {
namespace {

uint32_t be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

}  // namespace

std::vector<Chunk> pngChunks(std::span<const uint8_t> png) {
  std::vector<Chunk> chunks;
  for (size_t at = 8; at + 12 <= png.size();) {
    const uint32_t length = be32(&png[at]);
    if (at + 12 + length > png.size()) break;
    Chunk c;
    c.type.assign(png.begin() + ptrdiff_t(at + 4), png.begin() + ptrdiff_t(at + 8));
    c.payload.assign(png.begin() + ptrdiff_t(at + 8), png.begin() + ptrdiff_t(at + 8 + length));
    const uLong crc = crc32(crc32(0, nullptr, 0), &png[at + 4], uInt(4 + length));
    c.crcValid = crc == be32(&png[at + 8 + length]);
    chunks.push_back(std::move(c));
    at += 12 + length;
  }
  return chunks;
}

std::vector<std::string> chunkTypes(const std::vector<Chunk>& chunks) {
  std::vector<std::string> types;
  types.reserve(chunks.size());
  for (const Chunk& c : chunks) types.push_back(c.type);
  return types;
}

const Chunk* findChunk(const std::vector<Chunk>& chunks, const std::string& type) {
  for (const Chunk& c : chunks)
    if (c.type == type) return &c;
  return nullptr;
}

Bytes inflate(std::span<const uint8_t> zlibStream, size_t expectedSize) {
  Bytes out(expectedSize + 1);
  uLongf length = out.size();
  if (uncompress(out.data(), &length, zlibStream.data(), uLong(zlibStream.size())) != Z_OK) return {};
  out.resize(length);
  return out;
}

std::optional<Decoded> decodePNG(std::span<const uint8_t> png) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, png.data(), png.size())) return std::nullopt;
  image.format = PNG_FORMAT_RGBA;
  Decoded out{int(image.width), int(image.height), Bytes(PNG_IMAGE_SIZE(image))};
  if (!png_image_finish_read(&image, nullptr, out.rgba.data(), 0, nullptr)) {
    png_image_free(&image);
    return std::nullopt;
  }
  return out;
}

std::optional<Decoded> decodeWebP(std::span<const uint8_t> webp) {
  int w = 0, h = 0;
  uint8_t* pixels = WebPDecodeRGBA(webp.data(), webp.size(), &w, &h);
  if (!pixels) return std::nullopt;
  Decoded out{w, h, Bytes(pixels, pixels + size_t(w) * size_t(h) * 4)};
  WebPFree(pixels);
  return out;
}

std::optional<DecodedJXL> decodeJXL(std::span<const uint8_t> jxl) {
  JxlDecoderPtr dec = JxlDecoderMake(nullptr);
  const int events = JXL_DEC_BASIC_INFO | JXL_DEC_JPEG_RECONSTRUCTION | JXL_DEC_FULL_IMAGE;
  if (JxlDecoderSubscribeEvents(dec.get(), events) != JXL_DEC_SUCCESS) return std::nullopt;
  JxlDecoderSetKeepOrientation(dec.get(), JXL_TRUE);
  JxlDecoderSetInput(dec.get(), jxl.data(), jxl.size());
  JxlDecoderCloseInput(dec.get());
  const JxlPixelFormat format{4, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  DecodedJXL out;
  Bytes jpegBuffer;
  bool reconstructing = false;
  for (;;) {
    switch (JxlDecoderProcessInput(dec.get())) {
      case JXL_DEC_BASIC_INFO: {
        JxlBasicInfo info;
        JxlDecoderGetBasicInfo(dec.get(), &info);
        out.image.width = int(info.xsize);
        out.image.height = int(info.ysize);
        out.usesOriginalProfile = info.uses_original_profile;
        out.extraChannels = info.num_extra_channels;
        out.orientation = int(info.orientation);
        break;
      }
      case JXL_DEC_JPEG_RECONSTRUCTION:  // a JPEG is never much larger than its repackaging
        reconstructing = true;
        jpegBuffer.resize(jxl.size() * 2 + 65536);
        JxlDecoderSetJPEGBuffer(dec.get(), jpegBuffer.data(), jpegBuffer.size());
        break;
      case JXL_DEC_NEED_IMAGE_OUT_BUFFER:
        out.image.rgba.resize(size_t(out.image.width) * size_t(out.image.height) * 4);
        if (JxlDecoderSetImageOutBuffer(dec.get(), &format, out.image.rgba.data(), out.image.rgba.size()) !=
            JXL_DEC_SUCCESS)
          return std::nullopt;
        break;
      case JXL_DEC_FULL_IMAGE:
        if (reconstructing) {
          jpegBuffer.resize(jpegBuffer.size() - JxlDecoderReleaseJPEGBuffer(dec.get()));
          out.reconstructedJPEG = std::exchange(jpegBuffer, {});
          reconstructing = false;
        }
        break;
      case JXL_DEC_SUCCESS:
        return out;
      default:
        return std::nullopt;
    }
  }
}

EncodingPlan makePlan(EncodingPlan::Mode mode, int effort) {
  EncodingPlan plan;
  plan.mode = mode;
  plan.effort = effort;
  if (mode.kind == EncodingPlan::Mode::Kind::lossy) plan.quality = mode.quality;
  return plan;
}

int maxDifference(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  if (a.size() != b.size()) return 256;
  int worst = 0;
  for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::abs(int(a[i]) - int(b[i])));
  return worst;
}

double meanColourError(const DecodedImage& a, const DecodedImage& b) {
  if (a.width != b.width || a.height != b.height) return 1e9;
  double sum = 0;
  for (size_t i = 0; i < a.pixels8.size(); ++i)
    if (i % 4 != 3) sum += std::abs(int(a.pixels8[i]) - int(b.pixels8[i]));
  return sum / double(a.pixelCount() * 3);
}

}  // namespace quillane::testing
