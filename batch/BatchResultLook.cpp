// How each result looks beside its source (EncodeScheduler::measureResult): after an encode's
// size is shown, its perceptual distance and a thumbnail of the result are measured on the
// encode pool, within the same processor slots and memory budget as the encodes, and handed to
// the row. GUI thread, but for the pool body, which gets copies and touches no QObject.

#include <QMetaObject>
#include <QThreadPool>
#include <algorithm>
#include <atomic>
#include <utility>

#include "batch/EncodeScheduler.h"
#include "batch/PoolTask.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/Cancellation.h"
#include "engine/PerceptualDistance.h"

namespace quillane {

namespace {
struct Look {
  std::optional<double> butteraugli;
  DecodedImage thumbnail;
};
}  // namespace

void EncodeScheduler::measureResult(const std::shared_ptr<ImportedImage>& image,
                                    const EncodeCost::Source& figures) {
  if (!options_.measureResults || !image || !image->compressedData()) return;
  const QByteArray result = *image->compressedData();
  // Butteraugli compares pictures of one size: a result fitted to a smaller one has no distance,
  // and its source is not even read for it. Only the result's thumbnail is made then. Sides in
  // either order: a source's figures are as stored, a result's upright.
  const auto sides = [](int width, int height) {
    return std::pair(std::min(width, height), std::max(width, height));
  };
  const auto& shape = image->resultShape();
  const bool resized = shape && sides(shape->width, shape->height) != sides(figures.width, figures.height);
  // A newer result makes this measure worthless, and so does the row leaving the batch: each
  // raises the flag, which libjxl's work polls.
  auto cancel = std::make_shared<Cancellation::Flag>(false);
  measures_[image->id()] = cancel;
  auto stale = std::make_shared<QMetaObject::Connection>();
  *stale = connect(image.get(), &ImportedImage::compressedDataChanged, this, [cancel, stale] {
    cancel->store(true);
    QObject::disconnect(*stale);
  });
  const int costMB = CompressionCost::measureCostMB(figures.width, figures.height, figures.cellPixels,
                                                    figures.fileBytes + uint64_t(result.size()));
  std::weak_ptr<ImportedImage> weakImage = image;
  CompressionBudget* memory = options_.memoryBudget;
  processorSlots_->wait(1, this, [this, weakImage, result, resized, cancel, stale, costMB, memory] {
    memory->wait(costMB, this, [this, weakImage, result, resized, cancel, stale, costMB, memory] {
      auto alive = weakImage.lock();
      if (!alive || cancel->load()) {
        memory->release(costMB);
        processorSlots_->release(1);
        return;
      }
      PoolTask::run(
          pool_.get(), this,
          [reader = options_.reader, path = alive->sourceFilePath(), result, resized, cancel, memory,
           costMB] {
            Look look;
            Cancellation::Scope scope(cancel.get());
            const std::span<const uint8_t> resultBytes(reinterpret_cast<const uint8_t*>(result.constData()),
                                                       size_t(result.size()));
            try {
              if (!resized) look.butteraugli = PerceptualDistance::between(reader(path), resultBytes);
            } catch (...) {
              // no number rather than one that can't be trusted
            }
            // A newer result raising the flag during the decode ends it with Cancelled, which the
            // preview's own fallbacks let through: caught here, or the slot and memory would never
            // come back.
            try {
              if (!cancel->load()) {
                if (auto thumbnail = ImageDecoder::loadPreview(resultBytes, ImageDecoder::kThumbnailSize))
                  look.thumbnail = std::move(*thumbnail);
              }
            } catch (...) {
              // no thumbnail: the row keeps the one it has
            }
            memory->release(costMB);  // the work has ended, whatever becomes of its result
            return look;
          },
          [this, weakImage, result, stale](Look look) {
            processorSlots_->release(1);
            QObject::disconnect(*stale);
            auto shown = weakImage.lock();
            // Implicit sharing: the same data pointer means the row still shows this result.
            if (!shown || !shown->compressedData() ||
                shown->compressedData()->constData() != result.constData())
              return;
            shown->setResultLook(look.butteraugli, std::move(look.thumbnail));
          });
    });
  });
}

}  // namespace quillane
