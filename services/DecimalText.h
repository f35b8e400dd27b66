#pragma once
// Whole numbers typed or stored as text, read strictly. Any thread.

#include <QString>
#include <cstdint>
#include <optional>

namespace quillane {

// An optional '+' or '-' followed by one or more ASCII digits and nothing else (no spaces,
// no other scripts' digits), within 64 bits; nothing otherwise.
std::optional<int64_t> parseDecimalInteger(const QString& text);

}  // namespace quillane
