#include "ui/ExportHistoryView.h"

#include <QApplication>
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
#include <QScrollBar>
#include <QSpacerItem>
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
namespace {
// Rows made at a time: a few popups' worth.
constexpr int kRowBatch = 30;
}  // namespace

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

  connect(scroll_->verticalScrollBar(), &QScrollBar::valueChanged, this, &ExportHistoryView::fillView);
  // The keys reaching one of the last rows made bring the next ones, for Tab to go on to them.
  connect(qApp, &QApplication::focusChanged, this, [this](QWidget*, QWidget* now) {
    const int row = rest_ && now && rowsHost_->isAncestorOf(now) ? rows_->indexOf(now->parentWidget()) : -1;
    if (row >= 0 && row >= made_ - 2) addRows(made_ + kRowBatch);
  });
  connect(&viewModel_, &BatchViewModel::exportHistoryChanged, this, &ExportHistoryView::rebuild);
  rebuild();
}

// The focus leaves the rows, and the scroll bar may move, while the widgets are taken down, when
// this is no longer an ExportHistoryView: neither may reach it then.
ExportHistoryView::~ExportHistoryView() {
  disconnect(qApp, nullptr, this, nullptr);
  scroll_->verticalScrollBar()->disconnect(this);
}

void ExportHistoryView::rebuild() {
  const auto& history = viewModel_.exportHistory();
  clear_->setVisible(!history.empty());
  empty_->setVisible(history.empty());
  scroll_->setVisible(!history.empty());
  superseded_ = ExportHistory::supersededIDs(history);
  // As many rows as there were (the keys may be on the last of them), a batch at least. A row's
  // button that has the keys (its export just taken back) hands them to the same button of the row
  // in its place.
  // The layout is remade whole: no row is added to it meanwhile, as the keys or the scroll bar move.
  const int count = std::max(made_, kRowBatch);
  rest_ = nullptr;
  rebuildRows(
      rows_,
      [this, count] {
        made_ = 0;
        addRows(count);
      },
      nullptr);
  rest_ = new QSpacerItem(0, 0, QSizePolicy::Minimum, QSizePolicy::Fixed);
  rows_->addItem(rest_);
  rows_->addStretch(1);
  addRows(made_);
}

void ExportHistoryView::addRows(int count) {
  const auto& history = viewModel_.exportHistory();
  count = std::min(count, int(history.size()));
  for (; made_ < count; ++made_) {
    const ExportRecord& record = history[size_t(made_)];
    QWidget* row = makeRow(record, superseded_.contains(record.id));
    if (rowStep_ == 0) {
      row->ensurePolished();
      rowStep_ = row->sizeHint().height() + rows_->spacing();
    }
    rows_->insertWidget(made_, row);
    row->show();  // now, not when the layout would: Tab goes on to it, and it has its height
  }
  if (rest_) {
    rest_->changeSize(0, (int(history.size()) - made_) * rowStep_, QSizePolicy::Minimum, QSizePolicy::Fixed);
    rows_->invalidate();
  }
}

void ExportHistoryView::fillView() {
  if (!rest_ || rowStep_ == 0) return;
  const int shown = (scroll_->verticalScrollBar()->value() + scroll_->viewport()->height()) / rowStep_ + 1;
  if (shown > made_) addRows(shown + kRowBatch);
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
