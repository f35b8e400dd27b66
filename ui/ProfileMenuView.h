#pragma once
// ExportProfileMenuView: the compact profile menu of the control bar. It applies a saved
// profile to the batch, or, with its "none" entry, only forgets the applied name. Draws
// nothing while there are no profiles.
//
// GUI thread only.

#include <QWidget>

class QMenu;
class QPushButton;

namespace quillane {
class BatchViewModel;
}

namespace quillane::ui {

class ExportProfileMenuView : public QWidget {
  Q_OBJECT
 public:
  explicit ExportProfileMenuView(BatchViewModel& viewModel, QWidget* parent = nullptr);

 private:
  // The button's title: the applied profile's name, or the placeholder.
  QString title() const;
  // Rebuilds the entries, at each change of the profiles and each time the menu opens.
  void rebuildMenu();
  void refresh();

  BatchViewModel& viewModel_;
  QPushButton* button_;
  QMenu* menu_;
};

}  // namespace quillane::ui
