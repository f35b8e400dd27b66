// JPEG, HEIC and AVIF: prepares the picture as the writers take it (an opaque 8-bit copy, or
// the picture with its alpha), computes the one 0...1 quality, and hands both to the writer of
// the format (engine/codecs/).

#include <algorithm>
#include <cstdint>
#include <new>
#include <string>

#include "engine/ColorSpace.h"
#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/codecs/Writers.h"

namespace quillane::NativeImageIOEncoder {
namespace {

bool hasValidPixels(const DecodedImage& image) {
  if (image.empty()) return false;
  const size_t samples = image.pixelCount() * 4;
  return image.bitsPerComponent == 16 ? image.pixels16.size() == samples
                                      : image.bitsPerComponent == 8 && image.pixels8.size() == samples;
}

// Composites one pixel of samples with maximum `max` over black or white and reduces it to 8
// bits with one rounding. Straight colour is weighted by its alpha first; premultiplied colour
// already is.
template <class Sample>
void flattenPixel(const Sample* src, uint8_t* dst, AlphaInfo alpha, bool overWhite) {
  constexpr uint64_t max = sizeof(Sample) == 1 ? 255 : 65535;
  const uint64_t a = alpha == AlphaInfo::none ? max : src[3];
  const uint64_t background = overWhite ? max * (max - a) : 0;
  for (int c = 0; c < 3; ++c) {
    uint64_t weighted = alpha == AlphaInfo::premultiplied ? std::min<uint64_t>(src[c], a) * max : src[c] * a;
    uint64_t value = weighted + background;  // scale max * max
    dst[c] = uint8_t((value * 255 + max * max / 2) / (max * max));
  }
  dst[3] = 255;
}

template <class Sample>
void flattenAll(const SampleVector<Sample>& src, SampleVector<uint8_t>& dst, AlphaInfo alpha,
                bool overWhite) {
  const size_t n = dst.size() / 4;
  for (size_t i = 0; i < n; ++i) flattenPixel(&src[i * 4], &dst[i * 4], alpha, overWhite);
}

// One pixel to 8-bit straight RGBA.
template <class Sample>
void straightenPixel(const Sample* src, uint8_t* dst, AlphaInfo alpha) {
  constexpr uint64_t max = sizeof(Sample) == 1 ? 255 : 65535;
  const uint64_t a = alpha == AlphaInfo::none ? max : src[3];
  for (int c = 0; c < 3; ++c) {
    uint64_t v = src[c];
    if (alpha == AlphaInfo::premultiplied) v = a == 0 ? 0 : std::min(max, (v * max + a / 2) / a);
    dst[c] = uint8_t((v * 255 + max / 2) / max);
  }
  dst[3] = uint8_t((a * 255 + max / 2) / max);
}

bool isNativeFormat(ImageFormat format) {
  return format == ImageFormat::jpeg || format == ImageFormat::heic || format == ImageFormat::avif;
}

// clearTransparentColour over 8- or 16-bit samples.
template <class Sample>
void clearTransparent(SampleVector<Sample>& samples) {
  for (size_t i = 0; i < samples.size(); i += 4)
    if (samples[i + 3] == 0) std::fill_n(&samples[i], 3, Sample(0));
}

}  // namespace

void clearTransparentColour(DecodedImage& image) {
  if (image.alpha != AlphaInfo::straight || !hasValidPixels(image)) return;
  if (image.bitsPerComponent == 16)
    clearTransparent(image.pixels16);
  else
    clearTransparent(image.pixels8);
}

std::optional<DecodedImage> opaqueCopy(const DecodedImage& image, bool overWhite) {
  if (!hasValidPixels(image)) return std::nullopt;
  try {
    DecodedImage copy;
    copy.width = image.width;
    copy.height = image.height;
    copy.bitsPerComponent = 8;
    copy.alpha = AlphaInfo::none;
    copy.colorSpace = image.colorSpace;
    copy.pixels8.resize(image.pixelCount() * 4);
    if (image.bitsPerComponent == 16)
      flattenAll(image.pixels16, copy.pixels8, image.alpha, overWhite);
    else
      flattenAll(image.pixels8, copy.pixels8, image.alpha, overWhite);
    return copy;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

DecodedImage straightEightBit(const DecodedImage& image) {
  if (image.bitsPerComponent == 8 && image.alpha != AlphaInfo::premultiplied) return image;
  DecodedImage out;
  out.width = image.width;
  out.height = image.height;
  out.bitsPerComponent = 8;
  out.alpha = image.alpha == AlphaInfo::none ? AlphaInfo::none : AlphaInfo::straight;
  out.colorSpace = image.colorSpace;
  out.pixels8.resize(image.pixelCount() * 4);
  const size_t n = image.pixelCount();
  if (image.bitsPerComponent == 16)
    for (size_t i = 0; i < n; ++i) straightenPixel(&image.pixels16[i * 4], &out.pixels8[i * 4], image.alpha);
  else
    for (size_t i = 0; i < n; ++i) straightenPixel(&image.pixels8[i * 4], &out.pixels8[i * 4], image.alpha);
  return out;
}

double compressionQuality(ImageFormat format, const EncodingPlan& plan) {
  double quality = std::clamp(plan.mode.quality / 100.0, 0.0, 1.0);
  // AVIF at 1.0 would mean lossless, many times larger than what a slider at 100 means
  // anywhere else: it stops just below.
  if (format == ImageFormat::avif && quality >= 1.0) quality = 0.99;
  return quality;
}

namespace {

// The writer's call on `pixels`, which it consumes when `consumable` (`pixels` itself) is given.
Bytes write(const DecodedImage& pixels, DecodedImage* consumable, bool keepAlpha, ImageFormat format,
            const EncodingPlan& plan, const std::optional<Bytes>& icc) {
  const double quality = compressionQuality(format, plan);
  switch (format) {
    case ImageFormat::jpeg:
      return consumable ? codecs::writeJpeg(std::move(*consumable), codecs::jpegSettings(quality), icc)
                        : codecs::writeJpeg(pixels, codecs::jpegSettings(quality), icc);
    case ImageFormat::heic: {
      const auto settings =
          codecs::heifSettings(quality, plan.photographic, pixels.pixelCount(), plan.continuousTone);
      return consumable ? codecs::writeHeic(std::move(*consumable), keepAlpha, settings, icc)
                        : codecs::writeHeic(pixels, keepAlpha, settings, icc);
    }
    default: {
      const auto settings = codecs::avifSettings(quality, pixels.pixelCount(), plan.continuousTone);
      return consumable ? codecs::writeAvif(std::move(*consumable), keepAlpha, settings, icc)
                        : codecs::writeAvif(pixels, keepAlpha, settings, icc);
    }
  }
}

// `owned` is `image` itself when the caller gave it away: it is then dropped as soon as a
// copy for the writer exists, or consumed by the writer.
Bytes encodePicture(const DecodedImage& image, DecodedImage* owned, bool hasAlpha, ImageFormat format,
                    const EncodingPlan& plan) {
  const std::string label(ImageFormats::label(format));
  if (!isNativeFormat(format))
    throw ImageProcessingError::encodingFailed(label, "not a JPEG, HEIC or AVIF request");
  if (plan.mode.kind != EncodingPlan::Mode::Kind::lossy)
    throw ImageProcessingError::encodingFailed(label, "JPEG, HEIC and AVIF are written lossy only");
  if (!hasValidPixels(image))
    throw ImageProcessingError::encodingFailed(label, "picture without valid pixels");

  try {
    const bool keepAlpha = format != ImageFormat::jpeg && hasAlpha;
    const auto icc = ColorProfile::embeddableICC(image.colorSpace);
    std::optional<DecodedImage> opaque;
    // The writers read only the colour of an opaque picture: opaque 8 bits go to them as they
    // are, without a copy.
    const bool colourAsItIs = image.bitsPerComponent == 8 && image.alpha == AlphaInfo::none;
    if (!keepAlpha && !colourAsItIs) opaque = opaqueCopy(image, format == ImageFormat::jpeg && hasAlpha);
    // A copy that couldn't be made is no failure: the picture goes on as it is.
    const DecodedImage& chosen = opaque ? *opaque : image;
    std::optional<DecodedImage> converted;
    if (chosen.bitsPerComponent != 8 || chosen.alpha == AlphaInfo::premultiplied)
      converted = straightEightBit(chosen);
    if (converted) opaque.reset();
    DecodedImage* copy = converted ? &*converted : opaque ? &*opaque : nullptr;
    if (copy && owned) *owned = DecodedImage{};
    if (copy) return write(*copy, owned ? copy : nullptr, keepAlpha, format, plan, icc);
    return write(image, owned, keepAlpha, format, plan, icc);
  } catch (const std::bad_alloc&) {
    throw ImageProcessingError::encodingFailed(label, "out of memory");
  }
}

}  // namespace

Bytes encode(const DecodedImage& image, bool hasAlpha, ImageFormat format, const EncodingPlan& plan) {
  return encodePicture(image, nullptr, hasAlpha, format, plan);
}

Bytes encode(DecodedImage&& image, bool hasAlpha, ImageFormat format, const EncodingPlan& plan) {
  return encodePicture(image, &image, hasAlpha, format, plan);
}

}  // namespace quillane::NativeImageIOEncoder
