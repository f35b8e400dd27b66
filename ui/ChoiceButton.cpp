#include "ui/ChoiceButton.h"

#include "ui/Accessible.h"

namespace quillane::ui {
namespace {

class ChoiceAccessible : public PressableAccessible {
 public:
  explicit ChoiceAccessible(QWidget* widget) : PressableAccessible(widget, QAccessible::RadioButton) {}
  QAccessible::State state() const override {
    QAccessible::State state = QAccessibleWidget::state();
    state.checkable = true;
    state.checked = button()->isChecked();
    return state;
  }
  QString text(QAccessible::Text t) const override {
    const QString text = QAccessibleWidget::text(t);
    return t == QAccessible::Name && text.isEmpty() ? button()->text() : text;
  }

 private:
  ChoiceButton* button() const { return static_cast<ChoiceButton*>(widget()); }
};

}  // namespace

ChoiceButton::ChoiceButton(QWidget* parent) : QToolButton(parent) {
  useAccessibleInterface<ChoiceButton, ChoiceAccessible>();
  setCheckable(true);
}

}  // namespace quillane::ui
