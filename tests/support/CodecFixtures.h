#pragma once
// Test files of the six formats, written in code with the codec libraries themselves (no
// binary fixtures): orientation in every place a file can carry it, ICC profiles, alpha,
// 16 bits, grey, CMYK, animation. Throw std::runtime_error when a library refuses.
// Any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/DecodedImage.h"

namespace quillane::fixtures {

using Bytes = std::vector<uint8_t>;

// --- Pictures -------------------------------------------------------------------------------

// Four flat quarters of distinct colours (top left red, top right green, bottom left blue,
// bottom right white) so that any turn or mirror shows at the corners, even after lossy
// coding. 16-bit pictures hold the same colours scaled to 65535. With `alpha`, the top left
// quarter is half transparent.
DecodedImage quadrants(int width, int height, int bitsPerComponent = 8, bool alpha = false);

enum class Corner { topLeft, topRight, bottomLeft, bottomRight };
// Which of the four quadrant colours is nearest to the centre of `corner`'s quarter of an
// 8- or 16-bit picture: 0 red, 1 green, 2 blue, 3 white.
int quadrantAt(const DecodedImage& image, Corner corner);
// The quadrant colour that starts at `corner` of a picture made by quadrants().
int quadrantColour(Corner corner);

// --- Metadata -------------------------------------------------------------------------------

// A little-endian TIFF structure whose IFD0 holds only the orientation tag, as PNG eXIf and
// WebP EXIF chunks carry it; with `jpegPrefix`, preceded by "Exif\0\0" for an APP1 marker.
Bytes exifBlock(int orientation, bool jpegPrefix = false);

// Profiles made with lcms2.
// P3 primaries, D65, sRGB curve: an RGB space that is not sRGB. With `large`, the curves
// are long tables and the profile exceeds one JPEG marker (65519 bytes).
Bytes displayP3ICC(bool large = false);
Bytes srgbICC();       // lcms2's own sRGB
Bytes greyICC();       // D50 grey with a 2.2 curve
// A CMYK profile whose colours follow the plain ink formula, except that with
// `cyanPrintsRed` cyan ink reads as red: a decoder that really used the profile shows it.
Bytes cmykICC(bool cyanPrintsRed = false);

// --- Writers --------------------------------------------------------------------------------

struct JpegOptions {
  int quality = 95;
  std::optional<int> orientation{};  // written as an APP1 EXIF marker
  Bytes icc{};                       // written as APP2 markers, split when over 65519 bytes
  bool grey = false;               // one component
};
// TurboJPEG, 4:4:4; the alpha of `image` is dropped.
Bytes jpeg(const DecodedImage& image, const JpegOptions& options = {});
// A CMYK JPEG (YCCK with an Adobe marker, as libjpeg writes it) of `cmyk` (4 samples a pixel,
// C, M, Y, K with 255 = full ink). The samples are stored inverted, as Adobe files hold them.
Bytes cmykJpeg(int width, int height, const Bytes& cmyk, const Bytes& icc = {});

struct PngOptions {
  bool grey = false;     // colour type 0/4 from the red channel
  bool alpha = true;     // keep the alpha channel (colour type 4/6)
  bool palette = false;  // colour type 3 with tRNS, from the first 256 distinct 8-bit colours
  Bytes icc{};             // iCCP
  std::optional<int> orientation{};  // eXIf
  bool exifAfterData = false;      // eXIf after IDAT instead of before
};
// A PNG written chunk by chunk with zlib, 8 or 16 bits as `image` is.
Bytes png(const DecodedImage& image, const PngOptions& options = {});

struct WebPOptions {
  bool lossless = false;
  float quality = 90;
  Bytes icc{};                       // ICCP chunk
  std::optional<int> orientation{};  // EXIF chunk
};
Bytes webp(const DecodedImage& image, const WebPOptions& options = {});
// An animation of the given 8-bit frames (same size), 100 ms each, lossless.
Bytes animatedWebp(const std::vector<DecodedImage>& frames);

struct HeifOptions {
  int quality = 90;
  bool alpha = true;
  int orientation = 1;  // libheif writes irot/imir for it
  std::optional<int> exifOrientation{};  // an EXIF block, which readers must not apply again
  int thumbnailSize = 0;  // above 0: a stored thumbnail fitting this box
  const DecodedImage* thumbnailPicture = nullptr;  // what the thumbnail shows; the image if null
};
// HEVC through libheif and x265, 8-bit.
Bytes heic(const DecodedImage& image, const HeifOptions& options = {});

struct AvifOptions {
  int quantizer = 10;   // libavif 0 (best) ... 63
  int depth = 8;        // 8, 10 or 12
  bool alpha = true;
  int irotAngle = -1;   // quarter turns anticlockwise, -1 for no irot box
  int imirMode = -1;    // 0 top and bottom exchanged, 1 left and right, -1 for none
  Bytes icc{};
  int frames = 1;       // above 1: an image sequence of the same picture
};
// AV1 through libavif and aom at its fastest speed, 4:4:4.
Bytes avif(const DecodedImage& image, const AvifOptions& options = {});

struct JxlOptions {
  bool lossless = true;
  int orientation = 1;  // in the codestream header
  Bytes icc{};
  int frames = 1;       // above 1: an animation of the same picture
};
// JPEG XL through libjxl at a low effort, 8 or 16 bits as `image` is.
Bytes jxl(const DecodedImage& image, const JxlOptions& options = {});

}  // namespace quillane::fixtures
