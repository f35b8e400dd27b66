#include "services/UserDefaults.h"

#include <sys/stat.h>

#include <QFile>

namespace quillane::UserDefaults {

std::unique_ptr<QSettings> store() {
  // On Linux the native format is INI; unlike IniFormat, whose files end in ".ini", it names
  // the file Quillane.conf.
  return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Quillane"),
                                     QStringLiteral("Quillane"));
}

void save(QSettings& settings) {
  settings.sync();
  // QSettings rewrites the file through a temporary file that keeps the mode of the file it
  // replaces; the first write creates it with the umask's mode, so tighten it every time.
  QByteArray path = QFile::encodeName(settings.fileName());
  ::chmod(path.constData(), S_IRUSR | S_IWUSR);
}

}  // namespace quillane::UserDefaults
