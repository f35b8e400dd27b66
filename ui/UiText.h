#pragma once
// Small text helpers shared by every view: file-size texts and the rounding rules of the size
// change shown in rows and badges. The views look their texts up with Strings::text and
// Strings::format (services/Strings.h).
//
// GUI thread only.

#include <QString>
#include <cstdint>

class QLocale;

namespace quillane::ui {

// `text` as one left-to-right run inside a right-to-left layout (wrapped in the Unicode
// isolates LRI ... PDI), so that a number keeps its unit on its right ("199 kB", "1600 × 1200")
// however the line around it is ordered; as it is in a left-to-right layout.
QString leftToRightIsolate(const QString& text);
// `text` in the direction of its own first letter inside a right-to-left layout (FSI ... PDI),
// so that a sentence keeps its full stop at its end; as it is in a left-to-right layout.
QString directionIsolate(const QString& text);

// A file size in decimal units (1 kB = 1000 bytes) with the locale's digits, decimal
// separator and unit symbols: "0 B", "999 B", "12 kB", "1.2 MB", "3.45 GB"; "1,2 Mo" in French.
// Negative counts read as 0. Isolated left to right in a right-to-left layout (leftToRightIsolate).
QString formatByteCount(int64_t bytes);
QString formatByteCount(int64_t bytes, const QLocale& locale);
// A size the user set (a budget), to a tenth of its unit where formatByteCount would round
// it ("1.5 kB", not "2 kB"), in the default locale's notation: "999 B", "500 kB", "2.5 MB"
// ("2,5 Mo" in French). Isolated as above.
QString formatByteLimit(int64_t bytes);
// The locale's symbol of the byte and of the kilo- to petabyte ("B", "kB", ... "PB").
enum class ByteUnit { byte, kilo, mega, giga, tera, peta };
QString byteUnitSymbol(ByteUnit unit, const QLocale& locale);

// A result measured against its source. `percent` is |1 - size/original| x 100 rounded to the
// nearest integer, halves away from zero; the divisor is at least 1. A result of the same size
// counts as reduced, by 0.
struct SizeChange {
  int64_t percent = 0;
  bool reduced = true;
};
SizeChange sizeChange(int64_t sizeBytes, int64_t originalSizeBytes);

// "sign.reduced" / "sign.increased" filled with the percentage (isolated, as above).
QString sizeChangeText(const SizeChange& change);

// A quality as the readouts show it: truncated toward zero, so 72.6 reads 72.
inline int qualityReadout(double quality) { return static_cast<int>(quality); }

}  // namespace quillane::ui
