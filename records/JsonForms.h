#pragma once
// The value forms of the state files, shared by every record that is stored as JSON:
// ids as upper-case hyphenated UUIDs, locations as absolute "file://" URL text, dates as
// seconds since 2001-01-01 00:00:00 UTC, formats as their raw values. Optional fields that
// are empty are left out by the writers of each record.
//
// Readers follow one rule: a required key that is missing, null or of the wrong type throws
// DecodingError; an optional key that is missing or null gives nothing, and one of the wrong
// type throws. A record's decoder lets the error run up to decodeArray(), which turns it into
// "no list at all". Any thread.

#include <QDateTime>
#include <QString>
#include <QUrl>
#include <QUuid>
#include <ctime>
#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "engine/Json.h"

class QJsonDocument;
class QJsonObject;

namespace quillane::JsonForms {

class DecodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// ---- Writing ----
QString uuidText(const QUuid& id);              // "6F9619FF-8B86-D011-B42D-00C04FC964FF"
QString fileURLText(const QString& localPath);  // "file:///home/a/My%20Pictures"
double secondsSince2001(const QDateTime& when);
double secondsSince2001(const timespec& time);       // a file date from stat, nanoseconds kept
QDateTime dateFromSecondsSince2001(double seconds);  // UTC, millisecond precision
inline constexpr qint64 secondsFrom1970To2001 = 978307200;

JsonValue string(const QString& text);
JsonValue uuid(const QUuid& id);
JsonValue fileURL(const QString& localPath);
JsonValue fileURL(const QUrl& url);  // as it stands, bytes that are no UTF-8 kept percent-encoded
JsonValue date(const QDateTime& when);
JsonValue format(ImageFormat format);
JsonValue integer(qint64 value);
// Sets "maxWidth", "maxHeight", "maxBytes" and "skipLarger" on `object`, each only when on.
void setSizeOptions(JsonValue& object, const CompressionOptions& options);

// ---- Reading ----
QString requireString(const QJsonObject& object, const QString& key);
std::optional<QString> optionalString(const QJsonObject& object, const QString& key);
double requireDouble(const QJsonObject& object, const QString& key);
// A whole number within 64 bits; 1.5 is a type error.
qint64 requireInteger(const QJsonObject& object, const QString& key);
std::optional<bool> optionalBool(const QJsonObject& object, const QString& key);
QUuid requireUUID(const QJsonObject& object, const QString& key);  // 8-4-4-4-12 hex, either case
ImageFormat requireFormat(const QJsonObject& object, const QString& key);
// The four keys setSizeOptions writes, each optional (missing, null, 0 or out of range: off);
// one of the wrong type throws. Records of earlier versions have none of them.
CompressionOptions sizeOptions(const QJsonObject& object);
double requireDateSeconds(const QJsonObject& object, const QString& key);  // seconds since 2001
// A "file:" URL, given back as its local path. A bare absolute path is taken as it stands.
QString requireFileURL(const QJsonObject& object, const QString& key);
std::optional<QString> optionalFileURL(const QJsonObject& object, const QString& key);
// The same, as a file URL that keeps a name that is not UTF-8 exactly.
QUrl requireFileURLExact(const QJsonObject& object, const QString& key);

// Every element of `items` coded with `encodeOne`, in order.
template <class T>
JsonValue encodeArray(const std::vector<T>& items, JsonValue (*encodeOne)(const std::type_identity_t<T>&)) {
  JsonValue array = JsonValue::array();
  for (const T& item : items) array.push(encodeOne(item));
  return array;
}

// Calls `each` for every element of `document`, which must be an array of objects. False
// when it is not, or when `each` throws DecodingError.
bool forEachObject(const QJsonDocument& document, const std::function<void(const QJsonObject&)>& each);

// The whole array decoded with `decodeOne`; nothing when any element fails.
template <class T>
std::optional<std::vector<T>> decodeArray(const QJsonDocument& document, T (*decodeOne)(const QJsonObject&)) {
  std::vector<T> out;
  if (!forEachObject(document, [&](const QJsonObject& object) { out.push_back(decodeOne(object)); })) {
    return std::nullopt;
  }
  return out;
}

}  // namespace quillane::JsonForms
