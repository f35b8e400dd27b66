#include "tests/engine/encoder_test_support.h"

#include <jxl/decode.h>
#include <jxl/decode_cxx.h>
#include <lcms2.h>
#include <png.h>
#include <turbojpeg.h>
#include <webp/decode.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tests/support/TestImages.h"

namespace quillane::testing {
namespace {

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint32_t le32(const uint8_t* p) { return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]; }

Bytes saveProfile(cmsHPROFILE profile) {
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile, nullptr, &size);
  Bytes out(size);
  cmsSaveProfileToMem(profile, out.data(), &size);
  cmsCloseProfile(profile);
  return out;
}

// An EXIF APP1 segment whose IFD0 holds only the orientation, big-endian.
Bytes exifSegment(int orientation) {
  const Bytes tiff = {'M', 'M', 0, 42, 0, 0, 0, 8,  // header, IFD0 at 8
                      0, 1,                          // one entry
                      0x01, 0x12, 0, 3, 0, 0, 0, 1, 0, uint8_t(orientation), 0, 0,
                      0, 0, 0, 0};                   // no next IFD
  Bytes payload = {'E', 'x', 'i', 'f', 0, 0};
  payload.insert(payload.end(), tiff.begin(), tiff.end());
  const size_t length = payload.size() + 2;
  Bytes segment = {0xFF, 0xE1, uint8_t(length >> 8), uint8_t(length)};
  segment.insert(segment.end(), payload.begin(), payload.end());
  return segment;
}

}  // namespace

Bytes displayP3Profile() {
  const cmsCIExyY d65 = {0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries = {{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  const cmsFloat64Number srgbCurve[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* curve = cmsBuildParametricToneCurve(nullptr, 4, srgbCurve);
  cmsToneCurve* curves[3] = {curve, curve, curve};
  cmsHPROFILE profile = cmsCreateRGBProfile(&d65, &primaries, curves);
  cmsFreeToneCurve(curve);
  return saveProfile(profile);
}

Bytes srgbProfile() { return saveProfile(cmsCreate_sRGBProfile()); }

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

std::vector<Chunk> riffChunks(std::span<const uint8_t> webp) {
  std::vector<Chunk> chunks;
  for (size_t at = 12; at + 8 <= webp.size();) {
    const uint32_t length = le32(&webp[at + 4]);
    if (at + 8 + length > webp.size()) break;
    Chunk c;
    c.type.assign(webp.begin() + ptrdiff_t(at), webp.begin() + ptrdiff_t(at + 4));
    c.payload.assign(webp.begin() + ptrdiff_t(at + 8), webp.begin() + ptrdiff_t(at + 8 + length));
    chunks.push_back(std::move(c));
    at += 8 + length + (length & 1);
  }
  return chunks;
}

std::vector<std::string> chunkTypes(const std::vector<Chunk>& chunks) {
  std::vector<std::string> types;
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
  const int events = JXL_DEC_BASIC_INFO | JXL_DEC_COLOR_ENCODING | JXL_DEC_JPEG_RECONSTRUCTION | JXL_DEC_FULL_IMAGE;
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
      case JXL_DEC_COLOR_ENCODING: {
        JxlColorEncoding enc;
        if (JxlDecoderGetColorAsEncodedProfile(dec.get(), nullptr, JXL_COLOR_PROFILE_TARGET_ORIGINAL, &enc) ==
            JXL_DEC_SUCCESS)
          out.taggedSRGB = enc.color_space == JXL_COLOR_SPACE_RGB && enc.primaries == JXL_PRIMARIES_SRGB &&
                           enc.transfer_function == JXL_TRANSFER_FUNCTION_SRGB;
        size_t size = 0;
        if (JxlDecoderGetICCProfileSize(dec.get(), nullptr, JXL_COLOR_PROFILE_TARGET_ORIGINAL, &size) ==
            JXL_DEC_SUCCESS) {
          out.icc.resize(size);
          JxlDecoderGetColorAsICCProfile(dec.get(), nullptr, JXL_COLOR_PROFILE_TARGET_ORIGINAL, out.icc.data(),
                                         size);
        }
        break;
      }
      case JXL_DEC_JPEG_RECONSTRUCTION:
        reconstructing = true;
        jpegBuffer.resize(1 << 16);
        JxlDecoderSetJPEGBuffer(dec.get(), jpegBuffer.data(), jpegBuffer.size());
        break;
      case JXL_DEC_JPEG_NEED_MORE_OUTPUT: {
        const size_t used = jpegBuffer.size() - JxlDecoderReleaseJPEGBuffer(dec.get());
        jpegBuffer.resize(jpegBuffer.size() * 2);
        JxlDecoderSetJPEGBuffer(dec.get(), jpegBuffer.data() + used, jpegBuffer.size() - used);
        break;
      }
      case JXL_DEC_NEED_IMAGE_OUT_BUFFER:
        out.image.rgba.resize(size_t(out.image.width) * size_t(out.image.height) * 4);
        if (JxlDecoderSetImageOutBuffer(dec.get(), &format, out.image.rgba.data(), out.image.rgba.size()) !=
            JXL_DEC_SUCCESS)
          return std::nullopt;
        break;
      case JXL_DEC_FULL_IMAGE:
        if (reconstructing) {
          jpegBuffer.resize(jpegBuffer.size() - JxlDecoderReleaseJPEGBuffer(dec.get()));
          out.reconstructedJPEG = std::move(jpegBuffer);
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

int maxDifference(const Bytes& a, const Bytes& b) {
  if (a.size() != b.size()) return 256;
  int worst = 0;
  for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::abs(int(a[i]) - int(b[i])));
  return worst;
}

Bytes makeJPEG(int width, int height, bool progressive, int orientation, bool grey) {
  const RGBABuffer source = makeBuffer(width, height, Pattern::photo, 7);
  const int channels = grey ? 1 : 3;
  Bytes samples(size_t(width) * size_t(height) * size_t(channels));
  for (size_t i = 0, n = size_t(width) * size_t(height); i < n; ++i)
    for (int c = 0; c < channels; ++c) samples[i * size_t(channels) + size_t(c)] = source.pixels[i * 4 + size_t(c)];
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const int flags = progressive ? TJFLAG_PROGRESSIVE : 0;
  const int status = tjCompress2(handle, samples.data(), width, 0, height, grey ? TJPF_GRAY : TJPF_RGB, &jpeg, &size,
                                 grey ? TJSAMP_GRAY : TJSAMP_420, 85, flags);
  Bytes out;
  if (status == 0) {
    out.assign(jpeg, jpeg + size);
    if (orientation > 1) {
      const Bytes exif = exifSegment(orientation);
      size_t at = 2;  // after SOI, and after the JFIF APP0 that TurboJPEG writes
      if (out[at] == 0xFF && out[at + 1] == 0xE0) at += 2 + (size_t(out[at + 2]) << 8 | out[at + 3]);
      out.insert(out.begin() + ptrdiff_t(at), exif.begin(), exif.end());
    }
  }
  tjFree(jpeg);
  tjDestroy(handle);
  return out;
}

}  // namespace quillane::testing
