#pragma once
// The file dialogs and the file manager, as the model and the views need them: the open panel
// of the import, the folder chooser of the export, the save dialog of one image, the folder
// chooser of a profile, and showing a file in the desktop's file manager (D-Bus
// org.freedesktop.FileManager1, else the folder is opened). Tests replace it by a subclass.
//
// GUI thread only; the dialogs are modal.

#include <QPointer>
#include <QWidget>
#include <optional>

#include "batch/BatchViewModel.h"
#include "engine/ImageFormat.h"

namespace quillane::ui {

class DesktopPanels : public BatchPanels {
 public:
  explicit DesktopPanels(QWidget* window = nullptr) : window_(window) {}

  QList<QUrl> chooseFilesToImport() override;
  std::optional<QUrl> chooseExportFolder(const std::optional<QUrl>& startFolder, const QString& prompt,
                                         const QString& message) override;
  void showInFileManager(const QUrl& file) override;

  // The save dialog of one image: `suggestedName` in the last folder, only `format` allowed.
  virtual std::optional<QUrl> chooseSaveFile(const QString& suggestedName, ImageFormat format);
  // A folder for a profile; may create folders.
  virtual std::optional<QUrl> chooseFolder(const std::optional<QUrl>& startFolder);

  void setWindow(QWidget* window) { window_ = window; }

 private:
  QPointer<QWidget> window_;
};

}  // namespace quillane::ui
