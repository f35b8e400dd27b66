#pragma once
// ImageComparisonView: one image of the batch before and after compression in one frame, split
// by a divider the user drags: the original left of it, the result right of it, in register.
// Shown as a window of its own over the main window, which stays usable: the quality, the
// format and their shortcuts work while it is open, and the right half follows each new
// encoding. It closes when its image leaves the batch. Previews are decoded on the global thread
// pool and come back by a queued call guarded by a QPointer.
//
// GUI thread only.

#include <QDialog>
#include <QImage>
#include <QRectF>
#include <QSizeF>
#include <QStringList>
#include <memory>
#include <optional>

#include "engine/DecodedImage.h"

class QLabel;
class QToolButton;

namespace quillane {
class BatchViewModel;
class ImportedImage;
}  // namespace quillane

namespace quillane::ui {

namespace ComparisonGeometry {
inline constexpr double maxWidth = 760.0;
inline constexpr double maxHeight = 520.0;
inline constexpr int previewPixelSize = 1600;
// The picture area is centred in a frame at least this wide, so that the badges keep their
// text beside a narrow portrait.
inline constexpr int minimumWidth = 280;
// The slider area for a picture of `width` x `height` pixels: as large as fits in
// maxWidth x maxHeight at the picture's aspect (1.0 when the height is below 1).
QSizeF areaSize(int width, int height);
// The divider position for a pointer at `x` over an area `areaWidth` wide, held to 0...1;
// nothing when the area has no width.
std::optional<double> fractionAt(double x, double areaWidth);
}  // namespace ComparisonGeometry

// The text of the result's badge, by encode state.
struct CompressedCaption {
  enum class Tone { plain, green, orange, red };
  QString text;                   // whole text ("1.2 MB · −40 %", "Encodage…", the failure message)
  QString change;                 // ready only: the part after " · "
  Tone changeTone = Tone::plain;  // ready: green or orange; failed: red
  QString distance;               // ready and measured: "distance 0.84", a line of its own
};
CompressedCaption compressedCaption(const ImportedImage& image);

// The picture area: layers, divider and badges.
class SplitCompareWidget : public QWidget {
  Q_OBJECT
 public:
  SplitCompareWidget(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                     QWidget* parent = nullptr);

  double sliderFraction() const { return fraction_; }
  void setSliderFraction(double fraction);
  void setOriginalPreview(const QImage& image);
  void setCompressedPreview(const std::optional<QImage>& image);
  bool hasCompressedPreview() const { return compressed_.has_value(); }
  bool hasOriginalPreview() const { return !original_.isNull(); }

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
  // Where the picture is drawn: the slider area, centred.
  QRectF pictureRect() const;

  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;

 private:
  void paintBadge(QPainter& painter, bool original) const;

  BatchViewModel& viewModel_;
  std::shared_ptr<ImportedImage> image_;
  QImage thumbnail_;
  QImage original_;
  std::optional<QImage> compressed_;
  double fraction_ = 0.5;
  QSizeF area_;
};

class ImageComparisonView : public QDialog {
  Q_OBJECT
 public:
  ImageComparisonView(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                      QWidget* parent = nullptr);

  SplitCompareWidget* area() const { return area_; }
  const std::shared_ptr<ImportedImage>& image() const { return image_; }
  // Waits for the preview decodes to arrive (tests and screenshots).
  bool waitForPreviews(int timeoutMs);

 private:
  void loadOriginalPreview();
  void loadCompressedPreview();

  BatchViewModel& viewModel_;
  std::shared_ptr<ImportedImage> image_;
  SplitCompareWidget* area_;
  quint64 compressedGeneration_ = 0;
  bool originalLoaded_ = false;
  bool compressedLoaded_ = false;
};

// An 8-bit RGBA decoded picture as a QImage (a deep copy); null when empty.
QImage toQImage(const DecodedImage& image);

}  // namespace quillane::ui
