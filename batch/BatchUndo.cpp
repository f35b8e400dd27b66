// Taking changes back: the model announces each removal and per-image quality change with
// what undoes and redoes it, and puts removed images back where they were. GUI thread only.

#include <algorithm>

#include "batch/BatchViewModel.h"

namespace quillane {

void BatchViewModel::announceUndoable(const QString& text, const QString& mergeKey,
                                      std::function<void()> undo, std::function<void()> redo) {
  if (replaying_) return;
  emit undoableChange(text, mergeKey, replay(std::move(undo)), replay(std::move(redo)));
}

std::function<void()> BatchViewModel::replay(std::function<void()> change) {
  return [this, change = std::move(change)] {
    const bool outer = replaying_;
    replaying_ = true;
    change();
    replaying_ = outer;
  };
}

void BatchViewModel::restoreImages(const ImagePlacements& placements, const ImportFailureList& failures) {
  std::vector<std::shared_ptr<ImportedImage>> restored;
  for (const auto& [index, image] : placements) {
    if (!image || this->image(image->id())) continue;  // already back
    const auto at = images_.begin() + std::clamp<ptrdiff_t>(index, 0, ptrdiff_t(images_.size()));
    images_.insert(at, image);
    restored.push_back(image);
  }
  bool failuresBack = false;
  for (const ImportFailure& failure : failures) {  // one row a file, the latest kept
    if (std::any_of(importFailures_.begin(), importFailures_.end(),
                    [&](const ImportFailure& row) { return row.url == failure.url; }))
      continue;
    importFailures_.push_back(failure);
    failuresBack = true;
  }
  if (failuresBack) emit importFailuresChanged();
  if (restored.empty()) return;
  emit imagesChanged();
  // The settings may have changed meanwhile: each comes back encoded as they are now.
  for (const auto& image : restored) scheduleEncode(image, false);
  persistImportSession();
}

}  // namespace quillane
