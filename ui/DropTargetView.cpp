#include "ui/DropTargetView.h"

#include <QDragEnterEvent>
#include <QLabel>
#include <QMimeData>
#include <QPainter>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

#include "batch/BatchViewModel.h"
#include "services/Strings.h"
#include "ui/FileDropHandler.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/QualityControls.h"

namespace quillane::ui {

DropTargetView::DropTargetView(BatchViewModel& viewModel, std::function<void()> onImport, QWidget* parent)
    : QWidget(parent), viewModel_(viewModel), onImport_(std::move(onImport)) {
  setAcceptDrops(true);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(24, 24, 24, 24);
  layout->setSpacing(12);
  layout->addStretch(1);

  picture_ = new QLabel(this);
  picture_->setAlignment(Qt::AlignCenter);
  refreshIcon();
  layout->addWidget(picture_);

  auto* title = new QLabel(Strings::text("drop.title"), this);
  QFont titleFont = title->font();
  titleFont.setPointSizeF(titleFont.pointSizeF() * 1.5);
  titleFont.setBold(true);
  title->setFont(titleFont);
  title->setAlignment(Qt::AlignCenter);
  title->setWordWrap(true);
  layout->addWidget(title);

  auto* formats = new QLabel(Strings::text("drop.formats"), this);
  formats->setFont(smallFont(formats->font()));
  Icons::makeSecondary(formats);
  formats->setAlignment(Qt::AlignCenter);
  formats->setWordWrap(true);
  layout->addWidget(formats);

  choose_ = new QPushButton(Strings::text("drop.chooseFiles"), this);
  makeProminent(choose_);
  connect(choose_, &QPushButton::clicked, this, [this] {
    if (onImport_) onImport_();
  });
  layout->addWidget(choose_, 0, Qt::AlignHCenter);
  layout->addStretch(1);
}

void DropTargetView::refreshIcon() {
  picture_->setPixmap(
      Icons::pixmap("photo.on.rectangle.angled", 48, Icons::secondaryColor(palette()), devicePixelRatioF()));
}

void DropTargetView::changeEvent(QEvent* event) {
  if (event->type() == QEvent::PaletteChange) refreshIcon();
  QWidget::changeEvent(event);
}

void DropTargetView::setTargeted(bool targeted) {
  if (isTargeted_ == targeted) return;
  isTargeted_ = targeted;
  update();
}

void DropTargetView::paintEvent(QPaintEvent*) {
  if (!isTargeted_) return;
  QPainter painter(this);
  QColor accent = Icons::accentColor(palette());
  accent.setAlphaF(0.1);
  painter.fillRect(rect(), accent);
}

void DropTargetView::dragEnterEvent(QDragEnterEvent* event) {
  if (!FileDropHandler::carriesFiles(*event->mimeData())) {
    event->ignore();
    return;
  }
  event->setDropAction(Qt::CopyAction);
  event->accept();
  setTargeted(true);
}

void DropTargetView::dragLeaveEvent(QDragLeaveEvent* event) {
  setTargeted(false);
  event->accept();
}

void DropTargetView::dropEvent(QDropEvent* event) {
  setTargeted(false);
  QPointer<BatchViewModel> model(&viewModel_);
  const bool accepted = FileDropHandler::handle(FileDropHandler::providers(*event->mimeData()),
                                                [model](const QList<QUrl>& urls) {
                                                  if (model) model->importFiles(urls);
                                                });
  if (accepted) {
    event->setDropAction(Qt::CopyAction);
    event->accept();
  } else {
    event->ignore();
  }
}

}  // namespace quillane::ui
