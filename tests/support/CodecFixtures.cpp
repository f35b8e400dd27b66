// Pictures, metadata and profiles, plus the JPEG and PNG writers, hostile PNGs included. The
// other writers are in CodecFixturesModern.cpp.

#include "tests/support/CodecFixtures.h"

#include <jpeglib.h>
#include <lcms2.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <map>
#include <random>
#include <span>
#include <stdexcept>

namespace quillane::fixtures {
namespace {

const uint8_t kColours[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};

void put16be(Bytes& out, uint16_t v) { out.insert(out.end(), {uint8_t(v >> 8), uint8_t(v)}); }
void put32be(Bytes& out, uint32_t v) { put16be(out, uint16_t(v >> 16)), put16be(out, uint16_t(v)); }

uint16_t sample(const DecodedImage& image, size_t index) {
  return image.bitsPerComponent == 16 ? image.pixels16[index] : image.pixels8[index];
}

Bytes saveProfile(cmsHPROFILE profile) {
  cmsUInt32Number size = 0;
  if (!profile || !cmsSaveProfileToMem(profile, nullptr, &size))
    throw std::runtime_error("cmsSaveProfileToMem");
  Bytes icc(size);
  cmsSaveProfileToMem(profile, icc.data(), &size);
  cmsCloseProfile(profile);
  return icc;
}

}  // namespace

DecodedImage quadrants(int width, int height, int bitsPerComponent, bool alpha) {
  DecodedImage image;
  image.width = width, image.height = height, image.bitsPerComponent = bitsPerComponent;
  image.alpha = alpha ? AlphaInfo::straight : AlphaInfo::none;
  image.pixels8.resize(image.pixelCount() * 4);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      int q = (y >= height / 2 ? 2 : 0) + (x >= width / 2 ? 1 : 0);
      size_t i = (size_t(y) * size_t(width) + size_t(x)) * 4;
      for (size_t c = 0; c < 4; ++c)
        image.pixels8[i + c] = c < 3 ? kColours[q][c] : alpha && q == 0 ? 128 : 255;
    }
  if (bitsPerComponent == 16) {
    image.pixels16.assign(image.pixels8.begin(), image.pixels8.end());
    for (uint16_t& v : image.pixels16) v = uint16_t(v * 257);
    image.pixels8 = {};
  }
  return image;
}

int quadrantAt(const DecodedImage& image, Corner corner) {
  bool left = corner == Corner::topLeft || corner == Corner::bottomLeft;
  bool top = corner == Corner::topLeft || corner == Corner::topRight;
  int x = left ? image.width / 4 : image.width * 3 / 4, y = top ? image.height / 4 : image.height * 3 / 4;
  size_t i = (size_t(y) * size_t(image.width) + size_t(x)) * 4;
  double scale = image.bitsPerComponent == 16 ? 257.0 : 1.0, bestDistance = 1e18;
  int best = 0;
  for (int q = 0; q < 4; ++q) {
    double d = 0;
    for (size_t c = 0; c < 3; ++c) d += std::pow(sample(image, i + c) / scale - kColours[q][c], 2);
    if (d < bestDistance) bestDistance = d, best = q;
  }
  return best;
}

Bytes exifBlock(int orientation, bool jpegPrefix, ExifLayout layout) {
  Bytes out;
  auto put = [&](uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
      out.push_back(uint8_t(value >> 8 * (layout.bigEndian ? bytes - 1 - i : i)));
  };
  const bool wide = layout.type == 4 || layout.type == 9;
  out = layout.bigEndian ? Bytes{'M', 'M', 0, 0x2A} : Bytes{'I', 'I', 0x2A, 0};
  put(8, 4);                                                 // IFD0 at 8
  put(1, 2);                                                 // one entry
  put(0x0112, 2), put(uint32_t(layout.type), 2), put(1, 4);  // Orientation, its type, count 1
  put(uint32_t(orientation), wide ? 4 : 2);                  // the value, left-justified in its 4 bytes
  if (!wide) put(0, 2);
  put(0, 4);  // no next IFD
  if (jpegPrefix) out.insert(out.begin(), {'E', 'x', 'i', 'f', 0, 0});
  return out;
}

Bytes displayP3ICC(bool large) {
  cmsCIExyY white = {0.3127, 0.3290, 1.0};
  cmsCIExyYTRIPLE primaries = {{0.680, 0.320, 1}, {0.265, 0.690, 1}, {0.150, 0.060, 1}};
  const double p[5] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};
  cmsToneCurve* parametric = cmsBuildParametricToneCurve(nullptr, 4, p);
  cmsToneCurve* curves[3] = {parametric, parametric, parametric};
  for (int c = 0; large && c < 3; ++c) {  // three distinct tables of 20000 entries: about 120 kB
    std::vector<cmsUInt16Number> values(20000);
    for (size_t i = 0; i < values.size(); ++i)
      values[i] = cmsUInt16Number(
          std::min(65535.0, cmsEvalToneCurveFloat(parametric, float(i) / 19999) * 65535.0 + c));
    curves[c] = cmsBuildTabulatedToneCurve16(nullptr, cmsUInt32Number(values.size()), values.data());
  }
  cmsHPROFILE profile = cmsCreateRGBProfile(&white, &primaries, curves);
  for (int c = 0; large && c < 3; ++c) cmsFreeToneCurve(curves[c]);
  cmsFreeToneCurve(parametric);
  return saveProfile(profile);
}

Bytes srgbICC() { return saveProfile(cmsCreate_sRGBProfile()); }

Bytes greyICC() {
  cmsToneCurve* curve = cmsBuildGamma(nullptr, 2.2);
  cmsHPROFILE profile = cmsCreateGrayProfile(cmsD50_xyY(), curve);
  cmsFreeToneCurve(curve);
  return saveProfile(profile);
}

Bytes cmykICC(bool cyanPrintsRed) {
  // CMYK -> Lab through a 2x2x2x2 grid whose nodes hold the Lab of the plain ink formula.
  cmsHPROFILE srgb = cmsCreate_sRGBProfile(), lab = cmsCreateLab4Profile(nullptr);
  cmsHTRANSFORM toLab = cmsCreateTransform(srgb, TYPE_RGB_8, lab, TYPE_Lab_DBL, INTENT_PERCEPTUAL, 0);
  cmsUInt16Number table[16 * 3];
  for (int node = 0; node < 16; ++node) {
    int c = (node >> 3) & 1, m = (node >> 2) & 1, y = (node >> 1) & 1, k = node & 1;
    uint8_t rgb[3] = {uint8_t(255 * (1 - c) * (1 - k)), uint8_t(255 * (1 - m) * (1 - k)),
                      uint8_t(255 * (1 - y) * (1 - k))};
    if (cyanPrintsRed && node == 8) rgb[0] = 255, rgb[1] = 0, rgb[2] = 0;
    cmsCIELab value;
    cmsDoTransform(toLab, rgb, &value, 1);
    cmsFloat2LabEncoded(&table[size_t(node) * 3], &value);
  }
  cmsDeleteTransform(toLab);
  cmsCloseProfile(lab), cmsCloseProfile(srgb);

  cmsHPROFILE profile = cmsCreateProfilePlaceholder(nullptr);
  cmsSetProfileVersion(profile, 4.3);
  cmsSetDeviceClass(profile, cmsSigInputClass);
  cmsSetColorSpace(profile, cmsSigCmykData);
  cmsSetPCS(profile, cmsSigLabData);
  // lcms2 saves an AToB pipeline only in the A curves, CLUT, B curves shape.
  cmsPipeline* pipeline = cmsPipelineAlloc(nullptr, 4, 3);
  cmsPipelineInsertStage(pipeline, cmsAT_END, cmsStageAllocToneCurves(nullptr, 4, nullptr));
  cmsPipelineInsertStage(pipeline, cmsAT_END, cmsStageAllocCLut16bit(nullptr, 2, 4, 3, table));
  cmsPipelineInsertStage(pipeline, cmsAT_END, cmsStageAllocToneCurves(nullptr, 3, nullptr));
  cmsWriteTag(profile, cmsSigAToB0Tag, pipeline);
  cmsWriteTag(profile, cmsSigMediaWhitePointTag, cmsD50_XYZ());
  cmsPipelineFree(pipeline);
  return saveProfile(profile);
}

namespace {
// libjpeg at 4:4:4 with the markers of `options` after JFIF's, and `commentBytes` of COM
// markers; `fill(y, row)` gives each row of `components` samples in `space`.
template <class Fill>
Bytes compressJpeg(int width, int height, J_COLOR_SPACE space, int components, const JpegOptions& options,
                   Fill&& fill, bool arithmetic = false, size_t commentBytes = 0) {
  jpeg_compress_struct cinfo;
  jpeg_error_mgr errors;
  cinfo.err = jpeg_std_error(&errors);
  jpeg_create_compress(&cinfo);
  unsigned char* out = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&cinfo, &out, &size);
  cinfo.image_width = JDIMENSION(width), cinfo.image_height = JDIMENSION(height);
  cinfo.input_components = components, cinfo.in_color_space = space;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, options.quality, TRUE);
  for (int c = 0; c < cinfo.num_components; ++c)
    cinfo.comp_info[c].h_samp_factor = cinfo.comp_info[c].v_samp_factor = 1;
  cinfo.dct_method = JDCT_ISLOW, cinfo.arith_code = arithmetic;
  if (options.progressive) jpeg_simple_progression(&cinfo);
  jpeg_start_compress(&cinfo, TRUE);
  const auto marker = [&](int code, const Bytes& payload) {
    jpeg_write_marker(&cinfo, code, payload.data(), unsigned(payload.size()));
  };
  if (options.xmpBeforeExif) {
    const std::string xmp =
        std::string("http://ns.adobe.com/xap/1.0/") + '\0' + "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>";
    marker(JPEG_APP0 + 1, Bytes(xmp.begin(), xmp.end()));
  }
  if (options.orientation) marker(JPEG_APP0 + 1, exifBlock(*options.orientation, true, options.exifLayout));
  if (!options.icc.empty()) jpeg_write_icc_profile(&cinfo, options.icc.data(), unsigned(options.icc.size()));
  for (size_t written = 0; written < commentBytes; written += 65000)
    marker(JPEG_COM, Bytes(std::min<size_t>(commentBytes - written, 65000), ' '));
  Bytes row(size_t(width) * size_t(components));
  for (JSAMPROW rows[1] = {row.data()}; cinfo.next_scanline < cinfo.image_height;) {
    fill(int(cinfo.next_scanline), row.data());
    jpeg_write_scanlines(&cinfo, rows, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  Bytes file(out, out + size);
  std::free(out);
  return file;
}
}  // namespace

Bytes jpeg(const DecodedImage& image, const JpegOptions& options) {
  const int components = options.grey ? 1 : 4;
  return compressJpeg(image.width, image.height, options.grey ? JCS_GRAYSCALE : JCS_EXT_RGBA, components,
                      options, [&](int y, uint8_t* row) {
                        for (size_t i = 0; i < size_t(image.width) * size_t(components); ++i) {
                          const size_t at = size_t(y) * size_t(image.width) * 4 + (options.grey ? i * 4 : i);
                          row[i] = uint8_t(sample(image, at) >> (image.bitsPerComponent == 16 ? 8 : 0));
                        }
                      });
}

Bytes arithmeticGreyJpeg(int width, int height, uint8_t value, size_t commentBytes) {
  return compressJpeg(
      width, height, JCS_GRAYSCALE, 1, {.quality = 75},
      [&](int, uint8_t* row) { std::fill_n(row, width, value); }, true, commentBytes);
}

// Stored inverted, as Adobe does (libjpeg writes the Adobe marker for CMYK).
Bytes cmykJpeg(int width, int height, const Bytes& cmyk, const Bytes& icc) {
  return compressJpeg(width, height, JCS_CMYK, 4, {.icc = icc}, [&](int y, uint8_t* row) {
    for (size_t i = 0; i < size_t(width) * 4; ++i)
      row[i] = uint8_t(255 - cmyk[size_t(y) * size_t(width) * 4 + i]);
  });
}

namespace {
void chunk(Bytes& out, const char* type, const Bytes& payload) {
  put32be(out, uint32_t(payload.size()));
  size_t start = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), payload.begin(), payload.end());
  put32be(out, uint32_t(crc32(0, out.data() + start, uInt(out.size() - start))));
}

// The signature and IHDR.
Bytes pngHeader(uint32_t width, uint32_t height, int bitDepth, int colourType, bool interlaced) {
  Bytes out = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}, ihdr;
  put32be(ihdr, width), put32be(ihdr, height);
  ihdr.insert(ihdr.end(), {uint8_t(bitDepth), uint8_t(colourType), 0, 0, uint8_t(interlaced ? 1 : 0)});
  chunk(out, "IHDR", ihdr);
  return out;
}

// Deflates what `feed` hands over (it returns false with its last part), stopping early once
// `limit` bytes are written.
template <class Feed>
Bytes deflateAll(Feed&& feed, int level = 9, size_t limit = SIZE_MAX) {
  z_stream z{};
  if (deflateInit(&z, level) != Z_OK) throw std::runtime_error("deflateInit");
  Bytes out, in, buffer(1 << 16);
  for (bool more = true; out.size() < limit;) {
    more = more && feed(in);
    z.next_in = in.data();
    z.avail_in = uInt(in.size());
    int status = Z_OK;
    do {
      z.next_out = buffer.data();
      z.avail_out = uInt(buffer.size());
      status = deflate(&z, more ? Z_NO_FLUSH : Z_FINISH);
      out.insert(out.end(), buffer.data(), buffer.data() + (buffer.size() - z.avail_out));
    } while (z.avail_out == 0 || (!more && status != Z_STREAM_END));
    if (!more) break;
  }
  deflateEnd(&z);
  if (out.size() > limit) out.resize(limit);
  return out;
}
Bytes deflated(const Bytes& raw) {
  return deflateAll(
      [&](Bytes& in) {
        in = raw;
        return false;
      },
      6);
}

// Adam7's passes as (first column, first row, column step, row step); the whole picture when
// not interlaced.
using Pass = std::array<uint32_t, 4>;
constexpr Pass kAdam7[7] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                            {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
constexpr Pass kWhole[1] = {{0, 0, 1, 1}};
std::span<const Pass> passes(bool interlaced) {
  return interlaced ? std::span<const Pass>(kAdam7) : std::span<const Pass>(kWhole);
}
}  // namespace

Bytes png(const DecodedImage& image, const PngOptions& options) {
  const bool wide = image.bitsPerComponent == 16, palette = options.palette && !wide;
  const uint8_t colourType = palette ? 3 : uint8_t((options.grey ? 0 : 2) + (options.alpha ? 4 : 0));
  Bytes out =
      pngHeader(uint32_t(image.width), uint32_t(image.height), wide ? 16 : 8, colourType, options.interlaced);
  if (!options.icc.empty()) {
    Bytes iccp = {'i', 'c', 'c', 0, 0}, z = deflated(options.icc);
    iccp.insert(iccp.end(), z.begin(), z.end());
    chunk(out, "iCCP", iccp);
  }
  if (options.gamma) {
    Bytes gama;
    put32be(gama, options.gamma);
    chunk(out, "gAMA", gama);
  }
  if (options.orientation && !options.exifAfterData) chunk(out, "eXIf", exifBlock(*options.orientation));

  std::map<uint32_t, uint8_t> indexOf;
  Bytes plte, trns, raw;
  const std::vector<size_t> picks =
      options.grey ? std::vector<size_t>{0, 3} : std::vector<size_t>{0, 1, 2, 3};
  auto emit = [&](size_t x, size_t y) {
    const size_t i = (y * size_t(image.width) + x) * 4;
    if (palette) {
      const uint8_t* p = &image.pixels8[i];
      uint32_t key = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
      auto [it, added] = indexOf.emplace(key, uint8_t(std::min<size_t>(indexOf.size(), 255)));
      if (added && plte.size() < 768) plte.insert(plte.end(), {p[0], p[1], p[2]}), trns.push_back(p[3]);
      raw.push_back(it->second);
      return;
    }
    for (size_t c : picks) {
      if (c == 3 && !options.alpha) continue;
      if (wide)
        put16be(raw, sample(image, i + c));
      else
        raw.push_back(uint8_t(sample(image, i + c)));
    }
  };
  // Every row starts with filter type 0 (none); an empty pass has no rows at all.
  for (const Pass& p : passes(options.interlaced))
    for (size_t y = p[1]; p[0] < size_t(image.width) && y < size_t(image.height); y += p[3]) {
      raw.push_back(0);
      for (size_t x = p[0]; x < size_t(image.width); x += p[2]) emit(x, y);
    }
  if (palette) chunk(out, "PLTE", plte), chunk(out, "tRNS", trns);
  chunk(out, "IDAT", deflated(raw));
  if (options.orientation && options.exifAfterData) chunk(out, "eXIf", exifBlock(*options.orientation));
  chunk(out, "IEND", {});
  return out;
}

Bytes starvedPng(uint32_t width, uint32_t height, int bitDepth, size_t dataBytes, bool truncated,
                 bool interlaced) {
  Bytes out = pngHeader(width, height, bitDepth, 6, interlaced), idat;
  std::mt19937 random(7);
  auto noise = [&](Bytes& in) {
    in.resize(1 << 16);
    for (uint8_t& b : in) b = uint8_t(random());
    return true;
  };
  chunk(idat, "IDAT", deflateAll(noise, 9, dataBytes));
  out.insert(out.end(), idat.begin(), truncated ? idat.end() - std::ptrdiff_t(idat.size() / 4) : idat.end());
  if (!truncated) chunk(out, "IEND", {});
  return out;
}

Bytes cutWebp(const Bytes& webp, size_t keep) {
  keep &= ~size_t(1);  // chunks are of even length
  if (keep < 20 || keep > webp.size()) throw std::invalid_argument("cutWebp");
  Bytes out(webp.begin(), webp.begin() + std::ptrdiff_t(keep));
  for (const auto& [at, value] : {std::pair<size_t, size_t>{4, keep - 8}, {16, keep - 20}})
    for (size_t i = 0; i < 4; ++i) out[at + i] = uint8_t(value >> (8 * i));
  return out;
}

Bytes withTextChunks(const Bytes& png, int chunks, size_t inflatedBytes) {
  size_t fed = 0;
  Bytes text = {'C', 'o', 'm', 'm', 'e', 'n', 't', 0, 0};  // keyword, compression method 0
  const Bytes zeros = deflateAll([&](Bytes& in) {
    in.assign(std::min<size_t>(1 << 20, inflatedBytes - fed), 0);
    fed += in.size();
    return fed < inflatedBytes;
  });
  text.insert(text.end(), zeros.begin(), zeros.end());
  Bytes out(png.begin(), png.begin() + 33);  // signature and IHDR
  for (int i = 0; i < chunks; ++i) chunk(out, "zTXt", text);
  out.insert(out.end(), png.begin() + 33, png.end());
  return out;
}

Bytes blackPng(uint32_t width, uint32_t height, bool interlaced) {
  Bytes out = pngHeader(width, height, 1, 0, interlaced);
  // The rows of each pass in turn, each a filter byte and zeros, fed as they are deflated.
  const std::span<const Pass> all = passes(interlaced);
  size_t pass = 0;
  uint32_t y = all[0][1];
  const Bytes data = deflateAll([&](Bytes& in) {
    in.clear();
    while (in.size() < (1 << 16) && pass < all.size()) {
      const Pass& p = all[pass];
      if (p[0] >= width || y >= height) {
        y = ++pass < all.size() ? all[pass][1] : 0;
        continue;
      }
      in.insert(in.end(), 1 + ((width - p[0] + p[2] - 1) / p[2] + 7) / 8, 0);
      y += p[3];
    }
    return pass < all.size();
  });
  chunk(out, "IDAT", data), chunk(out, "IEND", {});
  return out;
}

}  // namespace quillane::fixtures
