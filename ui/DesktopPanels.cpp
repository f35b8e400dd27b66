#include "ui/DesktopPanels.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QStandardPaths>
#include <string>

#include "ui/UiText.h"

namespace quillane::ui {
namespace {

QString lastFolder() {
  static QString folder = QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
  return folder;
}

QString imageFilter() {
  return QStringLiteral(
      "Images (*.png *.jpg *.jpeg *.heic *.heif *.avif *.webp *.jxl *.gif *.tif *.tiff *.bmp);;* (*)");
}

}  // namespace

QList<QUrl> DesktopPanels::chooseFilesToImport() {
  QFileDialog dialog(window_, text("menu.import", "Importer…"), lastFolder(), imageFilter());
  dialog.setFileMode(QFileDialog::ExistingFiles);
  dialog.setAcceptMode(QFileDialog::AcceptOpen);
  if (dialog.exec() != QDialog::Accepted) return {};
  return dialog.selectedUrls();
}

std::optional<QUrl> DesktopPanels::chooseExportFolder(const std::optional<QUrl>& startFolder,
                                                      const QString& prompt, const QString& message) {
  QFileDialog dialog(window_, message, startFolder ? startFolder->toLocalFile() : lastFolder());
  dialog.setFileMode(QFileDialog::Directory);
  dialog.setOption(QFileDialog::ShowDirsOnly, true);
  dialog.setAcceptMode(QFileDialog::AcceptOpen);
  if (!prompt.isEmpty()) dialog.setLabelText(QFileDialog::Accept, prompt);
  if (dialog.exec() != QDialog::Accepted || dialog.selectedUrls().isEmpty()) return std::nullopt;
  return dialog.selectedUrls().first();
}

std::optional<QUrl> DesktopPanels::chooseSaveFile(const QString& suggestedName, ImageFormat format) {
  QFileDialog dialog(window_, text("row.exportHelp", "Exporter cette image"));
  dialog.setAcceptMode(QFileDialog::AcceptSave);
  dialog.setDirectory(lastFolder());
  dialog.selectFile(suggestedName);
  dialog.setMimeTypeFilters({QString::fromUtf8(std::string(ImageFormats::mimeType(format)))});
  dialog.setDefaultSuffix(QString::fromUtf8(std::string(ImageFormats::fileExtension(format))));
  if (dialog.exec() != QDialog::Accepted || dialog.selectedUrls().isEmpty()) return std::nullopt;
  return dialog.selectedUrls().first();
}

std::optional<QUrl> DesktopPanels::chooseFolder(const std::optional<QUrl>& startFolder) {
  QFileDialog dialog(window_, text("settings.profiles.chooseFolder", "Choisir…"),
                     startFolder ? startFolder->toLocalFile() : lastFolder());
  dialog.setFileMode(QFileDialog::Directory);
  dialog.setOption(QFileDialog::ShowDirsOnly, true);
  if (dialog.exec() != QDialog::Accepted || dialog.selectedUrls().isEmpty()) return std::nullopt;
  return dialog.selectedUrls().first();
}

void DesktopPanels::showInFileManager(const QUrl& file) {
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
  call << QStringList{file.toString(QUrl::FullyEncoded)} << QString();
  const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 3000);
  if (reply.type() == QDBusMessage::ReplyMessage) return;
  // Without a file manager service, open the folder that holds the file.
  QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(file.toLocalFile()).absolutePath()));
}

}  // namespace quillane::ui
