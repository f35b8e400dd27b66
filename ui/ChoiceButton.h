#pragma once
// ChoiceButton: a checkable tool button that is one of several choices of which one holds (the
// buttons of an exclusive QButtonGroup), as the comparison's zoom levels are. Screen readers
// meet it as a radio button, checked or not, where Qt would give any checkable tool button as a
// check box, a toggle of its own.
//
// GUI thread only.

#include <QToolButton>

namespace quillane::ui {

class ChoiceButton : public QToolButton {
  Q_OBJECT
 public:
  explicit ChoiceButton(QWidget* parent = nullptr);
};

}  // namespace quillane::ui
