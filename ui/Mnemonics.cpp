#include "ui/Mnemonics.h"

#include <QAbstractButton>
#include <QAction>
#include <QCheckBox>
#include <QFormLayout>
#include <QHash>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QSet>
#include <QTabWidget>
#include <QToolButton>
#include <algorithm>
#include <functional>
#include <utility>

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
// On a root given keys: those it was given as taken, beside the keys of its own controls.
const char* const kOthersKeys = "quillaneOthersAccessKeys";

// A letter that a keyboard of its script types as it is: the alphabets the desktop underlines.
// Ideographs, kana, hangul and Indic letters come through an input method, so a text in those
// scripts goes without a key rather than with one nobody can press.
bool usable(QChar c) {
  if (c.isDigit()) return c.unicode() < 128;
  if (!c.isLetter()) return false;
  const QChar::Script script = c.script();
  return script == QChar::Script_Latin || script == QChar::Script_Cyrillic || script == QChar::Script_Greek;
}

// Where in `text` a key could go, on a letter not in `taken`, best first: the first letters of
// words, then the others.
QList<qsizetype> keyPlaces(const QString& text, const QString& taken) {
  QList<qsizetype> places;
  for (const bool wordStarts : {true, false})
    for (qsizetype i = 0; i < text.size(); ++i)
      if (usable(text[i]) && !taken.contains(text[i].toLower()) &&
          (i == 0 || !text[i - 1].isLetterOrNumber()) == wordStarts)
        places << i;
  return places;
}

// The text `current` is keyed from. A text this file did not write is the object's own, "&" and
// all; one it wrote comes from the text it remembers.
QString plainText(const QObject* holder, const QString& current, Memory memory = kOwnText) {
  return current == holder->property(memory.keyed).toString() ? holder->property(memory.plain).toString()
                                                              : current;
}

// `current` with a key not in `taken`, keyed again from its plain text.
QString rekey(QObject* holder, const QString& current, QString& taken, Memory memory = kOwnText) {
  const QString plain = plainText(holder, current, memory);
  QString keyed = withAccessKey(plain, taken);
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

bool showsText(const QAbstractButton* button) {
  const auto* tool = qobject_cast<const QToolButton*>(button);
  return !button->text().isEmpty() && !(tool && tool->toolButtonStyle() == Qt::ToolButtonIconOnly);
}

// The labels and buttons under `root` whose texts carry their keys, in the order they were made.
QList<QWidget*> keyHolders(QWidget* root) {
  const QList<QWidget*> all = root->findChildren<QWidget*>();
  QSet<const QWidget*> buddies;
  for (QWidget* widget : all)
    if (auto* label = qobject_cast<QLabel*>(widget); label && label->buddy()) buddies.insert(label->buddy());
  QList<QWidget*> holders;
  for (QWidget* widget : all) {
    if (isLeftOut(widget, root)) continue;
    if (auto* label = qobject_cast<QLabel*>(widget)) {
      if (label->buddy()) holders << widget;
    } else if (auto* button = qobject_cast<QAbstractButton*>(widget)) {
      if (showsText(button) && !buddies.contains(button)) holders << widget;
    }
  }
  return holders;
}

QString textOf(const QWidget* holder) {
  if (auto* label = qobject_cast<const QLabel*>(holder)) return label->text();
  return static_cast<const QAbstractButton*>(holder)->text();
}

void setTextOf(QWidget* holder, const QString& text) {
  if (text == textOf(holder)) return;
  if (auto* label = qobject_cast<QLabel*>(holder))
    label->setText(text);
  else
    static_cast<QAbstractButton*>(holder)->setText(text);
}

// The letters `text` could be keyed on, not in `taken`, each once and best first.
QString candidates(const QString& text, const QString& taken) {
  QString letters;
  for (const qsizetype i : keyPlaces(text, taken))
    if (!letters.contains(text[i].toLower())) letters += text[i].toLower();
  return letters;
}

// A letter of its own, from its `options`, for as many texts as can have one (null for the
// others): those with the fewest options choose first, each its first free one, and one left
// without takes the letter of another that can move to one of its own others.
QList<QChar> matchLetters(const QStringList& options) {
  QList<qsizetype> order;
  for (qsizetype i = 0; i < options.size(); ++i) order << i;
  std::stable_sort(order.begin(), order.end(),
                   [&](qsizetype a, qsizetype b) { return options[a].size() < options[b].size(); });
  QList<QChar> keys(options.size());
  QHash<QChar, qsizetype> holder;
  QSet<QChar> seen;
  const std::function<bool(qsizetype)> place = [&](qsizetype i) {
    for (const QChar c : options[i]) {
      if (seen.contains(c)) continue;
      seen.insert(c);
      const qsizetype owner = holder.value(c, -1);
      if (owner >= 0 && !place(owner)) continue;
      keys[i] = c;
      holder[c] = i;
      return true;
    }
    return false;
  };
  for (const qsizetype i : order) {
    for (const QChar c : options[i]) {
      if (holder.contains(c)) continue;
      keys[i] = c;
      holder[c] = i;
      break;
    }
  }
  for (const qsizetype i : order) {
    if (!keys[i].isNull()) continue;
    seen.clear();
    place(i);
  }
  return keys;
}

}  // namespace

QString withAccessKey(const QString& text, QString& taken) {
  const QList<qsizetype> places = keyPlaces(text, taken);
  const qsizetype pick = places.isEmpty() ? -1 : places.first();
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

void assignControls(QWidget* root, QString& taken) {
  giveRowLabelsBuddies(root);
  root->setProperty(kOthersKeys, taken);
  // Chosen together rather than in turn, so that a short "Add" keeps a letter that a longer label,
  // which has others, would have taken first.
  const QList<QWidget*> holders = keyHolders(root);
  QStringList plains;
  QStringList options;
  for (QWidget* holder : holders) {
    plains << plainText(holder, textOf(holder));
    options << candidates(plains.last(), taken);
  }
  const QList<QChar> keys = matchLetters(options);
  const QString others = taken;
  for (qsizetype i = 0; i < holders.size(); ++i) {
    QString blocked = others + options[i];  // all but its own letter
    if (!keys[i].isNull()) blocked.remove(keys[i]);
    const QString keyed = withAccessKey(plains[i], blocked);
    holders[i]->setProperty(kOwnText.plain, plains[i]);
    holders[i]->setProperty(kOwnText.keyed, keyed);
    setTextOf(holders[i], keyed);
    if (!keys[i].isNull()) taken += keys[i];
  }
}

void setText(QAbstractButton* button, const QString& text) {
  if (text == button->property(kOwnText.plain).toString() &&
      button->text() == button->property(kOwnText.keyed).toString())
    return;
  button->setText(text);
  // Its page keyed anew with it, once the page has keys: all of them are chosen from the texts.
  QWidget* root = button->parentWidget();
  while (root && !root->property(kOthersKeys).isValid()) root = root->parentWidget();
  if (!root) return;
  QString taken = root->property(kOthersKeys).toString();
  assignControls(root, taken);
}

void leaveOut(QWidget* widget) { widget->setProperty(kLeftOut, true); }

QString literal(const QString& text) {
  QString escaped = text;
  return escaped.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

}  // namespace quillane::ui::Mnemonics
