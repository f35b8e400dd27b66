#include "ui/SplitCompareWidget.h"

#include <QAccessible>
#include <QAccessibleValueInterface>
#include <QAccessibleWidget>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>
#include <algorithm>
#include <cmath>
#include <string>

#include "batch/BatchViewModel.h"
#include "services/Strings.h"
#include "ui/Accessible.h"
#include "ui/ComparisonGeometry.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/RowRules.h"
#include "ui/UiText.h"

namespace quillane::ui {

QImage toQImage(const DecodedImage& image) {
  if (image.empty() || image.pixels8.size() < image.pixelCount() * 4) return {};
  const QImage::Format fmt = image.alpha == AlphaInfo::premultiplied ? QImage::Format_RGBA8888_Premultiplied
                                                                     : QImage::Format_RGBA8888;
  return QImage(image.pixels8.data(), image.width, image.height, qsizetype(image.width) * 4, fmt).copy();
}

QImage toQImage(DecodedImage&& image) {
  if (image.empty() || image.pixels8.size() < image.pixelCount() * 4) return {};
  const QImage::Format fmt = image.alpha == AlphaInfo::premultiplied ? QImage::Format_RGBA8888_Premultiplied
                                                                     : QImage::Format_RGBA8888;
  // The QImage owns the pixels from here: a full picture of 48 MP is not copied.
  auto* pixels = new SampleVector<uint8_t>(std::move(image.pixels8));
  return QImage(
      pixels->data(), image.width, image.height, qsizetype(image.width) * 4, fmt,
      [](void* owned) { delete static_cast<SampleVector<uint8_t>*>(owned); }, pixels);
}

CompressedCaption compressedCaption(const ImportedImage& image) {
  const EncodeState state = image.encodeState();
  CompressedCaption caption;
  switch (state.kind) {
    case EncodeState::Kind::ready: {
      const SizeChange change = sizeChange(state.sizeBytes, image.originalSizeBytes());
      caption.change = sizeChangeText(change);
      caption.changeTone = change.reduced ? CompressedCaption::Tone::green : CompressedCaption::Tone::orange;
      caption.text = formatByteCount(state.sizeBytes) + QStringLiteral(" · ") + caption.change;
      if (const auto distance = image.butteraugli())
        caption.distance = RowRules::look(image).word + QStringLiteral(" · ") +
                           Strings::format("comparison.distanceFormat", RowRules::distanceText(*distance));
      break;
    }
    case EncodeState::Kind::encoding:
      caption.text = Strings::text("comparison.encoding");
      break;
    case EncodeState::Kind::idle:
      caption.text = Strings::text("common.dash");
      break;
    case EncodeState::Kind::failed:
      caption.text = state.message;
      caption.changeTone = CompressedCaption::Tone::red;
      break;
  }
  return caption;
}

namespace {

// Divider steps of the keyboard, and how near the divider a press takes it rather than panning.
constexpr double kStep = 0.02, kLargeStep = 0.1, kGrabDistance = 10;

// The divider as screen readers meet it: a slider from 0 (all result) to 100 (all original).
class DividerAccessible : public QAccessibleWidget, public QAccessibleValueInterface {
 public:
  explicit DividerAccessible(QWidget* widget) : QAccessibleWidget(widget, QAccessible::Slider) {}
  void* interface_cast(QAccessible::InterfaceType type) override {
    if (type == QAccessible::ValueInterface) return static_cast<QAccessibleValueInterface*>(this);
    return QAccessibleWidget::interface_cast(type);
  }
  QString text(QAccessible::Text t) const override {
    if (t == QAccessible::Name) return Strings::text("comparison.divider");
    if (t == QAccessible::Description) return Strings::text("comparison.dividerHelp");
    if (t == QAccessible::Value) return QString::number(currentValue().toInt());
    return QAccessibleWidget::text(t);
  }
  QVariant currentValue() const override { return qRound(area()->sliderFraction() * 100); }
  void setCurrentValue(const QVariant& value) override { area()->setSliderFraction(value.toDouble() / 100); }
  QVariant maximumValue() const override { return 100; }
  QVariant minimumValue() const override { return 0; }
  QVariant minimumStepSize() const override { return qRound(kStep * 100); }

 private:
  SplitCompareWidget* area() const { return static_cast<SplitCompareWidget*>(widget()); }
};

QImage checkerTile(bool dark, double dpr) {
  const int cell = 8;
  QImage tile(QSize(2 * cell, 2 * cell) * dpr, QImage::Format_RGB32);
  tile.setDevicePixelRatio(dpr);
  const QColor a = dark ? QColor(0x4a, 0x4a, 0x4e) : QColor(0xff, 0xff, 0xff);
  const QColor b = dark ? QColor(0x3a, 0x3a, 0x3e) : QColor(0xe4, 0xe4, 0xe8);
  QPainter p(&tile);
  p.fillRect(QRect(0, 0, 2 * cell, 2 * cell), a);
  p.fillRect(QRect(0, 0, cell, cell), b);
  p.fillRect(QRect(cell, cell, cell, cell), b);
  return tile;
}

}  // namespace

// ---- SplitCompareWidget ----

SplitCompareWidget::SplitCompareWidget(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                                       QWidget* parent)
    : QWidget(parent), viewModel_(viewModel), image_(std::move(image)) {
  useAccessibleInterface<SplitCompareWidget, DividerAccessible>();
  thumbnail_ = toQImage(image_->thumbnail());
  picture_ = QSize(std::max(image_->width(), 1), std::max(image_->height(), 1));
  centre_ = QPointF(picture_.width() / 2.0, picture_.height() / 2.0);
  setFocusPolicy(Qt::StrongFocus);
  setMouseTracking(true);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
  setCursor(Qt::SizeHorCursor);
  connect(image_.get(), &ImportedImage::encodeStateChanged, this, qOverload<>(&QWidget::update));
  connect(image_.get(), &ImportedImage::resultLookChanged, this, qOverload<>(&QWidget::update));
  connect(&viewModel_, &BatchViewModel::outputFormatChanged, this, qOverload<>(&QWidget::update));
}

QSize SplitCompareWidget::sizeHint() const { return picture_.boundedTo(QSize(760, 520)); }

QSize SplitCompareWidget::minimumSizeHint() const { return ComparisonGeometry::minimumArea; }

double SplitCompareWidget::fitScale() const {
  return std::min(width() / double(picture_.width()), height() / double(picture_.height()));
}

double SplitCompareWidget::scale() const { return zoom_ ? *zoom_ / devicePixelRatioF() : fitScale(); }

double SplitCompareWidget::shownFactor() const { return scale() * devicePixelRatioF(); }

bool SplitCompareWidget::pannable() const {
  const double s = scale();
  return picture_.width() * s > width() + 0.5 || picture_.height() * s > height() + 0.5;
}

QRectF SplitCompareWidget::pictureRect() const {
  const double s = scale();
  const QSizeF size(picture_.width() * s, picture_.height() * s);
  if (!zoom_) return QRectF(QPointF((width() - size.width()) / 2, (height() - size.height()) / 2), size);
  // Whole device pixels, so that at 100 % each picture pixel falls on one screen pixel.
  const double dpr = devicePixelRatioF();
  const QPointF topLeft = QPointF(width() / 2.0, height() / 2.0) - centre_ * s;
  return QRectF(QPointF(std::round(topLeft.x() * dpr) / dpr, std::round(topLeft.y() * dpr) / dpr), size);
}

double SplitCompareWidget::dividerX() const {
  const QRectF shown = pictureRect().intersected(QRectF(rect()));
  return shown.x() + shown.width() * fraction_;
}

void SplitCompareWidget::setSliderFraction(double fraction) {
  const double clamped = std::clamp(fraction, 0.0, 1.0);
  if (clamped == fraction_) return;
  fraction_ = clamped;
  update();
  if (QAccessible::isActive()) {
    QAccessibleValueChangeEvent event(this, qRound(fraction_ * 100));
    QAccessible::updateAccessibility(&event);
  }
}

void SplitCompareWidget::setCentre(QPointF centre) {
  centre_ = ComparisonGeometry::clampCentre(centre, QSizeF(picture_), QSizeF(size()), scale());
  update();
}

void SplitCompareWidget::setZoom(std::optional<double> zoom) {
  if (zoom == zoom_) return;
  // From fit the middle of the picture, wherever a former pan left it.
  if (!zoom_) centre_ = QPointF(picture_.width() / 2.0, picture_.height() / 2.0);
  zoom_ = zoom;
  setCentre(centre_);
  emit viewChanged();
}

void SplitCompareWidget::zoomBy(bool in, std::optional<QPointF> at) {
  const std::optional<double> next =
      ComparisonGeometry::zoomStep(zoom_, fitScale() * devicePixelRatioF(), in);
  if (next == zoom_) return;
  const double from = scale();
  // From fit the centre is the picture's middle, wherever a former pan left it.
  const QPointF centre = zoom_ ? centre_ : QPointF(picture_.width() / 2.0, picture_.height() / 2.0);
  zoom_ = next;
  const QPointF around = at.value_or(QPointF(width() / 2.0, height() / 2.0));
  setCentre(ComparisonGeometry::centreKeeping(around, centre, QSizeF(size()), from, scale()));
  emit viewChanged();
}

void SplitCompareWidget::panBy(QPointF logicalPixels) { setCentre(centre_ + logicalPixels / scale()); }

void SplitCompareWidget::setOriginalPreview(SidePictures pictures) {
  original_ = std::move(pictures);
  update();
}

void SplitCompareWidget::setCompressedPreview(std::optional<SidePictures> pictures) {
  compressed_ = pictures && !pictures->fit.isNull() ? std::move(pictures) : std::nullopt;
  update();
}

bool SplitCompareWidget::nearDivider(double x) const { return std::abs(x - dividerX()) <= kGrabDistance; }

void SplitCompareWidget::updateCursor(double x) {
  if (drag_ == Drag::pan)
    setCursor(Qt::ClosedHandCursor);
  else if (drag_ == Drag::divider || !pannable() || nearDivider(x))
    setCursor(Qt::SizeHorCursor);
  else
    setCursor(Qt::OpenHandCursor);
}

void SplitCompareWidget::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  const double x = event->position().x();
  if (pannable() && !nearDivider(x)) {
    drag_ = Drag::pan;
    dragStart_ = event->position();
    dragCentre_ = centre_;
  } else {
    drag_ = Drag::divider;
    const QRectF shown = pictureRect().intersected(QRectF(rect()));
    if (auto f = ComparisonGeometry::fractionAt(x - shown.x(), shown.width())) setSliderFraction(*f);
  }
  updateCursor(x);
}

void SplitCompareWidget::mouseMoveEvent(QMouseEvent* event) {
  if (drag_ == Drag::pan) {
    setCentre(dragCentre_ - (event->position() - dragStart_) / scale());
  } else if (drag_ == Drag::divider) {
    const QRectF shown = pictureRect().intersected(QRectF(rect()));
    if (auto f = ComparisonGeometry::fractionAt(event->position().x() - shown.x(), shown.width()))
      setSliderFraction(*f);
  }
  updateCursor(event->position().x());
}

void SplitCompareWidget::mouseReleaseEvent(QMouseEvent* event) {
  drag_ = Drag::none;
  updateCursor(event->position().x());
}

void SplitCompareWidget::wheelEvent(QWheelEvent* event) {
  if (event->modifiers() & Qt::ControlModifier) {
    wheelZoom_ += event->angleDelta().y();
    // One step a notch; a touchpad's small deltas add up to one.
    while (std::abs(wheelZoom_) >= 120) {
      const bool in = wheelZoom_ > 0;
      wheelZoom_ -= in ? 120 : -120;
      zoomBy(in, event->position());
    }
    event->accept();
    return;
  }
  if (!pannable()) {
    event->ignore();
    return;
  }
  QPointF delta = event->pixelDelta().isNull() ? QPointF(event->angleDelta()) / 120.0 * 60.0
                                               : QPointF(event->pixelDelta());
  if ((event->modifiers() & Qt::ShiftModifier) && delta.x() == 0) delta = QPointF(delta.y(), 0);
  panBy(-delta);
  event->accept();
}

bool SplitCompareWidget::handleKey(QKeyEvent* event) {
  const Qt::KeyboardModifiers mods = event->modifiers() & ~Qt::KeypadModifier;
  const bool ctrl = mods == Qt::ControlModifier;
  const double pan = std::max(width(), height()) / 8.0;
  switch (event->key()) {
    case Qt::Key_Left:
    case Qt::Key_Right: {
      const double sign = event->key() == Qt::Key_Left ? -1 : 1;
      if (ctrl)
        panBy(QPointF(sign * pan, 0));
      else if (mods == Qt::NoModifier || mods == Qt::ShiftModifier)
        setSliderFraction(fraction_ + sign * (mods == Qt::ShiftModifier ? kLargeStep : kStep));
      else
        return false;
      return true;
    }
    case Qt::Key_PageUp:
    case Qt::Key_PageDown:
      // As a slider's: Page Up moves the value up, the divider to the right.
      if (mods != Qt::NoModifier) return false;
      setSliderFraction(fraction_ + (event->key() == Qt::Key_PageUp ? kLargeStep : -kLargeStep));
      return true;
    case Qt::Key_Home:
    case Qt::Key_End:
      if (mods != Qt::NoModifier) return false;
      setSliderFraction(event->key() == Qt::Key_Home ? 0.0 : 1.0);
      return true;
    case Qt::Key_Up:
    case Qt::Key_Down:
      if (!ctrl) return false;
      panBy(QPointF(0, event->key() == Qt::Key_Up ? -pan : pan));
      return true;
    default:
      break;
  }
  // Zoom keys: "+" often needs Shift, so Shift is let through; Ctrl with them is the quality's.
  if (mods & ~Qt::ShiftModifier) return false;
  switch (event->key()) {
    case Qt::Key_Plus:
    case Qt::Key_Equal:
      zoomBy(true);
      return true;
    case Qt::Key_Minus:
    case Qt::Key_Underscore:
      zoomBy(false);
      return true;
    case Qt::Key_0:
      setZoom(std::nullopt);
      return true;
    case Qt::Key_1:
    case Qt::Key_2:
    case Qt::Key_4:
      setZoom(event->key() == Qt::Key_1 ? 1.0 : event->key() == Qt::Key_2 ? 2.0 : 4.0);
      return true;
    default:
      return false;
  }
}

void SplitCompareWidget::keyPressEvent(QKeyEvent* event) {
  if (!handleKey(event)) QWidget::keyPressEvent(event);
}

void SplitCompareWidget::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  setCentre(centre_);
  emit viewChanged();
}

void SplitCompareWidget::paintSide(QPainter& painter, const SidePictures& side, const QRectF& clip) const {
  const QRectF picture = pictureRect();
  const QRectF target = picture.intersected(clip);
  if (target.isEmpty()) return;
  // The full picture where the zoom shows more pixels than the fit's preview has.
  const QImage& fit = side.fit;
  const bool useFull = !side.full.isNull() && picture.width() * devicePixelRatioF() > fit.width() + 0.5;
  const QImage& image = useFull ? side.full : fit;
  if (image.isNull()) return;
  const double sx = image.width() / picture.width(), sy = image.height() / picture.height();
  const QRectF source((target.x() - picture.x()) * sx, (target.y() - picture.y()) * sy, target.width() * sx,
                      target.height() * sy);
  painter.save();
  // Magnified pixels stay sharp squares, as they are in the file; reduced ones are smoothed.
  painter.setRenderHint(QPainter::SmoothPixmapTransform, sx / devicePixelRatioF() > 1.0);
  painter.drawImage(target, image, source);
  painter.restore();
}

void SplitCompareWidget::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const QRectF shown = pictureRect().intersected(QRectF(rect()));
  QPainterPath rounded;
  rounded.addRoundedRect(shown, zoom_ ? 4 : 12, zoom_ ? 4 : 12);
  painter.setClipPath(rounded);

  const bool dark = palette().color(QPalette::Window).lightness() < 128;
  const QBrush checker(checkerTile(dark, devicePixelRatioF()));
  const double x = dividerX();
  const QRectF left(shown.left(), shown.top(), x - shown.left(), shown.height());
  const QRectF right(x, shown.top(), shown.right() - x, shown.height());
  // Each half over its own checkerboard: a transparent original never shows the result through.
  if (compressed_) {
    painter.fillRect(right, checker);
    paintSide(painter, *compressed_, right);
  } else {
    QColor fill = palette().color(QPalette::WindowText);
    fill.setAlphaF(0.08);
    painter.fillRect(right, fill);
  }
  if (left.width() > 0) {
    painter.fillRect(left, checker);
    if (!original_.fit.isNull())
      paintSide(painter, original_, left);
    else if (!thumbnail_.isNull())
      paintSide(painter, SidePictures{thumbnail_, {}}, left);
  }

  // Divider: a white line with a round handle, both with a faint shadow.
  const QColor shadow(0, 0, 0, 84);
  const double lineX = x - 1;
  painter.fillRect(QRectF(lineX - 1, shown.top(), 4, shown.height()), QColor(0, 0, 0, 30));
  painter.fillRect(QRectF(lineX, shown.top(), 2, shown.height()), Qt::white);
  const QPointF centre(x, shown.center().y());
  painter.setPen(Qt::NoPen);
  painter.setBrush(shadow);
  painter.drawEllipse(centre, 18, 18);
  painter.setBrush(Qt::white);
  painter.drawEllipse(centre, 16, 16);
  painter.drawPixmap(QRectF(centre.x() - 8, centre.y() - 8, 16, 16).toRect(),
                     Icons::pixmap("arrow.left.and.right", 16, Qt::black, devicePixelRatioF(), Qt::white));
  if (hasFocus()) {  // the arrow keys move the divider: its handle shows that the keys go to it
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
    painter.drawEllipse(centre, 21, 21);
  }

  // The badges may reach past a narrow picture, over the window's background.
  painter.setClipping(false);
  paintBadge(painter, true);
  paintBadge(painter, false);
}

namespace {

struct BadgeFonts {
  QFont title, detail;
};

BadgeFonts badgeFonts(const QFont& base) {
  QFont caption = smallFont(base);
  BadgeFonts fonts{caption, caption};
  fonts.title.setBold(true);
  if (fonts.detail.pointSizeF() > 0) fonts.detail.setPointSizeF(std::max(7.5, caption.pointSizeF() * 0.92));
  return fonts;
}

// Badge geometry: 12 around, 10 across and 6 down inside.
constexpr double kBadgeOuter = 12, kBadgeInnerX = 10, kBadgeInnerY = 6;

}  // namespace

SplitCompareWidget::BadgeText SplitCompareWidget::badgeText(bool original) const {
  const BadgeFonts fonts = badgeFonts(font());
  const QFontMetricsF titleMetrics(fonts.title), detailMetrics(fonts.detail);
  const ImageFormat format = original ? image_->originalFormat() : viewModel_.outputFormat();
  BadgeText badge;
  badge.title = QString::fromUtf8(std::string(ImageFormats::label(format))).toUpper();
  QString detail;
  if (original) {
    detail = Strings::format("comparison.sizeFormat", image_->width(), image_->height(),
                             formatByteCount(image_->originalSizeBytes()));
  } else {
    const CompressedCaption caption = compressedCaption(*image_);
    detail = caption.text;
    badge.change = caption.change;
    badge.tone = caption.changeTone;
  }
  // The two badges sit in opposite corners: each may take half the width, or the whole width
  // when the area is tall enough for them not to meet. A detail too wide for that breaks at
  // its " · " rather than losing its end.
  const double lineHeight = titleMetrics.height() + 1 + detailMetrics.height() * 2 + 2 * kBadgeInnerY;
  const double span = height() >= 2 * (lineHeight + 2 * kBadgeOuter) ? width() : width() / 2.0;
  badge.maxTextWidth = span - 2 * (kBadgeOuter + kBadgeInnerX);
  if (detailMetrics.horizontalAdvance(detail) <= badge.maxTextWidth) {
    badge.detailLines = {detail};
  } else {
    for (const QString& part : detail.split(QStringLiteral(" · ")))
      badge.detailLines << detailMetrics.elidedText(part, Qt::ElideRight, badge.maxTextWidth);
  }
  if (!original) {
    const QString distance = compressedCaption(*image_).distance;
    if (!distance.isEmpty())
      badge.detailLines << detailMetrics.elidedText(distance, Qt::ElideRight, badge.maxTextWidth);
  }
  return badge;
}

void SplitCompareWidget::paintBadge(QPainter& painter, bool original) const {
  const BadgeFonts fonts = badgeFonts(font());
  const QFontMetricsF titleMetrics(fonts.title), detailMetrics(fonts.detail);
  const BadgeText badge = badgeText(original);
  double textWidth = titleMetrics.horizontalAdvance(badge.title);
  for (const QString& line : badge.detailLines)
    textWidth = std::max(textWidth, detailMetrics.horizontalAdvance(line));
  textWidth = std::min(textWidth, badge.maxTextWidth);
  const double lines = double(badge.detailLines.size());
  const QSizeF size(textWidth + 2 * kBadgeInnerX,
                    titleMetrics.height() + lines * (1 + detailMetrics.height()) + 2 * kBadgeInnerY);
  const QRectF area(0, 0, width(), height());
  const QPointF topLeft =
      original ? QPointF(area.left() + kBadgeOuter, area.bottom() - kBadgeOuter - size.height())
               : QPointF(area.right() - kBadgeOuter - size.width(), area.top() + kBadgeOuter);
  const QRectF frame(topLeft, size);
  painter.setPen(Qt::NoPen);
  painter.setBrush(QColor(0, 0, 0, 140));
  painter.drawRoundedRect(frame, 8, 8);

  const Qt::Alignment align = (original ? Qt::AlignLeft : Qt::AlignRight) | Qt::AlignVCenter;
  const QRectF inner = frame.adjusted(kBadgeInnerX, kBadgeInnerY, -kBadgeInnerX, -kBadgeInnerY);
  painter.setFont(fonts.title);
  painter.setPen(Qt::white);
  painter.drawText(QRectF(inner.left(), inner.top(), inner.width(), titleMetrics.height()), align,
                   badge.title);
  painter.setFont(fonts.detail);
  const QColor soft(255, 255, 255, 204);
  const QColor changeColour = badge.tone == CompressedCaption::Tone::green    ? QColor(0x4C, 0xD9, 0x64)
                              : badge.tone == CompressedCaption::Tone::orange ? QColor(0xFF, 0x9F, 0x0A)
                                                                              : QColor(0xFF, 0x6B, 0x60);
  double y = inner.top() + titleMetrics.height() + 1;
  for (const QString& line : badge.detailLines) {
    const QRectF lineRect(inner.left(), y, inner.width(), detailMetrics.height());
    y += detailMetrics.height() + 1;
    const bool toned = badge.tone != CompressedCaption::Tone::plain;
    if (toned && (badge.tone == CompressedCaption::Tone::red || line == badge.change)) {
      painter.setPen(changeColour);
      painter.drawText(lineRect, align, line);
    } else if (toned && !badge.change.isEmpty() && line.endsWith(badge.change)) {
      // "size · " in soft white, the change in green or orange, right-aligned together.
      const double changeWidth = detailMetrics.horizontalAdvance(badge.change);
      painter.setPen(soft);
      painter.drawText(lineRect.adjusted(0, 0, -changeWidth, 0), align,
                       line.left(line.size() - badge.change.size()));
      painter.setPen(changeColour);
      painter.drawText(lineRect, align, badge.change);
    } else {
      painter.setPen(soft);
      painter.drawText(lineRect, align, line);
    }
  }
}

}  // namespace quillane::ui
