#pragma once
// ExportHistoryView: the export history in a popup of the control bar, newest first. Each
// row tells where a file went and offers to show it or take the export back; a row whose file
// a later export overwrote is faded and marked. A long history makes its rows as they come into
// view, or within reach of the Tab key; the space of the rest is held below them, so that the
// scroll bar tells the whole length.
//
// GUI thread only.

#include <QFrame>
#include <QSet>
#include <QUuid>

class QLabel;
class QPushButton;
class QScrollArea;
class QSpacerItem;
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
  ~ExportHistoryView() override;

  void popUp(const QRect& anchor);

 private:
  void rebuild();
  // Makes the rows up to `count` (at most the history's), below those made.
  void addRows(int count);
  // Makes the rows the view shows or is about to, as it scrolls.
  void fillView();
  QWidget* makeRow(const ExportRecord& record, bool superseded);

  BatchViewModel& viewModel_;
  QPushButton* clear_;
  QLabel* empty_;
  QScrollArea* scroll_;
  QWidget* rowsHost_;
  QVBoxLayout* rows_;
  QSpacerItem* rest_ = nullptr;  // the height of the rows not made yet
  QSet<QUuid> superseded_;
  int made_ = 0;
  int rowStep_ = 0;  // a row's height and the space after it
};

}  // namespace quillane::ui
