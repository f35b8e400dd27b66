#include "records/ExportRecord.h"

#include <sys/stat.h>

#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
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

QSet<QUuid> supersededIDs(const ExportRecordList& history) {
  // One pass for the newest entry of each file, so that a long history costs its length and not
  // its square: a later date, and of two equal ones (two exports within one clock tick) the one
  // nearer the front of the list, newest first, wins.
  std::vector<QByteArray> files;
  files.reserve(history.size());
  QHash<QByteArray, const ExportRecord*> newest;
  for (const ExportRecord& record : history) {
    files.push_back(fileOf(record.destinationURL));
    const ExportRecord*& top = newest[files.back()];
    if (!top || record.date > top->date) top = &record;
  }
  QSet<QUuid> superseded;
  for (size_t i = 0; i < history.size(); ++i)
    if (newest.value(files[i])->id != history[i].id) superseded.insert(history[i].id);
  return superseded;
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
