#pragma once
// Access keys for menus and forms, as the desktop underlines them: each entry of a menu, or each
// label or button of a form, gets a letter of its own text (the first letter of a word before any
// other), chosen so that no two that one Alt press can reach share one in whatever language the
// texts are. A "&" of the text itself, in a profile named "R&D", shows as itself.
//
// GUI thread only.

#include <QString>

class QAbstractButton;
class QAction;
class QMenu;
class QMenuBar;
class QTabWidget;
class QWidget;
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

// Gives each tab of `tabs` an access key not in `taken`, which then holds them too.
void assign(QTabWidget* tabs, QString& taken);

// Gives the labels of fields and the buttons under `root` access keys not in `taken` (which then
// holds them too): every label with a buddy, and every button that shows a text and is no label's
// buddy (a value shown on a button a label names is no key), chosen together so that as many
// have one as their letters allow. A form's row label without a buddy that can take the focus gets its
// field's first Tab stop, unless that is a check box, which carries a key of its own (the label then has
// none). A widget passed to leaveOut and what is under it go without keys.
void assignControls(QWidget* root, QString& taken);
// Shows `text` on `button`, a button whose text changes ("Add", then "Save Changes"): once its
// page has been given keys, the page's are chosen again with it.
void setText(QAbstractButton* button, const QString& text);
// Leaves `widget` and its children without keys: a list whose rows repeat one text.
void leaveOut(QWidget* widget);

// `text` shown as it is on a button, where a "&" would otherwise mark an access key.
QString literal(const QString& text);

}  // namespace quillane::ui::Mnemonics
