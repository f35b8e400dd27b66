// WebP, HEIC, AVIF and JPEG XL test files, written with the codec libraries.

#include <avif/avif.h>
#include <jxl/encode.h>
#include <jxl/encode_cxx.h>
#include <libheif/heif.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <cstring>
#include <memory>
#include <stdexcept>

#include "tests/support/CodecFixtures.h"

namespace quillane::fixtures {
namespace {

template <auto Fn>
struct CDeleter {
  template <class T>
  void operator()(T* p) const noexcept {
    if (p) Fn(p);
  }
};

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

Bytes eightBit(const DecodedImage& image) {
  if (image.bitsPerComponent == 8) return image.pixels8;
  Bytes out(image.pixels16.size());
  for (size_t i = 0; i < out.size(); ++i) out[i] = uint8_t((image.pixels16[i] + 128) / 257);
  return out;
}

// --- WebP ---
Bytes withChunks(Bytes file, const Bytes& icc, const std::optional<int>& orientation) {
  if (icc.empty() && !orientation) return file;
  WebPData source{file.data(), file.size()};
  std::unique_ptr<WebPMux, CDeleter<WebPMuxDelete>> mux(WebPMuxCreate(&source, 1));
  require(mux != nullptr, "WebPMuxCreate");
  Bytes exif = orientation ? exifBlock(*orientation) : Bytes();
  WebPData iccData{icc.data(), icc.size()}, exifData{exif.data(), exif.size()};
  if (!icc.empty()) require(WebPMuxSetChunk(mux.get(), "ICCP", &iccData, 1) == WEBP_MUX_OK, "WebPMuxSetChunk ICCP");
  if (orientation) require(WebPMuxSetChunk(mux.get(), "EXIF", &exifData, 1) == WEBP_MUX_OK, "WebPMuxSetChunk EXIF");
  WebPData assembled;
  WebPDataInit(&assembled);
  require(WebPMuxAssemble(mux.get(), &assembled) == WEBP_MUX_OK, "WebPMuxAssemble");
  Bytes out(assembled.bytes, assembled.bytes + assembled.size);
  WebPDataClear(&assembled);
  return out;
}

// --- HEIF ---
heif_error appendBytes(heif_context*, const void* data, size_t size, void* userdata) {
  auto* out = static_cast<Bytes*>(userdata);
  out->insert(out->end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
  return heif_error{heif_error_Ok, heif_suberror_Unspecified, ""};
}

}  // namespace

Bytes webp(const DecodedImage& image, const WebPOptions& options) {
  Bytes rgba = eightBit(image);
  uint8_t* out = nullptr;
  size_t size = options.lossless
                    ? WebPEncodeLosslessRGBA(rgba.data(), image.width, image.height, image.width * 4, &out)
                    : WebPEncodeRGBA(rgba.data(), image.width, image.height, image.width * 4, options.quality, &out);
  require(size > 0, "WebPEncodeRGBA");
  Bytes file(out, out + size);
  WebPFree(out);
  return withChunks(std::move(file), options.icc, options.orientation);
}

Bytes animatedWebp(const std::vector<DecodedImage>& frames) {
  require(!frames.empty(), "no frames");
  WebPAnimEncoderOptions animOptions;
  require(WebPAnimEncoderOptionsInit(&animOptions), "WebPAnimEncoderOptionsInit");
  std::unique_ptr<WebPAnimEncoder, CDeleter<WebPAnimEncoderDelete>> encoder(
      WebPAnimEncoderNew(frames[0].width, frames[0].height, &animOptions));
  require(encoder != nullptr, "WebPAnimEncoderNew");
  WebPConfig config;
  require(WebPConfigInit(&config), "WebPConfigInit");
  config.lossless = 1;
  int timestamp = 0;
  for (const DecodedImage& frame : frames) {
    WebPPicture picture;
    require(WebPPictureInit(&picture), "WebPPictureInit");
    picture.use_argb = 1;
    picture.width = frame.width;
    picture.height = frame.height;
    Bytes rgba = eightBit(frame);
    bool ok = WebPPictureImportRGBA(&picture, rgba.data(), frame.width * 4) &&
              WebPAnimEncoderAdd(encoder.get(), &picture, timestamp, &config);
    WebPPictureFree(&picture);
    require(ok, "WebPAnimEncoderAdd");
    timestamp += 100;
  }
  require(WebPAnimEncoderAdd(encoder.get(), nullptr, timestamp, nullptr), "WebPAnimEncoderAdd end");
  WebPData data;
  WebPDataInit(&data);
  require(WebPAnimEncoderAssemble(encoder.get(), &data), "WebPAnimEncoderAssemble");
  Bytes out(data.bytes, data.bytes + data.size);
  WebPDataClear(&data);
  return out;
}

namespace {
using HeifImagePtr = std::unique_ptr<heif_image, CDeleter<heif_image_release>>;

HeifImagePtr heifPicture(const DecodedImage& image, bool alpha) {
  heif_image* rawImage = nullptr;
  heif_chroma chroma = alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB;
  require(heif_image_create(image.width, image.height, heif_colorspace_RGB, chroma, &rawImage).code == heif_error_Ok,
          "heif_image_create");
  HeifImagePtr picture(rawImage);
  require(heif_image_add_plane(picture.get(), heif_channel_interleaved, image.width, image.height, 8).code ==
              heif_error_Ok,
          "heif_image_add_plane");
  int stride = 0;
  uint8_t* plane = heif_image_get_plane(picture.get(), heif_channel_interleaved, &stride);
  Bytes rgba = eightBit(image);
  int channels = alpha ? 4 : 3;
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x)
      std::memcpy(plane + size_t(y) * size_t(stride) + size_t(x) * size_t(channels),
                  &rgba[(size_t(y) * size_t(image.width) + size_t(x)) * 4], size_t(channels));
  return picture;
}
}  // namespace

Bytes heic(const DecodedImage& image, const HeifOptions& options) {
  std::unique_ptr<heif_context, CDeleter<heif_context_free>> context(heif_context_alloc());
  heif_encoder* rawEncoder = nullptr;
  require(heif_context_get_encoder_for_format(context.get(), heif_compression_HEVC, &rawEncoder).code == heif_error_Ok,
          "heif_context_get_encoder_for_format");
  std::unique_ptr<heif_encoder, CDeleter<heif_encoder_release>> encoder(rawEncoder);
  heif_encoder_set_lossy_quality(encoder.get(), options.quality);
  heif_encoder_set_parameter(encoder.get(), "x265:log-level", "none");  // keep test output quiet
  HeifImagePtr picture = heifPicture(image, options.alpha);
  std::unique_ptr<heif_encoding_options, CDeleter<heif_encoding_options_free>> encoding(heif_encoding_options_alloc());
  encoding->image_orientation = heif_orientation(options.orientation);
  heif_image_handle* rawHandle = nullptr;
  require(heif_context_encode_image(context.get(), picture.get(), encoder.get(), encoding.get(), &rawHandle).code ==
              heif_error_Ok,
          "heif_context_encode_image");
  std::unique_ptr<heif_image_handle, CDeleter<heif_image_handle_release>> handle(rawHandle);
  if (options.exifOrientation) {
    Bytes exif = exifBlock(*options.exifOrientation);
    require(heif_context_add_exif_metadata(context.get(), handle.get(), exif.data(), int(exif.size())).code ==
                heif_error_Ok,
            "heif_context_add_exif_metadata");
  }
  if (options.thumbnailSize > 0) {
    HeifImagePtr small = heifPicture(options.thumbnailPicture ? *options.thumbnailPicture : image, options.alpha);
    heif_image_handle* rawThumb = nullptr;
    require(heif_context_encode_thumbnail(context.get(), small.get(), handle.get(), encoder.get(), encoding.get(),
                                          options.thumbnailSize, &rawThumb)
                    .code == heif_error_Ok,
            "heif_context_encode_thumbnail");
    if (rawThumb) heif_image_handle_release(rawThumb);
  }
  Bytes out;
  heif_writer writer{1, appendBytes};
  require(heif_context_write(context.get(), &writer, &out).code == heif_error_Ok, "heif_context_write");
  return out;
}

Bytes avif(const DecodedImage& image, const AvifOptions& options) {
  std::unique_ptr<avifImage, CDeleter<avifImageDestroy>> picture(
      avifImageCreate(uint32_t(image.width), uint32_t(image.height), uint32_t(options.depth), AVIF_PIXEL_FORMAT_YUV444));
  avifRGBImage rgb;
  avifRGBImageSetDefaults(&rgb, picture.get());
  rgb.format = AVIF_RGB_FORMAT_RGBA;
  rgb.ignoreAlpha = options.alpha ? AVIF_FALSE : AVIF_TRUE;
  rgb.depth = uint32_t(image.bitsPerComponent);
  rgb.rowBytes = uint32_t(image.width) * 4 * uint32_t(image.bitsPerComponent / 8);
  rgb.pixels = image.bitsPerComponent == 16 ? reinterpret_cast<uint8_t*>(const_cast<uint16_t*>(image.pixels16.data()))
                                            : const_cast<uint8_t*>(image.pixels8.data());
  require(avifImageRGBToYUV(picture.get(), &rgb) == AVIF_RESULT_OK, "avifImageRGBToYUV");
  if (options.irotAngle >= 0) {
    picture->transformFlags |= AVIF_TRANSFORM_IROT;
    picture->irot.angle = uint8_t(options.irotAngle);
  }
  if (options.imirMode >= 0) {
    picture->transformFlags |= AVIF_TRANSFORM_IMIR;
    picture->imir.mode = uint8_t(options.imirMode);
  }
  if (!options.icc.empty()) avifImageSetProfileICC(picture.get(), options.icc.data(), options.icc.size());
  std::unique_ptr<avifEncoder, CDeleter<avifEncoderDestroy>> encoder(avifEncoderCreate());
  encoder->codecChoice = AVIF_CODEC_CHOICE_AOM;
  encoder->speed = AVIF_SPEED_FASTEST;
  encoder->minQuantizer = encoder->maxQuantizer = options.quantizer;
  encoder->minQuantizerAlpha = encoder->maxQuantizerAlpha = options.quantizer;
  for (int i = 0; i < options.frames; ++i)
    require(avifEncoderAddImage(encoder.get(), picture.get(), 1,
                                options.frames == 1 ? AVIF_ADD_IMAGE_FLAG_SINGLE : AVIF_ADD_IMAGE_FLAG_NONE) ==
                AVIF_RESULT_OK,
            "avifEncoderAddImage");
  avifRWData output = AVIF_DATA_EMPTY;
  require(avifEncoderFinish(encoder.get(), &output) == AVIF_RESULT_OK, "avifEncoderFinish");
  Bytes out(output.data, output.data + output.size);
  avifRWDataFree(&output);
  return out;
}

Bytes jxl(const DecodedImage& image, const JxlOptions& options) {
  JxlEncoderPtr encoder = JxlEncoderMake(nullptr);
  const bool wide = image.bitsPerComponent == 16;
  const bool alpha = image.alpha != AlphaInfo::none;
  JxlBasicInfo info;
  JxlEncoderInitBasicInfo(&info);
  info.xsize = uint32_t(image.width);
  info.ysize = uint32_t(image.height);
  info.bits_per_sample = wide ? 16 : 8;
  info.num_color_channels = 3;
  info.num_extra_channels = alpha ? 1 : 0;
  info.alpha_bits = alpha ? info.bits_per_sample : 0;
  info.orientation = JxlOrientation(options.orientation);
  info.uses_original_profile = options.lossless ? JXL_TRUE : JXL_FALSE;
  if (options.frames > 1) {
    info.have_animation = JXL_TRUE;
    info.animation.tps_numerator = 10;
    info.animation.tps_denominator = 1;
  }
  require(JxlEncoderSetBasicInfo(encoder.get(), &info) == JXL_ENC_SUCCESS, "JxlEncoderSetBasicInfo");
  if (!options.icc.empty()) {
    require(JxlEncoderSetICCProfile(encoder.get(), options.icc.data(), options.icc.size()) == JXL_ENC_SUCCESS,
            "JxlEncoderSetICCProfile");
  } else {
    JxlColorEncoding colour;
    JxlColorEncodingSetToSRGB(&colour, JXL_FALSE);
    require(JxlEncoderSetColorEncoding(encoder.get(), &colour) == JXL_ENC_SUCCESS, "JxlEncoderSetColorEncoding");
  }
  JxlEncoderFrameSettings* settings = JxlEncoderFrameSettingsCreate(encoder.get(), nullptr);
  JxlEncoderFrameSettingsSetOption(settings, JXL_ENC_FRAME_SETTING_EFFORT, 2);
  if (options.lossless) JxlEncoderSetFrameLossless(settings, JXL_TRUE);
  // Without alpha, libjxl wants three samples a pixel.
  const uint32_t channels = alpha ? 4 : 3;
  JxlPixelFormat format{channels, wide ? JXL_TYPE_UINT16 : JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  std::vector<uint8_t> packed8;
  std::vector<uint16_t> packed16;
  for (size_t i = 0; i < image.pixelCount() * 4; ++i) {
    if (i % 4 == 3 && !alpha) continue;
    if (wide)
      packed16.push_back(image.pixels16[i]);
    else
      packed8.push_back(image.pixels8[i]);
  }
  const void* pixels = wide ? static_cast<const void*>(packed16.data()) : packed8.data();
  size_t size = image.pixelCount() * channels * (wide ? 2 : 1);
  for (int i = 0; i < options.frames; ++i) {
    if (options.frames > 1) {
      JxlFrameHeader header;
      JxlEncoderInitFrameHeader(&header);
      header.duration = 1;
      JxlEncoderSetFrameHeader(settings, &header);
    }
    require(JxlEncoderAddImageFrame(settings, &format, pixels, size) == JXL_ENC_SUCCESS, "JxlEncoderAddImageFrame");
  }
  JxlEncoderCloseInput(encoder.get());
  Bytes out(4096);
  uint8_t* next = out.data();
  size_t avail = out.size();
  for (;;) {
    JxlEncoderStatus status = JxlEncoderProcessOutput(encoder.get(), &next, &avail);
    if (status == JXL_ENC_SUCCESS) break;
    require(status == JXL_ENC_NEED_MORE_OUTPUT, "JxlEncoderProcessOutput");
    size_t used = size_t(next - out.data());
    out.resize(out.size() * 2);
    next = out.data() + used;
    avail = out.size() - used;
  }
  out.resize(size_t(next - out.data()));
  return out;
}

}  // namespace quillane::fixtures
