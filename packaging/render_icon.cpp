// Build tool: renders the scalable application icon to a square PNG of the given size, for
// the hicolor theme's fixed-size folders.
//
//   render_icon ICON.svg SIZE OUT.png
//
// Exit status 0 on success, 1 when the SVG can't be read or the PNG can't be written.
#include <QImage>
#include <QPainter>
#include <QString>
#include <QSvgRenderer>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: render_icon ICON.svg SIZE OUT.png\n");
    return 1;
  }
  const int size = std::atoi(argv[2]);
  QSvgRenderer renderer(QString::fromLocal8Bit(argv[1]));
  if (!renderer.isValid() || size <= 0) {
    std::fprintf(stderr, "render_icon: can't render %s at %s pixels\n", argv[1], argv[2]);
    return 1;
  }
  QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  {
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter);
  }
  if (!image.save(QString::fromLocal8Bit(argv[3]), "PNG")) {
    std::fprintf(stderr, "render_icon: can't write %s\n", argv[3]);
    return 1;
  }
  return 0;
}
