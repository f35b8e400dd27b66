#include "engine/ColorSpace.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "engine/LcmsHandles.h"

namespace quillane {
namespace {

// A profile is sRGB when mapping a 9x9x9 grid of RGB values through it to lcms's own sRGB
// moves no value by more than one step. The profile ID is usually zero, so comparing IDs
// or descriptions would miss most copies of sRGB.
bool profileIsSRGB(const std::vector<uint8_t>& icc) {
  CmsProfilePtr profile(cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size())));
  if (!profile) return true;  // unreadable: treated as untagged
  if (cmsGetColorSpace(profile.get()) != cmsSigRgbData) return false;
  CmsProfilePtr srgb(cmsCreate_sRGBProfile());
  CmsTransformPtr transform(cmsCreateTransform(profile.get(), TYPE_RGB_8, srgb.get(), TYPE_RGB_8,
                                               INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE));
  if (!transform) return false;
  uint8_t in[9 * 9 * 9 * 3], out[9 * 9 * 9 * 3];
  size_t n = 0;
  for (int r = 0; r < 9; ++r)
    for (int g = 0; g < 9; ++g)
      for (int b = 0; b < 9; ++b) {
        in[n++] = uint8_t(std::min(255, r * 32));
        in[n++] = uint8_t(std::min(255, g * 32));
        in[n++] = uint8_t(std::min(255, b * 32));
      }
  cmsDoTransform(transform.get(), in, out, 9 * 9 * 9);
  for (size_t i = 0; i < n; ++i)
    if (std::abs(int(in[i]) - int(out[i])) > 1) return false;
  return true;
}
}  // namespace

ColorSpace ColorSpace::fromICC(std::vector<uint8_t> profile) {
  if (profile.empty()) return sRGB();
  ColorSpace space;
  space.isSRGB = profileIsSRGB(profile);
  space.icc = std::make_shared<const std::vector<uint8_t>>(std::move(profile));
  return space;
}

namespace ColorProfile {
std::optional<std::vector<uint8_t>> embeddableICC(const ColorSpace& space) {
  if (space.isSRGB || !space.icc || space.icc->empty()) return std::nullopt;
  return *space.icc;
}
}  // namespace ColorProfile

}  // namespace quillane
