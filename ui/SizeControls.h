#pragma once
// The size options (fit within W x H, at most N bytes, keep the original when the result is
// not smaller) as the window edits them:
// - SizeOptionsEditor: the three, each behind its own check box; the profile and hot folder
//   forms embed it, and so does the bar's popup.
// - SizeButtonView: the bar's "Size" button, which opens a popup with an editor bound to the
//   model's options; a change applies at once (the model debounces the re-encode).
//
// GUI thread only.

#include <QFrame>
#include <QPointer>
#include <QWidget>

#include "engine/ImageCompressor.h"

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QToolButton;
class QSpinBox;

namespace quillane {
class BatchViewModel;
}

namespace quillane::ui {

class SizeOptionsEditor : public QWidget {
  Q_OBJECT
 public:
  explicit SizeOptionsEditor(QWidget* parent = nullptr);

  // What the boxes say: a fit whose sides are both "any" is no fit; an unchecked part is off.
  CompressionOptions options() const;
  // Shows `options` without emitting changed(); a part that is off keeps the values last shown.
  void setOptions(const CompressionOptions& options);

 signals:
  // Every edit by the user, with the options it leaves.
  void changed(const CompressionOptions& options);

 private:
  void refreshEnabled();
  void edited();

  QCheckBox* fit_;
  QSpinBox* width_;
  QSpinBox* height_;
  QCheckBox* budget_;
  QDoubleSpinBox* amount_;
  QComboBox* unit_;
  QCheckBox* skipLarger_;
  // The budget as setOptions gave it, which the fields show only to a tenth of their unit: kept
  // until the user edits them, so that an edit of another option does not round it.
  int64_t givenBytes_ = 0;
};

// "fit 1600 x 1200 · at most 500 kB · skip larger", or "Off": the options in a line.
QString sizeOptionsText(const CompressionOptions& options);

class SizeButtonView : public QWidget {
  Q_OBJECT
 public:
  explicit SizeButtonView(BatchViewModel& viewModel, QWidget* parent = nullptr);
  // Opens the popup under the button (what the button does).
  void showPopup();

 private:
  // The open popup's editor, or null.
  SizeOptionsEditor* popupEditor() const;
  void syncFromModel();

  BatchViewModel& viewModel_;
  QToolButton* button_;
  QPointer<QFrame> popup_;
};

}  // namespace quillane::ui
