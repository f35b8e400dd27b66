#pragma once
// ImageComparisonView: one image of the batch before and after compression in one frame, split
// by a divider the user moves (SplitCompareWidget), with the zoom's buttons above it. A window
// of its own over the main window, which stays usable: the quality, the format and their
// shortcuts work while it is open, and the right half follows each new encoding. It closes
// when its image leaves the batch.
//
// It opens as large as the picture needs at 100 %, within 90 % of its screen, and once the
// user has closed one, at the size that one had (the settings file's "comparison/geometry").
//
// Pictures: each side first gets one bounded by the screen's size, for fit; while the zoom shows
// more pixels than that has, both sides are held at full resolution too, and each new result
// comes at both; back at fit, the full pictures are let go. Decodes run on the global thread pool, each
// within a claim on the process's compression budget, and come back by a queued call guarded by a QPointer; a
// result replaced while it was decoded is dropped.
//
// GUI thread only.

#include <QButtonGroup>
#include <QDialog>
#include <memory>

#include "ui/SplitCompareWidget.h"

namespace quillane::ui {

class ImageComparisonView : public QDialog {
  Q_OBJECT
 public:
  ImageComparisonView(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                      QWidget* parent = nullptr);

  SplitCompareWidget* area() const { return area_; }
  const std::shared_ptr<ImportedImage>& image() const { return image_; }

  void done(int result) override;

 protected:
  void keyPressEvent(QKeyEvent* event) override;

 private:
  void placeOnScreen();
  void syncZoomButtons();
  void ensureDetail();
  void loadOriginalPreview();
  void loadCompressedPreview();

  BatchViewModel& viewModel_;
  std::shared_ptr<ImportedImage> image_;
  SplitCompareWidget* area_;
  QButtonGroup* zoomButtons_;
  int fitPixelSize_ = 1600;      // the longest side of the bounded pictures for fit
  bool fullResolution_ = false;  // both sides come at full resolution too
  quint64 originalGeneration_ = 0;
  quint64 compressedGeneration_ = 0;
};

}  // namespace quillane::ui
