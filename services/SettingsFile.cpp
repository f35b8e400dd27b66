#include "services/SettingsFile.h"

#include <sys/stat.h>

#include <QFile>

namespace quillane::SettingsFile {

std::unique_ptr<QSettings> store() {
  // On Linux the native format is INI; unlike IniFormat, whose files end in ".ini", it names
  // the file Quillane.conf.
  return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                     QStringLiteral("Quillane"), QStringLiteral("Quillane"));
}

void save(QSettings& settings) {
  settings.sync();
  // QSettings rewrites the file through a temporary file that keeps the mode of the file it
  // replaces; the first write creates it with the umask's mode, so tighten it every time.
  QByteArray path = QFile::encodeName(settings.fileName());
  ::chmod(path.constData(), S_IRUSR | S_IWUSR);
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
