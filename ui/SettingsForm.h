#pragma once
// Small building blocks shared by the settings panes: a secondary (grey, small, wrapping)
// note, and a pane wrapper that keeps a form at its design width inside a scroll area.
//
// GUI thread only.

#include <QString>

class QLabel;
class QWidget;

namespace quillane::ui {

// A small, secondary, word-wrapped label.
QLabel* makeNote(const QString& text, QWidget* parent);
// `pane` inside a scroll area, at most `width` wide and centred, so that long texts wrap.
QWidget* wrapPane(QWidget* pane, int width = 600);

}  // namespace quillane::ui
