#include "ui/ComparisonView.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <QThread>
#include <QThreadPool>
#include <QToolButton>
#include <QVBoxLayout>
#include <string>
#include <vector>

#include "batch/BatchViewModel.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/ImageDecoder.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/RowRules.h"
#include "ui/UiText.h"

namespace quillane::ui {

namespace ComparisonGeometry {

QSizeF areaSize(int width, int height) {
  const double aspect = height < 1 ? 1.0 : double(width) / double(height);
  const double h = maxWidth / aspect;
  if (maxHeight < h) return {maxHeight * aspect, maxHeight};
  return {maxWidth, h};
}

std::optional<double> fractionAt(double x, double areaWidth) {
  if (!(areaWidth > 0)) return std::nullopt;
  return std::clamp(x / areaWidth, 0.0, 1.0);
}

}  // namespace ComparisonGeometry

QImage toQImage(const DecodedImage& image) {
  if (image.empty() || image.pixels8.size() < image.pixelCount() * 4) return {};
  const QImage::Format fmt = image.alpha == AlphaInfo::premultiplied ? QImage::Format_RGBA8888_Premultiplied
                                                                     : QImage::Format_RGBA8888;
  return QImage(image.pixels8.data(), image.width, image.height, image.width * 4, fmt).copy();
}

namespace {

// The preview of `source` (a file's path or its bytes), within a claim on the process's
// compression budget; a null image when it can't be decoded.
QImage previewImage(std::span<const uint8_t> bytes) {
  std::optional<DecodedImage> preview;
  try {
    const CompressionBudget::Claim claim = CompressionBudget::process().claim(
        CompressionCost::previewCostMB(bytes, ComparisonGeometry::previewPixelSize));
    preview = ImageDecoder::loadPreview(bytes, ComparisonGeometry::previewPixelSize);
  } catch (...) {
  }
  return preview ? toQImage(*preview) : QImage();
}
QImage previewImage(const std::string& path) {
  std::vector<uint8_t> bytes;
  try {
    bytes = ImageDecoder::readSource(path);
  } catch (...) {
    return {};
  }
  return previewImage(std::span<const uint8_t>(bytes));
}

}  // namespace

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
        caption.distance =
            format("comparison.distanceFormat", "distance %@", {RowRules::distanceText(*distance)});
      break;
    }
    case EncodeState::Kind::encoding:
      caption.text = text("comparison.encoding", "Encodage…");
      break;
    case EncodeState::Kind::idle:
      caption.text = text("common.dash", "—");
      break;
    case EncodeState::Kind::failed:
      caption.text = state.message;
      caption.changeTone = CompressedCaption::Tone::red;
      break;
  }
  return caption;
}

// ---- SplitCompareWidget ----

SplitCompareWidget::SplitCompareWidget(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                                       QWidget* parent)
    : QWidget(parent), viewModel_(viewModel), image_(std::move(image)) {
  thumbnail_ = toQImage(image_->thumbnail());
  area_ = ComparisonGeometry::areaSize(image_->width(), image_->height());
  setFixedSize(sizeHint());
  setCursor(Qt::SizeHorCursor);
  connect(image_.get(), &ImportedImage::encodeStateChanged, this, qOverload<>(&QWidget::update));
  connect(image_.get(), &ImportedImage::resultLookChanged, this, qOverload<>(&QWidget::update));
  connect(&viewModel_, &BatchViewModel::outputFormatChanged, this, qOverload<>(&QWidget::update));
}

QSize SplitCompareWidget::sizeHint() const {
  return QSize(std::max(qRound(area_.width()), ComparisonGeometry::minimumWidth), qRound(area_.height()));
}

QRectF SplitCompareWidget::pictureRect() const {
  return QRectF((width() - area_.width()) / 2, 0, area_.width(), area_.height());
}

void SplitCompareWidget::setSliderFraction(double fraction) {
  fraction_ = std::clamp(fraction, 0.0, 1.0);
  update();
}

void SplitCompareWidget::setOriginalPreview(const QImage& image) {
  original_ = image;
  update();
}

void SplitCompareWidget::setCompressedPreview(const std::optional<QImage>& image) {
  compressed_ = image && !image->isNull() ? image : std::nullopt;
  update();
}

void SplitCompareWidget::mousePressEvent(QMouseEvent* event) {
  const QRectF picture = pictureRect();
  if (auto f = ComparisonGeometry::fractionAt(event->position().x() - picture.x(), picture.width()))
    setSliderFraction(*f);
}

void SplitCompareWidget::mouseMoveEvent(QMouseEvent* event) {
  if (!(event->buttons() & Qt::LeftButton)) return;
  mousePressEvent(event);
}

void SplitCompareWidget::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  const QRectF area = pictureRect();
  QPainterPath rounded;
  rounded.addRoundedRect(area, 12, 12);
  painter.setClipPath(rounded);

  // Result layer, or a quaternary fill while there is none.
  if (compressed_) {
    painter.drawImage(area, *compressed_);
  } else {
    QColor fill = palette().color(QPalette::WindowText);
    fill.setAlphaF(0.08);
    painter.fillRect(area, fill);
  }
  // Original layer, clipped to the left of the divider.
  const double dividerX = area.x() + area.width() * fraction_;
  const QImage& original = original_.isNull() ? thumbnail_ : original_;
  if (!original.isNull() && dividerX > area.x()) {
    painter.save();
    painter.setClipRect(QRectF(area.x(), 0, dividerX - area.x(), area.height()), Qt::IntersectClip);
    painter.drawImage(area, original);
    painter.restore();
  }

  // Divider: a white line with a round handle, both with a faint shadow.
  const QColor shadow(0, 0, 0, 84);
  const double lineX = dividerX - 1;
  painter.fillRect(QRectF(lineX - 1, 0, 4, area.height()), QColor(0, 0, 0, 30));
  painter.fillRect(QRectF(lineX, 0, 2, area.height()), Qt::white);
  const QPointF centre(dividerX, area.height() / 2);
  painter.setPen(Qt::NoPen);
  painter.setBrush(shadow);
  painter.drawEllipse(centre, 18, 18);
  painter.setBrush(Qt::white);
  painter.drawEllipse(centre, 16, 16);
  painter.drawPixmap(QRectF(centre.x() - 8, centre.y() - 8, 16, 16).toRect(),
                     Icons::pixmap("arrow.left.and.right", 16, Qt::black, devicePixelRatioF(), Qt::white));

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
    detail = ui::format("comparison.sizeFormat", "%1$lld × %2$lld · %3$@",
                        {integerArg(image_->width()), integerArg(image_->height()),
                         formatByteCount(image_->originalSizeBytes())});
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
    if (badge.tone == CompressedCaption::Tone::plain) {
      painter.setPen(soft);
      painter.drawText(lineRect, align, line);
    } else if (badge.tone == CompressedCaption::Tone::red || line == badge.change) {
      painter.setPen(changeColour);
      painter.drawText(lineRect, align, line);
    } else if (!badge.change.isEmpty() && line.endsWith(badge.change)) {
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

// ---- ImageComparisonView ----

ImageComparisonView::ImageComparisonView(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                                         QWidget* parent)
    : QDialog(parent), viewModel_(viewModel), image_(std::move(image)) {
  setModal(false);
  setWindowTitle(image_->fileName());
  setAttribute(Qt::WA_DeleteOnClose);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(20, 20, 20, 20);
  layout->setSpacing(10);
  layout->setSizeConstraint(QLayout::SetFixedSize);

  auto* header = new QHBoxLayout;
  auto* name = new QLabel(this);
  Icons::makeSecondary(name);
  name->setText(name->fontMetrics().elidedText(image_->fileName(), Qt::ElideMiddle, 680));
  auto* close = new QToolButton(this);
  close->setAutoRaise(true);
  close->setIcon(Icons::tinted("xmark.circle.fill", Icons::secondaryColor(palette())));
  close->setIconSize(QSize(20, 20));
  close->setToolTip(text("comparison.close", "Fermer la comparaison"));
  close->setShortcut(QKeySequence(Qt::Key_Escape));
  connect(close, &QToolButton::clicked, this, &QDialog::reject);
  header->addWidget(name, 1);
  header->addWidget(close);
  layout->addLayout(header);

  area_ = new SplitCompareWidget(viewModel_, image_, this);
  layout->addWidget(area_);

  connect(image_.get(), &ImportedImage::compressedDataChanged, this,
          &ImageComparisonView::loadCompressedPreview);
  connect(&viewModel_, &BatchViewModel::imagesChanged, this, [this] {
    if (!viewModel_.image(image_->id())) this->close();
  });
  loadOriginalPreview();
  loadCompressedPreview();
}

void ImageComparisonView::loadOriginalPreview() {
  if (area_->hasOriginalPreview()) return;
  QPointer<ImageComparisonView> self(this);
  const std::string path = image_->sourceFilePath();
  QThreadPool::globalInstance()->start([self, path] {
    QImage result = previewImage(path);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [self, result] {
          if (!self) return;
          self->originalLoaded_ = true;
          // Without a preview the row thumbnail stays.
          if (!result.isNull()) self->area_->setOriginalPreview(result);
        },
        Qt::QueuedConnection);
  });
}

void ImageComparisonView::loadCompressedPreview() {
  const quint64 generation = ++compressedGeneration_;
  compressedLoaded_ = false;
  const std::optional<QByteArray>& data = image_->compressedData();
  if (!data) {
    area_->setCompressedPreview(std::nullopt);
    compressedLoaded_ = true;
    return;
  }
  QPointer<ImageComparisonView> self(this);
  const QByteArray bytes = *data;
  QThreadPool::globalInstance()->start([self, bytes, generation] {
    const auto* begin = reinterpret_cast<const uint8_t*>(bytes.constData());
    QImage result = previewImage(std::span<const uint8_t>(begin, size_t(bytes.size())));
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [self, result, generation] {
          // A newer result replaced this one while it was decoded.
          if (!self || generation != self->compressedGeneration_) return;
          self->compressedLoaded_ = true;
          self->area_->setCompressedPreview(result.isNull() ? std::nullopt : std::optional<QImage>(result));
        },
        Qt::QueuedConnection);
  });
}

bool ImageComparisonView::waitForPreviews(int timeoutMs) {
  QElapsedTimer timer;
  timer.start();
  while (!(originalLoaded_ && compressedLoaded_) && timer.elapsed() < timeoutMs) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    QThread::msleep(2);
  }
  return originalLoaded_ && compressedLoaded_;
}

}  // namespace quillane::ui
