// Readers still to come; they refuse every file until then.
#include "engine/codecs/Readers.h"
namespace quillane::codecs {
std::optional<Properties> webpProperties(Input) { return std::nullopt; }
DecodedImage decodeWebp(Input) { fail("WebP reader not built yet"); }
std::optional<Properties> heifProperties(Input) { return std::nullopt; }
DecodedImage decodeHeif(Input) { fail("HEIF reader not built yet"); }
std::optional<Properties> avifProperties(Input) { return std::nullopt; }
DecodedImage decodeAvif(Input) { fail("AVIF reader not built yet"); }
std::optional<Properties> jxlProperties(Input) { return std::nullopt; }
DecodedImage decodeJxl(Input) { fail("JPEG XL reader not built yet"); }
}  // namespace quillane::codecs
