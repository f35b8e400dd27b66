// AVIF through libavif. libavif never turns pixels when it decodes, so irot/imir are
// reported as the equivalent EXIF orientation and the pipeline turns the picture once.
// Image sequences report their image count.

#include <avif/avif.h>

#include <algorithm>
#include <memory>

#include "engine/CHandle.h"
#include "engine/ColorConvert.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {
using AvifDecoderPtr = CHandle<avifDecoder, avifDecoderDestroy>;

// A parsed decoder over `bytes`, which outlive it; nothing when the container is unreadable.
AvifDecoderPtr parse(Input bytes) {
  AvifDecoderPtr decoder(avifDecoderCreate());
  if (!decoder) return nullptr;
  // libavif refuses limits above its own default (16384 x 16384 pixels).
  decoder->imageSizeLimit = uint32_t(std::min<uint64_t>(kMaxPixels, AVIF_DEFAULT_IMAGE_SIZE_LIMIT));
  decoder->imageDimensionLimit = uint32_t(kMaxDimension);
  decoder->maxThreads = 1;
  // dav1d logs damaged data to stderr and libavif gives no way to silence it; aom is quiet.
  decoder->codecChoice = AVIF_CODEC_CHOICE_AOM;
  // Real-world files often lack boxes the strict reading insists on (pixi, clap rules).
  decoder->strictFlags = AVIF_STRICT_DISABLED;
  decoder->ignoreExif = AVIF_TRUE;  // the orientation comes from irot/imir, never from EXIF
  decoder->ignoreXMP = AVIF_TRUE;
  if (avifDecoderSetIOMemory(decoder.get(), bytes.data(), bytes.size()) != AVIF_RESULT_OK) return nullptr;
  if (avifDecoderParse(decoder.get()) != AVIF_RESULT_OK) return nullptr;
  return decoder;
}

std::optional<int> orientationOf(const avifImage* image) {
  bool rotated = (image->transformFlags & AVIF_TRANSFORM_IROT) != 0;
  bool mirrored = (image->transformFlags & AVIF_TRANSFORM_IMIR) != 0;
  if (!rotated && !mirrored) return std::nullopt;
  return orientationFromRotationMirror(rotated ? image->irot.angle : 0, mirrored ? image->imir.mode : -1);
}

}  // namespace

std::optional<Properties> avifProperties(Input bytes) {
  AvifDecoderPtr decoder = parse(bytes);
  if (!decoder || !decoder->image) return std::nullopt;
  Properties props;
  props.width = int(decoder->image->width);
  props.height = int(decoder->image->height);
  props.frameCount = std::max(1, decoder->imageCount);
  props.orientation = orientationOf(decoder->image);
  if (props.width <= 0 || props.height <= 0) return std::nullopt;
  return props;
}

std::optional<uint64_t> avifReducedDecodeBytes(Input bytes) {
  AvifDecoderPtr decoder = parse(bytes);
  if (!decoder || !decoder->image) return std::nullopt;
  const avifImage* image = decoder->image;
  const uint64_t pixels = uint64_t(image->width) * uint64_t(image->height);
  const uint64_t sample = image->depth > 8 ? 2 : 1;
  // The AV1 decoder's frame buffers take about five times the planes (measured: 19 bytes a
  // pixel for 8-bit 4:4:4 with the RGBA output); a grid keeps one decoder per cell alive.
  avifPixelFormatInfo info;
  avifGetPixelFormatInfo(image->yuvFormat, &info);
  const uint64_t planes = info.monochrome ? 4 : 4 + 8 / ((uint64_t(1) << info.chromaShiftX) << info.chromaShiftY);
  const uint64_t quarterBytes = pixels * sample * planes;  // the planes in quarters of a byte a sample
  return quarterBytes * 5 / 4 + pixels * sample * 4 + pixels * 8 * (hasGridItem(bytes) ? 1 : 0) + (4u << 20);
}

DecodedImage decodeAvif(Input bytes) {
  AvifDecoderPtr decoder = parse(bytes);
  if (!decoder) fail("avifDecoderParse: damaged or truncated AVIF");
  checkSize(decoder->image->width, decoder->image->height);
  if (avifDecoderNextImage(decoder.get()) != AVIF_RESULT_OK) fail("avifDecoderNextImage");
  const avifImage* frame = decoder->image;
  bool alpha = frame->alphaPlane != nullptr;
  int bits = frame->depth > 8 ? 16 : 8;
  DecodedImage image = allocateImage(int(frame->width), int(frame->height), bits, alpha ? AlphaInfo::straight : AlphaInfo::none);
  avifRGBImage rgb;
  avifRGBImageSetDefaults(&rgb, frame);
  rgb.format = AVIF_RGB_FORMAT_RGBA;
  rgb.depth = uint32_t(bits);
  rgb.alphaPremultiplied = AVIF_FALSE;
  rgb.rowBytes = uint32_t(image.width) * 4 * uint32_t(bits / 8);
  rgb.pixels = bits == 16 ? reinterpret_cast<uint8_t*>(image.pixels16.data()) : image.pixels8.data();
  if (avifImageYUVToRGB(frame, &rgb) != AVIF_RESULT_OK) fail("avifImageYUVToRGB");
  if (frame->icc.size > 0)
    image.colorSpace = ColorConvert::rgbSpace(std::vector<uint8_t>(frame->icc.data, frame->icc.data + frame->icc.size));
  else
    image.colorSpace = ColorConvert::fromCodePoints(int(frame->colorPrimaries), int(frame->transferCharacteristics));
  return image;
}

}  // namespace quillane::codecs
