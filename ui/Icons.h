#pragma once
// The symbols the views show, by the names the design gives them ("plus", "trash",
// "exclamationmark.triangle.fill"). Each has a bundled monochrome SVG (ui/resources/icons),
// drawn in the palette's text colour so that it reads in light and dark palettes alike; the
// desktop's icon theme is preferred where it has a matching freedesktop name.
//
// GUI thread only.

#include <QColor>
#include <QIcon>
#include <QPixmap>
#include <QString>

class QLabel;

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

// Colours the design names by role, taken from the current palette where it has one.
QColor secondaryColor(const QPalette& palette);
// Sets a label's text colour to secondaryColor() of its own palette.
void makeSecondary(QLabel* label);
QColor accentColor(const QPalette& palette);
QColor orangeColor();
QColor greenColor(const QPalette& palette);
QColor redColor(const QPalette& palette);

}  // namespace quillane::ui::Icons
