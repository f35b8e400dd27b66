#pragma once
// PopupButton: a tool button that opens a popup of its own (the size options, the export
// history). Screen readers meet it as a button with a popup, where Qt would give one drawn
// checked, to show that its options are on, as a check box: its description says what is on.
//
// GUI thread only.

#include <QToolButton>

namespace quillane::ui {

class PopupButton : public QToolButton {
  Q_OBJECT
 public:
  explicit PopupButton(QWidget* parent = nullptr);
};

}  // namespace quillane::ui
