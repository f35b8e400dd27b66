#pragma once
// The empty window's drop area: a picture, a title, the accepted formats and a button to
// choose files. Files dropped on it go to the import in the order of the drag; while a file
// drag hovers, the area takes a faint accent colour.
//
// GUI thread only.

#include <QWidget>
#include <functional>

class QLabel;
class QPushButton;

namespace quillane {
class BatchViewModel;
}

namespace quillane::ui {

class DropTargetView : public QWidget {
  Q_OBJECT
 public:
  DropTargetView(BatchViewModel& viewModel, std::function<void()> onImport, QWidget* parent = nullptr);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragLeaveEvent(QDragLeaveEvent* event) override;
  void dropEvent(QDropEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  void setTargeted(bool targeted);
  void refreshIcon();

  BatchViewModel& viewModel_;
  std::function<void()> onImport_;
  bool isTargeted_ = false;
  QLabel* picture_;
  QPushButton* choose_;
};

}  // namespace quillane::ui
