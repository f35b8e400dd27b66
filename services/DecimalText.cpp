#include "services/DecimalText.h"

#include <limits>

namespace quillane {

std::optional<int64_t> parseDecimalInteger(const QString& text) {
  qsizetype i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == QLatin1Char('+') || text[i] == QLatin1Char('-'))) {
    negative = text[i] == QLatin1Char('-');
    ++i;
  }
  if (i == text.size()) return std::nullopt;
  // Accumulated as a negative number, whose range is one larger than the positive one.
  int64_t value = 0;
  for (; i < text.size(); ++i) {
    char16_t c = text[i].unicode();
    if (c < u'0' || c > u'9') return std::nullopt;
    int digit = c - u'0';
    if (value < (std::numeric_limits<int64_t>::min() + digit) / 10) return std::nullopt;
    value = value * 10 - digit;
  }
  if (!negative) {
    if (value == std::numeric_limits<int64_t>::min()) return std::nullopt;
    value = -value;
  }
  return value;
}

}  // namespace quillane
