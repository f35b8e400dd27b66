#pragma once
// The six formats Quillane reads and writes. Raw values are persisted in every state
// file and wire format, so they never change.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quillane {

enum class ImageFormat { png, jpeg, heic, avif, webp, jxl };

namespace ImageFormats {

// png, jpeg, heic, avif, webp, jxl: the order of every menu and of detection.
inline constexpr std::array<ImageFormat, 6> allCases = {ImageFormat::png,  ImageFormat::jpeg,
                                                        ImageFormat::heic, ImageFormat::avif,
                                                        ImageFormat::webp, ImageFormat::jxl};

std::string_view rawValue(ImageFormat format);        // "jpeg"
std::string_view label(ImageFormat format);           // "JPEG XL" (never translated)
std::string_view fileExtension(ImageFormat format);   // "jpg" for jpeg, else the raw value
std::string_view typeIdentifier(ImageFormat format);  // "public.jpeg"
std::string_view mimeType(ImageFormat format);        // "image/jpeg", for file dialogs and HTTP

// Exact, case-sensitive: "jpg" and "PNG" are no raw values.
std::optional<ImageFormat> fromRawValue(std::string_view raw);
std::optional<ImageFormat> fromTypeIdentifier(std::string_view identifier);

// The format of the bytes, from their content alone; nothing for anything else.
std::optional<ImageFormat> detect(std::span<const uint8_t> bytes);
// The format of the file at `path`, reading only its first bytes. Never throws.
std::optional<ImageFormat> detect(const std::string& path);

}  // namespace ImageFormats
}  // namespace quillane
