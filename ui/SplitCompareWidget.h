#pragma once
// SplitCompareWidget: the picture area of the comparison window. The original shows left of a
// divider and the result right of it, in register, over a checkerboard where they are
// transparent. Both halves share one zoom (fit, or 1, 2 or 4 device pixels a picture pixel)
// and one pan, so that they always show the same region. A press near the divider, or
// anywhere while the picture fits, moves the divider; a drag elsewhere pans. Keys: Left and
// Right move the divider (with Shift in larger steps; Home and End to either edge), Ctrl with
// an arrow pans, + and - zoom, 0 fits, 1, 2 and 4 zoom to 100, 200 and 400 %; Ctrl with the
// wheel zooms around the pointer, the wheel alone pans. Screen readers meet the divider as a
// slider from 0 to 100.
//
// Each side may hold two pictures: one bounded for fit and, while the user is zoomed in past
// it, the picture at full resolution; the area draws the one that has the pixels the zoom needs.
//
// GUI thread only.

#include <QImage>
#include <QRectF>
#include <QStringList>
#include <QWidget>
#include <memory>
#include <optional>

#include "engine/DecodedImage.h"

namespace quillane {
class BatchViewModel;
class ImportedImage;
}  // namespace quillane

namespace quillane::ui {

// The text of the result's badge, by encode state.
struct CompressedCaption {
  enum class Tone { plain, green, orange, red };
  QString text;                   // whole text ("1.2 MB · −40 %", "Encodage…", the failure message)
  QString change;                 // ready only: the part after " · "
  Tone changeTone = Tone::plain;  // ready: green or orange; failed: red
  QString distance;               // ready and measured: "Looks close · distance 1.42", a line of its own
};
CompressedCaption compressedCaption(const ImportedImage& image);

// An 8-bit RGBA decoded picture as a QImage; null when empty. The rvalue form takes the pixels
// over without a copy.
QImage toQImage(const DecodedImage& image);
QImage toQImage(DecodedImage&& image);

// One side's pictures: bounded for fit, and the full resolution once loaded (else null).
struct SidePictures {
  QImage fit;
  QImage full;
};

class SplitCompareWidget : public QWidget {
  Q_OBJECT
 public:
  SplitCompareWidget(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                     QWidget* parent = nullptr);

  double sliderFraction() const { return fraction_; }
  void setSliderFraction(double fraction);

  // Nothing while the picture fits the area.
  std::optional<double> zoom() const { return zoom_; }
  void setZoom(std::optional<double> zoom);
  // One step in or out, around `at` (area coordinates; the centre when not given).
  void zoomBy(bool in, std::optional<QPointF> at = std::nullopt);
  // Device pixels a picture pixel, as shown now (fit included).
  double shownFactor() const;
  // The picture point at the centre of the area, in picture pixels.
  QPointF centre() const { return centre_; }
  void panBy(QPointF logicalPixels);

  // The picture's width and height, as its header gives them (upright).
  QSize pictureSize() const { return picture_; }

  void setOriginalPreview(SidePictures pictures);
  void setCompressedPreview(std::optional<SidePictures> pictures);
  bool hasCompressedPreview() const { return compressed_.has_value(); }
  bool hasOriginalPreview() const { return !original_.fit.isNull(); }
  // Both sides at full resolution.
  bool hasFullResolution() const {
    return !original_.full.isNull() && compressed_ && !compressed_->full.isNull();
  }

  // What a badge shows: the format, then its detail on one line, or broken at " · " when the
  // badge has no room for it in one.
  struct BadgeText {
    QString title;
    QStringList detailLines;
    QString change;  // the result's size change, drawn in its tone
    CompressedCaption::Tone tone = CompressedCaption::Tone::plain;
    double maxTextWidth = 0;
  };
  BadgeText badgeText(bool original) const;

  // Handles the area's keys (see above) wherever the focus is in its window; false when
  // `event` is none of them.
  bool handleKey(QKeyEvent* event);

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 signals:
  // The zoom or the area's size changed: what shows may need other pictures.
  void viewChanged();

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  enum class Drag { none, divider, pan };
  // Where the whole picture lies under the zoom and the pan (area coordinates).
  QRectF pictureRect() const;
  // The divider's x in area coordinates.
  double dividerX() const;
  double fitScale() const;
  double scale() const;  // logical pixels a picture pixel
  bool pannable() const;
  bool nearDivider(double x) const;
  void setCentre(QPointF centre);
  void updateCursor(double x);
  void paintSide(QPainter& painter, const SidePictures& side, const QRectF& clip) const;
  void paintBadge(QPainter& painter, bool original) const;

  BatchViewModel& viewModel_;
  std::shared_ptr<ImportedImage> image_;
  QSize picture_;
  QImage thumbnail_;  // stands in for the original until its preview comes
  SidePictures original_;
  std::optional<SidePictures> compressed_;
  double fraction_ = 0.5;
  std::optional<double> zoom_;
  QPointF centre_;
  Drag drag_ = Drag::none;
  QPointF dragStart_, dragCentre_;
  int wheelZoom_ = 0;  // angle not yet turned into a zoom step
};

}  // namespace quillane::ui
