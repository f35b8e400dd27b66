#pragma once
// Small text helpers shared by every view: localised lookups by dotted key, file-size texts
// and the rounding rules of the size change shown in rows and badges.
//
// GUI thread only (the lookups read the installed string tables).

#include <QString>
#include <cstdint>
#include <initializer_list>

class QLocale;

namespace quillane::ui {

// The text for `key`, or `frenchDefault` when the tables have none. Looked up at each call,
// so that a view built before the tables were installed still shows the right text.
QString text(const char* key, const char* frenchDefault);

// The format string of `key` (or `frenchDefault`) with its "%@" / "%lld" / "%1$@"
// placeholders filled by `args` in order.
QString format(const char* key, const char* frenchDefault, std::initializer_list<QString> args);

// An integer as a format argument: plain digits, as the string tables expect.
inline QString integerArg(int64_t value) { return QString::number(value); }

// A file size in decimal units (1 kB = 1000 bytes) with the locale's digits and decimal
// separator: "0 B", "999 B", "12 kB", "1.2 MB", "3.45 GB". Negative counts read as 0.
QString formatByteCount(int64_t bytes);
QString formatByteCount(int64_t bytes, const QLocale& locale);

// A result measured against its source. `percent` is |1 - size/original| x 100 rounded to the
// nearest integer, halves away from zero; the divisor is at least 1. A result of the same size
// counts as reduced, by 0.
struct SizeChange {
  int64_t percent = 0;
  bool reduced = true;
};
SizeChange sizeChange(int64_t sizeBytes, int64_t originalSizeBytes);

// "sign.reduced" / "sign.increased" filled with the percentage.
QString sizeChangeText(const SizeChange& change);

// A quality as the readouts show it: truncated toward zero, so 72.6 reads 72.
inline int qualityReadout(double quality) { return static_cast<int>(quality); }

}  // namespace quillane::ui
