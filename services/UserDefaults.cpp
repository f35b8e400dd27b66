#include "services/UserDefaults.h"

#include <sys/stat.h>

#include <QFile>

namespace quillane::UserDefaults {

std::unique_ptr<QSettings> store() {
  return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Quillane"),
                                     QStringLiteral("Quillane"));
}

void save(QSettings& settings) {
  settings.sync();
  // A rewrite keeps the mode of the file it replaces, but the first write creates it with
  // the umask's mode: tighten it every time.
  QByteArray path = QFile::encodeName(settings.fileName());
  ::chmod(path.constData(), S_IRUSR | S_IWUSR);
}

}  // namespace quillane::UserDefaults
