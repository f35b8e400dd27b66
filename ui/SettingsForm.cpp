#include "ui/SettingsForm.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QScrollArea>

#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"

namespace quillane::ui {

QLabel* makeNote(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setWordWrap(true);
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

}  // namespace quillane::ui
