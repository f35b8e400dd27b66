#pragma once
// The libwebp settings WebPEncoder derives from a plan, exposed so that they can be checked
// without encoding. Kept apart from Encoders.h so that only those who want libwebp's types
// include its header.

#include <webp/encode.h>

#include "engine/EncodingStrategy.h"

namespace quillane::WebPEncoder {

// The preset for a content class: icon for a flat graphic with alpha, text for other flat
// graphics and screen text, drawing for illustrations, photo for photographs.
WebPPreset preset(const ImageCharacteristics& characteristics);

// The preset at quality 75 with the fields of `plan.mode` set on top; `bufferHasAlpha` is
// the RGBABuffer's (it picks method 4 for lossy). Not yet validated.
// Throws ImageProcessingError::encodingFailed("WebP") when libwebp refuses the preset.
WebPConfig makeConfig(const EncodingPlan& plan, const ImageCharacteristics& characteristics,
                      bool bufferHasAlpha);

}  // namespace quillane::WebPEncoder
