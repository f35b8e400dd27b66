#include "records/ExportRecord.h"

#include <sys/stat.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <chrono>

#include "records/JSONFileStore.h"
#include "records/JsonForms.h"

namespace quillane {

QDateTime ExportRecord::dateTime() const { return JsonForms::dateFromSecondsSince2001(date); }

}  // namespace quillane

namespace quillane::ExportHistory {

double now() {
  using namespace std::chrono;
  const auto sinceEpoch = duration<double>(system_clock::now().time_since_epoch()).count();
  return sinceEpoch - double(JsonForms::secondsFrom1970To2001);
}

namespace {
// The file a destination names. Two URLs of one path may escape different characters: the
// batch's names have "(" or "+" percent-encoded, a file dialog's URL keeps them as they are.
QByteArray fileOf(const QUrl& url) {
  if (!url.isLocalFile()) return url.toEncoded();
  return QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1());
}
}  // namespace

bool isRecordSuperseded(const ExportRecordList& history, const ExportRecord& record) {
  // The list is newest first: of two exports within one clock tick, the earlier entry is the later export.
  const auto self =
      std::find_if(history.begin(), history.end(), [&](const auto& e) { return e.id == record.id; });
  const QByteArray file = fileOf(record.destinationURL);
  for (auto it = history.begin(); it != history.end(); ++it) {
    if (it->id == record.id || fileOf(it->destinationURL) != file) continue;
    if (it->date > record.date || (it->date == record.date && it < self)) return true;
  }
  return false;
}

ExportedFile exportedFile(const struct stat& st) {
  return {quint64(st.st_ino), qint64(st.st_size), JsonForms::secondsSince2001(st.st_mtim)};
}

JsonValue toJson(const ExportRecord& record) {
  JsonValue object = JsonValue::object();
  object.set("id", JsonForms::uuid(record.id));
  object.set("sourceDisplayName", JsonForms::string(record.sourceDisplayName));
  object.set("destinationURL", JsonForms::fileURL(record.destinationURL));
  object.set("format", JsonForms::format(record.format));
  object.set("sizeBytes", JsonForms::integer(record.sizeBytes));
  object.set("date", JsonValue(record.date));
  if (record.file) {
    JsonValue file = JsonValue::object();
    file.set("inode", JsonForms::integer(qint64(record.file->inode)));
    file.set("sizeBytes", JsonForms::integer(record.file->sizeBytes));
    file.set("modificationDate", JsonValue(record.file->modificationDate));
    object.set("file", std::move(file));
  }
  return object;
}

JsonValue toJson(const ExportRecordList& history) { return JsonForms::encodeArray(history, &toJson); }

ExportRecord fromJson(const QJsonObject& object) {
  ExportRecord record;
  record.id = JsonForms::requireUUID(object, QStringLiteral("id"));
  record.sourceDisplayName = JsonForms::requireString(object, QStringLiteral("sourceDisplayName"));
  record.destinationURL = JsonForms::requireFileURLExact(object, QStringLiteral("destinationURL"));
  record.format = JsonForms::requireFormat(object, QStringLiteral("format"));
  record.sizeBytes = JsonForms::requireInteger(object, QStringLiteral("sizeBytes"));
  record.date = JsonForms::requireDateSeconds(object, QStringLiteral("date"));
  const QJsonValue file = object.value(QStringLiteral("file"));
  if (file.isObject()) {
    const QJsonObject fields = file.toObject();
    record.file = ExportedFile{quint64(JsonForms::requireInteger(fields, QStringLiteral("inode"))),
                               JsonForms::requireInteger(fields, QStringLiteral("sizeBytes")),
                               JsonForms::requireDouble(fields, QStringLiteral("modificationDate"))};
  } else if (!file.isUndefined() && !file.isNull()) {
    throw JsonForms::DecodingError("file is not an object");
  }
  return record;
}

std::optional<ExportRecordList> listFromJson(const QJsonDocument& document) {
  return JsonForms::decodeArray<ExportRecord>(document, &fromJson);
}

ExportRecordList load() { return JSONFileStore::loadList(QString::fromLatin1(fileName), &fromJson); }

void save(const ExportRecordList& history) {
  JSONFileStore::save(toJson(history), QString::fromLatin1(fileName));
}

}  // namespace quillane::ExportHistory
