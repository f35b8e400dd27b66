#pragma once
// Test files of the six formats, written in code with the codec libraries (no binary fixtures),
// and small files that lie about what they hold, for the tests, the fuzz seeds and
// bench/make_hostile_files. Writers throw std::runtime_error when a library refuses.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/DecodedImage.h"

namespace quillane::fixtures {

using Bytes = std::vector<uint8_t>;

// Four flat quarters: top left red, top right green, bottom left blue, bottom right white, so
// that any turn or mirror shows at the corners even after lossy coding (16 bits: the same
// colours scaled to 65535). With `alpha`, the top left quarter is half transparent.
DecodedImage quadrants(int width, int height, int bitsPerComponent = 8, bool alpha = false);
enum class Corner { topLeft, topRight, bottomLeft, bottomRight };
// Which quadrant colour (the index of the Corner it starts at) is nearest to the centre of
// `corner`'s quarter of an 8- or 16-bit picture.
int quadrantAt(const DecodedImage& image, Corner corner);

// How the orientation tag is stored: its TIFF type (3 SHORT as the standard has it, 4 LONG,
// 8 SSHORT, 9 SLONG, as some cameras write it) and the block's byte order.
struct ExifLayout {
  int type = 3;
  bool bigEndian = false;
};
// A TIFF block whose IFD0 holds only the orientation, as PNG eXIf and WebP EXIF chunks carry
// it; with `jpegPrefix`, preceded by "Exif\0\0" for an APP1 marker.
Bytes exifBlock(int orientation, bool jpegPrefix = false, ExifLayout layout = {});

// Profiles made with lcms2. Display P3 is not sRGB; `large` makes its curves long tables so
// that the profile exceeds one JPEG marker (65519 bytes).
Bytes displayP3ICC(bool large = false);
Bytes srgbICC();
Bytes greyICC();  // D50 grey, 2.2 curve
// CMYK following the plain ink formula, except that with `cyanPrintsRed` cyan reads as red,
// which shows whether a decoder really used the profile.
Bytes cmykICC(bool cyanPrintsRed = false);

struct JpegOptions {
  int quality = 95;
  std::optional<int> orientation{};  // APP1 EXIF
  ExifLayout exifLayout{};
  bool xmpBeforeExif = false;  // an XMP APP1 marker first
  Bytes icc{};                 // APP2, split over several markers when needed
  bool grey = false;
  bool progressive = false;
};
// libjpeg, 4:4:4; the alpha of `image` is dropped.
Bytes jpeg(const DecodedImage& image, const JpegOptions& options = {});
// A flat grey JPEG (every sample `value`), arithmetic-coded: a few hundred bytes for millions
// of pixels; `commentBytes` of COM markers pad it to an ordinary-looking density.
Bytes arithmeticGreyJpeg(int width, int height, uint8_t value = 90, size_t commentBytes = 0);
// A CMYK JPEG of `cmyk` (C, M, Y, K a pixel, 255 = full ink), stored inverted as Adobe does.
Bytes cmykJpeg(int width, int height, const Bytes& cmyk, const Bytes& icc = {});

struct PngOptions {
  bool grey = false;  // from the red channel
  bool alpha = true;
  bool palette = false;  // colour type 3 with tRNS, from the first 256 distinct colours
  Bytes icc{};
  std::optional<int> orientation{};  // eXIf
  bool exifAfterData = false;
  bool interlaced = false;  // Adam7
  uint32_t gamma = 0;       // gAMA, times 100000; 0: none
};
// Written chunk by chunk with zlib, 8 or 16 bits as `image` is.
Bytes png(const DecodedImage& image, const PngOptions& options = {});
// A PNG of `width` x `height`, 8-bit RGBA, whose image data (`dataBytes` of deflated noise) can
// fill only a part of it; `truncated` cuts the file inside its image data, otherwise it ends
// properly with IEND.
Bytes starvedPng(uint32_t width, uint32_t height, int bitDepth, size_t dataBytes, bool truncated,
                 bool interlaced = false);
// The first `keep` bytes of a simple WebP (one VP8 or VP8L chunk), its RIFF and chunk sizes
// rewritten to match: a well-formed file whose bitstream ends early.
Bytes cutWebp(const Bytes& webp, size_t keep);
// `png` with `chunks` zTXt chunks inserted after its header, each inflating to `inflatedBytes`
// of zeros (a few hundred bytes of text a megabyte of inflated data, none of it used).
Bytes withTextChunks(const Bytes& png, int chunks, size_t inflatedBytes);
// A 1-bit grey PNG of `width` x `height`, all black, deflated at the highest level (22000 x
// 22000 is about 60 KB).
Bytes blackPng(uint32_t width, uint32_t height, bool interlaced = false);

struct WebPOptions {
  bool lossless = false;  // otherwise at quality 90
  Bytes icc{};
  std::optional<int> orientation{};
};
Bytes webp(const DecodedImage& image, const WebPOptions& options = {});
// Lossless animation of 8-bit frames, 100 ms each, on a canvas of the first frame's size unless
// one is given (a 1 x 1 frame on a 16383 x 16383 canvas is a couple of hundred bytes).
Bytes animatedWebp(const std::vector<DecodedImage>& frames, int canvasWidth = 0, int canvasHeight = 0);

struct HeifOptions {
  int quality = 90;
  bool alpha = true;
  int orientation = 1;                   // written by libheif as irot/imir
  std::optional<int> exifOrientation{};  // an EXIF block, which readers must not apply again
  bool av1 = false;                      // AV1 data under HEIC brands, as some files hold
  int thumbnailSide = 0;  // above 0: a stored thumbnail as some cameras write it, opaque and unrotated
};
Bytes heic(const DecodedImage& image, const HeifOptions& options = {});  // 8-bit HEVC (or AV1)

struct AvifOptions {
  int quantizer = 10;  // 0 (best) ... 63
  int depth = 8;       // 8, 10 or 12
  bool alpha = true;
  int irotAngle = -1;  // quarter turns anticlockwise; -1: no irot box
  int imirMode = -1;   // 0 top and bottom exchanged, 1 left and right; -1: none
  Bytes icc{};
  int frames = 1;                   // above 1: a sequence of the same picture
  int primaries = 2, transfer = 2;  // H.273 code points of the nclx box (2: unspecified)
  std::array<uint32_t, 4> crop{};   // x, y, width, height of a clean aperture (clap); width 0: none
};
Bytes avif(const DecodedImage& image, const AvifOptions& options = {});  // aom, 4:4:4, fastest

struct JxlOptions {
  bool lossless = true;
  int orientation = 1;  // in the codestream header
  Bytes icc{};
  int frames = 1;    // above 1: an animation of the same picture
  int transfer = 0;  // above 0, in place of a profile: BT.2100 primaries with this H.273 transfer
};
Bytes jxl(const DecodedImage& image, const JxlOptions& options = {});  // low effort, 8 or 16 bits

// A HEIC or AVIF grid of `columns` x `rows` cells that all show the one picture of
// `tileFile` (a file of heic() or avif() without alpha): a few kilobytes for a huge picture.
struct GridOptions {
  bool decoy = false;  // the grid located twice, the second time at the description of a 1 x 1 grid
  // Above 0: an overlay ("iovl") on a canvas of this size, in place of the grid, the cells placed
  // as the grid places them; the declared size stays the cells' together.
  uint32_t overlayWidth = 0, overlayHeight = 0;
  bool secondMeta = false;  // a second "meta" box follows, the same but declaring the grid 1 x 1
  // Above 0: the picture's declared size (and a grid's own), in place of its cells' together.
  uint32_t width = 0, height = 0;
  bool largeReference = false;  // the cells' reference ("dimg") in a box of a 64-bit size
};
Bytes grid(const Bytes& tileFile, int columns, int rows, const GridOptions& options = {});
// `file` (a HEIC or AVIF) with every "ispe" box, and the track header of an image sequence,
// rewritten to declare `width` x `height`: the coded pictures stay as they were.
Bytes withDeclaredSize(Bytes file, uint32_t width, uint32_t height);

}  // namespace quillane::fixtures
