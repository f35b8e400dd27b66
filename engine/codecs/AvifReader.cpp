// AVIF through libavif. libavif never turns pixels when it decodes, so irot/imir are
// reported as the equivalent EXIF orientation and the pipeline turns the picture once.
// Image sequences report their image count.

#include <avif/avif.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "engine/CHandle.h"
#include "engine/Cancellation.h"
#include "engine/ColorConvert.h"
#include "engine/codecs/QuietStderr.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {
using AvifDecoderPtr = CHandle<avifDecoder, avifDecoderDestroy>;
using AvifImagePtr = CHandle<avifImage, avifImageDestroy>;

// libavif's reader over a ByteSource, owned by the decoder: it asks for the boxes and the
// items' data by offset, and nothing else of the file is read.
struct SourceIO {
  avifIO io{};
  ByteSource* source;
  std::vector<uint8_t> buffer;  // what the last read handed out

  explicit SourceIO(ByteSource& from) : source(&from) {
    io.destroy = [](avifIO* self) { delete static_cast<SourceIO*>(self->data); };
    io.read = &SourceIO::read;
    io.sizeHint = from.size();
    io.persistent = AVIF_FALSE;
    io.data = this;
  }
  static avifResult read(avifIO* self, uint32_t, uint64_t offset, size_t size, avifROData* out) {
    auto* io = static_cast<SourceIO*>(self->data);
    const uint64_t end = io->source->size();
    if (offset > end || !io->source->seek(offset)) return AVIF_RESULT_IO_ERROR;
    io->buffer.resize(size_t(std::min<uint64_t>(size, end - offset)));
    if (io->source->read(io->buffer.data(), io->buffer.size()) != io->buffer.size())
      return AVIF_RESULT_IO_ERROR;
    out->data = io->buffer.data();
    out->size = io->buffer.size();
    return AVIF_RESULT_OK;
  }
};

// A parsed decoder over `source`, which outlives it (its bytes in place where they are in
// memory); nothing when the container is unreadable.
AvifDecoderPtr parse(ByteSource& source) {
  AvifDecoderPtr decoder(avifDecoderCreate());
  if (!decoder) return nullptr;
  // libavif refuses limits above its own default (16384 x 16384 pixels).
  decoder->imageSizeLimit = uint32_t(std::min<uint64_t>(kMaxPixels, AVIF_DEFAULT_IMAGE_SIZE_LIMIT));
  decoder->imageDimensionLimit = uint32_t(kMaxDimension);
  decoder->maxThreads = 1;
  // dav1d holds a picture in about a quarter of what aom takes (bench/README.md, "Hostile
  // inputs"); it logs damaged data to stderr, which the decodes below silence.
  decoder->codecChoice = AVIF_CODEC_CHOICE_DAV1D;
  // Real-world files often lack boxes the strict reading insists on (pixi, clap rules).
  decoder->strictFlags = AVIF_STRICT_DISABLED;
  decoder->ignoreExif = AVIF_TRUE;  // the orientation comes from irot/imir, never from EXIF
  decoder->ignoreXMP = AVIF_TRUE;
  if (const std::optional<Input> bytes = source.contiguous()) {
    if (avifDecoderSetIOMemory(decoder.get(), bytes->data(), bytes->size()) != AVIF_RESULT_OK) return nullptr;
  } else {
    avifDecoderSetIO(decoder.get(), &(new SourceIO(source))->io);
  }
  if (avifDecoderParse(decoder.get()) != AVIF_RESULT_OK) return nullptr;
  return decoder;
}

std::optional<int> orientationOf(const avifImage* image) {
  bool rotated = (image->transformFlags & AVIF_TRANSFORM_IROT) != 0;
  bool mirrored = (image->transformFlags & AVIF_TRANSFORM_IMIR) != 0;
  if (!rotated && !mirrored) return std::nullopt;
  return orientationFromRotationMirror(rotated ? image->irot.angle : 0, mirrored ? image->imir.mode : -1);
}

// The part of the coded picture that is shown: its clean aperture (clap), as other readers
// crop it, or the whole picture when it has none or one that breaks the rules.
avifCropRect shownRect(const avifImage* image) {
  const avifCropRect whole{0, 0, image->width, image->height};
  if (!(image->transformFlags & AVIF_TRANSFORM_CLAP)) return whole;
  avifCropRect rect{};
  avifDiagnostics diagnostics{};
  if (!avifCropRectConvertCleanApertureBox(&rect, &image->clap, image->width, image->height, image->yuvFormat,
                                           &diagnostics) ||
      rect.width == 0 || rect.height == 0 || rect.x > image->width - rect.width ||
      rect.y > image->height - rect.height)
    return whole;
  return rect;
}

// Keeps the `rect` of `image`'s samples, moved to the start of its buffer.
template <class Sample>
void cropSamples(SampleVector<Sample>& samples, size_t width, const avifCropRect& rect) {
  const size_t rowSamples = size_t(rect.width) * 4;
  for (size_t y = 0; y < rect.height; ++y)
    std::memmove(samples.data() + y * rowSamples, samples.data() + ((rect.y + y) * width + rect.x) * 4,
                 rowSamples * sizeof(Sample));
  samples.resize(rowSamples * rect.height);
}

void crop(DecodedImage& image, const avifCropRect& rect) {
  if (image.bitsPerComponent == 16)
    cropSamples(image.pixels16, size_t(image.width), rect);
  else
    cropSamples(image.pixels8, size_t(image.width), rect);
  image.width = int(rect.width), image.height = int(rect.height);
}

// The `shown` part of `frame` averaged down by a whole factor, to a longer side between
// minLongSide and twice that, as a 4:4:4 picture (grey stays grey) of the same depth, matrix
// and range: libavif then converts the small picture to RGB, and the full picture is never
// held as RGBA.
AvifImagePtr reduced(const avifImage* frame, const avifCropRect& shown, int minLongSide) {
  const int width = int(shown.width), height = int(shown.height);
  const int factor = std::max(1, std::max(width, height) / minLongSide);
  const uint32_t outWidth = uint32_t((width + factor - 1) / factor),
                 outHeight = uint32_t((height + factor - 1) / factor);
  const bool grey = frame->yuvFormat == AVIF_PIXEL_FORMAT_YUV400, alpha = frame->alphaPlane != nullptr;
  AvifImagePtr small(avifImageCreate(outWidth, outHeight, frame->depth,
                                     grey ? AVIF_PIXEL_FORMAT_YUV400 : AVIF_PIXEL_FORMAT_YUV444));
  if (!small) fail("avifImageCreate");
  small->yuvRange = frame->yuvRange;
  small->colorPrimaries = frame->colorPrimaries;
  small->transferCharacteristics = frame->transferCharacteristics;
  small->matrixCoefficients = frame->matrixCoefficients;
  small->alphaPremultiplied = frame->alphaPremultiplied;
  if (avifImageAllocatePlanes(small.get(), alpha ? AVIF_PLANES_ALL : AVIF_PLANES_YUV) != AVIF_RESULT_OK)
    fail("avifImageAllocatePlanes");
  avifPixelFormatInfo info;
  avifGetPixelFormatInfo(frame->yuvFormat, &info);
  const bool wide = frame->depth > 8;
  struct Source {
    const uint8_t* data;
    uint32_t rowBytes;
    int shiftX, shiftY;
    uint8_t* out;
    uint32_t outRowBytes;
  };
  std::vector<Source> planes = {{frame->yuvPlanes[AVIF_CHAN_Y], frame->yuvRowBytes[AVIF_CHAN_Y], 0, 0,
                                 small->yuvPlanes[AVIF_CHAN_Y], small->yuvRowBytes[AVIF_CHAN_Y]}};
  if (!grey)
    for (int c : {AVIF_CHAN_U, AVIF_CHAN_V})
      planes.push_back({frame->yuvPlanes[c], frame->yuvRowBytes[c], int(info.chromaShiftX),
                        int(info.chromaShiftY), small->yuvPlanes[c], small->yuvRowBytes[c]});
  if (alpha)
    planes.push_back(
        {frame->alphaPlane, frame->alphaRowBytes, 0, 0, small->alphaPlane, small->alphaRowBytes});
  for (const Source& plane : planes)
    if (!plane.data || !plane.out) fail("avifDecoderNextImage: missing plane");
  auto sample = [wide, &shown](const Source& plane, int x, int y) -> unsigned {
    const uint8_t* row = plane.data + size_t((y + int(shown.y)) >> plane.shiftY) * plane.rowBytes;
    const size_t at = size_t((x + int(shown.x)) >> plane.shiftX);
    return wide ? reinterpret_cast<const uint16_t*>(row)[at] : row[at];
  };
  auto put = [wide](const Source& plane, uint32_t x, uint32_t y, double value) {
    uint8_t* row = plane.out + size_t(y) * plane.outRowBytes;
    if (wide)
      reinterpret_cast<uint16_t*>(row)[x] = uint16_t(std::lround(value));
    else
      row[x] = uint8_t(std::lround(value));
  };
  // Y, U and V weighted by straight alpha: they are linear in the (encoded) R, G and B.
  const size_t colours = grey ? 1 : 3;
  ReducedSums sums(outWidth, colours, alpha && !frame->alphaPremultiplied);
  for (uint32_t oy = 0; oy < outHeight; ++oy) {
    Cancellation::check();
    sums.clear();
    const int y0 = int(oy) * factor, y1 = std::min(height, y0 + factor);
    for (int y = y0; y < y1; ++y)
      for (int x = 0; x < width; ++x) {
        unsigned colour[3] = {};
        for (size_t c = 0; c < colours; ++c) colour[c] = sample(planes[c], x, y);
        sums.add(size_t(x / factor), colour, alpha ? sample(planes[colours], x, y) : 1);
      }
    for (uint32_t ox = 0; ox < outWidth; ++ox) {
      const uint64_t count =
          uint64_t(y1 - y0) * uint64_t(std::min(width, int(ox + 1) * factor) - int(ox) * factor);
      for (size_t c = 0; c < colours; ++c) put(planes[c], ox, oy, sums.colour(ox, c, count));
      if (alpha) put(planes[colours], ox, oy, sums.alpha(ox, count));
    }
  }
  return small;
}

}  // namespace

std::optional<Properties> avifProperties(Input bytes) {
  MemorySource source(bytes);
  return avifProperties(source);
}

std::optional<Properties> avifProperties(ByteSource& source) {
  AvifDecoderPtr decoder = parse(source);
  if (!decoder || !decoder->image) return std::nullopt;
  Properties props;
  const avifCropRect shown = shownRect(decoder->image);
  props.width = int(shown.width);
  props.height = int(shown.height);
  props.frameCount = std::max(1, decoder->imageCount);
  props.orientation = orientationOf(decoder->image);
  if (props.width <= 0 || props.height <= 0) return std::nullopt;
  return props;
}

std::optional<uint64_t> avifReducedDecodeBytes(Input bytes) {
  MemorySource source(bytes);
  return avifReducedDecodeBytes(source);
}

std::optional<uint64_t> avifReducedDecodeBytes(ByteSource& source) {
  AvifDecoderPtr decoder = parse(source);
  if (!decoder || !decoder->image) return std::nullopt;
  const avifImage* image = decoder->image;
  const uint64_t pixels = uint64_t(image->width) * uint64_t(image->height);
  const uint64_t sample = image->depth > 8 ? 2 : 1;
  // dav1d's picture, about its planes (measured: 3.2 bytes a pixel for 8-bit 4:4:4, 6.4 at
  // 10 bits); a grid is assembled in libavif's own planes while every cell keeps its decoder
  // and their pictures (measured: 7.6 bytes a pixel for 8-bit 4:4:4 cells of 512 x 512).
  avifPixelFormatInfo info;
  avifGetPixelFormatInfo(image->yuvFormat, &info);
  const double chroma = info.monochrome ? 0 : 2.0 / double((1 << info.chromaShiftX) << info.chromaShiftY);
  const double planes = double(sample) * (1 + chroma + (image->alphaPlane || decoder->alphaPresent ? 1 : 0));
  const std::optional<Input> whole = source.contiguous();
  const std::vector<uint8_t> meta = whole ? std::vector<uint8_t>() : metaPayload(source);
  const double copies = hasGridItem(whole ? *whole : Input(meta)) ? 2.75 : 1.1;
  return estimatedBytes(double(pixels) * planes * copies + double(8u << 20));
}

DecodedImage decodeAvif(Input bytes, int minLongSide) {
  MemorySource source(bytes);
  return decodeAvif(source, minLongSide);
}

DecodedImage decodeAvif(ByteSource& source, int minLongSide) {
  AvifDecoderPtr decoder = parse(source);
  if (!decoder) fail("avifDecoderParse: damaged or truncated AVIF");
  checkSize(decoder->image->width, decoder->image->height);
  checkCodedSizes(source);
  // And dav1d, which libavif gives this limit when it starts it, refuses any frame larger than
  // the file declares (in whole 64-pixel blocks), whatever a header the check above missed says.
  auto blocks = [](uint64_t side) { return (side + 63) / 64 * 64; };
  decoder->imageSizeLimit = uint32_t(std::min<uint64_t>(
      decoder->imageSizeLimit, blocks(decoder->image->width) * blocks(decoder->image->height)));
  // An image sequence's frames are samples of a track, not items: its first frame's data
  // is checked against the size the track declares.
  avifExtent extent{};
  if (decoder->imageCount > 1 && avifDecoderNthImageMaxExtent(decoder.get(), 0, &extent) == AVIF_RESULT_OK &&
      extent.offset <= source.size() && extent.size <= source.size() - extent.offset)
    checkAv1Size(source.readAt(extent.offset, extent.size), decoder->image->width, decoder->image->height);
  {
    QuietStderr quiet;
    if (avifDecoderNextImage(decoder.get()) != AVIF_RESULT_OK) fail("avifDecoderNextImage");
  }
  const avifCropRect shown = shownRect(decoder->image);
  AvifImagePtr small = minLongSide > 0 ? reduced(decoder->image, shown, minLongSide) : nullptr;
  const avifImage* frame = small ? small.get() : decoder->image;
  bool alpha = frame->alphaPlane != nullptr;
  int bits = frame->depth > 8 ? 16 : 8;
  DecodedImage image = allocateImage(int(frame->width), int(frame->height), bits,
                                     alpha ? AlphaInfo::straight : AlphaInfo::none);
  avifRGBImage rgb;
  avifRGBImageSetDefaults(&rgb, frame);
  rgb.format = AVIF_RGB_FORMAT_RGBA;
  rgb.depth = uint32_t(bits);
  rgb.alphaPremultiplied = AVIF_FALSE;
  rgb.rowBytes = uint32_t(image.width) * 4 * uint32_t(bits / 8);
  rgb.pixels = bits == 16 ? reinterpret_cast<uint8_t*>(image.pixels16.data()) : image.pixels8.data();
  if (avifImageYUVToRGB(frame, &rgb) != AVIF_RESULT_OK) fail("avifImageYUVToRGB");
  if (!small && (shown.width != frame->width || shown.height != frame->height)) crop(image, shown);
  if (frame->icc.size > 0)
    image.colorSpace =
        ColorConvert::rgbSpace(std::vector<uint8_t>(frame->icc.data, frame->icc.data + frame->icc.size));
  else
    ColorConvert::applyCodePoints(image, int(frame->colorPrimaries), int(frame->transferCharacteristics));
  return image;
}

}  // namespace quillane::codecs
