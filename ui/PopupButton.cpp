#include "ui/PopupButton.h"

#include "ui/Accessible.h"

namespace quillane::ui {
namespace {

class PopupButtonAccessible : public PressableAccessible {
 public:
  explicit PopupButtonAccessible(QWidget* widget) : PressableAccessible(widget, QAccessible::Button) {}
  QAccessible::State state() const override {
    QAccessible::State state = QAccessibleWidget::state();
    state.hasPopup = true;
    return state;
  }
};

}  // namespace

PopupButton::PopupButton(QWidget* parent) : QToolButton(parent) {
  useAccessibleInterface<PopupButton, PopupButtonAccessible>();
}

}  // namespace quillane::ui
