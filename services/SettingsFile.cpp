#include "services/SettingsFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <atomic>
#include <cerrno>

#include "engine/Errors.h"
#include "engine/FileIO.h"

namespace quillane::SettingsFile {

namespace {

// Far above the few kilobytes the program writes; a larger file is not read into memory.
constexpr uint64_t kMaxBytes = 1 << 20;

// Whether the settings file `file` and Qt's lock file beside it can be used as they are.
bool usable(const QString& file) {
  const QByteArray name = QFile::encodeName(file);
  struct stat st {};
  if (::stat(name.constData(), &st) == 0 || errno != ENOENT) {
    try {
      FileIO::readFile(name.toStdString(), [](std::span<const uint8_t>, uint64_t size) {
        if (size > kMaxBytes) throw FileError({}, "too large");
      });
    } catch (const QuillaneError&) {
      return false;
    }
  }
  // QLockFile opens an existing lock to see whether it is stale, and removes a stale one.
  const QByteArray lock = name + ".lock";
  return ::lstat(lock.constData(), &st) != 0 ? errno == ENOENT : S_ISREG(st.st_mode);
}

// The folder of the private file store() falls back to, made on first use.
std::atomic<bool> runFolderMade{false};
QTemporaryDir& runFolder() {
  static QTemporaryDir folder;
  runFolderMade = true;
  return folder;
}

// The private file of this run; without one, a file under a device: never there, and its folder
// can't be made.
QString runFile() {
  const QTemporaryDir& run = runFolder();
  return run.isValid() ? run.filePath(QStringLiteral("Quillane.conf"))
                       : QStringLiteral("/dev/null/Quillane.conf");
}

// Set once a write of path() has failed: the settings of the run are held in its private file since.
std::atomic<bool> heldForRun{false};

}  // namespace

QString path() {
  return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
         QStringLiteral("/Quillane/Quillane.conf");
}

std::unique_ptr<QSettings> store() {
  // On Linux the native format is INI. Given as a file, the settings are read from that file
  // alone, not also from the organisation's ($XDG_CONFIG_HOME/Quillane.conf) and the
  // system's, which would each need the same care.
  const QString file = path();
  if (!heldForRun && usable(file)) return std::make_unique<QSettings>(file, QSettings::NativeFormat);
  // A private file for this run, removed at exit, so that what is set still holds until then
  // (the local API's token above all).
  return std::make_unique<QSettings>(runFile(), QSettings::NativeFormat);
}

void removeRunFile() {
  if (runFolderMade) runFolder().remove();
}

void save(QSettings& settings) {
  // QSettings rewrites the file through a temporary file that keeps the mode of the file it
  // replaces. The first write would create it with the umask's mode, readable by others until a
  // chmod after it: an empty private file made first gives the first write its mode too.
  const QByteArray path = QFile::encodeName(settings.fileName());
  QDir().mkpath(QFileInfo(settings.fileName()).absolutePath());
  if (const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
      fd >= 0)
    ::close(fd);
  settings.sync();
  ::chmod(path.constData(), S_IRUSR | S_IWUSR);
  // A file that can't be written (a read-only or full disk) would forget what was just set at the
  // next read, the local API's token too, so that each request would make a token of its own: the
  // settings as they now stand are held for the run instead, and the file is left as it is.
  if (settings.status() != QSettings::AccessError || settings.fileName() == runFile()) return;
  QSettings run(runFile(), QSettings::NativeFormat);
  run.clear();
  for (const QString& key : settings.allKeys()) run.setValue(key, settings.value(key));
  run.sync();
  heldForRun = true;
}

bool boolValue(const QSettings& settings, QAnyStringView key) {
  const QVariant value = settings.value(key);
  if (value.typeId() == QMetaType::Bool) return value.toBool();
  if (value.typeId() != QMetaType::QString) return false;
  const QString text = value.toString().trimmed().toLower();
  return text == QLatin1String("true") || text == QLatin1String("1") || text == QLatin1String("yes") ||
         text == QLatin1String("on");
}

QString stringValue(const QSettings& settings, QAnyStringView key) {
  const QVariant value = settings.value(key);
  if (value.typeId() == QMetaType::QStringList) return value.toStringList().join(QLatin1Char(','));
  return value.toString();
}

}  // namespace quillane::SettingsFile
