#include "records/JSONFileStore.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QStandardPaths>
#include <map>
#include <string>
#include <utility>
#include <vector>

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

// What the last save of each file (by path) left unwritten, for load() to give back until a
// later save is written. Saves are counted so that a slow one that ends after a later one
// never overrides its outcome.
struct Saves {
  uint64_t begun = 0, settled = 0;
  std::optional<std::string> unwritten;
};
Mutex savesMutex;
std::map<QString, Saves> saves GUARDED_BY(savesMutex);

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

namespace {

// Writes `text` to `file` in `dir`, and keeps it for load() if it can't be.
void saveText(const QString& dir, const QString& file, const std::string& text) {
  uint64_t number = 0;
  {
    MutexLock lock(savesMutex);
    number = ++saves[file].begun;
  }
  // A failure here shows up as a failed open below, which is dropped like any other.
  QDir().mkpath(dir);
  bool written = false;
  try {
    FileIO::writeFileAtomically(QFile::encodeName(file).toStdString(),
                                {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, 0600);
    written = true;
  } catch (const QuillaneError&) {
    // Dropped without a message, like every failed save; the older file stays whole.
  }
  // A full or read-only disk: the rest of the run reads what it was told, not the older file
  // (a hot folder's memory above all, which would compress its files again at each scan).
  MutexLock lock(savesMutex);
  Saves& saved = saves[file];
  if (number < saved.settled) return;
  saved.settled = number;
  if (written) {
    saved.unwritten.reset();
  } else {
    saved.unwritten = text;
  }
}

}  // namespace

void save(const JsonValue& value, const QString& filename) {
  const QString dir = folder();
  saveText(dir, dir + QLatin1Char('/') + filename, value.write());
}

void saveUnwritten() {
  const QString dir = folder();
  std::vector<std::pair<QString, std::string>> held;
  {
    MutexLock lock(savesMutex);
    for (const auto& [file, saved] : saves)
      if (saved.unwritten && file.startsWith(dir + QLatin1Char('/')))
        held.emplace_back(file, *saved.unwritten);
  }
  for (const auto& [file, text] : held) saveText(dir, file, text);
}

std::optional<QJsonDocument> load(const QString& filename) {
  const QString file = path(filename);
  std::vector<uint8_t> bytes;
  {
    MutexLock lock(savesMutex);
    if (const auto held = saves.find(file); held != saves.end() && held->second.unwritten)
      bytes.assign(held->second.unwritten->begin(), held->second.unwritten->end());
  }
  try {
    // Only a regular file, opened without waiting (a pipe in its place would wait for a
    // writer), and one of a size its JSON can be parsed in.
    if (bytes.empty())
      bytes = FileIO::readFile(QFile::encodeName(file).toStdString(),
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
