#pragma once
// HotFoldersSettingsView: the settings tab in which the user adds, edits, enables and deletes
// hot folders and sees what they did. It shows HotFoldersManager's folders, progress and
// activity, and takes the profile menu from the batch model's export profiles. The form
// only collects input; the rules of running folders belong to the manager.
//
// GUI thread only.

#include <QUuid>
#include <QWidget>
#include <functional>
#include <map>
#include <optional>

#include "engine/ImageFormat.h"
#include "hotfolders/HotFolder.h"

class QCheckBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QMenu;
class QProgressBar;
class QPushButton;
class QSlider;
class QVBoxLayout;

namespace quillane {
class BatchViewModel;
class HotFoldersManager;
}  // namespace quillane

namespace quillane::ui {

class DesktopFileDialogs;
class SizeOptionsEditor;

class HotFoldersSettingsView : public QWidget {
  Q_OBJECT
 public:
  // A modal chooser of one folder, starting at the given one; nothing when cancelled.
  using FolderChooser = std::function<std::optional<QString>(const std::optional<QString>& start)>;

  HotFoldersSettingsView(HotFoldersManager& manager, BatchViewModel& viewModel, FolderChooser chooseFolder,
                         QWidget* parent = nullptr);

  // The folder chooser of `dialogs` (a modal dialog in which only folders can be chosen and
  // new ones made); a chooser that never chooses without dialogs.
  static FolderChooser folderChooser(DesktopFileDialogs* dialogs);

  // "/in → /out · Web", or "/in → /out · WebP 80%", then the size options where set.
  static QString subtitle(const HotFolder& hotFolder);

  // The form's actions.
  void save();
  void startEditing(const HotFolder& hotFolder);
  void resetForm();
  void chooseSource();
  void chooseDestination();
  void setNewProfileName(const std::optional<QString>& name);
  void setNewFormat(ImageFormat format);
  void setNewQuality(double quality);

 private:
  bool isFormValid() const;
  // What the error log shows: the activity lines that carry an error, newest first.
  std::vector<HotFolderActivity> errorActivities() const;
  void rebuildList();
  void refreshProgress();
  void refreshStatus();
  void rebuildActivity();
  void rebuildProfileMenu();
  void refreshForm();
  void checkFolders();
  QWidget* makeRow(const HotFolder& hotFolder);
  QWidget* makeActivityLine(const HotFolderActivity& line, bool errorOnly, QWidget* parent);

  HotFoldersManager& manager_;
  BatchViewModel& viewModel_;
  FolderChooser chooseFolder_;

  std::optional<QUuid> editingID_;
  std::optional<QString> newSourceFolder_;
  std::optional<QString> newDestinationFolder_;
  bool sameFolders_ = false;  // the two chosen folders are one
  std::optional<QString> newProfileName_;
  ImageFormat newFormat_ = ImageFormat::jpeg;
  double newQuality_ = 75;

  QGroupBox* existing_;
  QVBoxLayout* rows_;
  std::map<QUuid, std::pair<QProgressBar*, QLabel*>> progressWidgets_;
  std::map<QUuid, QLabel*> statusLabels_;
  QGroupBox* form_;
  QLineEdit* name_;
  QLabel* sourceLabel_;
  QLabel* destinationLabel_;
  QLabel* sameFolderWarning_;
  QPushButton* profileButton_;
  QMenu* profileMenu_;
  QWidget* formatRow_;
  QWidget* qualityRow_;
  QLabel* formatRowLabel_;
  QLabel* qualityRowLabel_;
  QPushButton* formatButton_;
  QMenu* formatMenu_;
  QSlider* quality_;
  QLabel* qualityReadout_;
  SizeOptionsEditor* size_;
  QCheckBox* isEnabled_;
  QPushButton* cancel_;
  QPushButton* save_;
  QGroupBox* activity_;
  QVBoxLayout* activityLines_;
  QPushButton* clearActivity_;
  QGroupBox* errors_;
  QVBoxLayout* errorLines_;
};

}  // namespace quillane::ui
