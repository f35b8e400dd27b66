#pragma once
// The controls of the two global values and of one image's quality:
// - QualitySliderView: the global quality, cooperating with the model's debounce: while the
//   thumb is held nothing is encoded, and letting go sends a recompute held back meanwhile.
// - FormatPickerView: the output format menu; choosing the current format recomputes too.
// - QualityOverridePopup: one image's quality, in a popup; a drag writes nothing until the
//   thumb is let go, so one drag encodes once. Below it, the image's own size options: an
//   edit makes them the image's, and a link follows the batch's again.
//
// GUI thread only. The views hold the model (and the image) by reference / shared pointer.

#include <QFrame>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>

#include "engine/ImageFormat.h"

class QLabel;
class QMenu;
class QPushButton;
class QSlider;

namespace quillane {
class BatchViewModel;
class ImportedImage;
}  // namespace quillane

namespace quillane::ui {

class SizeOptionsEditor;

class QualitySliderView : public QWidget {
  Q_OBJECT
 public:
  explicit QualitySliderView(BatchViewModel& viewModel, QWidget* parent = nullptr);

 private:
  void retranslate();
  QString readoutText() const;
  void syncFromModel();

  BatchViewModel& viewModel_;
  QLabel* label_;
  QSlider* slider_;
  QLabel* readout_;
};

class FormatPickerView : public QWidget {
  Q_OBJECT
 public:
  explicit FormatPickerView(BatchViewModel& viewModel, QWidget* parent = nullptr);

 private:
  void retranslate();
  void syncFromModel();

  BatchViewModel& viewModel_;
  QLabel* label_;
  QPushButton* button_;
  QMenu* menu_;
};

class QualityOverridePopup : public QFrame {
  Q_OBJECT
 public:
  QualityOverridePopup(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                       QWidget* parent = nullptr);

  // The slider's editing callback: on release a draft becomes the override.
  void editingChanged(bool editing);
  // Opens under `anchor` (global coordinates).
  void popUp(const QRect& anchor);

 private:
  // The first of the draft, the image's override and the global quality.
  double displayedQuality() const;
  QString readoutText() const;
  void refresh();
  void revertToGlobal();

  BatchViewModel& viewModel_;
  std::shared_ptr<ImportedImage> image_;
  std::optional<double> draftQuality_;
  QSlider* slider_;
  QLabel* readout_;
  QPushButton* revert_;
  QLabel* following_;
  SizeOptionsEditor* sizeEditor_;
  QPushButton* sizeRevert_;
};

// One exclusive, radio-style entry per output format in `menu`, each calling `choose`; the
// owner checks the current one.
void addFormatChoices(QMenu* menu, const std::function<void(ImageFormat)>& choose);

// Gives a button with a drop-down menu `label`, elided to `maxTextWidth`, and a width that
// keeps the label clear of the menu arrow.
void setMenuButtonText(QPushButton* button, const QString& label, int maxTextWidth);
// Shows `format` on a format button. Screen readers hear "Format" as its name and the format as
// its description: on Linux they would otherwise hear the format alone.
void showFormat(QPushButton* button, ImageFormat format);

// A flat button drawn as a link ("common.retry", "quality.revertFormat").
QPushButton* makeLinkButton(const QString& text, QWidget* parent = nullptr);
// A button in the accent colour, for the one main action of a view.
void makeProminent(QPushButton* button);

}  // namespace quillane::ui
