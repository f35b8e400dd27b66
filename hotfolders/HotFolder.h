#pragma once
// The value types of hot folders. A HotFolder is a standing instruction: every finished image
// that lands in `sourceFolder` is compressed into `destinationFolder`. The list of them is
// kept in hotFolders.json by HotFoldersManager; activity lines and progress live in memory
// only. Plain values, usable on any thread.

#include <QDateTime>
#include <QMetaType>
#include <QString>
#include <QUuid>
#include <map>
#include <optional>
#include <vector>

#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "engine/Json.h"

class QJsonObject;

namespace quillane {

struct HotFolder {
  QUuid id;                            // never changes across edits; keys the folder's processed memory
  QString name;                        // trimmed, never empty when saved by the form
  QString sourceFolder;                // local path; a file URL in JSON
  QString destinationFolder;           // local path; always wins over a profile's folder
  std::optional<QString> profileName;  // matched ignoring case at each scan
  std::optional<ImageFormat> format;
  std::optional<double> quality;  // 1 to 100, perceptual
  bool isEnabled = true;
  CompressionOptions sizing;  // fit, byte budget, skip larger; each set one wins over the profile's

  bool operator==(const HotFolder&) const = default;

  // The id as the processed store and the watcher's thread labels write it.
  QString idText() const;
};

using HotFolderList = std::vector<HotFolder>;

// One line of the activity log. A line is an error line exactly when `error` is set; a line
// about the folder as a whole has an empty `sourceFileName`.
struct HotFolderActivity {
  QUuid id;
  QString hotFolderName;
  QString sourceFileName;
  std::optional<QString> destinationURL;  // local path of the written file
  QDateTime date;
  std::optional<QString> error;
  std::optional<QString> note;  // a success that wrote nothing: why the original was kept

  bool isError() const { return error.has_value(); }
};

// The counters of a running scan; an entry exists only while completed < total.
struct HotFolderProgress {
  int completed = 0;
  int total = 0;
  bool operator==(const HotFolderProgress&) const = default;
};

namespace HotFolders {

inline constexpr char fileName[] = "hotFolders.json";

// JSON coding: id, name, sourceFolder, destinationFolder and isEnabled are required; the other
// keys (profileName, format, quality and the size options) are left out when absent and read
// as absent when missing or null. fromJson()
// throws JsonForms::DecodingError.
JsonValue toJson(const HotFolder& folder);
HotFolder fromJson(const QJsonObject& object);

// `path` with symbolic links resolved where it exists, then made absolute and clean.
QString resolvedFolder(const QString& path);
// Whether the two folders are one after resolvedFolder(): a hot folder must not write into
// the folder it watches.
bool isSameFolder(const QString& a, const QString& b);

// For each folder of `enabled` that must not run, the message that says why: its source and
// destination are one folder, or it makes a loop with another, one's destination being the
// other's source or inside it. Folders are compared by device and inode, so that links and
// bind mounts count. Reads the file system; any thread.
std::map<QUuid, QString> refusals(const HotFolderList& enabled);

// hotFolders.json in the store's folder; empty when missing or when any entry is bad. An entry
// whose id repeats an earlier one's is given another, the same at each load.
HotFolderList load();
// Rewrites hotFolders.json; silent on failure.
void save(const HotFolderList& folders);

}  // namespace HotFolders
}  // namespace quillane

Q_DECLARE_METATYPE(quillane::HotFolderActivity)
