#include "records/JSONFileStore.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QStandardPaths>

#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/ThreadAnnotations.h"

namespace quillane::JSONFileStore {

namespace {

Mutex overrideMutex;
std::optional<QString> folderOverride GUARDED_BY(overrideMutex);

// Far beyond any file written here (the memory of a hot folder of a million files); a larger
// one is not read into memory.
constexpr uint64_t kMaxBytes = 512ull << 20;

const QString& realFolder() {
  static const QString folder =
      QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Quillane");
  return folder;
}

}  // namespace

QString folder() {
  {
    MutexLock lock(overrideMutex);
    if (folderOverride) return *folderOverride;
  }
  return realFolder();
}

void setFolderForTesting(const QString& folder) {
  MutexLock lock(overrideMutex);
  if (folder.isEmpty()) {
    folderOverride.reset();
  } else {
    folderOverride = folder;
  }
}

QString path(const QString& filename) { return folder() + QLatin1Char('/') + filename; }

void save(const JsonValue& value, const QString& filename) {
  const std::string text = value.write();
  const QString dir = folder();
  // A failure here shows up as a failed open below, which is dropped like any other.
  QDir().mkpath(dir);
  try {
    FileIO::writeFileAtomically(QFile::encodeName(dir + QLatin1Char('/') + filename).toStdString(),
                                {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, 0600);
  } catch (const QuillaneError&) {
    // Dropped without a message, like every failed save; the older file stays whole.
  }
}

std::optional<QJsonDocument> load(const QString& filename) {
  std::vector<uint8_t> bytes;
  try {
    // Only a regular file, opened without waiting (a pipe in its place would wait for a
    // writer), and one of a size its JSON can be parsed in.
    bytes = FileIO::readFile(QFile::encodeName(path(filename)).toStdString(),
                             [](std::span<const uint8_t>, uint64_t size) {
                               if (size > kMaxBytes) throw FileError({}, "larger than any state file");
                             });
  } catch (const QuillaneError&) {
    return std::nullopt;
  }
  QJsonParseError error;
  QJsonDocument document = QJsonDocument::fromJson(
      QByteArray::fromRawData(reinterpret_cast<const char*>(bytes.data()), qsizetype(bytes.size())), &error);
  if (error.error != QJsonParseError::NoError || document.isNull()) return std::nullopt;
  return document;
}

}  // namespace quillane::JSONFileStore
