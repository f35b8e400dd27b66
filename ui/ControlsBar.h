#pragma once
// The bar of controls above the list: import, global quality, format, size, profile menu, the
// imported count, clear all, export all (its place taken by the encoding progress while
// encoding) and the history button, each shown by the model's state. It wraps onto a second
// line when the window is too narrow for it, and keeps one height whatever is shown, so that
// the list below never moves (see BarLayout).
//
// GUI thread only.

#include <QPointer>
#include <QWidget>

#include "ui/ExportHistoryView.h"

class QLabel;
class QProgressBar;
class QPushButton;
class QStackedLayout;
class QToolButton;

namespace quillane {
class BatchViewModel;
}

namespace quillane::ui {

class ExportHistoryView;
class ExportProfileMenuView;
class FormatPickerView;
class QualitySliderView;
class SizeButtonView;

class ControlsBar : public QWidget {
  Q_OBJECT
 public:
  explicit ControlsBar(BatchViewModel& viewModel, QWidget* parent = nullptr);

  // Opens the history popup under its button (what the button does).
  void showHistory();

 private:
  void refresh();
  void refreshProgress();
  void watchImages();

  BatchViewModel& viewModel_;
  QPushButton* import_;
  QualitySliderView* quality_;
  FormatPickerView* format_;
  SizeButtonView* size_;
  QWidget* profileDivider_;
  ExportProfileMenuView* profiles_;
  QWidget* countDivider_;
  QLabel* count_;
  QWidget* progressGroup_;
  QProgressBar* progress_;
  QLabel* progressLabel_;
  QPushButton* clearAll_;
  QWidget* exportSlot_;
  QStackedLayout* exportStack_;
  QPushButton* export_;
  QToolButton* history_;
  QPointer<ExportHistoryView> historyPopup_;
};

}  // namespace quillane::ui
