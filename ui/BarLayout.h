#pragma once
// The layout of the window's control bar: items from left to right on one line while they fit,
// wrapping onto further lines when the window is narrow (long texts in some languages). Items
// added after addStretch() keep to the right end of their line. Items added with
// addDivider() are thin vertical lines that vanish at the start or end of a line.
//
// The bar's height does not depend on which items are shown: it is the height of the layout
// with every item shown, so that a control appearing (progress, the profile menu) never moves
// what lies below the bar.
//
// GUI thread only.

#include <QLayout>
#include <QList>

namespace quillane::ui {

class BarLayout : public QLayout {
 public:
  explicit BarLayout(QWidget* parent = nullptr);
  ~BarLayout() override;

  // `item` follows the last one; a divider is only drawn between two visible items of a line.
  void addBarWidget(QWidget* widget);
  void addDivider(QWidget* divider);
  // The flexible space: later items are aligned to the right of their line.
  void addStretch();

  void addItem(QLayoutItem* item) override;
  QLayoutItem* itemAt(int index) const override;
  QLayoutItem* takeAt(int index) override;
  int count() const override { return int(entries_.size()); }

  Qt::Orientations expandingDirections() const override { return Qt::Horizontal; }
  bool hasHeightForWidth() const override { return true; }
  int heightForWidth(int width) const override;
  QSize sizeHint() const override;
  QSize minimumSize() const override;
  void setGeometry(const QRect& rect) override;

 private:
  struct Entry {
    QLayoutItem* item = nullptr;
    bool divider = false;
    bool right = false;  // after the stretch
  };
  // Lays out the items shown (all items when `everyItem`), applying the geometry when `apply`;
  // gives the height used.
  int arrange(const QRect& rect, bool apply, bool everyItem) const;

  QList<Entry> entries_;
  bool afterStretch_ = false;
};

// A thin vertical line of the given height, for BarLayout::addDivider.
QWidget* makeBarDivider(int height = 20, QWidget* parent = nullptr);

}  // namespace quillane::ui
