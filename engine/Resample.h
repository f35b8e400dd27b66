#pragma once
// Pixel geometry shared by the readers and ImageDecoder: EXIF orientations and good-quality
// downscaling. Pure functions over DecodedImage; any thread.

#include "engine/DecodedImage.h"

namespace quillane::Resample {

// The picture as it is meant to be seen under EXIF `orientation` 2...8: W x H for 2 to 4,
// H x W for 5 to 8. A pure reordering of pixels: depth, alpha kind and colour space are kept
// and no sample changes. REQUIRES: 2 <= orientation <= 8.
DecodedImage orient(const DecodedImage& image, int orientation);

// 8-bit samples of any picture (16-bit values rounded); the alpha kind is kept.
DecodedImage toEightBit(DecodedImage image);

// An 8-bit picture whose longer side is at most `maxPixelSize`, averaged over the area each
// new pixel covers (colour weighted by alpha, so transparent pixels leave no dark fringe).
// A picture that already fits is only brought to 8 bits; pictures are never enlarged.
// Straight alpha stays straight, premultiplied stays premultiplied.
DecodedImage fitWithin(const DecodedImage& image, int maxPixelSize);

// The size `width` x `height` takes when scaled down, keeping its proportions, to fit within
// `maxWidth` x `maxHeight` (0 or less: no bound on that side); the size itself when it fits.
// Never larger than the picture; each side at least 1.
struct Size {
  int width = 0, height = 0;
};
Size fittedSize(int width, int height, int maxWidth, int maxHeight);

// The picture scaled down to fittedSize with a Lanczos-3 filter widened to the reduction
// (every source pixel counts), in linear light (the sRGB curve, which most camera and
// display profiles share) and weighted by alpha. Depth, alpha kind and colour space are
// kept. A picture that already fits is returned as it is.
DecodedImage fitBox(DecodedImage image, int maxWidth, int maxHeight);

}  // namespace quillane::Resample
