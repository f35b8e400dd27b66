#include "ui/SettingsForm.h"

#include <QApplication>
#include <QComboBox>
#include <QHBoxLayout>
#include <QHelpEvent>
#include <QLabel>
#include <QMenu>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QSlider>
#include <QStyle>
#include <QToolButton>
#include <QToolTip>
#include <QVBoxLayout>
#include <algorithm>

#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/QualityControls.h"

namespace quillane::ui {

QLabel* makeNote(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setWordWrap(true);
  label->setFont(smallFont(label->font()));
  Icons::makeSecondary(label);
  return label;
}

ElidedLabel::ElidedLabel(const QString& text, Qt::TextElideMode mode, QWidget* parent)
    : QLabel(text, parent), mode_(mode) {
  setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
}

QString ElidedLabel::shownText() const {
  return fontMetrics().elidedText(text(), mode_, contentsRect().width());
}

bool ElidedLabel::event(QEvent* event) {
  if (event->type() == QEvent::ToolTip && toolTip().isEmpty() && shownText() != text()) {
    QToolTip::showText(static_cast<QHelpEvent*>(event)->globalPos(), text(), this);
    return true;
  }
  return QLabel::event(event);
}

void ElidedLabel::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  style()->drawItemText(&painter, contentsRect(), QStyle::visualAlignment(layoutDirection(), alignment()),
                        palette(), isEnabled(), shownText(), foregroundRole());
}

ElidedLabel* makeElidedNote(const QString& text, Qt::TextElideMode mode, QWidget* parent) {
  auto* label = new ElidedLabel(text, mode, parent);
  label->setFont(smallFont(label->font()));
  Icons::makeSecondary(label);
  return label;
}

QWidget* wrapPane(QWidget* pane, int width) {
  auto* scroll = new QScrollArea;
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  auto* host = new QWidget;
  auto* layout = new QHBoxLayout(host);
  layout->setContentsMargins(16, 16, 16, 16);
  layout->addStretch(0);
  pane->setMaximumWidth(width);
  layout->addWidget(pane, 1, Qt::AlignTop);
  layout->addStretch(0);
  scroll->setWidget(host);
  return scroll;
}

FormatField makeFormatField(QWidget* form, const std::function<void(ImageFormat)>& choose) {
  auto* button = new QPushButton(form);
  button->setFixedWidth(120);
  auto* menu = new QMenu(button);
  addFormatChoices(menu, choose);
  button->setMenu(menu);
  return {button, menu};
}

QualityField makeQualityField(QWidget* parent, QHBoxLayout* row, int readoutWidth,
                              std::function<void(int)> changed) {
  auto* slider = new QSlider(Qt::Horizontal, parent);
  slider->setRange(1, 100);
  // Named by itself: the form's label stands beside the row, not the slider.
  slider->setAccessibleName(Strings::text("quality.label"));
  auto* readout = new QLabel(parent);
  readout->setFixedWidth(readoutWidth);
  readout->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  QObject::connect(slider, &QSlider::valueChanged, parent, std::move(changed));
  row->addWidget(slider, 1);
  row->addWidget(readout);
  return {slider, readout};
}

FormButtons makeFormButtons(QWidget* form) {
  auto* row = new QHBoxLayout;
  row->addStretch(1);
  auto* cancel = new QPushButton(Strings::text("settings.profiles.cancelEdit"), form);
  auto* save = new QPushButton(form);
  makeProminent(save);
  row->addWidget(cancel);
  row->addWidget(save);
  return {row, cancel, save};
}

QToolButton* makeRowButton(QWidget* row, const QIcon& icon, const char* key, const QString& rowName) {
  auto* button = new QToolButton(row);
  button->setAutoRaise(true);
  button->setIcon(icon);
  button->setToolTip(Strings::text(key));
  button->setAccessibleName(Strings::text(key));
  button->setAccessibleDescription(rowName);
  return button;
}

namespace {
void collectTabStops(QLayout* layout, QList<QWidget*>& stops) {
  for (int i = 0; i < layout->count(); ++i) {
    QLayoutItem* item = layout->itemAt(i);
    if (QLayout* inner = item->layout()) {
      collectTabStops(inner, stops);
    } else if (QWidget* widget = item->widget()) {
      if ((widget->focusPolicy() & Qt::TabFocus) && !widget->focusProxy()) stops << widget;
      if (widget->layout()) collectTabStops(widget->layout(), stops);
    }
  }
}
}  // namespace

void rebuildRows(QVBoxLayout* rows, const std::function<void()>& build, QWidget* fallback) {
  int focusRow = -1;
  QString focusControl;
  if (QWidget* focus = QApplication::focusWidget()) {
    for (int i = 0; i < rows->count(); ++i) {
      QWidget* row = rows->itemAt(i)->widget();
      if (row && row->isAncestorOf(focus)) {
        focusRow = i;
        focusControl = focus->objectName();
      }
    }
  }
  while (QLayoutItem* item = rows->takeAt(0)) {
    if (QWidget* row = item->widget()) {
      row->hide();
      row->deleteLater();
    }
    delete item;
  }
  build();
  if (focusRow < 0) return;
  QWidget* target = fallback;
  if (rows->count() > 0 && !focusControl.isEmpty()) {
    QWidget* row = rows->itemAt(std::min(focusRow, rows->count() - 1))->widget();
    if (auto* same = row ? row->findChild<QWidget*>(focusControl) : nullptr) {
      row->show();  // now, not when its layout would: the focus comes to a control that shows
      target = same;
    }
  }
  if (target) target->setFocus(Qt::OtherFocusReason);
}

void nameComboBox(QComboBox* box, const char* key) {
  box->setAccessibleName(Strings::text(key));
  box->setAccessibleDescription(Strings::text(key));
}

void orderTabStops(QWidget* root) {
  QList<QWidget*> stops{root};
  collectTabStops(root->layout(), stops);
  // The focus chain is a ring, and Qt leaves a widget where it is when the stop before it, round
  // the ring, is already the one asked for: the first one is placed after the root, a stop for
  // the while.
  const Qt::FocusPolicy policy = root->focusPolicy();
  root->setFocusPolicy(Qt::TabFocus);
  for (qsizetype i = 1; i < stops.size(); ++i) QWidget::setTabOrder(stops[i - 1], stops[i]);
  root->setFocusPolicy(policy);
}

}  // namespace quillane::ui
