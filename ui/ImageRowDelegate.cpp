#include "ui/ImageRowDelegate.h"

#include <QApplication>
#include <QGuiApplication>
#include <QPainter>
#include <QtMath>

#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/ImageListModel.h"
#include "ui/UiText.h"

namespace quillane::ui {

namespace {
constexpr int kPadding = 10;
constexpr int kIconSize = 16;
}  // namespace

QFont smallFont(const QFont& base) {
  QFont font = base;
  if (base.pointSizeF() > 0)
    font.setPointSizeF(std::max(8.0, base.pointSizeF() * 0.86));
  else
    font.setPixelSize(std::max(10, int(base.pixelSize() * 0.86)));
  return font;
}

QColor toneColor(RowRules::Tone tone, const QPalette& palette) {
  switch (tone) {
    case RowRules::Tone::primary:
      return palette.color(QPalette::Text);
    case RowRules::Tone::secondary:
      return Icons::secondaryColor(palette);
    case RowRules::Tone::green:
      return Icons::greenColor(palette);
    case RowRules::Tone::orange:
      return Icons::orangeColor();
    case RowRules::Tone::red:
      return Icons::redColor(palette);
    case RowRules::Tone::link:
      return palette.color(QPalette::Link);
  }
  return palette.color(QPalette::Text);
}

struct ImageRowDelegate::Geometry {
  QRect thumb, arrow, compressed, name, badge, meta, summary, summaryFirst, summarySecond;
  QRect quality, warning, exportButton, remove;
  QRect failIcon, failRetry, failDismiss;
  QRect row;
  bool rightToLeft = false;
  // `rect` mirrored across the row in a right-to-left layout (both ways: it is its own inverse).
  QRect visual(const QRect& rect) const {
    if (!rightToLeft || rect.isNull()) return rect;
    return QRect(row.left() + row.right() - rect.right(), rect.top(), rect.width(), rect.height());
  }
};

ImageRowDelegate::ImageRowDelegate(ImageListModel& model, QObject* parent)
    : QStyledItemDelegate(parent), model_(model) {}

QSize ImageRowDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const {
  const auto kind = model_.kind(index.row());
  const int width = option.rect.width() > 0 ? option.rect.width() : 400;
  if (kind == ImageListModel::RowKind::failuresHeader) return {width, headerRowHeight};
  const int lines = option.fontMetrics.height() + QFontMetrics(smallFont(option.font)).height() + 12;
  return {width, std::max(imageRowHeight, lines)};
}

ImageRowDelegate::Geometry ImageRowDelegate::geometry(const QRect& rowRect, const QModelIndex& index) const {
  Geometry g = leftToRightGeometry(rowRect, index);
  g.row = rowRect;
  g.rightToLeft = QGuiApplication::isRightToLeft();
  for (QRect* rect : {&g.thumb, &g.arrow, &g.compressed, &g.name, &g.badge, &g.meta, &g.summary,
                      &g.summaryFirst, &g.summarySecond, &g.quality, &g.warning, &g.exportButton, &g.remove,
                      &g.failIcon, &g.failRetry, &g.failDismiss})
    *rect = g.visual(*rect);
  return g;
}

ImageRowDelegate::Geometry ImageRowDelegate::leftToRightGeometry(const QRect& r,
                                                                 const QModelIndex& index) const {
  Geometry g;
  const int cy = r.center().y();
  const int buttonTop = cy - buttonSide / 2 + 1;
  int right = r.right() + 1 - kPadding;
  auto takeButton = [&](int gapAfter) {
    QRect rect(right - buttonSide, buttonTop, buttonSide, buttonSide);
    right = rect.left() - gapAfter;
    return rect;
  };

  if (model_.kind(index.row()) == ImageListModel::RowKind::failure) {
    g.failDismiss = takeButton(8);
    const QFont small = smallFont(QApplication::font());
    // A failure that trying again can't mend offers no Retry.
    const ImportFailure* failure = model_.failureAt(index.row());
    const int retryWidth =
        failure && failure->canRetry
            ? QFontMetrics(QApplication::font()).horizontalAdvance(Strings::text("common.retry")) + 8
            : 0;
    g.failRetry = QRect(right - retryWidth, cy - 11, retryWidth, 22);
    g.failIcon = QRect(r.left() + kPadding + 13, cy - 9, 18, 18);
    const int left = g.failIcon.right() + 13;
    const int textRight = g.failRetry.left() - 10;
    const int nameHeight = QFontMetrics(QApplication::font()).height();
    const int metaHeight = QFontMetrics(small).height();
    const int top = cy - (nameHeight + metaHeight + 2) / 2;
    g.name = QRect(left, top, std::max(0, textRight - left), nameHeight);
    g.meta = QRect(left, top + nameHeight + 2, std::max(0, textRight - left), metaHeight);
    return g;
  }

  auto image = model_.imageAt(index.row());
  g.remove = takeButton(2);
  g.exportButton = takeButton(2);
  if (image && image->exportError()) g.warning = takeButton(2);
  g.quality = takeButton(10);
  const QFont small = smallFont(QApplication::font());
  // A failed row's Retry is never cut: where the language's word is longer than the column,
  // it takes the room from the name's side.
  int columnWidth = summaryWidth;
  if (image && image->encodeState().isFailed())
    columnWidth =
        std::max(columnWidth, QFontMetrics(small).horizontalAdvance(Strings::text("common.retry")) + 1);
  g.summary = QRect(right - columnWidth, r.top(), columnWidth, r.height());
  right = g.summary.left() - 10;

  const int firstHeight = QFontMetrics(QApplication::font()).height();
  const int secondHeight = QFontMetrics(small).height();
  const int blockTop = cy - (firstHeight + secondHeight + 2) / 2;
  g.summaryFirst = QRect(g.summary.left(), blockTop, columnWidth, firstHeight);
  g.summarySecond = QRect(g.summary.left(), blockTop + firstHeight + 2, columnWidth, secondHeight);

  g.thumb = QRect(r.left() + kPadding, cy - thumbnailSide / 2, thumbnailSide, thumbnailSide);
  g.arrow = QRect(g.thumb.right() + 5, cy - 6, 12, 12);
  g.compressed = QRect(g.arrow.right() + 5, g.thumb.top(), thumbnailSide, thumbnailSide);

  const int left = g.compressed.right() + 13;
  const int textWidth = std::max(0, right - left);
  g.name = QRect(left, blockTop, textWidth, firstHeight);
  g.meta = QRect(left, blockTop + firstHeight + 2, textWidth, secondHeight);
  if (image && image->frameCount() > 1) {
    const QFontMetrics fm(QApplication::font());
    const int badgeSide = 14;
    // A pixel of slack: elidedText measures in fractions and cuts a name that exactly fills
    // its integer advance.
    const int nameWidth =
        std::min(fm.horizontalAdvance(image->fileName()) + 2, std::max(0, textWidth - badgeSide - 4));
    g.badge = QRect(left + nameWidth + 4, g.name.center().y() - badgeSide / 2 + 1, badgeSide, badgeSide);
    g.name.setWidth(nameWidth);
  }
  return g;
}

QRect ImageRowDelegate::partRect(const QRect& rowRect, const QModelIndex& index, RowHit part) const {
  const Geometry g = geometry(rowRect, index);
  switch (part) {
    case RowHit::thumbnail:
      return g.thumb.united(g.compressed);
    case RowHit::animatedBadge:
      return g.badge;
    case RowHit::summary:
      return g.summary;
    case RowHit::summaryRetry:
      return g.summarySecond;
    case RowHit::quality:
      return g.quality;
    case RowHit::warning:
      return g.warning;
    case RowHit::exportButton:
      return g.exportButton;
    case RowHit::remove:
      return g.remove;
    case RowHit::failureRetry:
      return g.failRetry;
    case RowHit::failureDismiss:
      return g.failDismiss;
    case RowHit::none:
      break;
  }
  return {};
}

RowHit ImageRowDelegate::hitTest(const QRect& rowRect, const QModelIndex& index, const QPoint& pos) const {
  const auto kind = model_.kind(index.row());
  if (kind == ImageListModel::RowKind::failuresHeader) return RowHit::none;
  const Geometry g = geometry(rowRect, index);
  if (kind == ImageListModel::RowKind::failure) {
    if (g.failRetry.contains(pos)) return RowHit::failureRetry;
    if (g.failDismiss.contains(pos)) return RowHit::failureDismiss;
    return RowHit::none;
  }
  auto image = model_.imageAt(index.row());
  if (!image) return RowHit::none;
  if (g.thumb.united(g.compressed).contains(pos)) return RowHit::thumbnail;
  if (g.badge.contains(pos)) return RowHit::animatedBadge;
  if (g.quality.contains(pos)) return RowHit::quality;
  if (g.warning.contains(pos)) return RowHit::warning;
  if (g.exportButton.contains(pos)) return RowHit::exportButton;
  if (g.remove.contains(pos)) return RowHit::remove;
  if (image->encodeState().isFailed() && g.summarySecond.contains(pos)) return RowHit::summaryRetry;
  if (g.summary.contains(pos)) return RowHit::summary;
  return RowHit::none;
}

bool ImageRowDelegate::isEnabled(const QModelIndex& index, RowHit part) const {
  if (part == RowHit::failureRetry) {
    const ImportFailure* failure = model_.failureAt(index.row());
    return failure && failure->canRetry;
  }
  if (part == RowHit::exportButton) {
    auto image = model_.imageAt(index.row());
    return image && image->compressedData().has_value();
  }
  return part != RowHit::none && part != RowHit::summary && part != RowHit::animatedBadge;
}

QString ImageRowDelegate::helpText(const QModelIndex& index, RowHit part) const {
  const ImageFormat output = model_.viewModel().outputFormat();
  if (part == RowHit::failureDismiss) return Strings::text("import.dismissFailureHelp");
  auto image = model_.imageAt(index.row());
  if (!image) return {};
  switch (part) {
    case RowHit::thumbnail: {
      const QString help = Strings::text("row.comparisonHelp");
      const QString look = RowRules::look(*image).help;
      return look.isEmpty() ? help : help + QLatin1Char('\n') + look;
    }
    case RowHit::animatedBadge:
      return RowRules::animatedHelp(*image, output);
    case RowHit::summary:
    case RowHit::summaryRetry: {
      QString help = RowRules::sizeSummary(*image, output).help;
      if (const QString shape = RowRules::shapeText(*image); !shape.isEmpty())
        help += QLatin1Char('\n') + shape;
      const QString look = RowRules::look(*image).help;
      return look.isEmpty() ? help : help + QLatin1Char('\n') + look;
    }
    case RowHit::quality:
      return RowRules::qualityHelp(*image, output);
    case RowHit::warning:
      return Strings::format("row.exportErrorHelpFormat", image->exportError().value_or(QString()));
    case RowHit::exportButton:
      return Strings::text("row.exportHelp");
    case RowHit::remove:
      return Strings::text("row.removeHelp");
    default:
      return {};
  }
}

void ImageRowDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const {
  painter->save();
  painter->setRenderHint(QPainter::Antialiasing);
  // The keyboard's row: a soft tint of the accent colour, and a focus ring while the list has
  // the focus.
  if (option.state & QStyle::State_Selected) {
    QColor tint = option.palette.color(QPalette::Highlight);
    tint.setAlphaF(0.14);
    painter->fillRect(option.rect, tint);
    if (option.state & QStyle::State_HasFocus) {
      painter->setPen(QPen(option.palette.color(QPalette::Highlight), 1.5));
      painter->setBrush(Qt::NoBrush);
      painter->drawRoundedRect(QRectF(option.rect).adjusted(1.5, 1.5, -1.5, -1.5), 4, 4);
    }
  }
  switch (model_.kind(index.row())) {
    case ImageListModel::RowKind::failuresHeader:
      paintHeader(painter, option);
      break;
    case ImageListModel::RowKind::failure:
      paintFailureRow(painter, option, index);
      break;
    case ImageListModel::RowKind::image:
      paintImageRow(painter, option, index);
      break;
  }
  // A hairline between rows, inset like the platform's lists.
  QColor line = option.palette.color(QPalette::Text);
  line.setAlphaF(0.09);
  painter->setPen(line);
  painter->drawLine(option.rect.left() + kPadding, option.rect.bottom(), option.rect.right() - kPadding,
                    option.rect.bottom());
  painter->restore();
}

void ImageRowDelegate::paintHeader(QPainter* painter, const QStyleOptionViewItem& option) const {
  QFont font = smallFont(option.font);
  font.setBold(true);
  painter->setFont(font);
  painter->setPen(Icons::secondaryColor(option.palette));
  const QRect r = option.rect.adjusted(kPadding, 0, -kPadding, 0);
  painter->drawText(
      r, Qt::AlignLeft | Qt::AlignVCenter,
      QFontMetrics(font).elidedText(Strings::text("import.failuresSection"), Qt::ElideRight, r.width()));
}

void ImageRowDelegate::paintButton(QPainter* painter, const QStyleOptionViewItem& option,
                                   const QModelIndex& index, RowHit part, const QRect& rect,
                                   const QString& symbol, const QColor& color) const {
  const bool enabled = isEnabled(index, part);
  const bool hovered = enabled && hoverIndex_ == index && hoverPart_ == part;
  const bool pressed = hovered && pressIndex_ == index && pressPart_ == part;
  if (hovered) {
    QColor fill = option.palette.color(QPalette::Text);
    fill.setAlphaF(pressed ? 0.18 : 0.09);
    painter->setPen(Qt::NoPen);
    painter->setBrush(fill);
    painter->drawRoundedRect(rect, 5, 5);
  }
  const QColor ink = enabled ? color : option.palette.color(QPalette::Disabled, QPalette::Text);
  const QRect iconRect(rect.center().x() - kIconSize / 2 + 1, rect.center().y() - kIconSize / 2 + 1,
                       kIconSize, kIconSize);
  painter->drawPixmap(iconRect, Icons::pixmap(symbol, kIconSize, ink, painter->device()->devicePixelRatioF(),
                                              option.palette.color(QPalette::Base)));
}

void ImageRowDelegate::paintSpinner(QPainter* painter, const QRect& rect, const QColor& color) const {
  painter->save();
  painter->translate(QRectF(rect).center());
  const int spokes = 8;
  for (int i = 0; i < spokes; ++i) {
    QColor c = color;
    c.setAlphaF(0.15 + 0.85 * double((i + spinnerPhase_) % spokes) / spokes);
    painter->setPen(QPen(c, 2, Qt::SolidLine, Qt::RoundCap));
    const double angle = 2 * M_PI * i / spokes;
    const double inner = rect.width() * 0.22, outer = rect.width() * 0.45;
    painter->drawLine(QPointF(inner * std::cos(angle), inner * std::sin(angle)),
                      QPointF(outer * std::cos(angle), outer * std::sin(angle)));
  }
  painter->restore();
}

void ImageRowDelegate::paintImageRow(QPainter* painter, const QStyleOptionViewItem& option,
                                     const QModelIndex& index) const {
  auto image = model_.imageAt(index.row());
  if (!image) return;
  const Geometry g = geometry(option.rect, index);
  const QPalette& palette = option.palette;
  const qreal dpr = painter->device()->devicePixelRatioF();
  const ImageFormat output = model_.viewModel().outputFormat();
  const bool encoding = image->encodeState().isEncoding();
  const QColor secondary = Icons::secondaryColor(palette);

  // Thumbnail group: original, arrow, result (faded with a spinner while encoding).
  const QPixmap thumb = model_.thumbnail(*image, thumbnailSide, dpr);
  painter->drawPixmap(g.thumb, thumb);
  QPixmap arrow = Icons::pixmap("arrow.right", g.arrow.width(), secondary, dpr);
  if (g.rightToLeft) {
    arrow = QPixmap::fromImage(arrow.toImage().mirrored(true, false));
    arrow.setDevicePixelRatio(dpr);
  }
  painter->drawPixmap(g.arrow, arrow);
  painter->setOpacity(encoding ? 0.4 : 1.0);
  painter->drawPixmap(g.compressed, model_.resultThumbnail(*image, thumbnailSide, dpr));
  painter->setOpacity(1.0);
  if (encoding) paintSpinner(painter, g.compressed.adjusted(12, 12, -12, -12), palette.color(QPalette::Text));

  // Name (with the animation badge) and metadata.
  painter->setFont(option.font);
  painter->setPen(palette.color(QPalette::Text));
  const QFontMetrics fm(option.font);
  painter->drawText(g.name, Qt::AlignLeft | Qt::AlignVCenter,
                    fm.elidedText(image->fileName(), Qt::ElideMiddle, g.name.width()));
  if (!g.badge.isEmpty())
    painter->drawPixmap(g.badge,
                        Icons::pixmap("square.stack.3d.forward.dottedline", g.badge.width(), secondary, dpr));
  const QFont small = smallFont(option.font);
  painter->setFont(small);
  painter->setPen(secondary);
  // The row's notes, then the result's look when measured, end the line each in its tone; the
  // metadata gives way to them.
  std::vector<RowRules::Note> words = RowRules::notes(*image, output);
  const RowRules::Look look = RowRules::look(*image);
  if (!look.word.isEmpty() && !encoding) words.push_back({look.word, look.tone});
  QRect meta = g.visual(g.meta);  // laid out left to right, drawn where the layout puts it
  const QFontMetrics sfm(small);
  for (auto it = words.rbegin(); it != words.rend(); ++it) {
    const int wordWidth = std::min(sfm.horizontalAdvance(it->text) + 2, meta.width() / 2);
    const QRect word(meta.right() - wordWidth + 1, meta.top(), wordWidth, meta.height());
    meta.setRight(word.left() - 8);
    painter->setPen(toneColor(it->tone, palette));
    painter->drawText(g.visual(word), Qt::AlignRight | Qt::AlignVCenter,
                      sfm.elidedText(it->text, Qt::ElideRight, word.width()));
  }
  // What the size options did follows the source's metadata.
  QString metaLine = RowRules::metaText(*image);
  if (const QString shape = RowRules::shapeText(*image); !shape.isEmpty() && !encoding)
    metaLine += QStringLiteral(" · ") + shape;
  painter->setPen(secondary);
  painter->drawText(g.visual(meta), Qt::AlignLeft | Qt::AlignVCenter,
                    QFontMetrics(small).elidedText(metaLine, Qt::ElideRight, meta.width()));

  // Size summary.
  const RowRules::SizeSummary summary = RowRules::sizeSummary(*image, output);
  switch (summary.kind) {
    case RowRules::SizeSummary::Kind::dash:
      painter->setFont(option.font);
      painter->setPen(toneColor(summary.firstTone, palette));
      painter->drawText(g.summary, Qt::AlignRight | Qt::AlignVCenter, summary.firstLine);
      break;
    case RowRules::SizeSummary::Kind::spinner: {
      const QRect column = g.visual(g.summary);  // the spinner ends the column where the text would
      paintSpinner(painter, g.visual(QRect(column.right() - 18, column.center().y() - 9, 18, 18)),
                   palette.color(QPalette::Text));
    } break;
    case RowRules::SizeSummary::Kind::lines: {
      QFont first = image->encodeState().isFailed() ? small : option.font;
      if (!image->encodeState().isFailed()) first.setStyleHint(QFont::Monospace, QFont::PreferDefault);
      painter->setFont(first);
      painter->setPen(toneColor(summary.firstTone, palette));
      painter->drawText(
          g.summaryFirst, Qt::AlignRight | Qt::AlignVCenter,
          QFontMetrics(first).elidedText(summary.firstLine, Qt::ElideLeft, g.summaryFirst.width()));
      QFont second = small;
      const bool linkHovered =
          summary.secondIsRetry && hoverIndex_ == index && hoverPart_ == RowHit::summaryRetry;
      second.setUnderline(linkHovered);
      painter->setFont(second);
      painter->setPen(toneColor(summary.secondTone, palette));
      painter->drawText(
          g.summarySecond, Qt::AlignRight | Qt::AlignVCenter,
          QFontMetrics(second).elidedText(summary.secondLine, Qt::ElideRight, g.summarySecond.width()));
      break;
    }
  }

  // Buttons.
  const QColor qualityColor = image->qualityOverride() ? Icons::accentColor(palette) : secondary;
  paintButton(painter, option, index, RowHit::quality, g.quality, "slider.horizontal.3", qualityColor);
  if (!g.warning.isEmpty())
    paintButton(painter, option, index, RowHit::warning, g.warning, "exclamationmark.triangle.fill",
                Icons::orangeColor());
  paintButton(painter, option, index, RowHit::exportButton, g.exportButton, "square.and.arrow.down",
              palette.color(QPalette::Text));
  paintButton(painter, option, index, RowHit::remove, g.remove, "xmark.circle.fill", secondary);
}

void ImageRowDelegate::paintFailureRow(QPainter* painter, const QStyleOptionViewItem& option,
                                       const QModelIndex& index) const {
  const ImportFailure* failure = model_.failureAt(index.row());
  if (!failure) return;
  const Geometry g = geometry(option.rect, index);
  const QPalette& palette = option.palette;
  const qreal dpr = painter->device()->devicePixelRatioF();
  painter->drawPixmap(g.failIcon, Icons::pixmap("exclamationmark.triangle.fill", g.failIcon.width(),
                                                Icons::orangeColor(), dpr, palette.color(QPalette::Base)));
  painter->setFont(option.font);
  painter->setPen(palette.color(QPalette::Text));
  const QFontMetrics fm(option.font);
  painter->drawText(g.name, Qt::AlignLeft | Qt::AlignVCenter,
                    fm.elidedText(failure->url.fileName(), Qt::ElideMiddle, g.name.width()));
  const QFont small = smallFont(option.font);
  painter->setFont(small);
  painter->setPen(Icons::secondaryColor(palette));
  painter->drawText(
      g.meta, Qt::AlignLeft | Qt::AlignVCenter,
      QFontMetrics(small).elidedText(directionIsolate(failure->message), Qt::ElideRight, g.meta.width()));

  if (failure->canRetry) {
    QFont link = option.font;
    link.setUnderline(hoverIndex_ == index && hoverPart_ == RowHit::failureRetry);
    painter->setFont(link);
    painter->setPen(palette.color(QPalette::Link));
    painter->drawText(g.failRetry, Qt::AlignCenter, Strings::text("common.retry"));
  }
  paintButton(painter, option, index, RowHit::failureDismiss, g.failDismiss, "xmark.circle.fill",
              Icons::secondaryColor(palette));
}

}  // namespace quillane::ui
