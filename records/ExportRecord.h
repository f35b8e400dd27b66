#pragma once
// ExportRecord: one file written by an export of the batch, kept in exportHistory.json,
// newest first, so that the user can see where it went and take it back. The history list
// belongs to BatchViewModel (GUI thread), which saves it after each change.

#include <QDateTime>
#include <QSet>
#include <QString>
#include <QUrl>
#include <QUuid>
#include <optional>
#include <vector>

#include "engine/ImageFormat.h"
#include "engine/Json.h"

class QJsonDocument;
class QJsonObject;

struct stat;

namespace quillane {

// The file an export wrote, as it left it. A freed inode is soon another file's: the three
// together tell that file from one changed or put in its place since. Not its device, whose
// number may change from boot to boot (a btrfs subvolume's does) or as a disk is plugged in.
struct ExportedFile {
  quint64 inode = 0;
  qint64 sizeBytes = 0;
  double modificationDate = 0;  // seconds since 2001-01-01 00:00:00 UTC, as the file system has it
  bool operator==(const ExportedFile&) const = default;
};

struct ExportRecord {
  QUuid id;
  QString sourceDisplayName;  // last path component of the source, extension included
  // The written file, exact also for a name that is not UTF-8 (its bytes stay percent-encoded).
  QUrl destinationURL;
  ImageFormat format = ImageFormat::jpeg;
  qint64 sizeBytes = 0;
  // Seconds since 2001-01-01 00:00:00 UTC at the system clock's precision (what the file holds),
  // so that two exports within one millisecond still have an order by date.
  double date = 0;
  // What was written there; unknown in the records of earlier versions.
  std::optional<ExportedFile> file;

  // The date for display, to the millisecond.
  QDateTime dateTime() const;
  bool operator==(const ExportRecord&) const = default;
};

using ExportRecordList = std::vector<ExportRecord>;

namespace ExportHistory {

inline constexpr char fileName[] = "exportHistory.json";

// The system clock now, in seconds since 2001-01-01 00:00:00 UTC.
double now();

// The ids of the entries whose file a newer export overwrote, which is no longer theirs: another
// entry (another id) has the same destination and a later date, or the same date and a place
// nearer the front of `history` (newest first).
QSet<QUuid> supersededIDs(const ExportRecordList& history);

// What an entry's lstat says of the file, for ExportRecord::file.
ExportedFile exportedFile(const struct stat& st);

// JSON coding; every field is required but `file`. fromJson() throws JsonForms::DecodingError.
JsonValue toJson(const ExportRecord& record);
JsonValue toJson(const ExportRecordList& history);
ExportRecord fromJson(const QJsonObject& object);
std::optional<ExportRecordList> listFromJson(const QJsonDocument& document);

// exportHistory.json in the store's folder: empty when missing or damaged.
ExportRecordList load();
// Rewrites exportHistory.json; silent on failure.
void save(const ExportRecordList& history);

}  // namespace ExportHistory
}  // namespace quillane
