#include "services/BackgroundSettings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <span>

#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "services/UserDefaults.h"

namespace quillane::BackgroundSettings {

namespace {
constexpr char kKeepWatchingKey[] = "keepWatchingInBackground";
constexpr char kNoticeShownKey[] = "backgroundNoticeShown";

// An Exec argument in the desktop entry format: quoted when it holds a reserved character,
// with `"`, `` ` ``, `$` and `\` escaped inside the quotes; `%` is doubled in any case.
QString execArgument(QString argument) {
  argument.replace(QLatin1Char('%'), QLatin1String("%%"));
  static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
  bool needsQuotes = false;
  for (QChar c : argument) needsQuotes = needsQuotes || reserved.contains(c);
  if (!needsQuotes) return argument;
  QString quoted;
  for (QChar c : argument) {
    if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') || c == QLatin1Char('\\'))
      quoted += QLatin1Char('\\');
    quoted += c;
  }
  // Inside a desktop entry's string value a backslash is itself escaped.
  quoted.replace(QLatin1String("\\"), QLatin1String("\\\\"));
  return QLatin1Char('"') + quoted + QLatin1Char('"');
}
}  // namespace

bool keepsWatching() { return UserDefaults::boolValue(*UserDefaults::store(), kKeepWatchingKey); }

void setKeepsWatching(bool on) {
  auto settings = UserDefaults::store();
  settings->setValue(kKeepWatchingKey, on);
  UserDefaults::save(*settings);
}

bool takeFirstBackgroundNotice() {
  auto settings = UserDefaults::store();
  if (UserDefaults::boolValue(*settings, kNoticeShownKey)) return false;
  settings->setValue(kNoticeShownKey, true);
  UserDefaults::save(*settings);
  return true;
}

QString autostartEntryPath() {
  return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
         QStringLiteral("/autostart/com.quillane.Quillane.desktop");
}

bool startsAtLogin() { return QFileInfo::exists(autostartEntryPath()); }

QString autostartEntry(const QString& program) {
  return QStringLiteral(
             "[Desktop Entry]\n"
             "Type=Application\n"
             "Name=Quillane\n"
             "Exec=%1 --background\n"
             "Icon=com.quillane.Quillane\n"
             "Terminal=false\n"
             "NoDisplay=true\n"
             "X-GNOME-Autostart-enabled=true\n")
      .arg(execArgument(program));
}

bool setStartsAtLogin(bool on, const QString& program) {
  const QString path = autostartEntryPath();
  if (!on) return !QFileInfo::exists(path) || QFile::remove(path);
  if (!QDir().mkpath(QFileInfo(path).path())) return false;
  const QByteArray text = autostartEntry(program).toUtf8();
  try {
    FileIO::writeFileAtomically(
        QFile::encodeName(path).toStdString(),
        std::span(reinterpret_cast<const uint8_t*>(text.constData()), size_t(text.size())));
  } catch (const QuillaneError&) {
    return false;
  }
  return true;
}

}  // namespace quillane::BackgroundSettings
