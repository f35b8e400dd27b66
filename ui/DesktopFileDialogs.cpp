#include "ui/DesktopFileDialogs.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <string>

#include "services/SettingsFile.h"
#include "services/Strings.h"

namespace quillane::ui {
namespace {

const char* settingsKey(DesktopFileDialogs::FolderKind kind) {
  switch (kind) {
    case DesktopFileDialogs::FolderKind::import:
      return "lastImportFolder";
    case DesktopFileDialogs::FolderKind::exportFolder:
      return "lastExportFolder";
    case DesktopFileDialogs::FolderKind::profileFolder:
      return "lastProfileFolder";
  }
  return "lastImportFolder";
}

// A folder the dialog can open; a missing one would be typed into the name field instead.
QString existingFolder(const QString& folder) {
  return !folder.isEmpty() && QFileInfo(folder).isDir() ? QFileInfo(folder).absoluteFilePath() : QString();
}

// Remembers the folder of the first chosen URL (the URL itself when it is a folder).
void rememberChoice(DesktopFileDialogs::FolderKind kind, const QUrl& chosen, bool chosenIsFolder) {
  if (!chosen.isLocalFile()) return;
  const QString path = chosen.toLocalFile();
  DesktopFileDialogs::rememberFolder(kind, chosenIsFolder ? path : QFileInfo(path).absolutePath());
}

// The extensions each format's files go by, in any case; the usual one first.
QStringList extensionsOf(ImageFormat format) {
  switch (format) {
    case ImageFormat::jpeg:
      return {QStringLiteral("jpg"), QStringLiteral("jpeg"), QStringLiteral("jpe")};
    case ImageFormat::heic:
      return {QStringLiteral("heic"), QStringLiteral("heif"), QStringLiteral("hif")};
    default:
      return {QString::fromUtf8(std::string(ImageFormats::fileExtension(format)))};
  }
}

}  // namespace

QString DesktopFileDialogs::startFolder(FolderKind kind) {
  const QString remembered = existingFolder(SettingsFile::store()->value(settingsKey(kind)).toString());
  return remembered.isEmpty() ? QDir::homePath() : remembered;
}

void DesktopFileDialogs::rememberFolder(FolderKind kind, const QString& folder) {
  auto settings = SettingsFile::store();
  settings->setValue(settingsKey(kind), folder);
  SettingsFile::save(*settings);
}

QString DesktopFileDialogs::importFilter() {
  // The usual names of PNG, JPEG, HEIC, AVIF, WebP and JPEG XL files (the dialog ignores case);
  // the import itself goes by the content.
  static const QString patterns =
      QStringLiteral("*.png *.jpg *.jpeg *.jpe *.heic *.heif *.hif *.avif *.webp *.jxl");
  return QStringLiteral("%1 (%2)").arg(Strings::text("import.filterLabel"), patterns);
}

QString DesktopFileDialogs::withFormatExtension(const QString& path, ImageFormat format) {
  const QString extension = QFileInfo(path).suffix().toLower();
  if (extensionsOf(format).contains(extension)) return path;
  const QString own = extensionsOf(format).first();
  for (ImageFormat other : ImageFormats::allCases)
    if (!extension.isEmpty() && extensionsOf(other).contains(extension))
      return path.left(path.size() - extension.size()) + own;
  return path + QLatin1Char('.') + own;
}

QList<QUrl> DesktopFileDialogs::chooseFilesToImport() {
  QFileDialog dialog(window_, Strings::text("menu.import"), startFolder(FolderKind::import), importFilter());
  dialog.setFileMode(QFileDialog::ExistingFiles);
  dialog.setAcceptMode(QFileDialog::AcceptOpen);
  if (dialog.exec() != QDialog::Accepted || dialog.selectedUrls().isEmpty()) return {};
  rememberChoice(FolderKind::import, dialog.selectedUrls().first(), false);
  return dialog.selectedUrls();
}

std::optional<QUrl> DesktopFileDialogs::chooseExportFolder(const std::optional<QUrl>& startFolder,
                                                           const QString& prompt, const QString& message) {
  const QString profileFolder = startFolder ? existingFolder(startFolder->toLocalFile()) : QString();
  QFileDialog dialog(
      window_, message,
      profileFolder.isEmpty() ? DesktopFileDialogs::startFolder(FolderKind::exportFolder) : profileFolder);
  dialog.setFileMode(QFileDialog::Directory);
  dialog.setOption(QFileDialog::ShowDirsOnly, true);
  dialog.setAcceptMode(QFileDialog::AcceptOpen);
  if (!prompt.isEmpty()) dialog.setLabelText(QFileDialog::Accept, prompt);
  if (dialog.exec() != QDialog::Accepted || dialog.selectedUrls().isEmpty()) return std::nullopt;
  rememberChoice(FolderKind::exportFolder, dialog.selectedUrls().first(), true);
  return dialog.selectedUrls().first();
}

std::optional<QUrl> DesktopFileDialogs::chooseSaveFile(const QString& suggestedName, ImageFormat format) {
  QFileDialog dialog(window_, Strings::text("row.exportHelp"));
  dialog.setAcceptMode(QFileDialog::AcceptSave);
  dialog.setDirectory(startFolder(FolderKind::exportFolder));
  dialog.selectFile(suggestedName);
  dialog.setMimeTypeFilters({QString::fromUtf8(std::string(ImageFormats::mimeType(format)))});
  dialog.setDefaultSuffix(QString::fromUtf8(std::string(ImageFormats::fileExtension(format))));
  // The dialog asked about replacing the name as typed: a name changed to one that exists (a link
  // too, even a dangling one) is shown again, and the dialog asks about that one.
  for (;;) {
    if (dialog.exec() != QDialog::Accepted || dialog.selectedUrls().isEmpty()) return std::nullopt;
    const QUrl chosen = dialog.selectedUrls().first();
    if (!chosen.isLocalFile()) return chosen;
    const QString path = withFormatExtension(chosen.toLocalFile(), format);
    const QFileInfo existing(path);
    if (path == chosen.toLocalFile() || !(existing.exists() || existing.isSymLink())) {
      rememberChoice(FolderKind::exportFolder, chosen, false);
      return QUrl::fromLocalFile(path);
    }
    dialog.selectFile(path);
  }
}

std::optional<QUrl> DesktopFileDialogs::chooseFolder(const std::optional<QUrl>& startFolder,
                                                     QWidget* parent) {
  const QString current = startFolder ? existingFolder(startFolder->toLocalFile()) : QString();
  // Over the window it was asked from: the settings window, not the main one.
  if (!parent) parent = QApplication::activeWindow() ? QApplication::activeWindow() : window_.data();
  QFileDialog dialog(
      parent, Strings::text("settings.profiles.chooseFolder"),
      current.isEmpty() ? DesktopFileDialogs::startFolder(FolderKind::profileFolder) : current);
  dialog.setFileMode(QFileDialog::Directory);
  dialog.setOption(QFileDialog::ShowDirsOnly, true);
  if (dialog.exec() != QDialog::Accepted || dialog.selectedUrls().isEmpty()) return std::nullopt;
  rememberChoice(FolderKind::profileFolder, dialog.selectedUrls().first(), true);
  return dialog.selectedUrls().first();
}

void DesktopFileDialogs::showInFileManager(const QUrl& file) { showFilesInFileManager({file}); }

void DesktopFileDialogs::showFilesInFileManager(const QList<QUrl>& files) {
  if (files.isEmpty()) return;
  QStringList uris;
  for (const QUrl& file : files) uris.append(file.toString(QUrl::FullyEncoded));
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
  call << uris << QString();
  // Not waited for: a file manager that takes its time to start never holds the window. Only
  // where there is none (the call refused, not merely unanswered yet) does the folder that holds
  // the first file open instead, so that a late file manager's window does not come with another.
  const QUrl folder = QUrl::fromLocalFile(QFileInfo(files.first().toLocalFile()).absolutePath());
  auto* answer = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call),
                                             QCoreApplication::instance());
  QObject::connect(answer, &QDBusPendingCallWatcher::finished, answer,
                   [folder](QDBusPendingCallWatcher* done) {
                     if (done->isError() && done->error().type() != QDBusError::NoReply)
                       QDesktopServices::openUrl(folder);
                     done->deleteLater();
                   });
}

}  // namespace quillane::ui
