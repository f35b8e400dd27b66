#pragma once
// EXIF orientation, read with libexif. Internal to the engine; any thread.

#include <cstdint>
#include <optional>
#include <span>

namespace quillane::Exif {

// The orientation tag (1...8) of an EXIF block. `block` is either a JPEG APP1 payload that
// starts with "Exif\0\0" or a bare TIFF structure ("II*\0" / "MM\0*", as PNG eXIf and WebP
// EXIF chunks hold it). Nothing when the block is unreadable, has no orientation, or holds a
// value outside 1...8.
std::optional<int> orientation(std::span<const uint8_t> block);

}  // namespace quillane::Exif
