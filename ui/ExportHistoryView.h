#pragma once
// ExportHistoryView: the export history in a popup of the control bar, newest first. Each
// row tells where a file went and offers to show it or take the export back; a row whose file
// a later export overwrote is faded and marked.
//
// GUI thread only.

#include <QFrame>

class QLabel;
class QPushButton;
class QScrollArea;
class QVBoxLayout;

namespace quillane {
class BatchViewModel;
struct ExportRecord;
}  // namespace quillane

namespace quillane::ui {

class ExportHistoryView : public QFrame {
  Q_OBJECT
 public:
  static constexpr int popupWidth = 420;
  static constexpr int popupHeight = 320;

  // As a popup with `popup`, else as a plain widget (screenshots).
  ExportHistoryView(BatchViewModel& viewModel, bool popup, QWidget* parent = nullptr);

  void popUp(const QRect& anchor);

 private:
  void rebuild();
  QWidget* makeRow(const ExportRecord& record, bool superseded);

  BatchViewModel& viewModel_;
  QPushButton* clear_;
  QLabel* empty_;
  QScrollArea* scroll_;
  QWidget* rowsHost_;
  QVBoxLayout* rows_;
};

}  // namespace quillane::ui
