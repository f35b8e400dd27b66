#include "ui/ExportHistoryView.h"

#include <QDir>
#include <QFileInfo>
#include <QGraphicsOpacityEffect>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>

#include "batch/BatchViewModel.h"
#include "records/ExportRecord.h"
#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/QualityControls.h"
#include "ui/SettingsForm.h"
#include "ui/UiText.h"

namespace quillane::ui {

ExportHistoryView::ExportHistoryView(BatchViewModel& viewModel, bool popup, QWidget* parent)
    : QFrame(parent, popup ? Qt::Popup : Qt::Widget), viewModel_(viewModel) {
  if (popup) setAttribute(Qt::WA_DeleteOnClose);
  setFrameShape(QFrame::StyledPanel);
  setFixedSize(popupWidth, popupHeight);
  setAccessibleName(Strings::text("history.title"));
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(12, 10, 12, 10);
  layout->setSpacing(6);

  auto* header = new QHBoxLayout;
  auto* title = new QLabel(Strings::text("history.title"), this);
  QFont bold = title->font();
  bold.setBold(true);
  title->setFont(bold);
  clear_ = makeLinkButton(Strings::text("common.clearAll"), this);
  clear_->setToolTip(Strings::text("history.clearHelp"));
  // At once, without a question: the files stay where they are.
  connect(clear_, &QPushButton::clicked, this, [this] { viewModel_.clearExportHistory(); });
  header->addWidget(title, 1);
  header->addWidget(clear_);
  layout->addLayout(header);

  empty_ = new QLabel(Strings::text("history.empty"), this);
  empty_->setAlignment(Qt::AlignCenter);
  empty_->setWordWrap(true);
  Icons::makeSecondary(empty_);
  layout->addWidget(empty_, 1);

  scroll_ = new QScrollArea(this);
  scroll_->setWidgetResizable(true);
  scroll_->setFrameShape(QFrame::NoFrame);
  scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  scroll_->setFocusPolicy(Qt::NoFocus);  // its buttons are the Tab stops
  rowsHost_ = new QWidget(scroll_);
  rows_ = new QVBoxLayout(rowsHost_);
  rows_->setContentsMargins(0, 0, 0, 0);
  rows_->setSpacing(2);
  scroll_->setWidget(rowsHost_);
  layout->addWidget(scroll_, 1);

  connect(&viewModel_, &BatchViewModel::exportHistoryChanged, this, &ExportHistoryView::rebuild);
  rebuild();
}

void ExportHistoryView::rebuild() {
  const auto& history = viewModel_.exportHistory();
  clear_->setVisible(!history.empty());
  empty_->setVisible(history.empty());
  scroll_->setVisible(!history.empty());
  const QSet<QUuid> superseded = ExportHistory::supersededIDs(history);
  // A row's button that has the keys (its export just taken back) hands them to the same button of
  // the row in its place.
  rebuildRows(
      rows_,
      [this, &history, &superseded] {
        for (const ExportRecord& record : history)
          rows_->addWidget(makeRow(record, superseded.contains(record.id)));
      },
      nullptr);
  rows_->addStretch(1);
}

QWidget* ExportHistoryView::makeRow(const ExportRecord& record, bool superseded) {
  auto* row = new QWidget(rowsHost_);
  auto* layout = new QHBoxLayout(row);
  layout->setContentsMargins(4, 4, 4, 4);
  auto* texts = new QVBoxLayout;
  texts->setSpacing(1);

  auto* first = new QHBoxLayout;
  first->setSpacing(4);
  auto* name = new QLabel(row);
  name->setText(name->fontMetrics().elidedText(record.sourceDisplayName, Qt::ElideMiddle, 200));
  name->setToolTip(record.sourceDisplayName);
  first->addWidget(name, 0);
  if (superseded) {
    auto* warning = new QLabel(row);
    warning->setPixmap(
        Icons::pixmap("exclamationmark.triangle", 12, Icons::orangeColor(), devicePixelRatioF()));
    warning->setToolTip(Strings::text("history.supersededWarningHelp"));
    first->addWidget(warning);
  }
  auto* time =
      new QLabel(QLocale().toString(record.dateTime().toLocalTime().time(), QLocale::ShortFormat), row);
  Icons::makeSecondary(time);
  first->addWidget(time);
  first->addStretch(1);
  texts->addLayout(first);

  const QString folder =
      QDir::toNativeSeparators(QFileInfo(record.destinationURL.toLocalFile()).absolutePath());
  auto* subtitle = new QLabel(row);
  subtitle->setFont(smallFont(subtitle->font()));
  Icons::makeSecondary(subtitle);
  const QString subtitleText =
      Strings::format("history.rowSubtitleFormat", folder, formatByteCount(record.sizeBytes));
  subtitle->setText(subtitle->fontMetrics().elidedText(subtitleText, Qt::ElideMiddle, 300));
  subtitle->setToolTip(subtitleText);
  texts->addWidget(subtitle);
  layout->addLayout(texts, 1);

  auto* show = new QToolButton(row);
  show->setAutoRaise(true);
  show->setIcon(Icons::icon("folder"));
  show->setEnabled(!superseded);
  show->setToolTip(superseded ? Strings::text("history.supersededNothingHelp")
                              : Strings::text("history.showInFinderHelp"));
  show->setObjectName(QStringLiteral("showButton"));
  show->setAccessibleName(Strings::text("intents.notification.showInFolder"));
  // Every row has the same two buttons: screen readers say which file each one is for.
  show->setAccessibleDescription(record.sourceDisplayName);
  const ExportRecord copy = record;
  connect(show, &QToolButton::clicked, this, [this, copy] { viewModel_.showInFileManager(copy); });
  auto* undo = new QToolButton(row);
  undo->setAutoRaise(true);
  undo->setIcon(Icons::icon("arrow.uturn.backward"));
  undo->setToolTip(superseded ? Strings::text("history.supersededUndoHelp")
                              : Strings::text("history.undoHelp"));
  undo->setObjectName(QStringLiteral("undoButton"));
  undo->setAccessibleName(Strings::text("menu.undo"));
  undo->setAccessibleDescription(record.sourceDisplayName);
  connect(undo, &QToolButton::clicked, this, [this, copy] { viewModel_.undoExport(copy); });
  layout->addWidget(show);
  layout->addWidget(undo);

  if (superseded) {
    auto* fade = new QGraphicsOpacityEffect(row);
    fade->setOpacity(0.6);
    row->setGraphicsEffect(fade);
  }
  row->setProperty("superseded", superseded);
  return row;
}

void ExportHistoryView::popUp(const QRect& anchor) {
  QPoint pos(anchor.right() - width(), anchor.bottom() + 4);
  if (const QScreen* screen = QGuiApplication::screenAt(anchor.center())) {
    const QRect area = screen->availableGeometry();
    pos.setX(std::clamp(pos.x(), area.left(), std::max(area.left(), area.right() - width())));
  }
  move(pos);
  show();
  // The keys start on the newest export, away from Clear All.
  for (QToolButton* button : rowsHost_->findChildren<QToolButton*>()) {
    if (button->isEnabled()) {
      button->setFocus(Qt::PopupFocusReason);
      break;
    }
  }
}

}  // namespace quillane::ui
