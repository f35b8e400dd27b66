#pragma once
// The colour space of decoded pixels: an ICC profile, or none for untagged sRGB.
// Grey and CMYK sources are converted to RGB when decoded, so every space here is RGB.

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace quillane {

struct ColorSpace {
  // The profile bytes; null for untagged pixels, which count as sRGB.
  std::shared_ptr<const std::vector<uint8_t>> icc;
  // True when untagged or when the profile is (extended) sRGB: the space "is named sRGB".
  bool isSRGB = true;

  static ColorSpace sRGB() { return {}; }
  // Classifies `profile` with lcms2: sRGB when it maps to sRGB within one step everywhere.
  // An empty or unparsable profile gives sRGB.
  static ColorSpace fromICC(std::vector<uint8_t> profile);
};

namespace ColorProfile {
// The profile an encoder must embed: nothing for sRGB and extended sRGB, else the ICC data
// (nothing when there is none).
std::optional<std::vector<uint8_t>> embeddableICC(const ColorSpace& space);
}  // namespace ColorProfile

}  // namespace quillane
