#pragma once
// Access keys for menus, as the desktop underlines them: each entry of a menu gets a letter of its
// own text (the first letter of a word before any other), chosen so that no two entries of one
// menu share one in whatever language the texts are. A "&" of the text itself, in a profile
// named "R&D", shows as itself.
//
// GUI thread only.

#include <QString>

class QAction;
class QMenu;
class QMenuBar;
template <typename T>
class QList;

namespace quillane::ui::Mnemonics {

// `text` with an access key on its first usable letter not in `taken`, which then holds it too;
// the text unchanged but for its own "&" doubled when none is left.
QString withAccessKey(const QString& text, QString& taken);

// Gives the entries of `actions` their access keys. A text set since the last call (undo's step
// name, a list rebuilt) is taken as it is; one given its key here keeps it.
void assign(const QList<QAction*>& actions);
void assign(QMenu* menu);
void assign(QMenuBar* bar);
// Assigns now and each time the menu opens, for texts that change meanwhile.
void keep(QMenu* menu);

// `text` shown as it is on a button, where a "&" would otherwise mark an access key.
QString literal(const QString& text);

}  // namespace quillane::ui::Mnemonics
