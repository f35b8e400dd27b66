#include "records/JsonForms.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QUrl>
#include <cmath>
#include <limits>

#include "engine/DecodedImage.h"

namespace quillane::JsonForms {

namespace {

// 2001-01-01T00:00:00Z in milliseconds since 1970.
constexpr qint64 referenceDateMSecs = secondsFrom1970To2001 * 1000;

[[noreturn]] void fail(const QString& key, const char* what) {
  throw DecodingError(key.toStdString() + ": " + what);
}

// The value of a required key: present and not null.
QJsonValue required(const QJsonObject& object, const QString& key) {
  QJsonValue value = object.value(key);
  if (value.isUndefined() || value.isNull()) fail(key, "missing");
  return value;
}

bool isCanonicalUUID(const QString& text) {
  if (text.size() != 36) return false;
  for (int i = 0; i < 36; ++i) {
    const QChar c = text[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != QLatin1Char('-')) return false;
    } else if (!std::isxdigit(c.unicode() < 128 ? int(c.unicode()) : 0)) {
      return false;
    }
  }
  return true;
}

QString localPathFromURLText(const QString& key, const QString& text) {
  const QUrl url(text, QUrl::StrictMode);
  // A whole path of this machine: "file:a.jpg" would name a file of whatever folder the program
  // was started in, and "file://host/a.jpg" another machine's, which the reader takes for
  // "//host/a.jpg" here.
  const bool here = url.host().isEmpty() || url.host() == QLatin1String("localhost");
  if (url.isValid() && url.isLocalFile() && here && url.path().startsWith(QLatin1Char('/')))
    return url.path(QUrl::FullyDecoded);
  if (text.startsWith(QLatin1Char('/'))) return text;
  fail(key, "not a file URL");
}

}  // namespace

QString uuidText(const QUuid& id) { return id.toString(QUuid::WithoutBraces).toUpper(); }

QString fileURLText(const QString& localPath) {
  // Not QUrl::fromLocalFile, which takes the "srv" of "//srv/out" (here the folder "/srv/out")
  // for a machine's name, that the readers refuse, and drops all of "///srv/out": the path as it
  // stands, every byte but the unreserved ones and "/" escaped.
  return QStringLiteral("file://") + QString::fromLatin1(localPath.toUtf8().toPercentEncoding("/"));
}

double secondsSince2001(const QDateTime& when) {
  return double(when.toMSecsSinceEpoch() - referenceDateMSecs) / 1000.0;
}

double secondsSince2001(const timespec& time) {
  return double(qint64(time.tv_sec) - secondsFrom1970To2001) + double(time.tv_nsec) * 1e-9;
}

QDateTime dateFromSecondsSince2001(double seconds) {
  return QDateTime::fromMSecsSinceEpoch(std::llround(seconds * 1000.0) + referenceDateMSecs, Qt::UTC);
}

JsonValue string(const QString& text) { return JsonValue(text.toStdString()); }
JsonValue uuid(const QUuid& id) { return string(uuidText(id)); }
JsonValue fileURL(const QString& localPath) { return string(fileURLText(localPath)); }
JsonValue fileURL(const QUrl& url) { return string(url.toString(QUrl::FullyEncoded)); }
JsonValue date(const QDateTime& when) { return JsonValue(secondsSince2001(when)); }
JsonValue format(ImageFormat format) { return JsonValue(ImageFormats::rawValue(format)); }
JsonValue integer(qint64 value) { return JsonValue(int64_t(value)); }

void setSizeOptions(JsonValue& object, const CompressionOptions& options) {
  if (options.maxWidth > 0) object.set("maxWidth", options.maxWidth);
  if (options.maxHeight > 0) object.set("maxHeight", options.maxHeight);
  if (options.maxBytes > 0) object.set("maxBytes", integer(options.maxBytes));
  if (options.skipLarger) object.set("skipLarger", true);
}

QString requireString(const QJsonObject& object, const QString& key) {
  const QJsonValue value = required(object, key);
  if (!value.isString()) fail(key, "not a string");
  return value.toString();
}

std::optional<QString> optionalString(const QJsonObject& object, const QString& key) {
  const QJsonValue value = object.value(key);
  if (value.isUndefined() || value.isNull()) return std::nullopt;
  if (!value.isString()) fail(key, "not a string");
  return value.toString();
}

double requireDouble(const QJsonObject& object, const QString& key) {
  const QJsonValue value = required(object, key);
  if (!value.isDouble()) fail(key, "not a number");
  return value.toDouble();
}

qint64 requireInteger(const QJsonObject& object, const QString& key) {
  const QJsonValue value = required(object, key);
  if (!value.isDouble()) fail(key, "not a number");
  // toInteger() gives its default for fractions and out-of-range values; two different
  // defaults tell that apart from a stored 0 or 1.
  const qint64 a = value.toInteger(0);
  const qint64 b = value.toInteger(1);
  if (a != b) fail(key, "not a whole number");
  return a;
}

CompressionOptions sizeOptions(const QJsonObject& object) {
  const auto whole = [&](const char* name, qint64 limit) -> qint64 {
    const QString key = QString::fromLatin1(name);
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull()) return 0;
    const qint64 number = requireInteger(object, key);
    return number > 0 && number <= limit ? number : 0;
  };
  CompressionOptions options;
  options.maxWidth = int(whole("maxWidth", kMaxDimension));
  options.maxHeight = int(whole("maxHeight", kMaxDimension));
  options.maxBytes = whole("maxBytes", std::numeric_limits<qint64>::max());
  options.skipLarger = optionalBool(object, QStringLiteral("skipLarger")).value_or(false);
  return options;
}

std::optional<bool> optionalBool(const QJsonObject& object, const QString& key) {
  const QJsonValue value = object.value(key);
  if (value.isUndefined() || value.isNull()) return std::nullopt;
  if (!value.isBool()) fail(key, "not a Boolean");
  return value.toBool();
}

QUuid requireUUID(const QJsonObject& object, const QString& key) {
  const QString text = requireString(object, key);
  if (!isCanonicalUUID(text)) fail(key, "not a UUID");
  return QUuid::fromString(text);
}

ImageFormat requireFormat(const QJsonObject& object, const QString& key) {
  const auto format = ImageFormats::fromRawValue(requireString(object, key).toStdString());
  if (!format) fail(key, "not a format");
  return *format;
}

double requireDateSeconds(const QJsonObject& object, const QString& key) {
  const double seconds = requireDouble(object, key);
  // Beyond a few hundred thousand years the millisecond count would overflow.
  if (!std::isfinite(seconds) || std::fabs(seconds) > 1e13) fail(key, "date out of range");
  return seconds;
}

QString requireFileURL(const QJsonObject& object, const QString& key) {
  return localPathFromURLText(key, requireString(object, key));
}

QUrl requireFileURLExact(const QJsonObject& object, const QString& key) {
  const QString text = requireString(object, key);
  const QString path = localPathFromURLText(key, text);
  const QUrl url(text, QUrl::StrictMode);
  return url.isValid() && url.isLocalFile() ? url : QUrl::fromLocalFile(path);
}

std::optional<QString> optionalFileURL(const QJsonObject& object, const QString& key) {
  const auto text = optionalString(object, key);
  if (!text) return std::nullopt;
  return localPathFromURLText(key, *text);
}

bool forEachObject(const QJsonDocument& document, const std::function<void(const QJsonObject&)>& each) {
  if (!document.isArray()) return false;
  try {
    for (const auto& element : document.array()) {
      if (!element.isObject()) return false;
      each(element.toObject());
    }
  } catch (const DecodingError&) {
    return false;
  }
  return true;
}

}  // namespace quillane::JsonForms
