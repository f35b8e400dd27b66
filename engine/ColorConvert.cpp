#include "engine/ColorConvert.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "engine/LcmsHandles.h"

namespace quillane::ColorConvert {
namespace {
using ToneCurvePtr = CHandle<cmsToneCurve, cmsFreeToneCurve>;

CmsProfilePtr openProfile(const std::vector<uint8_t>* icc, cmsColorSpaceSignature expected) {
  if (!icc || icc->empty()) return nullptr;
  CmsProfilePtr profile(cmsOpenProfileFromMem(icc->data(), cmsUInt32Number(icc->size())));
  if (!profile || cmsGetColorSpace(profile.get()) != expected) return nullptr;
  return profile;
}

CmsTransformPtr transformToSRGB(cmsHPROFILE source, cmsUInt32Number inFormat, cmsUInt32Number outFormat,
                                cmsUInt32Number flags) {
  CmsProfilePtr srgb(cmsCreate_sRGBProfile());
  if (!srgb) return nullptr;
  return CmsTransformPtr(cmsCreateTransform(source, inFormat, srgb.get(), outFormat, INTENT_PERCEPTUAL,
                                            flags | cmsFLAGS_NOCACHE));
}

template <class T>
void replicateGrey(T* samples, size_t pixels, int channels) {
  const T opaque = T(~T(0));
  // Backwards, so that no packed input is overwritten before it is read.
  for (size_t i = pixels; i-- > 0;) {
    T g = samples[i * size_t(channels)];
    T a = channels == 2 ? samples[i * 2 + 1] : opaque;
    T* out = samples + i * 4;
    out[0] = out[1] = out[2] = g;
    out[3] = a;
  }
}

template <class T>
bool transformGrey(T* samples, int width, int height, int channels, cmsHPROFILE grey) {
  bool wide = sizeof(T) == 2;
  cmsUInt32Number inType =
      channels == 2 ? (wide ? TYPE_GRAYA_16 : TYPE_GRAYA_8) : (wide ? TYPE_GRAY_16 : TYPE_GRAY_8);
  cmsUInt32Number outType = wide ? TYPE_RGBA_16 : TYPE_RGBA_8;
  CmsTransformPtr transform = transformToSRGB(grey, inType, outType, channels == 2 ? cmsFLAGS_COPY_ALPHA : 0);
  if (!transform) return false;
  std::vector<T> row(size_t(width) * size_t(channels));
  const T opaque = T(~T(0));
  // Rows from the last: the RGBA output of row r never reaches packed rows below r.
  for (int y = height; y-- > 0;) {
    std::memcpy(row.data(), samples + size_t(y) * row.size(), row.size() * sizeof(T));
    T* out = samples + size_t(y) * size_t(width) * 4;
    cmsDoTransform(transform.get(), row.data(), out, cmsUInt32Number(width));
    if (channels == 1)
      for (int x = 0; x < width; ++x) out[size_t(x) * 4 + 3] = opaque;
  }
  return true;
}

cmsToneCurve* transferCurve(int transfer) {
  switch (transfer) {
    case 13: {  // sRGB
      const double p[5] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};
      return cmsBuildParametricToneCurve(nullptr, 4, p);
    }
    case 1:
    case 6:
    case 14:
    case 15: {  // BT.709 family
      const double p[5] = {1.0 / 0.45, 1.0 / 1.099, 0.099 / 1.099, 1.0 / 4.5, 0.081};
      return cmsBuildParametricToneCurve(nullptr, 4, p);
    }
    case 8:
      return cmsBuildGamma(nullptr, 1.0);
    case 4:
      return cmsBuildGamma(nullptr, 2.2);
    case 5:
      return cmsBuildGamma(nullptr, 2.8);
    default:
      return nullptr;
  }
}
}  // namespace

void expandGreyInPlace(DecodedImage& image, int channels, const std::vector<uint8_t>* profile) {
  CmsProfilePtr grey = openProfile(profile, cmsSigGrayData);
  bool done = false;
  if (grey) {
    done = image.bitsPerComponent == 16
               ? transformGrey(image.pixels16.data(), image.width, image.height, channels, grey.get())
               : transformGrey(image.pixels8.data(), image.width, image.height, channels, grey.get());
  }
  if (!done) {
    if (image.bitsPerComponent == 16)
      replicateGrey(image.pixels16.data(), image.pixelCount(), channels);
    else
      replicateGrey(image.pixels8.data(), image.pixelCount(), channels);
  }
  image.colorSpace = ColorSpace::sRGB();
}

void cmykToRGBInPlace(DecodedImage& image, bool inverted, const std::vector<uint8_t>* profile) {
  uint8_t* px = image.pixels8.data();
  const size_t count = image.pixelCount();
  CmsProfilePtr cmyk = openProfile(profile, cmsSigCmykData);
  CmsTransformPtr transform;
  // lcms2 precomputes a four-dimensional grid for CMYK input, which costs about 50 ms: worth
  // it for a photo, not for a small picture, which is evaluated directly.
  cmsUInt32Number flags = count < (1u << 20) ? cmsFLAGS_NOOPTIMIZE : 0;
  if (cmyk)
    transform = transformToSRGB(cmyk.get(), inverted ? TYPE_CMYK_8_REV : TYPE_CMYK_8, TYPE_RGBA_8, flags);
  if (transform) {
    std::vector<uint8_t> row(size_t(image.width) * 4);
    for (int y = 0; y < image.height; ++y) {
      uint8_t* line = px + size_t(y) * row.size();
      std::memcpy(row.data(), line, row.size());
      cmsDoTransform(transform.get(), row.data(), line, cmsUInt32Number(image.width));
    }
  } else {
    for (size_t i = 0; i < count; ++i) {
      uint8_t* p = px + i * 4;
      // Ink left on the page: 255 - ink, or the stored value itself when stored inverted.
      int c = inverted ? p[0] : 255 - p[0], m = inverted ? p[1] : 255 - p[1];
      int y = inverted ? p[2] : 255 - p[2], k = inverted ? p[3] : 255 - p[3];
      p[0] = uint8_t((c * k + 127) / 255);
      p[1] = uint8_t((m * k + 127) / 255);
      p[2] = uint8_t((y * k + 127) / 255);
    }
  }
  for (size_t i = 0; i < count; ++i) px[i * 4 + 3] = 255;
  image.alpha = AlphaInfo::none;
  image.colorSpace = ColorSpace::sRGB();
}

UnboundedConversion::UnboundedConversion(const std::vector<uint8_t>& from, const std::vector<uint8_t>& to) {
  CmsProfilePtr source = openProfile(&from, cmsSigRgbData);
  CmsProfilePtr target = openProfile(&to, cmsSigRgbData);
  // Float in and out: lcms2 then keeps values outside 0...1 through the matrices and curves.
  if (source && target)
    transform_ = cmsCreateTransform(source.get(), TYPE_RGBA_FLT, target.get(), TYPE_RGBA_FLT,
                                    INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_COPY_ALPHA | cmsFLAGS_NOCACHE);
}

UnboundedConversion::~UnboundedConversion() {
  if (transform_) cmsDeleteTransform(transform_);
}

void UnboundedConversion::convert(const float* rgba, uint16_t* out, size_t pixels) {
  converted_.resize(pixels * 4);
  cmsDoTransform(transform_, rgba, converted_.data(), cmsUInt32Number(pixels));
  for (size_t i = 0; i < pixels * 4; ++i) {
    const float v = converted_[i];  // NaN fails both comparisons and ends at 0
    out[i] = v >= 1.0f ? uint16_t(65535) : v > 0.0f ? uint16_t(std::lround(v * 65535.0f)) : uint16_t(0);
  }
}

void toSRGBInPlace(DecodedImage& image) {
  if (image.colorSpace.isSRGB || !image.colorSpace.icc || image.empty()) return;
  CmsProfilePtr source = openProfile(image.colorSpace.icc.get(), cmsSigRgbData);
  if (!source) return;
  const bool wide = image.bitsPerComponent == 16;
  const cmsUInt32Number format = wide ? TYPE_RGBA_16 : TYPE_RGBA_8;
  CmsTransformPtr transform = transformToSRGB(source.get(), format, format, cmsFLAGS_COPY_ALPHA);
  if (!transform) return;
  const size_t rowSamples = size_t(image.width) * 4;
  for (size_t y = 0; y < size_t(image.height); ++y) {
    void* row = wide ? static_cast<void*>(image.pixels16.data() + y * rowSamples)
                     : static_cast<void*>(image.pixels8.data() + y * rowSamples);
    cmsDoTransform(transform.get(), row, row, cmsUInt32Number(image.width));
  }
  image.colorSpace = ColorSpace::sRGB();
}

ColorSpace rgbSpace(std::vector<uint8_t> icc) {
  if (!openProfile(&icc, cmsSigRgbData)) return ColorSpace::sRGB();
  return ColorSpace::fromICC(std::move(icc));
}

std::vector<uint8_t> profileOfPngChunks(bool grey, int gamma, const int* chromaticities) {
  // x, y of the white point and of the primaries, as sRGB has them.
  static constexpr double kSRGB[8] = {0.3127, 0.3290, 0.64, 0.33, 0.30, 0.60, 0.15, 0.06};
  const double exponent = gamma > 0 ? 100000.0 / gamma : 0;
  if (gamma > 0 && (exponent < 0.2 || exponent > 10)) return {};
  const bool srgbCurve = gamma <= 0 || std::abs(exponent - 2.2) <= 0.1;
  double xy[8];
  bool srgbPrimaries = true;
  for (int i = 0; i < 8; ++i) {
    xy[i] = chromaticities ? chromaticities[i] / 100000.0 : kSRGB[i];
    srgbPrimaries = srgbPrimaries && std::abs(xy[i] - kSRGB[i]) <= 0.005;
  }
  if (srgbCurve && (srgbPrimaries || grey)) return {};
  ToneCurvePtr curve(srgbCurve ? transferCurve(13) : cmsBuildGamma(nullptr, exponent));
  if (!curve) return {};
  cmsToneCurve* curves[3] = {curve.get(), curve.get(), curve.get()};
  const cmsCIExyY white{xy[0], xy[1], 1.0};
  const cmsCIExyYTRIPLE primaries{{xy[2], xy[3], 1.0}, {xy[4], xy[5], 1.0}, {xy[6], xy[7], 1.0}};
  CmsProfilePtr profile(grey ? cmsCreateGrayProfile(cmsD50_xyY(), curve.get())
                             : cmsCreateRGBProfile(&white, &primaries, curves));
  cmsUInt32Number size = 0;
  if (!profile || !cmsSaveProfileToMem(profile.get(), nullptr, &size) || size == 0) return {};
  std::vector<uint8_t> icc(size);
  if (!cmsSaveProfileToMem(profile.get(), icc.data(), &size)) return {};
  return icc;
}

ColorSpace fromCodePoints(int primaries, int transfer) {
  cmsCIExyYTRIPLE xy;
  cmsCIExyY white = {0.3127, 0.3290, 1.0};  // D65
  switch (primaries) {
    case 1:
    case 2:  // BT.709 (sRGB) or unspecified: untagged sRGB unless the curve differs
      if (transfer == 8 || transfer == 5) {
        xy = {{0.64, 0.33, 1}, {0.30, 0.60, 1}, {0.15, 0.06, 1}};
        break;
      }
      return ColorSpace::sRGB();
    case 9:
      xy = {{0.708, 0.292, 1}, {0.170, 0.797, 1}, {0.131, 0.046, 1}};
      break;  // BT.2020
    case 11:  // DCI-P3, its own white
      xy = {{0.680, 0.320, 1}, {0.265, 0.690, 1}, {0.150, 0.060, 1}};
      white = {0.314, 0.351, 1.0};
      break;
    case 12:
      xy = {{0.680, 0.320, 1}, {0.265, 0.690, 1}, {0.150, 0.060, 1}};
      break;  // Display P3
    default:
      return ColorSpace::sRGB();
  }
  // Unknown or HDR transfers (PQ, HLG) are approximated by the sRGB curve.
  ToneCurvePtr curve(transferCurve(transfer));
  if (!curve) curve.reset(transferCurve(13));
  if (!curve) return ColorSpace::sRGB();
  cmsToneCurve* curves[3] = {curve.get(), curve.get(), curve.get()};
  CmsProfilePtr profile(cmsCreateRGBProfile(&white, &xy, curves));
  if (!profile) return ColorSpace::sRGB();
  cmsUInt32Number size = 0;
  if (!cmsSaveProfileToMem(profile.get(), nullptr, &size) || size == 0) return ColorSpace::sRGB();
  std::vector<uint8_t> icc(size);
  if (!cmsSaveProfileToMem(profile.get(), icc.data(), &size)) return ColorSpace::sRGB();
  return ColorSpace::fromICC(std::move(icc));
}

namespace {

constexpr int kTransferPQ = 16, kTransferHLG = 18, kTransferSRGB = 13;

// Light of a PQ signal (0...1), relative to the reference white of 203 cd/m2 (ITU-R BT.2408).
double pqLight(double signal) {
  const double m1 = 2610.0 / 16384, m2 = 2523.0 / 4096 * 128;
  const double c1 = 3424.0 / 4096, c2 = 2413.0 / 4096 * 32, c3 = 2392.0 / 4096 * 32;
  const double e = std::pow(signal, 1 / m2);
  return 10000.0 / 203.0 * std::pow(std::max(e - c1, 0.0) / (c2 - c3 * e), 1 / m1);
}

// Scene light of an HLG signal (0...1), 0...1.
double hlgScene(double signal) {
  const double a = 0.17883277, b = 1 - 4 * a, c = 0.5 - a * std::log(4 * a);
  return signal <= 0.5 ? signal * signal / 3 : (std::exp((signal - c) / a) + b) / 12;
}

// The luminance of linear RGB in the primaries of a code point, as fromCodePoints takes them.
std::array<double, 3> luminanceWeights(int primaries) {
  switch (primaries) {
    case 9:
      return {0.2627, 0.6780, 0.0593};  // BT.2020
    case 11:
      return {0.2095, 0.7216, 0.0689};  // DCI-P3
    case 12:
      return {0.2290, 0.6917, 0.0793};  // Display P3
    default:
      return {0.2126, 0.7152, 0.0722};  // BT.709, as sRGB
  }
}

// Linear light up to the knee stays as it is; above it, a curve that meets it smoothly and
// approaches white: the reference white lands at 0.91, 1000 cd/m2 within a step of white.
double rolledOff(double light) {
  constexpr double knee = 0.75;
  if (light <= knee) return light;
  return knee + (1 - knee) * (1 - std::exp(-(light - knee) / (1 - knee)));
}

double srgbEncoded(double linear) {
  return linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
}

template <class T>
void recodeColour(SampleVector<T>& samples, int transfer, int primaries) {
  constexpr size_t levels = size_t(std::numeric_limits<T>::max()) + 1;
  const double top = double(levels - 1);
  if (transfer == kTransferPQ) {
    std::vector<T> table(levels);
    for (size_t v = 0; v < levels; ++v)
      table[v] = T(std::lround(srgbEncoded(rolledOff(pqLight(double(v) / top))) * top));
    for (size_t i = 0; i < samples.size(); ++i)
      if (i % 4 != 3) samples[i] = table[samples[i]];
    return;
  }
  // HLG is shown as on a display of 1000 cd/m2 (ITU-R BT.2100): the system gamma of 1.2
  // scales each pixel's scene light by its luminance to the power 0.2, which keeps its hue.
  std::vector<double> scene(levels);
  for (size_t v = 0; v < levels; ++v) scene[v] = hlgScene(double(v) / top);
  constexpr size_t steps = 65535;
  std::vector<T> encoded(steps + 1);
  for (size_t v = 0; v <= steps; ++v) encoded[v] = T(std::lround(srgbEncoded(double(v) / steps) * top));
  const std::array<double, 3> weights = luminanceWeights(primaries);
  for (size_t i = 0; i + 3 < samples.size(); i += 4) {
    const double light[3] = {scene[samples[i]], scene[samples[i + 1]], scene[samples[i + 2]]};
    const double luminance = weights[0] * light[0] + weights[1] * light[1] + weights[2] * light[2];
    const double gain = luminance > 0 ? 1000.0 / 203.0 * std::pow(luminance, 0.2) : 0.0;
    for (size_t c = 0; c < 3; ++c)
      samples[i + c] = encoded[size_t(std::lround(rolledOff(light[c] * gain) * steps))];
  }
}

// Divides each colour sample by its pixel's alpha. A fully transparent pixel keeps its zeros.
template <class T>
void unpremultiply(SampleVector<T>& samples) {
  constexpr uint32_t top = std::numeric_limits<T>::max();
  for (size_t i = 0; i + 3 < samples.size(); i += 4) {
    const uint32_t alpha = samples[i + 3];
    if (alpha == 0 || alpha == top) continue;
    for (size_t c = 0; c < 3; ++c)
      samples[i + c] = T(std::min(top, (uint32_t(samples[i + c]) * top + alpha / 2) / alpha));
  }
}

}  // namespace

void applyCodePoints(DecodedImage& image, int primaries, int transfer) {
  if (transfer == kTransferPQ || transfer == kTransferHLG) {
    // The curves are of the colour itself: premultiplied, a translucent pixel would be re-coded as
    // the darker colour it holds.
    if (image.alpha == AlphaInfo::premultiplied) {
      if (image.bitsPerComponent == 16)
        unpremultiply(image.pixels16);
      else
        unpremultiply(image.pixels8);
      image.alpha = AlphaInfo::straight;
    }
    if (image.bitsPerComponent == 16)
      recodeColour(image.pixels16, transfer, primaries);
    else
      recodeColour(image.pixels8, transfer, primaries);
    transfer = kTransferSRGB;
  }
  image.colorSpace = fromCodePoints(primaries, transfer);
}

}  // namespace quillane::ColorConvert
