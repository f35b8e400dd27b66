#pragma once
// Colour conversions the readers need: grey and CMYK samples to RGB, through lcms2 when the
// file carries a profile, and colour spaces from coded primaries (CICP / nclx). Internal to
// the engine; any thread.

#include <cstdint>
#include <vector>

#include "engine/ColorSpace.h"
#include "engine/DecodedImage.h"

namespace quillane::ColorConvert {

// `image` is sized for RGBA (8 or 16 bits) but its buffer holds, packed from the start,
// `channels` samples a pixel: 1 for grey, 2 for grey and alpha. Expands it in place to RGBA.
// With a grey ICC `profile` the values go through lcms2 to sRGB; without one (or with a
// profile lcms2 can't use) the grey value is copied into R, G and B. The result is sRGB.
void expandGreyInPlace(DecodedImage& image, int channels, const std::vector<uint8_t>* profile);

// `image` is 8-bit and holds C, M, Y, K in place of R, G, B, A. `inverted` says the samples
// are stored inverted (0 = full ink), as files with an Adobe marker hold them. Converts in
// place to opaque RGB: through lcms2 with a CMYK `profile`, else by a plain ink formula.
// The result is sRGB.
void cmykToRGBInPlace(DecodedImage& image, bool inverted, const std::vector<uint8_t>* profile);

// A conversion of RGBA pixels of unbounded floats (as libjxl gives a lossy picture, whose
// colours outside its profile's gamut lie below 0 or above 1) from the RGB profile `from` to
// 16-bit samples in the RGB profile `to`, clamped only there; alpha is copied. Empty when
// lcms2 can't use a profile.
class UnboundedConversion {
 public:
  UnboundedConversion(const std::vector<uint8_t>& from, const std::vector<uint8_t>& to);
  ~UnboundedConversion();
  UnboundedConversion(const UnboundedConversion&) = delete;
  UnboundedConversion& operator=(const UnboundedConversion&) = delete;
  explicit operator bool() const { return transform_ != nullptr; }
  void convert(const float* rgba, uint16_t* out, size_t pixels);

 private:
  void* transform_ = nullptr;
  std::vector<float> converted_;
};

// Converts RGBA pixels (8 or 16 bits, alpha copied) in an RGB profile to sRGB, for a display
// taken to be sRGB. Untagged and sRGB pictures, and profiles lcms2 can't use, stay as they are.
void toSRGBInPlace(DecodedImage& image);

// The colour space of RGB pixels tagged with `icc`: ColorSpace::fromICC for an RGB profile;
// untagged sRGB for no profile, an unreadable one, or one of another colour model.
ColorSpace rgbSpace(std::vector<uint8_t> icc);

// The profile that a PNG's gAMA and cHRM chunks describe, for a grey or an RGB picture: the
// file's gamma times 100000 (0 when absent) and its white point and primaries (x, y of white,
// red, green and blue, times 100000; null when absent). Empty when they describe sRGB as files
// commonly state it (a gamma of 1/2.2 stands for sRGB's curve), or nothing usable.
std::vector<uint8_t> profileOfPngChunks(bool grey, int gamma, const int* chromaticities);

// The colour space of coded primaries and transfer (ITU-T H.273 code points). sRGB for
// BT.709 / unspecified primaries with a gamma-like transfer; an ICC profile made with lcms2
// for other known primaries (BT.2020, DCI-P3, Display P3) and transfers (sRGB, BT.709,
// linear, gamma 2.2 and 2.8); sRGB for anything else.
ColorSpace fromCodePoints(int primaries, int transfer);

// Gives RGB pixels decoded from coded primaries and transfer their colour space, as
// fromCodePoints does. High dynamic range transfers (PQ and HLG), which no profile of an 8-bit
// picture can carry, are first re-coded for a standard display: the reference white of
// 203 cd/m2 close to white, brighter light rolled off below it, and the sRGB curve with the
// picture's own primaries.
void applyCodePoints(DecodedImage& image, int primaries, int transfer);

}  // namespace quillane::ColorConvert
