#include "ui/UiText.h"

#include <QGuiApplication>
#include <QLocale>
#include <cmath>

#include "services/Strings.h"

namespace quillane::ui {

QString leftToRightIsolate(const QString& text) {
  if (!QGuiApplication::isRightToLeft() || text.isEmpty()) return text;
  return QChar(0x2066) + text + QChar(0x2069);  // LEFT-TO-RIGHT ISOLATE ... POP DIRECTIONAL ISOLATE
}

QString directionIsolate(const QString& text) {
  if (!QGuiApplication::isRightToLeft() || text.isEmpty()) return text;
  return QChar(0x2068) + text + QChar(0x2069);  // FIRST STRONG ISOLATE ... POP DIRECTIONAL ISOLATE
}

QString formatByteCount(int64_t bytes) { return formatByteCount(bytes, QLocale()); }

QString byteUnitSymbol(ByteUnit unit, const QLocale& locale) {
  // Qt's locale data knows the prefixed symbols ("kB", "ko", "кБ"): they follow the 1 of a whole
  // unit's size. The byte's own is the kilobyte's without its prefix.
  const qint64 wholeUnit = qint64(std::pow(1000.0, std::max(1, int(unit))));
  const QString symbol = locale.formattedDataSize(wholeUnit, 0, QLocale::DataSizeSIFormat)
                             .mid(locale.toString(1).size())
                             .trimmed();
  return unit == ByteUnit::byte ? symbol.mid(1) : symbol;
}

QString formatByteCount(int64_t bytes, const QLocale& locale) {
  if (bytes < 1000)
    return leftToRightIsolate(locale.toString(qlonglong(std::max<int64_t>(bytes, 0))) + QLatin1Char(' ') +
                              byteUnitSymbol(ByteUnit::byte, locale));
  // kB without decimals, MB with one, GB and above with two; a value that rounds up to 1000
  // moves to the next unit ("1 MB" rather than "1000 kB").
  static const int decimals[] = {0, 1, 2, 2, 2};
  double value = double(bytes);
  for (int i = 0; i < 5; ++i) {
    value /= 1000.0;
    const double scale = std::pow(10.0, decimals[i]);
    const double rounded = std::round(value * scale) / scale;
    if (rounded < 1000.0 || i == 4) {
      QString digits = locale.toString(rounded, 'f', decimals[i]);
      // "1.0 MB" reads as "1 MB".
      const QString zeroTail =
          QString(locale.decimalPoint()) + QString(decimals[i], locale.zeroDigit().at(0));
      if (decimals[i] > 0 && digits.endsWith(zeroTail)) digits.chop(zeroTail.size());
      return leftToRightIsolate(digits + QLatin1Char(' ') + byteUnitSymbol(ByteUnit(i + 1), locale));
    }
  }
  return {};
}

QString formatByteLimit(int64_t bytes) {
  const QLocale locale;
  const ByteUnit unit = bytes >= 1'000'000 ? ByteUnit::mega : bytes >= 1000 ? ByteUnit::kilo : ByteUnit::byte;
  const double value = std::round(double(bytes) / std::pow(1000.0, int(unit)) * 10) / 10;
  return leftToRightIsolate(locale.toString(value, 'f', QLocale::FloatingPointShortest) + QLatin1Char(' ') +
                            byteUnitSymbol(unit, locale));
}

SizeChange sizeChange(int64_t sizeBytes, int64_t originalSizeBytes) {
  // |1 - size/original| x 100 rounded half away from zero, in exact integer arithmetic so
  // that 1005 bytes against 1000 is the 0.5 % it reads as, not 0.4999... in binary.
  const __int128 divisor = std::max<int64_t>(originalSizeBytes, 1);
  const __int128 difference = __int128(divisor) - __int128(sizeBytes);
  const __int128 magnitude = difference < 0 ? -difference : difference;
  const __int128 percent = (magnitude * 200 + divisor) / (divisor * 2);
  return {static_cast<int64_t>(percent), difference >= 0};
}

QString sizeChangeText(const SizeChange& change) {
  return leftToRightIsolate(change.reduced ? Strings::format("sign.reduced", change.percent)
                                           : Strings::format("sign.increased", change.percent));
}

}  // namespace quillane::ui
