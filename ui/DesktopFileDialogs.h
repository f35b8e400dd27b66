#pragma once
// The file dialogs and the file manager, as the model and the views need them: the open dialog
// of the import, the folder chooser of the export, the save dialog of one image, the folder
// chooser of a profile, and showing a file in the desktop's file manager (D-Bus
// org.freedesktop.FileManager1, else the folder is opened). Each kind of dialog starts in the
// folder the user last chose with it, kept in the settings file; the home folder when none is
// known or that folder is gone. Tests replace it by a subclass.
//
// GUI thread only; the dialogs are modal.

#include <QPointer>
#include <QWidget>
#include <optional>

#include "batch/BatchViewModel.h"
#include "engine/ImageFormat.h"

class QFileDialog;

namespace quillane::ui {

class DesktopFileDialogs : public FileDialogs {
 public:
  enum class FolderKind { import, exportFolder, profileFolder };

  explicit DesktopFileDialogs(QWidget* window = nullptr) : window_(window) {}

  QList<QUrl> chooseFilesToImport() override;
  std::optional<QUrl> chooseExportFolder(const std::optional<QUrl>& startFolder, const QString& prompt,
                                         const QString& message) override;
  void showInFileManager(const QUrl& file) override;
  // Shows `files` selected in the desktop's file manager (one window per folder).
  virtual void showFilesInFileManager(const QList<QUrl>& files);

  // The save dialog of one image: `suggestedName` in the last export folder, only `format` allowed.
  // The chosen file carries the format's extension (withFormatExtension); where that changes the
  // name to one that exists, the dialog opens again on it, so that nothing is replaced unasked.
  virtual std::optional<QUrl> chooseSaveFile(const QString& suggestedName, ImageFormat format);
  // A folder for a profile or a hot folder, over `parent` (else the active window); may create
  // folders.
  virtual std::optional<QUrl> chooseFolder(const std::optional<QUrl>& startFolder, QWidget* parent = nullptr);

  // Where a dialog of `kind` opens: the remembered folder while it exists, else the home folder.
  static QString startFolder(FolderKind kind);
  static void rememberFolder(FolderKind kind, const QString& folder);
  // The import filter: the six formats that can be imported, under a translated label.
  static QString importFilter();
  // `path` named for `format`: kept where its extension is one of the format's ("jpeg" for JPEG),
  // another format's extension replaced by the format's, the format's added to any other name.
  static QString withFormatExtension(const QString& path, ImageFormat format);

 private:
  QPointer<QWidget> window_;
};

}  // namespace quillane::ui
