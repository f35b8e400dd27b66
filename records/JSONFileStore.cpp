#include "records/JSONFileStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
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
  // Only a regular file is read: opening a pipe put in its place would wait for a writer.
  if (!QFileInfo(path(filename)).isFile()) return std::nullopt;
  QFile file(path(filename));
  if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
  const QByteArray bytes = file.readAll();
  if (file.error() != QFileDevice::NoError) return std::nullopt;
  QJsonParseError error;
  QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
  if (error.error != QJsonParseError::NoError || document.isNull()) return std::nullopt;
  return document;
}

}  // namespace quillane::JSONFileStore
