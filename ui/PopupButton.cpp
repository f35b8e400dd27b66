#include "ui/PopupButton.h"

#include <QAccessibleWidget>

namespace quillane::ui {
namespace {

class PopupButtonAccessible : public QAccessibleWidget {
 public:
  explicit PopupButtonAccessible(QWidget* widget) : QAccessibleWidget(widget, QAccessible::Button) {}
  QAccessible::State state() const override {
    QAccessible::State state = QAccessibleWidget::state();
    state.hasPopup = true;
    return state;
  }
  QStringList actionNames() const override {
    return QStringList(pressAction()) << QAccessibleWidget::actionNames();
  }
  void doAction(const QString& name) override {
    if (name == pressAction())
      static_cast<PopupButton*>(widget())->click();
    else
      QAccessibleWidget::doAction(name);
  }
};

QAccessibleInterface* popupButtonAccessible(const QString& className, QObject* object) {
  if (className == QLatin1String(PopupButton::staticMetaObject.className()) && object->isWidgetType())
    return new PopupButtonAccessible(static_cast<QWidget*>(object));
  return nullptr;
}

}  // namespace

PopupButton::PopupButton(QWidget* parent) : QToolButton(parent) {
  static const bool factoryInstalled = [] {
    QAccessible::installFactory(popupButtonAccessible);
    return true;
  }();
  (void)factoryInstalled;
}

}  // namespace quillane::ui
