#pragma once
// Screen readers' view of widgets of ours that Qt's own would misname: the factory that gives
// a widget class its interface, and a button's interface that they can press.
//
// GUI thread only.

#include <QAbstractButton>
#include <QAccessible>
#include <QAccessibleWidget>

namespace quillane::ui {

// Screen readers meet every widget of class `Widget` through an `Interface` made from it. Call
// it from the widget's constructor: the factory is installed once.
template <typename Widget, typename Interface>
void useAccessibleInterface() {
  static const bool installed = [] {
    QAccessible::installFactory([](const QString& className, QObject* object) -> QAccessibleInterface* {
      if (className != QLatin1String(Widget::staticMetaObject.className()) || !object->isWidgetType())
        return nullptr;
      return new Interface(static_cast<QWidget*>(object));
    });
    return true;
  }();
  (void)installed;
}

// A button in the `role` given, which screen readers press as they would a push button.
class PressableAccessible : public QAccessibleWidget {
 public:
  PressableAccessible(QWidget* button, QAccessible::Role role) : QAccessibleWidget(button, role) {}
  QStringList actionNames() const override {
    return QStringList(pressAction()) << QAccessibleWidget::actionNames();
  }
  void doAction(const QString& name) override {
    if (name == pressAction())
      static_cast<QAbstractButton*>(widget())->click();
    else
      QAccessibleWidget::doAction(name);
  }
};

}  // namespace quillane::ui
