#include "ui/Icons.h"

#include <QApplication>
#include <QEvent>
#include <QFile>
#include <QGuiApplication>
#include <QHash>
#include <QIconEngine>
#include <QLabel>
#include <QPainter>
#include <QPalette>
#include <QPixmapCache>
#include <QSvgRenderer>

namespace quillane::ui::Icons {
namespace {

// Freedesktop icon-naming names for the symbols that have a close match.
const QHash<QString, QString>& themeNames() {
  static const QHash<QString, QString> names = {
      {"plus", "list-add"},
      {"clock.arrow.circlepath", "document-open-recent"},
      {"square.and.arrow.down", "document-save"},
      {"photo.on.rectangle.angled", "image-x-generic"},
      {"arrow.right", "go-next"},
      {"exclamationmark.triangle.fill", "dialog-warning"},
      {"exclamationmark.triangle", "dialog-warning"},
      {"xmark.circle.fill", "edit-clear"},
      {"folder", "folder"},
      {"arrow.uturn.backward", "edit-undo"},
      {"checkmark", "object-select"},
      {"pencil", "document-edit"},
      {"trash", "edit-delete"},
      {"globe", "preferences-desktop-locale"},
      {"terminal", "utilities-terminal"},
      {"arrow.down.circle", "system-software-update"},
  };
  return names;
}

QString resourcePath(const QString& symbol) { return QStringLiteral(":/quillane/icons/") + symbol + ".svg"; }

QByteArray svgSource(const QString& symbol) {
  static QHash<QString, QByteArray> cache;
  auto it = cache.find(symbol);
  if (it != cache.end()) return it.value();
  QFile file(resourcePath(symbol));
  QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
  cache.insert(symbol, bytes);
  return bytes;
}

// Draws the bundled symbol in the palette's colour for the mode asked, or in a fixed one.
class SymbolIconEngine : public QIconEngine {
 public:
  SymbolIconEngine(QString symbol, QColor fixed) : symbol_(std::move(symbol)), fixed_(fixed) {}

  void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State state) override {
    const qreal dpr = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
    const int side = std::min(rect.width(), rect.height());
    const QPixmap pm = Icons::pixmap(symbol_, side, colorFor(mode), dpr, cutoutColor());
    painter->drawPixmap(
        QRect(rect.x() + (rect.width() - side) / 2, rect.y() + (rect.height() - side) / 2, side, side), pm);
  }

  QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
    return Icons::pixmap(symbol_, std::min(size.width(), size.height()), colorFor(mode), 1.0, cutoutColor());
  }

  QPixmap scaledPixmap(const QSize& size, QIcon::Mode mode, QIcon::State state, qreal scale) override {
    return Icons::pixmap(symbol_, std::min(size.width(), size.height()), colorFor(mode), scale,
                         cutoutColor());
  }

  QIconEngine* clone() const override { return new SymbolIconEngine(symbol_, fixed_); }
  QString key() const override { return QStringLiteral("QuillaneSymbol"); }

 private:
  QColor colorFor(QIcon::Mode mode) const {
    const QPalette palette = QGuiApplication::palette();
    if (mode == QIcon::Disabled) return palette.color(QPalette::Disabled, QPalette::ButtonText);
    if (fixed_.isValid()) return fixed_;
    if (mode == QIcon::Selected) return palette.color(QPalette::HighlightedText);
    return palette.color(QPalette::Normal, QPalette::ButtonText);
  }
  static QColor cutoutColor() { return QGuiApplication::palette().color(QPalette::Base); }

  QString symbol_;
  QColor fixed_;
};

}  // namespace

bool hasSymbol(const QString& symbol) { return !svgSource(symbol).isEmpty(); }

QPixmap pixmap(const QString& symbol, int size, const QColor& color, qreal devicePixelRatio,
               const QColor& cutout) {
  const int device = std::max(1, qRound(size * devicePixelRatio));
  const QString key =
      QStringLiteral("qsym:%1:%2:%3:%4").arg(symbol).arg(device).arg(color.rgba()).arg(cutout.rgba());
  QPixmap cached;
  if (QPixmapCache::find(key, &cached)) return cached;

  QByteArray source = svgSource(symbol);
  // The SVGs draw in black, with white for the marks cut into filled shapes.
  source.replace("#000", "@ink@").replace("#fff", "@cut@");
  source.replace("@ink@", color.name(QColor::HexRgb).toLatin1());
  source.replace("@cut@", cutout.name(QColor::HexRgb).toLatin1());
  QImage image(device, device, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  if (!source.isEmpty()) {
    QSvgRenderer renderer(source);
    QPainter painter(&image);
    painter.setOpacity(color.alphaF());
    renderer.render(&painter, QRectF(0, 0, device, device));
  }
  QPixmap result = QPixmap::fromImage(image);
  result.setDevicePixelRatio(devicePixelRatio);
  QPixmapCache::insert(key, result);
  return result;
}

QIcon icon(const QString& symbol) {
  const auto it = themeNames().find(symbol);
  if (it != themeNames().end() && !QIcon::themeName().isEmpty() &&
      QIcon::themeName() != QLatin1String("hicolor") && QIcon::hasThemeIcon(it.value())) {
    return QIcon::fromTheme(it.value());
  }
  return QIcon(new SymbolIconEngine(symbol, QColor()));
}

QIcon tinted(const QString& symbol, const QColor& color) {
  return QIcon(new SymbolIconEngine(symbol, color));
}

QIcon applicationIcon() {
  if (QIcon::hasThemeIcon(QStringLiteral("com.quillane.Quillane")))
    return QIcon::fromTheme(QStringLiteral("com.quillane.Quillane"));
  return QIcon(QStringLiteral(":/quillane/quillane.svg"));
}

QColor secondaryColor(const QPalette& palette) {
  // The platform's secondary label colour: the text colour at reduced strength.
  QColor c = palette.color(QPalette::WindowText);
  c.setAlphaF(0.6);
  return c;
}

namespace {
class PaletteFollower : public QObject {
 public:
  PaletteFollower(QWidget* widget, std::function<void()> apply) : QObject(widget), apply_(std::move(apply)) {
    widget->installEventFilter(this);
  }
  bool eventFilter(QObject*, QEvent* event) override {
    // Every widget hears of the change in turn: the parents' palettes are new once all have.
    if (event->type() == QEvent::PaletteChange) QMetaObject::invokeMethod(this, apply_, Qt::QueuedConnection);
    return false;
  }

 private:
  std::function<void()> apply_;
};
}  // namespace

void followPalette(QWidget* widget, std::function<void()> apply) {
  apply();
  new PaletteFollower(widget, std::move(apply));
}

void makeSecondary(QLabel* label) {
  followPalette(label, [label] {
    const QWidget* parent = label->parentWidget();
    const QColor secondary = secondaryColor(parent ? parent->palette() : QApplication::palette(label));
    QPalette palette = label->palette();
    if (palette.isBrushSet(QPalette::Active, QPalette::WindowText) &&
        palette.color(QPalette::WindowText) == secondary)
      return;  // as it is: setting it again would be heard as a change
    palette.setColor(QPalette::WindowText, secondary);
    label->setPalette(palette);
  });
}

QColor accentColor(const QPalette& palette) { return palette.color(QPalette::Highlight); }

QColor orangeColor() { return QColor(0xF0, 0x8A, 0x24); }

static bool isDark(const QPalette& palette) { return palette.color(QPalette::Window).lightness() < 128; }

QColor greenColor(const QPalette& palette) {
  return isDark(palette) ? QColor(0x4C, 0xC7, 0x6A) : QColor(0x1E, 0x8E, 0x3E);
}

QColor redColor(const QPalette& palette) {
  return isDark(palette) ? QColor(0xFF, 0x6B, 0x60) : QColor(0xD0, 0x2B, 0x20);
}

}  // namespace quillane::ui::Icons
