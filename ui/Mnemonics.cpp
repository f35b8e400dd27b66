#include "ui/Mnemonics.h"

#include <QAction>
#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QTabWidget>

namespace quillane::ui::Mnemonics {
namespace {

// Where an object keeps the text its key was chosen from, and the text it was given.
struct Memory {
  const char* plain;
  const char* keyed;
};
constexpr Memory kOwnText{"quillanePlainText", "quillaneKeyedText"};
constexpr Memory kTabText{"quillanePlainTabText", "quillaneKeyedTabText"};
const char* const kLeftOut = "quillaneNoAccessKeys";

// A letter that a keyboard of its script types as it is: the alphabets the desktop underlines.
// Ideographs, kana, hangul and Indic letters come through an input method, so a text in those
// scripts goes without a key rather than with one nobody can press.
bool usable(QChar c) {
  if (c.isDigit()) return c.unicode() < 128;
  if (!c.isLetter()) return false;
  const QChar::Script script = c.script();
  return script == QChar::Script_Latin || script == QChar::Script_Cyrillic || script == QChar::Script_Greek;
}

// `current` with a key not in `taken`. A text this file did not write is the object's own, "&" and
// all; one it wrote is keyed again from the text it came from.
QString rekey(QObject* holder, const QString& current, QString& taken, Memory memory = kOwnText) {
  const QString plain = current == holder->property(memory.keyed).toString()
                            ? holder->property(memory.plain).toString()
                            : current;
  const QString keyed = withAccessKey(plain, taken);
  holder->setProperty(memory.plain, plain);
  holder->setProperty(memory.keyed, keyed);
  return keyed;
}

// The first widget at or under `item` that Tab reaches, a widget standing for its focus proxy.
QWidget* firstStop(QLayoutItem* item) {
  if (QLayout* layout = item->layout()) {
    for (int i = 0; i < layout->count(); ++i)
      if (QWidget* stop = firstStop(layout->itemAt(i))) return stop;
    return nullptr;
  }
  QWidget* widget = item->widget();
  if (!widget) return nullptr;
  if (widget->focusProxy()) widget = widget->focusProxy();
  if (widget->focusPolicy() & Qt::TabFocus) return widget;
  return widget->layout() ? firstStop(widget->layout()) : nullptr;
}

// A label gives the focus to its buddy only where the buddy takes it (QLabel's shortcut).
bool takesFocus(const QWidget* widget) { return widget && widget->focusPolicy() != Qt::NoFocus; }

void giveRowLabelsBuddies(QWidget* root) {
  for (QFormLayout* form : root->findChildren<QFormLayout*>()) {
    for (int row = 0; row < form->rowCount(); ++row) {
      QLayoutItem* labelItem = form->itemAt(row, QFormLayout::LabelRole);
      QLayoutItem* field = form->itemAt(row, QFormLayout::FieldRole);
      auto* label = labelItem ? qobject_cast<QLabel*>(labelItem->widget()) : nullptr;
      if (!label || !field || takesFocus(label->buddy())) continue;
      QWidget* stop = firstStop(field);
      label->setBuddy(qobject_cast<QCheckBox*>(stop) ? nullptr : stop);
    }
  }
}

bool isLeftOut(const QWidget* widget, const QWidget* root) {
  for (; widget && widget != root; widget = widget->parentWidget())
    if (widget->property(kLeftOut).toBool()) return true;
  return false;
}

}  // namespace

QString withAccessKey(const QString& text, QString& taken) {
  qsizetype pick = -1;
  for (const bool wordStartsOnly : {true, false}) {
    for (qsizetype i = 0; i < text.size() && pick < 0; ++i) {
      const QChar c = text[i];
      if (!usable(c) || taken.contains(c.toLower())) continue;
      if (wordStartsOnly && i > 0 && text[i - 1].isLetterOrNumber()) continue;
      pick = i;
    }
    if (pick >= 0) break;
  }
  QString keyed;
  keyed.reserve(text.size() + 4);
  for (qsizetype i = 0; i < text.size(); ++i) {
    if (i == pick) keyed += QLatin1Char('&');
    keyed += text[i];
    if (text[i] == QLatin1Char('&')) keyed += QLatin1Char('&');
  }
  if (pick >= 0) taken += text[pick].toLower();
  return keyed;
}

void assign(const QList<QAction*>& actions) {
  QString taken;
  for (QAction* action : actions) {
    if (action->isSeparator()) continue;
    const QString keyed = rekey(action, action->text(), taken);
    if (keyed != action->text()) action->setText(keyed);
  }
}

void assign(QMenu* menu) { assign(menu->actions()); }

void assign(QMenuBar* bar) { assign(bar->actions()); }

void keep(QMenu* menu) {
  assign(menu);
  QObject::connect(menu, &QMenu::aboutToShow, menu, [menu] { assign(menu); });
}

void assign(QTabWidget* tabs, QString& taken) {
  // Remembered by each tab's page: a tab inserted before others moves their indexes.
  for (int i = 0; i < tabs->count(); ++i) {
    const QString keyed = rekey(tabs->widget(i), tabs->tabText(i), taken, kTabText);
    if (keyed != tabs->tabText(i)) tabs->setTabText(i, keyed);
  }
}

void assignLabels(QWidget* root, QString& taken) {
  giveRowLabelsBuddies(root);
  for (QWidget* widget : root->findChildren<QWidget*>()) {
    if (isLeftOut(widget, root)) continue;
    if (auto* label = qobject_cast<QLabel*>(widget); label && label->buddy()) {
      const QString keyed = rekey(label, label->text(), taken);
      if (keyed != label->text()) label->setText(keyed);
    } else if (auto* box = qobject_cast<QCheckBox*>(widget)) {
      const QString keyed = rekey(box, box->text(), taken);
      if (keyed != box->text()) box->setText(keyed);
    }
  }
}

void leaveOut(QWidget* widget) { widget->setProperty(kLeftOut, true); }

QString literal(const QString& text) {
  QString escaped = text;
  return escaped.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

}  // namespace quillane::ui::Mnemonics
