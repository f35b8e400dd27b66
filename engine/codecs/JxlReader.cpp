// JPEG XL through libjxl. The decoder is told to keep the stored orientation, which is
// reported so that the pipeline turns the picture once. Animations report their frame count
// and decode their first (coalesced) frame.

#include <jxl/decode.h>
#include <jxl/decode_cxx.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "engine/Cancellation.h"
#include "engine/ColorConvert.h"
#include "engine/codecs/QuietStderr.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {

// Gives libjxl the bytes of a source as it asks for them: all at once where they are in memory;
// from a file, in chunks that grow with what libjxl holds back, keeping the bytes it has not
// taken in yet, so that a header or a first frame reads that much of the file.
class Feed {
 public:
  explicit Feed(ByteSource& source) : source_(source) { source.rewind(); }
  // The first input.
  bool start(JxlDecoder* decoder) {
    if (const auto whole = source_.contiguous())
      return JxlDecoderSetInput(decoder, whole->data(), whole->size()) == JXL_DEC_SUCCESS;
    return more(decoder);
  }
  // More input, after JXL_DEC_NEED_MORE_INPUT: false at the end of the bytes.
  bool more(JxlDecoder* decoder) {
    if (source_.contiguous()) return false;
    const size_t kept = JxlDecoderReleaseInput(decoder);
    buffer_.erase(buffer_.begin(), buffer_.end() - std::ptrdiff_t(std::min(kept, buffer_.size())));
    const size_t held = buffer_.size();
    buffer_.resize(held + std::max<size_t>(64 << 10, held));
    buffer_.resize(held + source_.read(buffer_.data() + held, buffer_.size() - held));
    return buffer_.size() > held &&
           JxlDecoderSetInput(decoder, buffer_.data(), buffer_.size()) == JXL_DEC_SUCCESS;
  }

 private:
  ByteSource& source_;
  std::vector<uint8_t> buffer_;
};

JxlDecoderPtr makeDecoder(Feed& feed, int events) {
  JxlDecoderPtr decoder = JxlDecoderMake(nullptr);
  if (!decoder) fail("JxlDecoderCreate");
  // No parallel runner: libjxl 0.7 aborts the process when a work item of some of its passes
  // fails, so a runner may not stop it half way. The caller looks at its cancellation flag
  // between the decoder's events.
  if (JxlDecoderSetKeepOrientation(decoder.get(), JXL_TRUE) != JXL_DEC_SUCCESS ||
      JxlDecoderSubscribeEvents(decoder.get(), events) != JXL_DEC_SUCCESS || !feed.start(decoder.get()))
    fail("JxlDecoderSetInput");
  // The input is deliberately left open: libjxl 0.7 prints an error to stderr when a closed
  // input runs out, while an open one just asks for more, which is taken as truncation.
  return decoder;
}

std::vector<uint8_t> iccProfile(JxlDecoder* decoder, JxlColorProfileTarget target) {
  size_t size = 0;
  JxlPixelFormat unused{4, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  if (JxlDecoderGetICCProfileSize(decoder, &unused, target, &size) != JXL_DEC_SUCCESS || size == 0 ||
      size > (64u << 20))
    return {};
  std::vector<uint8_t> icc(size);
  if (JxlDecoderGetColorAsICCProfile(decoder, &unused, target, icc.data(), size) != JXL_DEC_SUCCESS)
    return {};
  return icc;
}

// H.273 code points; a transfer of 0 for none.
struct CodePoints {
  int primaries = 0, transfer = 0;
};

// The primaries and transfer of RGB samples coded for high dynamic range (PQ or HLG), whose
// profile would describe them relative to a display of 10000 cd/m2; none for any other
// picture, or primaries with no code point.
CodePoints highDynamicRangeOf(JxlDecoder* decoder) {
  JxlPixelFormat unused{4, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  JxlColorEncoding encoding;
  if (JxlDecoderGetColorAsEncodedProfile(decoder, &unused, JXL_COLOR_PROFILE_TARGET_DATA, &encoding) !=
          JXL_DEC_SUCCESS ||
      encoding.color_space != JXL_COLOR_SPACE_RGB ||
      (encoding.transfer_function != JXL_TRANSFER_FUNCTION_PQ &&
       encoding.transfer_function != JXL_TRANSFER_FUNCTION_HLG))
    return {};
  const bool d65 = encoding.white_point == JXL_WHITE_POINT_D65;
  int primaries = 0;
  if (encoding.primaries == JXL_PRIMARIES_SRGB && d65) primaries = 1;
  if (encoding.primaries == JXL_PRIMARIES_2100 && d65) primaries = 9;
  if (encoding.primaries == JXL_PRIMARIES_P3)
    primaries = d65 ? 12 : encoding.white_point == JXL_WHITE_POINT_DCI ? 11 : 0;
  if (primaries == 0) return {};
  return {primaries, int(encoding.transfer_function)};
}

// A picture averaged down by a whole factor while libjxl hands over its pixels, group by group
// in any order, so that no full-size output buffer exists (measured for a lossy picture: 14.2
// bytes a pixel instead of 22): per output pixel, the sums of the samples under it.
// The pixel format always carries alpha (its maximum where the picture has none).
struct Reducer {
  int factor = 1;
  size_t width = 0, height = 0, outWidth = 0, outHeight = 0;
  size_t channels = 4;  // colour and alpha
  bool wide = false;
  std::optional<ReducedSums> sums;

  static void onPixels(void* opaque, size_t x, size_t y, size_t count, const void* pixels) {
    auto* self = static_cast<Reducer*>(opaque);
    if (y >= self->height || x + count > self->width) return;
    const size_t rowStart = y / size_t(self->factor) * self->outWidth;
    for (size_t i = 0; i < count; ++i) {
      unsigned sample[4] = {};
      for (size_t c = 0; c < self->channels; ++c)
        sample[c] = self->wide ? static_cast<const uint16_t*>(pixels)[i * self->channels + c]
                               : static_cast<const uint8_t*>(pixels)[i * self->channels + c];
      self->sums->add(rowStart + (x + i) / size_t(self->factor), sample, sample[self->channels - 1]);
    }
  }

  // The means, packed `channels` to a pixel at the start of `image`'s samples, as libjxl
  // would have written a picture of that size.
  void writeInto(DecodedImage& image) const {
    for (size_t oy = 0; oy < outHeight; ++oy)
      for (size_t ox = 0; ox < outWidth; ++ox) {
        const size_t rows = std::min(height, (oy + 1) * size_t(factor)) - oy * size_t(factor);
        const size_t columns = std::min(width, (ox + 1) * size_t(factor)) - ox * size_t(factor);
        const uint64_t count = uint64_t(rows * columns);
        const size_t cell = oy * outWidth + ox;
        for (size_t c = 0; c < channels; ++c) {
          const double mean = c + 1 < channels ? sums->colour(cell, c, count) : sums->alpha(cell, count);
          if (wide)
            image.pixels16[cell * channels + c] = uint16_t(std::lround(mean));
          else
            image.pixels8[cell * channels + c] = uint8_t(std::lround(mean));
        }
      }
  }
};

// A lossy picture whose own profile libjxl 0.7 can't produce (a tabulated curve, say) comes in
// linear sRGB, where the colours outside sRGB's gamut fall below 0 or above 1: it is taken as
// floats and converted to its own profile before anything is clamped, then handed on as 16-bit
// samples, into the picture or to the reducer.
struct ProfileConversion {
  std::optional<ColorConvert::UnboundedConversion> conversion;
  std::vector<uint16_t> samples;
  DecodedImage* image = nullptr;
  Reducer* reducer = nullptr;

  static void onPixels(void* opaque, size_t x, size_t y, size_t count, const void* pixels) {
    auto* self = static_cast<ProfileConversion*>(opaque);
    self->samples.resize(count * 4);
    self->conversion->convert(static_cast<const float*>(pixels), self->samples.data(), count);
    if (self->reducer) return Reducer::onPixels(self->reducer, x, y, count, self->samples.data());
    DecodedImage& image = *self->image;
    if (y >= size_t(image.height) || x + count > size_t(image.width)) return;
    std::copy(self->samples.begin(), self->samples.end(),
              image.pixels16.begin() + std::ptrdiff_t((y * size_t(image.width) + x) * 4));
  }
};

}  // namespace

std::optional<Properties> jxlProperties(Input bytes) {
  MemorySource source(bytes);
  return jxlProperties(source);
}

namespace {
constexpr int kMaxCountedFrames = 1 << 20;
}  // namespace

std::optional<Properties> jxlProperties(ByteSource& source) {
  QuietStderr quiet;
  try {
    Feed feed(source);
    JxlDecoderPtr decoder = makeDecoder(feed, JXL_DEC_BASIC_INFO | JXL_DEC_FRAME);
    std::optional<Properties> props;
    bool animated = false;
    int frames = 0;
    for (;;) {
      JxlDecoderStatus status = JxlDecoderProcessInput(decoder.get());
      if (status == JXL_DEC_BASIC_INFO) {
        JxlBasicInfo info;
        if (JxlDecoderGetBasicInfo(decoder.get(), &info) != JXL_DEC_SUCCESS) return std::nullopt;
        props = Properties{int(info.xsize), int(info.ysize), int(info.orientation), 1};
        if (info.xsize == 0 || info.ysize == 0 || info.xsize > 0x7FFFFFFF || info.ysize > 0x7FFFFFFF)
          return std::nullopt;
        animated = info.have_animation != 0;
        if (!animated) return props;
      } else if (status == JXL_DEC_FRAME) {
        // Frames are skipped, not decoded: no image buffer was asked for. Counted up to the
        // most a PNG's count is taken as: walking the frames of an animation of a gigabyte in
        // headers of some 20 bytes took minutes.
        if (++frames == kMaxCountedFrames && props) {
          props->frameCount = frames;
          return props;
        }
      } else if (status != JXL_DEC_NEED_MORE_INPUT || !feed.more(decoder.get())) {
        // Success, or a damaged tail after the header: what was read stands.
        if (props && animated) props->frameCount = std::max(1, frames);
        return props;
      }
    }
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<uint64_t> jxlReducedDecodeBytes(Input bytes) {
  MemorySource source(bytes);
  return jxlReducedDecodeBytes(source);
}

std::optional<uint64_t> jxlReducedDecodeBytes(ByteSource& source) {
  QuietStderr quiet;
  try {
    Feed feed(source);
    JxlDecoderPtr decoder = makeDecoder(feed, JXL_DEC_BASIC_INFO);
    JxlDecoderStatus status;
    while ((status = JxlDecoderProcessInput(decoder.get())) == JXL_DEC_NEED_MORE_INPUT)
      if (!feed.more(decoder.get())) return std::nullopt;
    JxlBasicInfo info;
    if (status != JXL_DEC_BASIC_INFO || JxlDecoderGetBasicInfo(decoder.get(), &info) != JXL_DEC_SUCCESS)
      return std::nullopt;
    const uint64_t pixels = uint64_t(info.xsize) * uint64_t(info.ysize);
    const uint64_t channels = info.num_color_channels + (info.alpha_bits > 0 ? 1 : 0);
    const bool xyb = info.uses_original_profile == JXL_FALSE;
    // libjxl holds the whole frame as 4-byte samples (integers or floats), and more while it
    // converts; a lossless picture's RGBA comes on top (measured: 15.7 bytes a pixel for 8-bit
    // RGB), a lossy one is averaged down as it comes (14.2 bytes a pixel).
    // In floating point: a header may name up to 2^60 pixels.
    const uint64_t perPixel = xyb ? channels * 4 + 3 : channels * 4 + (info.bits_per_sample > 8 ? 8 : 4) + 4;
    return estimatedBytes(double(pixels) * double(perPixel) + double(4u << 20));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

DecodedImage decodeJxl(Input bytes, int minLongSide) {
  MemorySource source(bytes);
  return decodeJxl(source, minLongSide);
}

DecodedImage decodeJxl(ByteSource& source, int minLongSide) {
  QuietStderr quiet;
  Reducer reducer;
  Feed feed(source);
  JxlDecoderPtr decoder = makeDecoder(feed, JXL_DEC_BASIC_INFO | JXL_DEC_COLOR_ENCODING | JXL_DEC_FULL_IMAGE);
  JxlBasicInfo info{};
  bool haveInfo = false;
  std::vector<uint8_t> icc;
  bool xyb = false;
  ProfileConversion converting;
  CodePoints highDynamicRange;
  DecodedImage image;
  JxlPixelFormat format{4, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  for (;;) {
    Cancellation::check();
    JxlDecoderStatus status = JxlDecoderProcessInput(decoder.get());
    switch (status) {
      case JXL_DEC_BASIC_INFO: {
        if (JxlDecoderGetBasicInfo(decoder.get(), &info) != JXL_DEC_SUCCESS) fail("JxlDecoderGetBasicInfo");
        checkSize(info.xsize, info.ysize);
        haveInfo = true;
        bool grey = info.num_color_channels == 1;
        // A lossy (XYB) picture has no stored depth of its own; 16 bits keep its shadows
        // smooth through the conversion to its profile below.
        xyb = info.uses_original_profile == JXL_FALSE;
        bool wide = info.bits_per_sample > 8 || xyb;
        format = {grey ? 2u : 4u, wide ? JXL_TYPE_UINT16 : JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
        break;
      }
      case JXL_DEC_COLOR_ENCODING: {
        highDynamicRange = highDynamicRangeOf(decoder.get());
        icc = iccProfile(decoder.get(), JXL_COLOR_PROFILE_TARGET_DATA);
        std::vector<uint8_t> originalICC;
        if (xyb) originalICC = iccProfile(decoder.get(), JXL_COLOR_PROFILE_TARGET_ORIGINAL);
        if (format.num_channels == 4 && !originalICC.empty() && originalICC != icc) {
          converting.conversion.emplace(icc, originalICC);
          if (*converting.conversion) {
            format.data_type = JXL_TYPE_FLOAT;
            icc = std::move(originalICC);
          } else {
            converting.conversion.reset();
          }
        }
        break;
      }
      case JXL_DEC_NEED_IMAGE_OUT_BUFFER: {
        if (!haveInfo) fail("JxlDecoderProcessInput: no basic info");
        AlphaInfo alpha = info.alpha_bits == 0       ? AlphaInfo::none
                          : info.alpha_premultiplied ? AlphaInfo::premultiplied
                                                     : AlphaInfo::straight;
        const bool converts = converting.conversion.has_value();
        bool wide = format.data_type != JXL_TYPE_UINT8;
        // Only a lossy picture: libjxl 0.7 decodes a lossless one into a full-size buffer of
        // its own for a callback, which would cost more than this reader's (measured: 23.6
        // instead of 15.7 bytes a pixel).
        if (minLongSide > 0 && xyb) {
          reducer.factor =
              int(std::max<uint32_t>(1, std::max(info.xsize, info.ysize) / uint32_t(minLongSide)));
          reducer.width = info.xsize, reducer.height = info.ysize;
          reducer.outWidth = (info.xsize + uint32_t(reducer.factor) - 1) / uint32_t(reducer.factor);
          reducer.outHeight = (info.ysize + uint32_t(reducer.factor) - 1) / uint32_t(reducer.factor);
          reducer.channels = format.num_channels;
          reducer.wide = wide;
          reducer.sums.emplace(reducer.outWidth * reducer.outHeight, reducer.channels - 1,
                               alpha == AlphaInfo::straight);
          image = allocateImage(int(reducer.outWidth), int(reducer.outHeight), wide ? 16 : 8, alpha);
          converting.reducer = &reducer;
          if ((converts ? JxlDecoderSetImageOutCallback(decoder.get(), &format, &ProfileConversion::onPixels,
                                                        &converting)
                        : JxlDecoderSetImageOutCallback(decoder.get(), &format, &Reducer::onPixels,
                                                        &reducer)) != JXL_DEC_SUCCESS)
            fail("JxlDecoderSetImageOutCallback");
          break;
        }
        image = allocateImage(int(info.xsize), int(info.ysize), wide ? 16 : 8, alpha);
        if (converts) {
          converting.image = &image;
          if (JxlDecoderSetImageOutCallback(decoder.get(), &format, &ProfileConversion::onPixels,
                                            &converting) != JXL_DEC_SUCCESS)
            fail("JxlDecoderSetImageOutCallback");
          break;
        }
        void* buffer = wide ? static_cast<void*>(image.pixels16.data()) : image.pixels8.data();
        size_t capacity = image.pixelCount() * 4 * (wide ? 2 : 1);
        size_t needed = 0;
        if (JxlDecoderImageOutBufferSize(decoder.get(), &format, &needed) != JXL_DEC_SUCCESS ||
            needed > capacity ||
            JxlDecoderSetImageOutBuffer(decoder.get(), &format, buffer, needed) != JXL_DEC_SUCCESS)
          fail("JxlDecoderSetImageOutBuffer");
        break;
      }
      case JXL_DEC_FULL_IMAGE: {
        if (image.empty()) fail("JxlDecoderProcessInput: no image");
        if (reducer.sums) reducer.writeInto(image);
        if (format.num_channels == 2) {
          ColorConvert::expandGreyInPlace(image, 2, &icc);
        } else {
          if (highDynamicRange.transfer)
            ColorConvert::applyCodePoints(image, highDynamicRange.primaries, highDynamicRange.transfer);
          else
            image.colorSpace = ColorConvert::rgbSpace(std::move(icc));
        }
        return image;  // the first frame is all we need
      }
      case JXL_DEC_NEED_MORE_INPUT:
        if (feed.more(decoder.get())) break;
        [[fallthrough]];
      default:
        Cancellation::check();
        fail("JxlDecoderProcessInput: damaged or truncated JPEG XL");
    }
  }
}

}  // namespace quillane::codecs
