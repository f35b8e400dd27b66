#pragma once
// The encoders behind ImageCompressor. Each is synchronous, re-entrant and owns every
// library object it creates for the length of one call. All throw
// ImageProcessingError::encodingFailed(label) unless noted.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "engine/DecodedImage.h"
#include "engine/EncodingStrategy.h"
#include "engine/RGBABuffer.h"

namespace quillane {

using Bytes = std::vector<uint8_t>;

// JPEG (libjpeg-turbo), HEIC (libheif with x265) and AVIF (libavif with aom). A fixed name: here
// it stands for those three libraries' writers (engine/codecs/Writers.h).
namespace NativeImageIOEncoder {
// `format` must be jpeg, heic or avif and `plan.mode` lossy. JPEG flattens alpha over white.
Bytes encode(const DecodedImage& image, bool hasAlpha, ImageFormat format, const EncodingPlan& plan);
// The same bytes, consuming `image`: its memory goes back to the system as the writer reads it
// (codecs/Writers.h), and the caller may only drop it afterwards.
Bytes encode(DecodedImage&& image, bool hasAlpha, ImageFormat format, const EncodingPlan& plan);
// The 8-bit opaque copy handed to the writers; nothing when it can't be made.
std::optional<DecodedImage> opaqueCopy(const DecodedImage& image, bool overWhite);
// Makes the colour of each fully transparent pixel of a picture of straight alpha (8 or 16
// bits) black, as an RGBABuffer has it. No one sees that colour, but HEIC and AVIF code it like
// any other, and their 4:2:0 chroma and transform carry it into the visible pixels beside it.
// Other pictures are left as they are.
void clearTransparentColour(DecodedImage& image);
}  // namespace NativeImageIOEncoder

namespace WebPEncoder {
Bytes encode(const RGBABuffer& rgba, const EncodingPlan& plan, const ImageCharacteristics& characteristics);

// A picture in libwebp's own pixel words (32-bit ARGB, native byte order), made once from an
// RGBA buffer whose samples it takes over and reorders in place, for any number of encodings:
// a lossy one reads it where it lies, a lossless one (which may rewrite transparent pixels) a
// copy. The bytes are those of encode(rgba, ...), without a full-size import per encoding.
struct ARGBPicture {
  RGBABuffer buffer;  // the samples as ARGB words; hasAlpha and colorSpace as they were
  explicit ARGBPicture(RGBABuffer&& rgba);
};
Bytes encode(const ARGBPicture& picture, const EncodingPlan& plan,
             const ImageCharacteristics& characteristics);
// The bytes of a lossless encoding at libwebp's fastest method, a fifth to a tenth of the CPU
// of the plan's: an estimate of the lossless size, 1.1 to 3.7 times what the plan's method
// gives on screenshots and graphics (EncodingStrategy::losslessWebPMayBeat).
size_t quickLosslessSize(const ARGBPicture& picture);
}  // namespace WebPEncoder

namespace JXLEncoder {
Bytes encode(const RGBABuffer& rgba, bool hasAlpha, const EncodingPlan& plan);
// The same bytes, consuming `rgba`: its memory goes back to the system once libjxl holds its
// own copy of the frame, and the caller may only drop it afterwards.
Bytes encode(RGBABuffer&& rgba, bool hasAlpha, const EncodingPlan& plan);
// The bytes of a lossless encoding at libjxl's fastest effort, a tenth of the CPU of the
// plan's: an estimate of the lossless size, 1.2 to 3 times what the plan's effort gives on
// screenshots and graphics (EncodingStrategy::losslessJXLMayBeat).
size_t quickLosslessSize(const RGBABuffer& rgba, bool hasAlpha);
// Lossless repackaging of a JPEG file, reconstructible byte for byte; nothing on any failure.
std::optional<Bytes> transcodeJPEG(std::span<const uint8_t> jpeg, int effort);
// The Butteraugli distance for a lossy quality.
float distance(double quality);
// libjxl 0.7 holds a lossy frame in floats three times over while it encodes it (about 40 bytes
// a pixel). A lossy picture above 8 megapixels goes in as four strips of whole rows instead,
// each a frame of its own that replaces its rows of the picture and is encoded as soon as it
// is added, so that libjxl holds one strip at a time (the file grows by some 2.5 KB a strip,
// 0.4 % of an 18-megapixel photo at quality 75, and looks the same). The rows of one strip (a
// multiple of 8), or the picture's height where it goes in whole. At the low qualities where
// libjxl would code the DC as a frame of its own, which only a whole frame can have, a picture
// of up to 24 megapixels goes in whole where the machine's memory holds it.
int lossyStripRows(int width, int height, double quality);
}  // namespace JXLEncoder

namespace PNGQuantEncoder {
// Palette PNG through libimagequant, falling back to encodeLossless; encodeLossless alone when
// the plan prefers lossless.
Bytes encode(const RGBABuffer& rgba, const EncodingPlan& plan);
// The palette path alone: from quality 50, a picture of at
// most 256 colours gets its own palette, exactly; libimagequant quantizes the others. Throws
// encodingFailed("PNG").
Bytes encodePalette(const RGBABuffer& rgba, const EncodingPlan& plan);
// The lossy competitor of a lossless PNG: libimagequant's palette, or nothing (no bytes) where
// the picture has one of its own, which encodeLossless has tried already.
Bytes encodeLossyAlternative(const RGBABuffer& rgba, const EncodingPlan& plan);
// Lossless PNG: truecolour with a filter chosen per row, or the picture's own palette where it
// has at most 256 colours and that is smaller. Throws ZlibError.
Bytes encodeLossless(const RGBABuffer& rgba, const EncodingPlan& plan);
}  // namespace PNGQuantEncoder

}  // namespace quillane
