#pragma once
// The symbols the views show, by name ("plus", "trash", "exclamationmark.triangle.fill"). Each
// has a bundled monochrome SVG of that name (ui/resources/icons), drawn in the palette's text
// colour so that it reads in light and dark palettes alike; the desktop's icon theme is
// preferred where it has a matching freedesktop name.
//
// GUI thread only.

#include <QColor>
#include <QIcon>
#include <QPixmap>
#include <QString>
#include <functional>

class QLabel;
class QWidget;

namespace quillane::ui::Icons {

// The desktop theme's icon for `symbol` when the theme has one, else the bundled symbol in
// the palette's button-text colour (greyed when disabled).
QIcon icon(const QString& symbol);

// The bundled symbol in a fixed colour (the orange warning, the accent quality button).
QIcon tinted(const QString& symbol, const QColor& color);

// The bundled symbol rendered at `size` logical pixels in `color`; parts drawn in white in the
// SVG take `cutout` (the background it sits on). Cached.
QPixmap pixmap(const QString& symbol, int size, const QColor& color, qreal devicePixelRatio = 1.0,
               const QColor& cutout = Qt::white);

// Whether a bundled SVG exists for `symbol`.
bool hasSymbol(const QString& symbol);

// The application icon (the theme's "com.quillane.Quillane", else the bundled SVG).
QIcon applicationIcon();

// Colours by role (secondary text, accent, warning...), from the current palette where it has one.
QColor secondaryColor(const QPalette& palette);
// Sets a label's text colour to secondaryColor() of its parent's palette, and again whenever
// the palette changes.
void makeSecondary(QLabel* label);
// Runs `apply` now, and again whenever `widget`'s palette changes (the desktop switched between
// light and dark while the program runs), once every widget has its new palette: for what was
// drawn or set in colours of the palette, which would otherwise keep the old ones.
void followPalette(QWidget* widget, std::function<void()> apply);
QColor accentColor(const QPalette& palette);
QColor orangeColor();
QColor greenColor(const QPalette& palette);
QColor redColor(const QPalette& palette);

}  // namespace quillane::ui::Icons
