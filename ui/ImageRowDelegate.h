#pragma once
// Paints the rows of ImageListModel (image rows, failure rows, the failures header) and tells
// which part of a row lies under a point, so that ImageListView can run the row's buttons,
// tooltips and cursor. The rows are painted rather than built from widgets so that a batch of
// hundreds of images scrolls smoothly.
//
// GUI thread only.

#include <QModelIndex>
#include <QStyledItemDelegate>

#include "ui/RowRules.h"

namespace quillane::ui {

class ImageListModel;

// The parts of a row that react to the pointer.
enum class RowHit {
  none,
  thumbnail,       // opens the comparison
  animatedBadge,   // help only
  summary,         // help only
  summaryRetry,    // failed encode: retry
  quality,         // opens the quality popup
  warning,         // retries a failed export
  exportButton,    // save dialog of one image
  remove,          // removes the image
  failureRetry,    // retries a failed import
  failureDismiss,  // dismisses a failed import
};

class ImageRowDelegate : public QStyledItemDelegate {
  Q_OBJECT
 public:
  static constexpr int imageRowHeight = 60;
  static constexpr int headerRowHeight = 28;
  static constexpr int thumbnailSide = 44;
  static constexpr int summaryWidth = 100;
  static constexpr int buttonSide = 26;

  explicit ImageRowDelegate(ImageListModel& model, QObject* parent = nullptr);

  void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

  // The part of the row at `index`, drawn in `rowRect`, under `pos` (viewport coordinates).
  RowHit hitTest(const QRect& rowRect, const QModelIndex& index, const QPoint& pos) const;
  // The rectangle of a part, for anchoring a popup under it.
  QRect partRect(const QRect& rowRect, const QModelIndex& index, RowHit part) const;
  // The help text of a part, or empty.
  QString helpText(const QModelIndex& index, RowHit part) const;
  // Whether a part is a button that can be pressed now (the export button needs data).
  bool isEnabled(const QModelIndex& index, RowHit part) const;

  // Pointer feedback, set by the view.
  void setHover(const QPersistentModelIndex& index, RowHit part) { hoverIndex_ = index, hoverPart_ = part; }
  void setPressed(const QPersistentModelIndex& index, RowHit part) { pressIndex_ = index, pressPart_ = part; }
  // Spinner animation step, advanced by the view while something encodes.
  void setSpinnerPhase(int phase) { spinnerPhase_ = phase; }

 private:
  struct Geometry;
  // The parts as drawn: laid out left to right, then mirrored in a right-to-left layout.
  Geometry geometry(const QRect& rowRect, const QModelIndex& index) const;
  Geometry leftToRightGeometry(const QRect& rowRect, const QModelIndex& index) const;
  void paintImageRow(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const;
  void paintFailureRow(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const;
  void paintHeader(QPainter* painter, const QStyleOptionViewItem& option) const;
  void paintButton(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index,
                   RowHit part, const QRect& rect, const QString& symbol, const QColor& color) const;
  void paintSpinner(QPainter* painter, const QRect& rect, const QColor& color) const;

  ImageListModel& model_;
  QPersistentModelIndex hoverIndex_;
  RowHit hoverPart_ = RowHit::none;
  QPersistentModelIndex pressIndex_;
  RowHit pressPart_ = RowHit::none;
  int spinnerPhase_ = 0;
};

// The small font of secondary lines.
QFont smallFont(const QFont& base);
QColor toneColor(RowRules::Tone tone, const QPalette& palette);

}  // namespace quillane::ui
