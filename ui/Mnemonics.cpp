#include "ui/Mnemonics.h"

#include <QAction>
#include <QMenu>
#include <QMenuBar>

namespace quillane::ui::Mnemonics {
namespace {

const char* const kPlainText = "quillanePlainText";
const char* const kKeyedText = "quillaneKeyedText";

// A letter that a keyboard of its script types as it is: the alphabets the desktop underlines.
// Ideographs, kana, hangul and Indic letters come through an input method, so a text in those
// scripts goes without a key rather than with one nobody can press.
bool usable(QChar c) {
  if (c.isDigit()) return c.unicode() < 128;
  if (!c.isLetter()) return false;
  const QChar::Script script = c.script();
  return script == QChar::Script_Latin || script == QChar::Script_Cyrillic || script == QChar::Script_Greek;
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
    // A text this function did not write is the entry's own, "&" and all.
    const QString current = action->text();
    const QString plain = current == action->property(kKeyedText).toString()
                              ? action->property(kPlainText).toString()
                              : current;
    const QString keyed = withAccessKey(plain, taken);
    action->setProperty(kPlainText, plain);
    action->setProperty(kKeyedText, keyed);
    if (keyed != current) action->setText(keyed);
  }
}

void assign(QMenu* menu) { assign(menu->actions()); }

void assign(QMenuBar* bar) { assign(bar->actions()); }

void keep(QMenu* menu) {
  assign(menu);
  QObject::connect(menu, &QMenu::aboutToShow, menu, [menu] { assign(menu); });
}

QString literal(const QString& text) {
  QString escaped = text;
  return escaped.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

}  // namespace quillane::ui::Mnemonics
