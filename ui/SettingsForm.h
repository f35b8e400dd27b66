#pragma once
// Small building blocks shared by the settings panes: a secondary (grey, small, wrapping)
// note, a label elided to its room (the comparison's name uses it too), a pane wrapper that
// keeps a form at its design width inside a scroll area, and the fields and buttons the
// profile and hot folder forms share.
//
// GUI thread only.

#include <QLabel>
#include <QString>
#include <functional>

#include "engine/ImageFormat.h"

class QHBoxLayout;
class QIcon;
class QMenu;
class QPushButton;
class QSlider;
class QComboBox;
class QToolButton;
class QVBoxLayout;
class QWidget;

namespace quillane::ui {

// A small, secondary, word-wrapped label.
QLabel* makeNote(const QString& text, QWidget* parent);
// A one-line label that takes no width of its own and shows as much of its text as fits, an
// ellipsis where it is cut (`mode`: a path keeps its start and its end, a name its start).
// text() stays whole, for screen readers, and a cut text shows whole as the tooltip unless
// one is set.
class ElidedLabel : public QLabel {
 public:
  ElidedLabel(const QString& text, Qt::TextElideMode mode, QWidget* parent);

 protected:
  bool event(QEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  QString shownText() const;

  Qt::TextElideMode mode_;
};
// makeNote's look, on one elided line.
ElidedLabel* makeElidedNote(const QString& text, Qt::TextElideMode mode, QWidget* parent);

// `pane` inside a scroll area, at most `width` wide and centred, so that long texts wrap.
QWidget* wrapPane(QWidget* pane, int width = 600);

// A format button with its exclusive menu of the six formats; `choose` gets the one picked.
struct FormatField {
  QPushButton* button;
  QMenu* menu;
};
FormatField makeFormatField(QWidget* form, const std::function<void(ImageFormat)>& choose);

// A quality slider from 1 to 100 and its right-aligned readout `readoutWidth` pixels wide,
// added to `row`; `changed` gets every new value.
struct QualityField {
  QSlider* slider;
  QLabel* readout;
};
QualityField makeQualityField(QWidget* parent, QHBoxLayout* row, int readoutWidth,
                              std::function<void(int)> changed);

// The Cancel and Save buttons that end a form, on one right-aligned row, Save the prominent
// one; their texts, states and actions are the pane's.
struct FormButtons {
  QHBoxLayout* row;
  QPushButton* cancel;
  QPushButton* save;
};
FormButtons makeFormButtons(QWidget* form);

// An icon-only button of a list's row that does `key`'s text, shown in its tooltip and read by
// screen readers, with `rowName` (which row it acts on) as its description.
QToolButton* makeRowButton(QWidget* row, const QIcon& icon, const char* key, const QString& rowName);

// Replaces the rows of `rows` with those `build` adds: the old ones go once the event that made
// them is handled (a row's own button may be its cause). Were the keys on a row's control, they go
// to that control of the row now in its place (the next one, when a row was deleted), else of the
// last row, else to `fallback`: a keyboard's place is not lost with the row it was on.
void rebuildRows(QVBoxLayout* rows, const std::function<void()>& build, QWidget* fallback);

// Names `box` by `key`'s text, for screen readers, also as its description: on Linux they hear
// a combo box's current text as its name.
void nameComboBox(QComboBox* box, const char* key);

// Puts the Tab stops under `root` in the order of its layout, top to bottom and each row's fields
// in turn: rows made after the form below them would otherwise be reached after it.
void orderTabStops(QWidget* root);

}  // namespace quillane::ui
