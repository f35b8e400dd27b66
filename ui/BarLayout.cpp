#include "ui/BarLayout.h"

#include <QFrame>
#include <QGuiApplication>
#include <QStyle>
#include <QWidget>
#include <vector>

namespace quillane::ui {

BarLayout::BarLayout(QWidget* parent) : QLayout(parent) {}

BarLayout::~BarLayout() {
  for (Entry& entry : entries_) delete entry.item;
}

void BarLayout::addBarWidget(QWidget* widget) {
  addChildWidget(widget);
  entries_.push_back({new QWidgetItem(widget), false, afterStretch_});
  invalidate();
}

void BarLayout::addDivider(QWidget* divider) {
  addChildWidget(divider);
  entries_.push_back({new QWidgetItem(divider), true, afterStretch_});
  invalidate();
}

void BarLayout::addStretch() { afterStretch_ = true; }

void BarLayout::addItem(QLayoutItem* item) { entries_.push_back({item, false, afterStretch_}); }

QLayoutItem* BarLayout::itemAt(int index) const {
  return index >= 0 && index < entries_.size() ? entries_[index].item : nullptr;
}

QLayoutItem* BarLayout::takeAt(int index) {
  if (index < 0 || index >= entries_.size()) return nullptr;
  QLayoutItem* item = entries_[index].item;
  entries_.removeAt(index);
  return item;
}

int BarLayout::heightForWidth(int width) const {
  return std::max(arrange(QRect(0, 0, width, 0), false, true), arrange(QRect(0, 0, width, 0), false, false));
}

QSize BarLayout::sizeHint() const {
  int width = 0;
  int height = 0;
  for (const Entry& entry : entries_) {
    if (entry.item->isEmpty()) continue;
    width += entry.item->sizeHint().width() + spacing();
    height = std::max(height, entry.item->sizeHint().height());
  }
  const QMargins m = contentsMargins();
  return QSize(width + m.left() + m.right(), height + m.top() + m.bottom());
}

QSize BarLayout::minimumSize() const {
  // As narrow as the widest single item; the height follows heightForWidth.
  QSize size;
  for (const Entry& entry : entries_) {
    if (entry.item->isEmpty()) continue;
    size = size.expandedTo(entry.item->minimumSize());
  }
  const QMargins m = contentsMargins();
  return size + QSize(m.left() + m.right(), m.top() + m.bottom());
}

void BarLayout::setGeometry(const QRect& rect) {
  QLayout::setGeometry(rect);
  // The lines shown are centred in the height kept for every item.
  const int used = arrange(rect, false, false);
  arrange(rect.adjusted(0, std::max(0, rect.height() - used) / 2, 0, 0), true, false);
}

// Lines are filled greedily. A divider opening or closing a line is left out of it; within a
// line the left items start at the left edge and the right items end at the right edge.
int BarLayout::arrange(const QRect& rect, bool apply, bool everyItem) const {
  const QRect area = rect.marginsRemoved(contentsMargins());
  const int gap = spacing() >= 0 ? spacing() : 6;

  struct Line {
    std::vector<const Entry*> items;
    int width = 0;
    int height = 0;
  };
  std::vector<Line> lines(1);
  std::vector<const Entry*> hiddenDividers;
  const Entry* pendingDivider = nullptr;

  // A hidden widget's item reports no size; the widget still knows the room it would take.
  auto hintOf = [](const Entry* entry) {
    QWidget* widget = entry->item->widget();
    if (!entry->item->isEmpty() || !widget) return entry->item->sizeHint();
    return widget->sizeHint().expandedTo(widget->minimumSize()).boundedTo(widget->maximumSize());
  };
  auto place = [&](const Entry* entry) {
    Line& line = lines.back();
    const int w = hintOf(entry).width();
    line.width += (line.items.empty() ? 0 : gap) + w;
    line.height = std::max(line.height, hintOf(entry).height());
    line.items.push_back(entry);
  };

  for (const Entry& entry : entries_) {
    if (entry.item->isEmpty() && !everyItem) continue;
    if (entry.divider) {
      if (pendingDivider) hiddenDividers.push_back(pendingDivider);
      pendingDivider = &entry;
      continue;
    }
    const int w = hintOf(&entry).width();
    const int dividerWidth = pendingDivider ? hintOf(pendingDivider).width() + gap : 0;
    Line& line = lines.back();
    const bool fits = line.items.empty() || line.width + gap + dividerWidth + w <= area.width();
    if (!fits) {
      lines.emplace_back();
      if (pendingDivider) hiddenDividers.push_back(pendingDivider);
    } else if (pendingDivider && !line.items.empty()) {
      place(pendingDivider);
    } else if (pendingDivider) {
      hiddenDividers.push_back(pendingDivider);
    }
    pendingDivider = nullptr;
    place(&entry);
  }
  if (pendingDivider) hiddenDividers.push_back(pendingDivider);

  const Qt::LayoutDirection direction =
      parentWidget() ? parentWidget()->layoutDirection() : QGuiApplication::layoutDirection();
  int y = area.y();
  for (const Line& line : lines) {
    if (apply) {
      int leftX = area.x();
      int rightWidth = 0;
      for (const Entry* e : line.items)
        if (e->right) rightWidth += hintOf(e).width() + gap;
      int rightX = area.right() + 1 - std::max(0, rightWidth - gap);
      for (const Entry* e : line.items) {
        const QSize hint = hintOf(e);
        int& x = e->right ? rightX : leftX;
        const int h =
            e->divider ? std::min(hint.height(), line.height) : std::min(line.height, hint.height());
        // Laid out left to right, mirrored in a right-to-left layout.
        e->item->setGeometry(
            QStyle::visualRect(direction, area, QRect(x, y + (line.height - h) / 2, hint.width(), h)));
        x += hint.width() + gap;
      }
    }
    y += line.height + gap;
  }
  if (apply)
    for (const Entry* e : hiddenDividers) e->item->setGeometry(QRect(QPoint(-1000, -1000), hintOf(e)));
  const int used = y - gap - area.y();
  const QMargins m = contentsMargins();
  return std::max(0, used) + m.top() + m.bottom();
}

QWidget* makeBarDivider(int height, QWidget* parent) {
  auto* line = new QFrame(parent);
  line->setFrameShape(QFrame::VLine);
  line->setFrameShadow(QFrame::Sunken);
  line->setFixedSize(2, height);
  return line;
}

}  // namespace quillane::ui
