// WebP, HEIC, AVIF and JPEG XL test files, written with the codec libraries, and HEIC and AVIF
// files rewritten box by box.

#include <avif/avif.h>
#include <jxl/encode.h>
#include <jxl/encode_cxx.h>
#include <libheif/heif.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <cstring>
#include <stdexcept>

#include "engine/CHandle.h"
#include "tests/support/CodecFixtures.h"

namespace quillane::fixtures {
namespace {

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}
void require(heif_error error, const char* what) { require(error.code == heif_error_Ok, what); }

Bytes eightBit(const DecodedImage& image) {
  if (image.bitsPerComponent == 8) return Bytes(image.pixels8.begin(), image.pixels8.end());
  Bytes out(image.pixels16.size());
  for (size_t i = 0; i < out.size(); ++i) out[i] = uint8_t((image.pixels16[i] + 128) / 257);
  return out;
}

Bytes assembled(WebPMux* mux) {
  WebPData data;
  WebPDataInit(&data);
  require(WebPMuxAssemble(mux, &data) == WEBP_MUX_OK, "WebPMuxAssemble");
  Bytes out(data.bytes, data.bytes + data.size);
  WebPDataClear(&data);
  return out;
}

heif_error appendBytes(heif_context*, const void* data, size_t size, void* userdata) {
  auto* out = static_cast<Bytes*>(userdata);
  out->insert(out->end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
  return heif_error{heif_error_Ok, heif_suberror_Unspecified, ""};
}

uint32_t read32(const Bytes& in, size_t at) {
  return uint32_t(in[at]) << 24 | uint32_t(in[at + 1]) << 16 | uint32_t(in[at + 2]) << 8 | in[at + 3];
}

}  // namespace

Bytes webp(const DecodedImage& image, const WebPOptions& options) {
  Bytes rgba = eightBit(image);
  uint8_t* encoded = nullptr;
  size_t size =
      options.lossless
          ? WebPEncodeLosslessRGBA(rgba.data(), image.width, image.height, image.width * 4, &encoded)
          : WebPEncodeRGBA(rgba.data(), image.width, image.height, image.width * 4, 90, &encoded);
  require(size > 0, "WebPEncodeRGBA");
  Bytes file(encoded, encoded + size);
  WebPFree(encoded);
  if (options.icc.empty() && !options.orientation) return file;

  WebPData source{file.data(), file.size()};
  CHandle<WebPMux, WebPMuxDelete> mux(WebPMuxCreate(&source, 1));
  require(mux != nullptr, "WebPMuxCreate");
  Bytes exif = options.orientation ? exifBlock(*options.orientation) : Bytes();
  WebPData iccData{options.icc.data(), options.icc.size()}, exifData{exif.data(), exif.size()};
  if (!options.icc.empty()) require(WebPMuxSetChunk(mux.get(), "ICCP", &iccData, 1) == WEBP_MUX_OK, "ICCP");
  if (!exif.empty()) require(WebPMuxSetChunk(mux.get(), "EXIF", &exifData, 1) == WEBP_MUX_OK, "EXIF");
  return assembled(mux.get());
}

Bytes animatedWebp(const std::vector<DecodedImage>& frames, int canvasWidth, int canvasHeight) {
  require(!frames.empty(), "frames");
  CHandle<WebPMux, WebPMuxDelete> mux(WebPMuxNew());
  for (const DecodedImage& frame : frames) {
    const Bytes file = webp(frame, {.lossless = true});
    WebPMuxFrameInfo info{};
    info.bitstream = {file.data(), file.size()};
    info.id = WEBP_CHUNK_ANMF;
    info.duration = 100;
    require(WebPMuxPushFrame(mux.get(), &info, 1) == WEBP_MUX_OK, "WebPMuxPushFrame");
  }
  const WebPMuxAnimParams params{0, 0};
  require(WebPMuxSetCanvasSize(mux.get(), canvasWidth ? canvasWidth : frames[0].width,
                               canvasHeight ? canvasHeight : frames[0].height) == WEBP_MUX_OK &&
              WebPMuxSetAnimationParams(mux.get(), &params) == WEBP_MUX_OK,
          "WebPMuxSetAnimationParams");
  return assembled(mux.get());
}

Bytes heic(const DecodedImage& image, const HeifOptions& options) {
  CHandle<heif_context, heif_context_free> context(heif_context_alloc());
  heif_encoder* rawEncoder = nullptr;
  require(heif_context_get_encoder_for_format(
              context.get(), options.av1 ? heif_compression_AV1 : heif_compression_HEVC, &rawEncoder),
          "HEVC encoder");
  CHandle<heif_encoder, heif_encoder_release> encoder(rawEncoder);
  heif_encoder_set_lossy_quality(encoder.get(), options.quality);
  if (!options.av1)
    heif_encoder_set_parameter(encoder.get(), "x265:log-level", "none");  // keep test output quiet

  const Bytes rgba = eightBit(image);
  auto picture = [&](bool alpha) {  // interleaved RGB(A), 8 bits
    heif_image* raw = nullptr;
    const size_t channels = alpha ? 4 : 3;
    require(heif_image_create(image.width, image.height, heif_colorspace_RGB,
                              alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB, &raw),
            "heif_image_create");
    CHandle<heif_image, heif_image_release> out(raw);
    require(heif_image_add_plane(raw, heif_channel_interleaved, image.width, image.height, 8),
            "heif_image_add_plane");
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(raw, heif_channel_interleaved, &stride);
    for (size_t i = 0; i < image.pixelCount(); ++i)
      std::memcpy(plane + i / size_t(image.width) * size_t(stride) + i % size_t(image.width) * channels,
                  &rgba[i * 4], channels);
    return out;
  };
  const auto primary = picture(options.alpha);

  CHandle<heif_encoding_options, heif_encoding_options_free> encoding(heif_encoding_options_alloc());
  encoding->image_orientation = heif_orientation(options.orientation);
  heif_image_handle* rawHandle = nullptr;
  require(heif_context_encode_image(context.get(), primary.get(), encoder.get(), encoding.get(), &rawHandle),
          "heif_context_encode_image");
  CHandle<heif_image_handle, heif_image_handle_release> handle(rawHandle);
  if (options.thumbnailSide > 0) {
    // The default options: unrotated, whatever the picture's orientation.
    require(heif_context_encode_thumbnail(context.get(), picture(false).get(), handle.get(), encoder.get(),
                                          nullptr, options.thumbnailSide, nullptr),
            "heif_context_encode_thumbnail");
  }
  if (options.exifOrientation) {
    Bytes exif = exifBlock(*options.exifOrientation);
    require(heif_context_add_exif_metadata(context.get(), handle.get(), exif.data(), int(exif.size())),
            "EXIF");
  }
  Bytes out;
  heif_writer writer{1, appendBytes};
  require(heif_context_write(context.get(), &writer, &out), "heif_context_write");
  if (options.av1) {
    // libheif brands AV1 content "avif"; a file that calls itself HEIC is what is wanted.
    for (size_t at = 8; at + 4 <= std::min<size_t>(read32(out, 0), out.size()); at += 4)
      if (std::memcmp(&out[at], "avif", 4) == 0 || std::memcmp(&out[at], "avis", 4) == 0)
        std::memcpy(&out[at], "heic", 4);
  }
  return out;
}

Bytes avif(const DecodedImage& image, const AvifOptions& options) {
  CHandle<avifImage, avifImageDestroy> picture(avifImageCreate(
      uint32_t(image.width), uint32_t(image.height), uint32_t(options.depth), AVIF_PIXEL_FORMAT_YUV444));
  avifRGBImage rgb;
  avifRGBImageSetDefaults(&rgb, picture.get());
  const bool wide = image.bitsPerComponent == 16;
  rgb.format = AVIF_RGB_FORMAT_RGBA;
  rgb.ignoreAlpha = options.alpha ? AVIF_FALSE : AVIF_TRUE;
  rgb.depth = uint32_t(image.bitsPerComponent);
  rgb.rowBytes = uint32_t(image.width) * (wide ? 8 : 4);
  rgb.pixels = wide ? reinterpret_cast<uint8_t*>(const_cast<uint16_t*>(image.pixels16.data()))
                    : const_cast<uint8_t*>(image.pixels8.data());
  require(avifImageRGBToYUV(picture.get(), &rgb) == AVIF_RESULT_OK, "avifImageRGBToYUV");
  if (options.irotAngle >= 0)
    picture->transformFlags |= AVIF_TRANSFORM_IROT, picture->irot.angle = uint8_t(options.irotAngle);
  if (options.imirMode >= 0)
    picture->transformFlags |= AVIF_TRANSFORM_IMIR, picture->imir.mode = uint8_t(options.imirMode);
  if (!options.icc.empty()) avifImageSetProfileICC(picture.get(), options.icc.data(), options.icc.size());
  picture->colorPrimaries = avifColorPrimaries(options.primaries);
  picture->transferCharacteristics = avifTransferCharacteristics(options.transfer);
  if (options.crop[2] > 0) {
    const avifCropRect rect{options.crop[0], options.crop[1], options.crop[2], options.crop[3]};
    avifDiagnostics diagnostics{};
    require(avifCleanApertureBoxConvertCropRect(&picture->clap, &rect, picture->width, picture->height,
                                                picture->yuvFormat, &diagnostics),
            "avifCleanApertureBoxConvertCropRect");
    picture->transformFlags |= AVIF_TRANSFORM_CLAP;
  }
  CHandle<avifEncoder, avifEncoderDestroy> encoder(avifEncoderCreate());
  encoder->codecChoice = AVIF_CODEC_CHOICE_AOM;
  encoder->speed = AVIF_SPEED_FASTEST;
  encoder->minQuantizer = encoder->maxQuantizer = options.quantizer;
  encoder->minQuantizerAlpha = encoder->maxQuantizerAlpha = options.quantizer;
  const avifAddImageFlags flags = options.frames == 1 ? AVIF_ADD_IMAGE_FLAG_SINGLE : AVIF_ADD_IMAGE_FLAG_NONE;
  for (int i = 0; i < options.frames; ++i)
    require(avifEncoderAddImage(encoder.get(), picture.get(), 1, flags) == AVIF_RESULT_OK,
            "avifEncoderAddImage");
  avifRWData output = AVIF_DATA_EMPTY;
  require(avifEncoderFinish(encoder.get(), &output) == AVIF_RESULT_OK, "avifEncoderFinish");
  Bytes out(output.data, output.data + output.size);
  avifRWDataFree(&output);
  return out;
}

Bytes jxl(const DecodedImage& image, const JxlOptions& options) {
  JxlEncoderPtr encoder = JxlEncoderMake(nullptr);
  const bool wide = image.bitsPerComponent == 16, alpha = image.hasAlphaChannel();
  JxlBasicInfo info;
  JxlEncoderInitBasicInfo(&info);
  info.xsize = uint32_t(image.width), info.ysize = uint32_t(image.height);
  info.bits_per_sample = wide ? 16 : 8;
  info.num_extra_channels = alpha ? 1 : 0;
  info.alpha_bits = alpha ? info.bits_per_sample : 0;
  info.orientation = JxlOrientation(options.orientation);
  info.uses_original_profile = options.lossless ? JXL_TRUE : JXL_FALSE;
  info.have_animation = options.frames > 1 ? JXL_TRUE : JXL_FALSE;
  info.animation.tps_numerator = 10, info.animation.tps_denominator = 1;
  require(JxlEncoderSetBasicInfo(encoder.get(), &info) == JXL_ENC_SUCCESS, "JxlEncoderSetBasicInfo");
  JxlColorEncoding srgb;
  JxlColorEncodingSetToSRGB(&srgb, JXL_FALSE);
  if (options.transfer > 0)
    srgb.primaries = JXL_PRIMARIES_2100, srgb.transfer_function = JxlTransferFunction(options.transfer);
  require((options.icc.empty() ? JxlEncoderSetColorEncoding(encoder.get(), &srgb)
                               : JxlEncoderSetICCProfile(encoder.get(), options.icc.data(),
                                                         options.icc.size())) == JXL_ENC_SUCCESS,
          "JxlEncoderSetColorEncoding");
  JxlEncoderFrameSettings* settings = JxlEncoderFrameSettingsCreate(encoder.get(), nullptr);
  JxlEncoderFrameSettingsSetOption(settings, JXL_ENC_FRAME_SETTING_EFFORT, 2);
  if (options.lossless) JxlEncoderSetFrameLossless(settings, JXL_TRUE);
  JxlFrameHeader header;
  JxlEncoderInitFrameHeader(&header);
  header.duration = 1;
  if (options.frames > 1) JxlEncoderSetFrameHeader(settings, &header);

  // Without alpha, libjxl wants three samples a pixel.
  const uint32_t channels = alpha ? 4 : 3;
  std::vector<uint16_t> packed;
  for (size_t i = 0; i < image.pixelCount() * 4; ++i)
    if (i % 4 != 3 || alpha) packed.push_back(wide ? image.pixels16[i] : image.pixels8[i]);
  Bytes packed8(packed.begin(), packed.end());
  const void* pixels = wide ? static_cast<const void*>(packed.data()) : packed8.data();
  JxlPixelFormat format{channels, wide ? JXL_TYPE_UINT16 : JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  for (int i = 0; i < options.frames; ++i)
    require(
        JxlEncoderAddImageFrame(settings, &format, pixels, packed.size() * (wide ? 2 : 1)) == JXL_ENC_SUCCESS,
        "JxlEncoderAddImageFrame");
  JxlEncoderCloseInput(encoder.get());

  Bytes out(4096);
  size_t used = 0;
  for (JxlEncoderStatus status = JXL_ENC_NEED_MORE_OUTPUT; status != JXL_ENC_SUCCESS;) {
    require(status == JXL_ENC_NEED_MORE_OUTPUT, "JxlEncoderProcessOutput");
    out.resize(out.size() * 2);
    uint8_t* next = out.data() + used;
    size_t avail = out.size() - used;
    status = JxlEncoderProcessOutput(encoder.get(), &next, &avail);
    used = size_t(next - out.data());
  }
  out.resize(used);
  return out;
}

namespace {

void put(Bytes& out, uint64_t value, int bytes) {
  for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) out.push_back(uint8_t(value >> shift));
}
Bytes box(const char* type, const Bytes& payload, int version = -1, uint32_t flags = 0) {
  Bytes out;
  put(out, 8 + (version >= 0 ? 4 : 0) + payload.size(), 4);
  out.insert(out.end(), type, type + 4);
  if (version >= 0) put(out, uint32_t(version) << 24 | flags, 4);
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}
Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}
// The whole box of `type`, the first found by its name.
Bytes findBox(const Bytes& file, const char* type) {
  for (size_t at = 4; at + 4 <= file.size(); ++at)
    if (std::memcmp(&file[at], type, 4) == 0) {
      const size_t size = read32(file, at - 4);
      require(size >= 8 && at - 4 + size <= file.size(), type);
      return Bytes(file.begin() + std::ptrdiff_t(at - 4), file.begin() + std::ptrdiff_t(at - 4 + size));
    }
  require(false, type);
  return {};
}

}  // namespace

Bytes grid(const Bytes& tileFile, int columns, int rows, const GridOptions& options) {
  const bool av1 = tileFile.size() > 12 && std::memcmp(&tileFile[8], "avif", 4) == 0;
  const Bytes config = findBox(tileFile, av1 ? "av1C" : "hvcC"), ispeBox = findBox(tileFile, "ispe");
  const uint32_t tileWidth = read32(ispeBox, 12), tileHeight = read32(ispeBox, 16);
  const Bytes mdat = findBox(tileFile, "mdat"), tile(mdat.begin() + 8, mdat.end());
  const int tiles = columns * rows;
  require(tiles >= 1 && tiles < 65535, "tile count");

  Bytes ftypPayload = {};
  for (const char* brand : {av1 ? "avif" : "heic", "\0\0\0\0", "mif1", av1 ? "avif" : "heic", "miaf"})
    ftypPayload.insert(ftypPayload.end(), brand, brand + 4);
  const Bytes ftyp = box("ftyp", ftypPayload);
  // The grid's description (8 bytes), then the one tile all grid cells point at.
  const bool overlay = options.overlayWidth > 0, decoy = options.decoy;
  const uint64_t width = options.width ? options.width : uint64_t(tileWidth) * uint32_t(columns),
                 height = options.height ? options.height : uint64_t(tileHeight) * uint32_t(rows);
  Bytes gridData = {0, 0, uint8_t(rows - 1), uint8_t(columns - 1)};
  put(gridData, width, 2), put(gridData, height, 2);
  if (overlay) {  // 32-bit fields, a transparent fill, then each cell's place
    gridData = {0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    put(gridData, options.overlayWidth, 4), put(gridData, options.overlayHeight, 4);
    for (int cell = 0; cell < tiles; ++cell)
      put(gridData, uint64_t(tileWidth) * uint64_t(cell % columns), 4),
          put(gridData, uint64_t(tileHeight) * uint64_t(cell / columns), 4);
  }
  require(rows <= 256 && columns <= 256 && width < 65536 && height < 65536, "grid size");
  const Bytes decoyData = {0, 0, 0, 0, 0, 1, 0, 1};

  auto reference = [&](const Bytes& dimg) {
    if (!options.largeReference) return box("dimg", dimg);
    Bytes large = {0, 0, 0, 1, 'd', 'i', 'm', 'g'};
    put(large, 16 + dimg.size(), 8);
    return joined({large, dimg});
  };
  auto meta = [&](uint32_t mdatStart, bool second) {
    Bytes hdlr = {0, 0, 0, 0, 'p', 'i', 'c', 't'}, pitm, iinf, dimg, ipma, tileSize, gridSize;
    Bytes iloc = {0x44, 0x00};  // 4-byte offsets and lengths, no base offset
    hdlr.insert(hdlr.end(), 13, 0);
    put(pitm, 1, 2), put(iloc, uint32_t(tiles + 1 + decoy), 2), put(iinf, uint32_t(tiles + 1), 2);
    put(dimg, 1, 2), put(dimg, uint32_t(tiles), 2), put(ipma, uint32_t(tiles + 1), 4);
    // Item 1 is the grid, the others its cells, hidden.
    for (int item = 1; item <= tiles + 1; ++item) {
      const bool isGrid = item == 1;
      put(iloc, uint32_t(item), 2), put(iloc, 0, 2), put(iloc, 1, 2);
      put(iloc, isGrid ? mdatStart : mdatStart + uint32_t(gridData.size()), 4);
      put(iloc, isGrid ? gridData.size() : tile.size(), 4);
      if (isGrid && decoy)
        put(iloc, 1, 2), put(iloc, 0, 2), put(iloc, 1, 2),
            put(iloc, mdatStart + uint32_t(gridData.size() + tile.size()), 4), put(iloc, decoyData.size(), 4);
      Bytes infe;
      put(infe, uint32_t(item), 2), put(infe, 0, 2);
      const char* type = isGrid ? (overlay ? "iovl" : "grid") : av1 ? "av01" : "hvc1";
      infe.insert(infe.end(), type, type + 5);  // and an empty name
      const Bytes entry = box("infe", infe, 2, isGrid ? 0 : 1);
      iinf.insert(iinf.end(), entry.begin(), entry.end());
      if (!isGrid) put(dimg, uint32_t(item), 2);
      put(ipma, uint32_t(item), 2);
      // The grid has its ispe (property 3); a cell its configuration, essential (0x81), and ispe (2).
      const Bytes associations = isGrid ? Bytes{1, 3} : Bytes{2, 0x81, 2};
      ipma.insert(ipma.end(), associations.begin(), associations.end());
    }
    put(tileSize, tileWidth, 4), put(tileSize, tileHeight, 4);
    put(gridSize, second ? 1 : width, 4), put(gridSize, second ? 1 : height, 4);
    const Bytes ipco = joined({config, box("ispe", tileSize, 0), box("ispe", gridSize, 0)});
    return box("meta",
               joined({box("hdlr", hdlr, 0), box("pitm", pitm, 0), box("iloc", iloc, 0), box("iinf", iinf, 0),
                       box("iref", reference(dimg), 0),
                       box("iprp", joined({box("ipco", ipco), box("ipma", ipma, 0)}))}),
               0);
  };
  const uint32_t mdatStart = uint32_t(ftyp.size() + meta(0, false).size() * (options.secondMeta ? 2 : 1) + 8);
  return joined({ftyp, meta(mdatStart, false), options.secondMeta ? meta(mdatStart, true) : Bytes{},
                 box("mdat", joined({gridData, tile, decoy ? decoyData : Bytes{}}))});
}

Bytes withDeclaredSize(Bytes file, uint32_t width, uint32_t height) {
  for (size_t at = 4; at + 16 <= file.size(); ++at) {
    // ispe: after its version and flags. tkhd: 16.16 fixed point after its times, id and
    // duration (20 bytes, 32 in version 1), then layer, volume and matrix (52 bytes).
    const bool ispe = std::memcmp(&file[at], "ispe", 4) == 0, tkhd = std::memcmp(&file[at], "tkhd", 4) == 0;
    const size_t offset = ispe ? at + 8 : at + 8 + (file[at + 4] == 1 ? 32 : 20) + 52;
    if ((!ispe && !tkhd) || offset + 8 > file.size()) continue;
    Bytes size;
    put(size, tkhd ? uint64_t(width) << 16 : width, 4), put(size, tkhd ? uint64_t(height) << 16 : height, 4);
    std::memcpy(&file[offset], size.data(), 8);
  }
  return file;
}

}  // namespace quillane::fixtures
