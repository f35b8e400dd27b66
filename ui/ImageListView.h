#pragma once
// The list of the batch: failure rows, then image rows, painted by ImageRowDelegate. It runs
// the rows' buttons, their tooltips and pointing-hand cursor, reorders images by drag (the
// model saves the order in the session) and takes files dropped from a file manager. From the
// keyboard, the arrows select a row, Delete removes it, Space or Return opens its comparison
// (retries a failed import), and the menu key or Shift+F10 opens the row's menu, which holds
// every action of the row, as does a right click.
// Requests that need a window (comparison, quality popup, save dialog) are passed up as
// signals.
//
// GUI thread only.

#include <QListView>
#include <QMenu>
#include <QPersistentModelIndex>
#include <QTimer>
#include <memory>
#include <optional>

#include "ui/ImageRowDelegate.h"

namespace quillane {
class BatchViewModel;
class ImportedImage;
}  // namespace quillane

namespace quillane::ui {

class ImageListModel;

class ImageListView : public QListView {
  Q_OBJECT
 public:
  static constexpr const char* rowMimeType = "application/x-quillane-image-id";

  explicit ImageListView(BatchViewModel& viewModel, QWidget* parent = nullptr);

  ImageListModel& listModel() const { return *model_; }

  // Runs the action of a row part as a click would (also used by tests).
  void activate(const QModelIndex& index, RowHit part);
  // The part under a viewport point, with its index.
  std::pair<QModelIndex, RowHit> partAt(const QPoint& pos) const;
  // Where the quality button of `image`'s row is, in global coordinates; nothing when the
  // image has no row.
  std::optional<QRect> qualityAnchor(const std::shared_ptr<ImportedImage>& image) const;
  // The row's menu: one entry per action the row offers, disabled ones included. The caller
  // owns it.
  QMenu* rowMenu(const QModelIndex& index);

 signals:
  void comparisonRequested(std::shared_ptr<quillane::ImportedImage> image);
  // `anchor` is the button's rectangle in global coordinates.
  void qualityOverrideRequested(std::shared_ptr<quillane::ImportedImage> image, const QRect& anchor);
  void exportSingleRequested(std::shared_ptr<quillane::ImportedImage> image);

 protected:
  bool viewportEvent(QEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void leaveEvent(QEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragMoveEvent(QDragMoveEvent* event) override;
  void dragLeaveEvent(QDragLeaveEvent* event) override;
  void dropEvent(QDropEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  void updateHover(const QPoint& pos);
  void startRowDrag(const QModelIndex& index);
  // The batch index before which a dragged row would land, from a viewport point.
  int insertionIndex(const QPoint& pos) const;
  // Moves the image of row `index` `by` places in the batch (-1: up), as a drag would, the row
  // staying the current one; nothing past either end.
  void moveRow(const QModelIndex& index, int by);
  void updateSpinnerTimer();

  BatchViewModel& viewModel_;
  ImageListModel* model_;
  ImageRowDelegate* delegate_;
  QPersistentModelIndex pressIndex_;
  RowHit pressPart_ = RowHit::none;
  QPoint pressPos_;
  int dropIndicatorY_ = -1;
  QTimer spinnerTimer_;
  int spinnerPhase_ = 0;
};

}  // namespace quillane::ui
