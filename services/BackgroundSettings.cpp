#include "services/BackgroundSettings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <span>

#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "services/SettingsFile.h"

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

bool keepsWatching() { return SettingsFile::boolValue(*SettingsFile::store(), kKeepWatchingKey); }

void setKeepsWatching(bool on) {
  auto settings = SettingsFile::store();
  settings->setValue(kKeepWatchingKey, on);
  SettingsFile::save(*settings);
}

bool takeFirstBackgroundNotice() {
  auto settings = SettingsFile::store();
  if (SettingsFile::boolValue(*settings, kNoticeShownKey)) return false;
  settings->setValue(kNoticeShownKey, true);
  SettingsFile::save(*settings);
  return true;
}

QString autostartEntryPath() {
  return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
         QStringLiteral("/autostart/com.quillane.Quillane.desktop");
}

bool startsAtLogin() {
  // The desktop's own settings turn an entry off in place rather than remove it: GNOME's with
  // X-GNOME-Autostart-enabled=false, others with Hidden=true. An entry that can't be read (a folder
  // in its place) starts nothing either.
  std::vector<uint8_t> bytes;
  try {
    bytes = FileIO::readFile(QFile::encodeName(autostartEntryPath()).toStdString(),
                             [](std::span<const uint8_t>, uint64_t size) {
                               if (size > (1u << 20)) throw FileError({}, "larger than a desktop entry");
                             });
  } catch (const QuillaneError&) {
    return false;
  }
  const QString text =
      QString::fromUtf8(reinterpret_cast<const char*>(bytes.data()), qsizetype(bytes.size()));
  for (const QString& line : text.split(QLatin1Char('\n'))) {
    if (line.startsWith(QLatin1Char('[')) && line.trimmed() != QLatin1String("[Desktop Entry]")) break;
    const QString key = line.section(QLatin1Char('='), 0, 0).trimmed();
    const QString value = line.section(QLatin1Char('='), 1).trimmed();
    if ((key == QLatin1String("Hidden") && value == QLatin1String("true")) ||
        (key == QLatin1String("X-GNOME-Autostart-enabled") && value == QLatin1String("false")))
      return false;
  }
  return true;
}

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
