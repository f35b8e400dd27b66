#include "ui/ChoiceButton.h"

#include <QAccessibleWidget>

namespace quillane::ui {
namespace {

class ChoiceAccessible : public QAccessibleWidget {
 public:
  explicit ChoiceAccessible(QWidget* widget) : QAccessibleWidget(widget, QAccessible::RadioButton) {}
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
  QStringList actionNames() const override {
    return QStringList(pressAction()) << QAccessibleWidget::actionNames();
  }
  void doAction(const QString& name) override {
    if (name == pressAction())
      button()->click();
    else
      QAccessibleWidget::doAction(name);
  }

 private:
  ChoiceButton* button() const { return static_cast<ChoiceButton*>(widget()); }
};

QAccessibleInterface* choiceAccessible(const QString& className, QObject* object) {
  if (className == QLatin1String(ChoiceButton::staticMetaObject.className()) && object->isWidgetType())
    return new ChoiceAccessible(static_cast<QWidget*>(object));
  return nullptr;
}

}  // namespace

ChoiceButton::ChoiceButton(QWidget* parent) : QToolButton(parent) {
  static const bool factoryInstalled = [] {
    QAccessible::installFactory(choiceAccessible);
    return true;
  }();
  (void)factoryInstalled;
  setCheckable(true);
}

}  // namespace quillane::ui
