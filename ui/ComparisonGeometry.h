#pragma once
// The measures of the comparison window: its zoom steps, where the picture sits under a zoom
// and a pan, and the window's size when it opens. Stateless; any thread.

#include <QPointF>
#include <QRect>
#include <QSize>
#include <QSizeF>
#include <array>
#include <optional>

namespace quillane::ui::ComparisonGeometry {

// The zooms beyond fit, in device pixels a picture pixel: at 1 one pixel of the picture is one
// pixel of the screen, whatever the scale factor.
inline constexpr std::array<double, 3> zoomLevels{1.0, 2.0, 4.0};

// The smallest area the picture keeps, and the share of the screen the window opens in at most.
inline constexpr QSize minimumArea{240, 160};
inline constexpr QSize minimumWindow{520, 380};
inline constexpr double screenShare = 0.9;

// The divider position for a pointer at `x` over an area `areaWidth` wide, held to 0...1;
// nothing when the area has no width.
std::optional<double> fractionAt(double x, double areaWidth);

// The zoom one step in or out of `zoom` (nothing is fit), where fit shows the picture at
// `fitFactor` device pixels a picture pixel. In: the first level above what shows now (no
// change past the last). Out: the last level below what shows now while it is larger than
// fit, else fit.
std::optional<double> zoomStep(std::optional<double> zoom, double fitFactor, bool in);

// The picture point shown at the view's centre, held so that a picture wider (taller) than the
// view always covers it and a narrower (shorter) one sits in its middle. `picture` in picture
// pixels, `view` in logical pixels, `scale` logical pixels a picture pixel.
QPointF clampCentre(QPointF centre, QSizeF picture, QSizeF view, double scale);

// The centre that keeps the picture point under `at` (view coordinates) in place when the
// scale goes from `from` to `to`.
QPointF centreKeeping(QPointF at, QPointF centre, QSizeF view, double from, double to);

// The window's frame when nothing is remembered: the picture at 100 % (its pixels over `dpr`)
// plus `chrome`, at most screenShare of `available` and at least minimumWindow (as far as the
// screen has room), centred on `anchor` and wholly inside `available`.
QRect openingRect(QSize picture, double dpr, QSize chrome, QRect available, QPoint anchor);

// `rect` moved, and shrunk where it must be, to lie wholly inside `available`.
QRect keptInside(QRect rect, QRect available);

}  // namespace quillane::ui::ComparisonGeometry
