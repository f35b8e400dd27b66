#include "ui/ImageListView.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QDrag>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPointer>
#include <QToolTip>
#include <tuple>

#include "batch/BatchViewModel.h"
#include "services/Strings.h"
#include "ui/FileDropHandler.h"
#include "ui/ImageListModel.h"
#include "ui/Mnemonics.h"

namespace quillane::ui {

ImageListView::ImageListView(BatchViewModel& viewModel, QWidget* parent)
    : QListView(parent), viewModel_(viewModel) {
  model_ = new ImageListModel(viewModel, this);
  delegate_ = new ImageRowDelegate(*model_, this);
  setModel(model_);
  setItemDelegate(delegate_);
  setSelectionMode(SingleSelection);
  setFocusPolicy(Qt::StrongFocus);
  setEditTriggers(NoEditTriggers);
  setMouseTracking(true);
  setAcceptDrops(true);
  setDragDropMode(DragDrop);
  setDropIndicatorShown(false);
  setVerticalScrollMode(ScrollPerPixel);
  setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  setFrameShape(QFrame::NoFrame);
  setUniformItemSizes(false);
  setLayoutMode(Batched);
  setBatchSize(200);
  setAccessibleName(Strings::text("list.name"));

  spinnerTimer_.setInterval(90);
  connect(&spinnerTimer_, &QTimer::timeout, this, [this] {
    spinnerPhase_ = (spinnerPhase_ + 1) % 8;
    delegate_->setSpinnerPhase(spinnerPhase_);
    viewport()->update();
    updateSpinnerTimer();
  });
  connect(model_, &QAbstractItemModel::dataChanged, this, &ImageListView::updateSpinnerTimer);
  connect(model_, &QAbstractItemModel::rowsInserted, this, &ImageListView::updateSpinnerTimer);
  connect(model_, &QAbstractItemModel::modelReset, this, &ImageListView::updateSpinnerTimer);
  updateSpinnerTimer();
}

void ImageListView::updateSpinnerTimer() {
  const bool animate = model_->anyEncoding();
  if (animate && !spinnerTimer_.isActive()) spinnerTimer_.start();
  if (!animate && spinnerTimer_.isActive()) spinnerTimer_.stop();
}

std::pair<QModelIndex, RowHit> ImageListView::partAt(const QPoint& pos) const {
  const QModelIndex index = indexAt(pos);
  if (!index.isValid()) return {index, RowHit::none};
  return {index, delegate_->hitTest(visualRect(index), index, pos)};
}

void ImageListView::activate(const QModelIndex& index, RowHit part) {
  if (!index.isValid() || !delegate_->isEnabled(index, part)) return;
  if (part == RowHit::failureRetry || part == RowHit::failureDismiss) {
    const ImportFailure* failure = model_->failureAt(index.row());
    if (!failure) return;
    const ImportFailure copy = *failure;
    if (part == RowHit::failureRetry)
      viewModel_.retryImport(copy);
    else
      viewModel_.dismissImportFailure(copy.id);
    return;
  }
  auto image = model_->imageAt(index.row());
  if (!image) return;
  switch (part) {
    case RowHit::thumbnail:
      emit comparisonRequested(image);
      break;
    case RowHit::quality:
      emit qualityOverrideRequested(image, qualityAnchor(image).value_or(QRect()));
      break;
    case RowHit::warning:
      // Writes again to the place that failed; nothing without a destination or data.
      if (image->lastExportDestination() && image->compressedData())
        viewModel_.writeExport(image, *image->compressedData(), *image->lastExportDestination());
      break;
    case RowHit::exportButton:
      emit exportSingleRequested(image);
      break;
    case RowHit::remove:
      viewModel_.removeImage(image);
      break;
    case RowHit::summaryRetry:
      viewModel_.scheduleEncode(image, false);
      break;
    default:
      break;
  }
}

std::optional<QRect> ImageListView::qualityAnchor(const std::shared_ptr<ImportedImage>& image) const {
  for (int row = model_->imageRowOffset(); row < model_->rowCount(); ++row) {
    if (model_->imageAt(row) != image) continue;
    const QModelIndex index = model_->index(row);
    const QRect r = delegate_->partRect(visualRect(index), index, RowHit::quality);
    return QRect(viewport()->mapToGlobal(r.topLeft()), r.size());
  }
  return std::nullopt;
}

void ImageListView::updateHover(const QPoint& pos) {
  auto [index, part] = partAt(pos);
  const bool pointing =
      part == RowHit::thumbnail || part == RowHit::summaryRetry || part == RowHit::failureRetry;
  // The pointing hand is set while over a clickable picture or link and always taken back
  // when the pointer leaves it, so that a row removed under the pointer leaves nothing.
  if (pointing)
    viewport()->setCursor(Qt::PointingHandCursor);
  else
    viewport()->unsetCursor();
  delegate_->setHover(index, part);
  viewport()->update();
}

bool ImageListView::viewportEvent(QEvent* event) {
  if (event->type() == QEvent::ToolTip) {
    auto* help = static_cast<QHelpEvent*>(event);
    auto [index, part] = partAt(help->pos());
    const QString tip = index.isValid() ? delegate_->helpText(index, part) : QString();
    if (tip.isEmpty())
      QToolTip::hideText();
    else
      QToolTip::showText(help->globalPos(), tip, viewport(),
                         delegate_->partRect(visualRect(index), index, part));
    return true;
  }
  return QListView::viewportEvent(event);
}

void ImageListView::mousePressEvent(QMouseEvent* event) {
  auto [index, part] = partAt(event->position().toPoint());
  if (index.isValid() && model_->kind(index.row()) != ImageListModel::RowKind::failuresHeader)
    setCurrentIndex(index);
  if (event->button() != Qt::LeftButton) return;
  pressIndex_ = index;
  pressPart_ = part;
  pressPos_ = event->position().toPoint();
  delegate_->setPressed(index, part);
  viewport()->update();
}

void ImageListView::mouseMoveEvent(QMouseEvent* event) {
  const QPoint pos = event->position().toPoint();
  if ((event->buttons() & Qt::LeftButton) && pressIndex_.isValid() &&
      model_->kind(pressIndex_.row()) == ImageListModel::RowKind::image &&
      (pressPart_ == RowHit::none || pressPart_ == RowHit::summary || pressPart_ == RowHit::animatedBadge) &&
      (pos - pressPos_).manhattanLength() >= QApplication::startDragDistance()) {
    const QModelIndex index = pressIndex_;
    pressIndex_ = QPersistentModelIndex();
    delegate_->setPressed({}, RowHit::none);
    startRowDrag(index);
    return;
  }
  updateHover(pos);
}

void ImageListView::mouseReleaseEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  auto [index, part] = partAt(event->position().toPoint());
  const QModelIndex pressed = pressIndex_;
  const RowHit pressedPart = pressPart_;
  pressIndex_ = QPersistentModelIndex();
  pressPart_ = RowHit::none;
  delegate_->setPressed({}, RowHit::none);
  viewport()->update();
  if (pressed.isValid() && pressed == index && pressedPart == part) activate(index, part);
}

// The first click of a double click has already acted; the second press is dropped, so that a
// row removed by the first click cannot hand the second one to the row sliding under the pointer.
void ImageListView::mouseDoubleClickEvent(QMouseEvent* event) {
  pressIndex_ = QPersistentModelIndex();
  pressPart_ = RowHit::none;
  event->accept();
}

void ImageListView::keyPressEvent(QKeyEvent* event) {
  const QModelIndex index = currentIndex();
  const bool image = index.isValid() && model_->kind(index.row()) == ImageListModel::RowKind::image;
  const bool failure = index.isValid() && model_->kind(index.row()) == ImageListModel::RowKind::failure;
  switch (event->key()) {
    case Qt::Key_Delete:
    case Qt::Key_Backspace:
      if (image) activate(index, RowHit::remove);
      if (failure) activate(index, RowHit::failureDismiss);
      return;
    case Qt::Key_Space:
    case Qt::Key_Return:
    case Qt::Key_Enter:
      if (image) activate(index, RowHit::thumbnail);
      if (failure) activate(index, RowHit::failureRetry);
      return;
    case Qt::Key_Up:
    case Qt::Key_Down:
      // Alt with an arrow moves the row, as dragging it does.
      if ((event->modifiers() & ~Qt::KeypadModifier) != Qt::AltModifier) {
        QListView::keyPressEvent(event);
      } else if (image) {
        moveRow(index, event->key() == Qt::Key_Up ? -1 : 1);
      }
      return;
    case Qt::Key_Menu:
      break;
    case Qt::Key_F10:
      if (event->modifiers() & Qt::ShiftModifier) break;
      [[fallthrough]];
    default:
      QListView::keyPressEvent(event);
      return;
  }
  if (!image && !failure) return;
  std::unique_ptr<QMenu> menu(rowMenu(index));
  menu->exec(viewport()->mapToGlobal(visualRect(index).center()));
}

void ImageListView::contextMenuEvent(QContextMenuEvent* event) {
  QModelIndex index = event->reason() == QContextMenuEvent::Mouse ? indexAt(event->pos()) : currentIndex();
  if (!index.isValid() || model_->kind(index.row()) == ImageListModel::RowKind::failuresHeader) return;
  setCurrentIndex(index);
  std::unique_ptr<QMenu> menu(rowMenu(index));
  menu->exec(event->reason() == QContextMenuEvent::Mouse
                 ? event->globalPos()
                 : viewport()->mapToGlobal(visualRect(index).center()));
}

QMenu* ImageListView::rowMenu(const QModelIndex& index) {
  auto* menu = new QMenu(this);
  menu->setAccessibleName(model_->data(index, Qt::AccessibleTextRole).toString());
  const QPersistentModelIndex row(index);
  const auto add = [&](RowHit part, const QString& label) {
    QAction* action = menu->addAction(label);
    action->setEnabled(delegate_->isEnabled(index, part));
    connect(action, &QAction::triggered, this, [this, row, part] {
      if (row.isValid()) activate(row, part);
    });
  };
  if (model_->kind(index.row()) == ImageListModel::RowKind::failure) {
    if (delegate_->isEnabled(index, RowHit::failureRetry))
      add(RowHit::failureRetry, Strings::text("common.retry"));
    add(RowHit::failureDismiss, Strings::text("import.dismissFailureHelp"));
    Mnemonics::assign(menu);
    return menu;
  }
  auto image = model_->imageAt(index.row());
  if (!image) return menu;
  add(RowHit::thumbnail, Strings::text("row.menu.compare"));
  add(RowHit::quality, Strings::text("quality.overrideTitle"));
  if (image->encodeState().isFailed()) add(RowHit::summaryRetry, Strings::text("common.retry"));
  add(RowHit::exportButton, Strings::text("row.menu.export"));
  if (image->exportError()) add(RowHit::warning, Strings::text("row.retryExport"));
  menu->addSeparator();
  const int at = index.row() - model_->imageRowOffset();
  for (const auto& [key, by, arrow] :
       {std::tuple("row.menu.moveUp", -1, Qt::Key_Up), std::tuple("row.menu.moveDown", 1, Qt::Key_Down)}) {
    QAction* action = menu->addAction(Strings::text(key));
    action->setShortcut(QKeySequence(Qt::ALT | arrow));  // the list's own key, shown
    action->setEnabled(at + by >= 0 && at + by < int(viewModel_.images().size()));
    connect(action, &QAction::triggered, this, [this, row, by = by] {
      if (row.isValid()) moveRow(row, by);
    });
  }
  menu->addSeparator();
  add(RowHit::remove, Strings::text("row.menu.remove"));
  Mnemonics::assign(menu);
  return menu;
}

void ImageListView::moveRow(const QModelIndex& index, int by) {
  const int from = index.row() - model_->imageRowOffset();
  const int to = from + by;
  if (model_->kind(index.row()) != ImageListModel::RowKind::image || to < 0 ||
      to >= int(viewModel_.images().size()))
    return;
  viewModel_.moveImage(from, to);
  setCurrentIndex(model_->index(model_->rowOfImage(to)));
}

void ImageListView::leaveEvent(QEvent* event) {
  viewport()->unsetCursor();
  delegate_->setHover({}, RowHit::none);
  viewport()->update();
  QListView::leaveEvent(event);
}

void ImageListView::startRowDrag(const QModelIndex& index) {
  auto image = model_->imageAt(index.row());
  if (!image) return;
  auto* mime = new QMimeData;
  mime->setData(rowMimeType, image->id().toByteArray());
  auto* drag = new QDrag(this);
  drag->setMimeData(mime);
  const QRect rect = visualRect(index);
  QPixmap preview(rect.size() * devicePixelRatioF());
  preview.setDevicePixelRatio(devicePixelRatioF());
  preview.fill(palette().color(QPalette::Base));
  {
    QPainter painter(&preview);
    QStyleOptionViewItem option;
    initViewItemOption(&option);
    option.rect = QRect(QPoint(0, 0), rect.size());
    delegate_->paint(&painter, option, index);
  }
  drag->setPixmap(
      preview.scaledToWidth(std::min(rect.width(), 360) * devicePixelRatioF(), Qt::SmoothTransformation));
  drag->setHotSpot(QPoint(20, rect.height() / 2));
  drag->exec(Qt::MoveAction);
  dropIndicatorY_ = -1;
  viewport()->update();
}

int ImageListView::insertionIndex(const QPoint& pos) const {
  const int count = int(viewModel_.images().size());
  const QModelIndex index = indexAt(pos);
  if (!index.isValid()) return pos.y() < 0 ? 0 : count;
  const int imageIndex = index.row() - model_->imageRowOffset();
  if (imageIndex < 0) return 0;
  const QRect rect = visualRect(index);
  return std::clamp(pos.y() < rect.center().y() ? imageIndex : imageIndex + 1, 0, count);
}

void ImageListView::dragEnterEvent(QDragEnterEvent* event) {
  const QMimeData* mime = event->mimeData();
  if (mime->hasFormat(rowMimeType) || FileDropHandler::carriesFiles(*mime)) {
    event->setDropAction(mime->hasFormat(rowMimeType) ? Qt::MoveAction : Qt::CopyAction);
    event->accept();
    return;
  }
  event->ignore();
}

void ImageListView::dragMoveEvent(QDragMoveEvent* event) {
  const QMimeData* mime = event->mimeData();
  if (mime->hasFormat(rowMimeType)) {
    const int to = insertionIndex(event->position().toPoint());
    const int rows = model_->rowCount();
    if (to < int(viewModel_.images().size())) {
      dropIndicatorY_ = visualRect(model_->index(model_->rowOfImage(to))).top();
    } else if (rows > 0) {
      dropIndicatorY_ = visualRect(model_->index(rows - 1)).bottom();
    }
    event->setDropAction(Qt::MoveAction);
    event->accept();
    viewport()->update();
    return;
  }
  if (FileDropHandler::carriesFiles(*mime)) {
    event->setDropAction(Qt::CopyAction);
    event->accept();
    return;
  }
  event->ignore();
}

void ImageListView::dragLeaveEvent(QDragLeaveEvent* event) {
  dropIndicatorY_ = -1;
  viewport()->update();
  event->accept();
}

void ImageListView::dropEvent(QDropEvent* event) {
  dropIndicatorY_ = -1;
  viewport()->update();
  const QMimeData* mime = event->mimeData();
  // Only this list makes row drags; an id that is no longer in the batch moves nothing.
  if (mime->hasFormat(rowMimeType)) {
    const QUuid id(QString::fromLatin1(mime->data(rowMimeType)));
    const ImageList& images = viewModel_.images();
    const auto it =
        std::find_if(images.begin(), images.end(), [&](const auto& image) { return image->id() == id; });
    if (it != images.end()) {
      const int from = int(it - images.begin());
      int to = insertionIndex(event->position().toPoint());
      // moveImage takes the index after removal of the moved row.
      if (to > from) --to;
      if (to != from) viewModel_.moveImage(from, to);
    }
    event->setDropAction(Qt::MoveAction);
    event->accept();
    return;
  }
  QPointer<ImageListView> self(this);
  const bool accepted =
      FileDropHandler::handle(FileDropHandler::providers(*mime), [self](const QList<QUrl>& urls) {
        if (self) self->viewModel_.importFiles(urls);
      });
  if (accepted) {
    event->setDropAction(Qt::CopyAction);
    event->accept();
  } else {
    event->ignore();
  }
}

void ImageListView::paintEvent(QPaintEvent* event) {
  QListView::paintEvent(event);
  if (dropIndicatorY_ < 0) return;
  QPainter painter(viewport());
  painter.setRenderHint(QPainter::Antialiasing);
  const QColor accent = palette().color(QPalette::Highlight);
  painter.setPen(QPen(accent, 2));
  painter.drawLine(QPoint(8, dropIndicatorY_), QPoint(viewport()->width() - 8, dropIndicatorY_));
  painter.setBrush(accent);
  // The dot marks the line's start: its right end in a right-to-left layout.
  painter.drawEllipse(QPoint(isRightToLeft() ? viewport()->width() - 8 : 8, dropIndicatorY_), 3, 3);
}

}  // namespace quillane::ui
