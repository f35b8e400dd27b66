#pragma once
// ExportProfilesSettingsView: the settings tab that lists the export profiles and adds, edits
// and deletes them through a form. The rules on names, defaults and storage belong to the
// model; this view only collects input, trims the name and refuses an empty one.
//
// GUI thread only.

#include <QUrl>
#include <QUuid>
#include <QWidget>
#include <functional>
#include <optional>

#include "engine/ImageFormat.h"

class QCheckBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QMenu;
class QPushButton;
class QSlider;
class QVBoxLayout;

namespace quillane {
class BatchViewModel;
struct ExportProfile;
}  // namespace quillane

namespace quillane::ui {

class SizeOptionsEditor;

class ExportProfilesSettingsView : public QWidget {
  Q_OBJECT
 public:
  using FolderChooser = std::function<std::optional<QUrl>(const std::optional<QUrl>& start)>;

  ExportProfilesSettingsView(BatchViewModel& viewModel, FolderChooser chooseFolder,
                             QWidget* parent = nullptr);

  // "WebP · 80%", the size options where set, and " — /path" with a folder.
  static QString subtitle(const ExportProfile& profile);

  // The form's actions.
  void setNewFormat(ImageFormat format);
  void setNewFolder(std::optional<QUrl> folder);
  void setNewQuality(double quality);
  void startEditing(const ExportProfile& profile);
  void resetForm();
  void chooseFolder();
  // Saves the form as a new profile or over the edited one; nothing with an empty name.
  void save();
  void deleteProfile(const ExportProfile& profile);

 private:
  void rebuildList();
  void addRows();  // a row for each profile, with its edit and delete buttons
  void refreshForm();

  BatchViewModel& viewModel_;
  FolderChooser chooseFolder_;
  std::optional<QUuid> editingProfileID_;
  ImageFormat newFormat_ = ImageFormat::jpeg;
  double newQuality_ = 75.0;
  std::optional<QUrl> newFolder_;

  QGroupBox* existing_;
  QVBoxLayout* rows_;
  QGroupBox* form_;
  QLineEdit* name_;
  QPushButton* formatButton_;
  QMenu* formatMenu_;
  QSlider* quality_;
  QLabel* qualityReadout_;
  SizeOptionsEditor* size_;
  QLabel* folderLabel_;
  QPushButton* chooseFolderButton_;
  QPushButton* clearFolder_;
  QCheckBox* isDefault_;
  QPushButton* cancel_;
  QPushButton* save_;
};

}  // namespace quillane::ui
