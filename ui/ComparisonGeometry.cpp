#include "ui/ComparisonGeometry.h"

#include <algorithm>
#include <cmath>

namespace quillane::ui::ComparisonGeometry {

namespace {
// Factors closer than this count as equal: a fit of 0.99999 is 1.
constexpr double kEpsilon = 1e-6;

double clampAxis(double centre, double picture, double view, double scale) {
  const double half = view / (2 * scale);
  if (picture <= 2 * half) return picture / 2;
  return std::clamp(centre, half, picture - half);
}
}  // namespace

std::optional<double> fractionAt(double x, double areaWidth) {
  if (!(areaWidth > 0)) return std::nullopt;
  return std::clamp(x / areaWidth, 0.0, 1.0);
}

std::optional<double> zoomStep(std::optional<double> zoom, double fitFactor, bool in) {
  const double shown = zoom ? *zoom : fitFactor;
  if (in) {
    for (double level : zoomLevels)
      if (level > shown + kEpsilon) return level;
    return zoom;
  }
  for (auto level = zoomLevels.rbegin(); level != zoomLevels.rend(); ++level)
    if (*level<shown - kEpsilon&& * level> fitFactor + kEpsilon) return *level;
  return std::nullopt;
}

QPointF clampCentre(QPointF centre, QSizeF picture, QSizeF view, double scale) {
  if (!(scale > 0)) return {picture.width() / 2, picture.height() / 2};
  return {clampAxis(centre.x(), picture.width(), view.width(), scale),
          clampAxis(centre.y(), picture.height(), view.height(), scale)};
}

QPointF centreKeeping(QPointF at, QPointF centre, QSizeF view, double from, double to) {
  const QPointF offset = at - QPointF(view.width() / 2, view.height() / 2);
  const QPointF under = centre + offset / from;
  return under - offset / to;
}

QRect keptInside(QRect rect, QRect available) {
  rect.setWidth(std::min(rect.width(), available.width()));
  rect.setHeight(std::min(rect.height(), available.height()));
  rect.moveLeft(std::clamp(rect.left(), available.left(), available.right() - rect.width() + 1));
  rect.moveTop(std::clamp(rect.top(), available.top(), available.bottom() - rect.height() + 1));
  return rect;
}

QRect openingRect(QSize picture, double dpr, QSize chrome, QRect available, QPoint anchor) {
  const double ratio = dpr > 0 ? dpr : 1.0;
  const QSize largest(int(available.width() * screenShare), int(available.height() * screenShare));
  const QSize smallest = minimumWindow.boundedTo(largest);
  QSize size(int(std::ceil(picture.width() / ratio)) + chrome.width(),
             int(std::ceil(picture.height() / ratio)) + chrome.height());
  size = size.boundedTo(largest).expandedTo(smallest);
  QRect rect(QPoint(), size);
  rect.moveCenter(anchor);
  return keptInside(rect, available);
}

}  // namespace quillane::ui::ComparisonGeometry
