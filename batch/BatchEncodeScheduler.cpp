// The encode scheduler of BatchViewModel: debounced recomputes, per-image tasks behind the
// processor and memory semaphores, the watchdog race, generations and the passthrough of
// animated sources. Everything here runs on the GUI thread except the bodies handed to the
// encode pool, which get copies and touch no QObject.

#include <QDeadlineTimer>
#include <QFile>
#include <QPointer>
#include <QPromise>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>
#include <algorithm>
#include <atomic>

#include "batch/BatchViewModelPrivate.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/Cancellation.h"
#include "engine/Errors.h"
#include "engine/ImageService.h"

namespace quillane {

void BatchViewModel::setHasPendingRecompute(bool pending) {
  if (pending == hasPendingRecompute_) return;
  hasPendingRecompute_ = pending;
  emit hasPendingRecomputeChanged();
}

void BatchViewModel::setIsEncoding(bool encoding) {
  if (encoding == isEncoding_) return;
  isEncoding_ = encoding;
  emit isEncodingChanged();
}

void BatchViewModel::refreshIsEncoding() {
  setIsEncoding(std::any_of(images_.begin(), images_.end(),
                            [](const auto& image) { return image->encodeState().isEncoding(); }));
}

int BatchViewModel::encodingCompletedCount() const {
  return int(std::count_if(images_.begin(), images_.end(),
                           [](const auto& image) { return !image->encodeState().isEncoding(); }));
}

void BatchViewModel::scheduleRecompute() {
  if (images_.empty()) {
    setHasPendingRecompute(false);
    return;
  }
  setHasPendingRecompute(true);
  if (!isQualitySliderEditing_) sendQualityToDebounce();
}

void BatchViewModel::sendQualityToDebounce() { qualityDebounce_.start(); }

void BatchViewModel::setQualitySliderEditing(bool editing) {
  isQualitySliderEditing_ = editing;
  if (!editing && hasPendingRecompute_) sendQualityToDebounce();
}

void BatchViewModel::recomputeAll() {
  const ImageList snapshot = images_;  // scheduling may not change the list, but stay safe
  for (const auto& image : snapshot) scheduleEncode(image, false);
}

void BatchViewModel::cancelEncodeTask(const QUuid& id) {
  auto it = encodeTasks_.find(id);
  if (it == encodeTasks_.end()) return;
  EncodeTask& task = *it->second;
  task.cancelled = true;
  // A task asleep in its debounce simply never wakes: it holds no permit yet.
  if (task.debounceTimer) {
    task.debounceTimer->stop();
    task.debounceTimer->deleteLater();
    task.debounceTimer = nullptr;
  }
}

void BatchViewModel::scheduleEncode(const std::shared_ptr<ImportedImage>& image, bool debounce) {
  if (!image) return;
  const ImageFormat format = outputFormat_;
  if (image->frameCount() >= 2 && format == image->originalFormat()) {
    schedulePassthrough(image, format);
    return;
  }
  const QUuid id = image->id();
  const double quality = image->qualityOverride().value_or(quality_);
  image->setEncodeState(EncodeState::encoding());
  setIsEncoding(true);
  if (activeEncodeImageIDs_.count(id)) {
    // The running encode finishes first; runEncode then schedules again with the settings
    // of that moment.
    pendingReEncodeImageIDs_.insert(id);
    return;
  }
  cancelEncodeTask(id);
  auto task = std::make_shared<EncodeTask>();
  task->image = image;
  task->quality = quality;
  task->format = format;
  task->costMB = CompressionCost::encodeCostMB({image->originalFormat(), image->width(), image->height(),
                                                uint64_t(std::max<int64_t>(image->originalSizeBytes(), 0))},
                                               format, quality);
  encodeTasks_[id] = task;

  if (!debounce) {
    startEncodeTask(task);
    return;
  }
  auto* timer = new QTimer(this);
  timer->setSingleShot(true);
  timer->setInterval(options_.debounce);
  task->debounceTimer = timer;
  connect(timer, &QTimer::timeout, this, [this, task, timer] {
    timer->deleteLater();
    task->debounceTimer = nullptr;
    if (!task->cancelled) startEncodeTask(task);
  });
  timer->start();
}

void BatchViewModel::startEncodeTask(const std::shared_ptr<EncodeTask>& task) {
  // Always the processor slot first, then the memory: every task takes them in the same
  // order and none holds one while asleep, so they cannot deadlock. The slot goes back when
  // the encode is settled (by its result or by the watchdog); the memory when the work ends,
  // which for an encode that can't be cancelled is later than its deadline.
  processorSlots_->wait(1, this, [this, task] {
    memoryBudget_->wait(task->costMB, this, [this, task] {
      if (task->cancelled) {
        memoryBudget_->release(task->costMB);
        processorSlots_->release(1);
        return;
      }
      runEncode(task, [this] { processorSlots_->release(1); });
    });
  });
}

void BatchViewModel::runEncode(const std::shared_ptr<EncodeTask>& task, std::function<void()> done) {
  const QUuid id = task->image->id();
  activeEncodeImageIDs_.insert(id);
  encode(task, [this, task, id, done = std::move(done)] {
    activeEncodeImageIDs_.erase(id);
    const bool wasPending = pendingReEncodeImageIDs_.erase(id) > 0;
    if (wasPending) scheduleEncode(task->image, false);
    done();
  });
}

namespace {
// The first of the work and the watchdog to report settles the encode; the other's report
// is dropped. Both report on the GUI thread, so a plain flag suffices for that. The work
// also calls the watchdog off from its own thread the moment it ends: a result that is
// already on its way to a busy GUI thread must not lose to a timeout that fires meanwhile.
struct EncodeRace {
  bool settled = false;
  QPointer<QTimer> watchdog;
};
}  // namespace

void BatchViewModel::encode(const std::shared_ptr<EncodeTask>& task, std::function<void()> done) {
  const std::shared_ptr<ImportedImage> image = task->image;
  const uint64_t generation = ++image->encodeGeneration_;
  auto race = std::make_shared<EncodeRace>();
  auto workEnded = std::make_shared<std::atomic<bool>>(false);  // set on the pool thread
  auto settle = [this, race, image, generation, done = std::move(done)](const EncodeResult& result) {
    if (race->settled) return;
    race->settled = true;
    if (race->watchdog) race->watchdog->deleteLater();
    finishEncode(image, generation, result);
    done();
  };

  // The watchdog starts when the work is submitted, after the semaphores were passed. A
  // timeout settles the encode as failed and raises the work's cancellation flag, which the
  // engine polls where its libraries let it; the work ends soon after and its result is
  // dropped.
  auto* watchdog = new QTimer(this);
  watchdog->setSingleShot(true);
  race->watchdog = watchdog;
  const QString label = batchdetail::toQString(ImageFormats::label(task->format));
  auto cancel = std::make_shared<Cancellation::Flag>(false);
  connect(watchdog, &QTimer::timeout, this, [workEnded, settle, label, cancel] {
    cancel->store(true);
    if (*workEnded) return;  // the work's result is already queued and wins
    EncodeResult timedOut;
    timedOut.error =
        QString::fromStdString(ImageProcessingError::encodingFailed(label.toStdString()).description());
    settle(timedOut);
  });
  watchdog->start(options_.watchdog);

  SourceReader reader = options_.reader;
  Encoder encoder = options_.encoder;
  SizedEncoder sizedEncoder = options_.sizedEncoder;
  const CompressionOptions sizing = compressionOptions_;
  const std::string path = image->sourceFilePath();
  const ImageFormat format = task->format;
  const double quality = task->quality;
  // A row imported without a thumbnail (inspection could not afford it) gets one after its
  // encode, within the memory the encode claimed and no longer uses: a reduced decode takes
  // less than the full one before it, so no preview bound of its own applies.
  const bool wantsThumbnail = image->thumbnail().empty();
  CompressionBudget* memory = memoryBudget_;
  const int costMB = task->costMB;
  QtConcurrent::run(
      encodePool_.get(),
      [workEnded, reader, encoder, sizedEncoder, sizing, path, format, quality, label, cancel, wantsThumbnail,
       memory, costMB]() -> EncodeResult {
        EncodeResult result;
        Cancellation::Scope scope(cancel.get());
        try {
          const std::vector<uint8_t> source = reader(path);
          std::vector<uint8_t> bytes;
          if (sizing.fits() || sizing.maxBytes > 0) {
            ImageCompressor::Encoded encoded = sizedEncoder(source, format, quality, sizing);
            bytes = std::move(encoded.bytes);
            result.shape = ResultShape{encoded.quality, encoded.width, encoded.height, false};
          } else {
            bytes = encoder(source, format, quality);
            if (auto header = ImageService::properties(bytes))
              result.shape = ResultShape{quality, header->width, header->height, false};
          }
          if (result.shape) result.shape->keptOriginal = sizing.skipLarger && bytes.size() >= source.size();
          result.bytes = QByteArray(reinterpret_cast<const char*>(bytes.data()), qsizetype(bytes.size()));
          if (wantsThumbnail)
            result.thumbnail = ImageDecoder::loadPreview(source, ImageDecoder::kThumbnailSize, UINT64_MAX);
        } catch (...) {
          result.error = batchdetail::describeCurrentException(QString::fromStdString(
              ImageProcessingError::encodingFailed(label.toStdString()).description()));
        }
        memory->release(costMB);
        *workEnded = true;
        return result;
      })
      .then(this, [race, settle](const EncodeResult& result) {
        if (race->watchdog) race->watchdog->stop();
        settle(result);
      });
}

void BatchViewModel::finishEncode(const std::shared_ptr<ImportedImage>& image, uint64_t generation,
                                  const EncodeResult& result) {
  if (result.thumbnail && !result.thumbnail->empty() && image->thumbnail().empty())
    image->setThumbnail(*result.thumbnail);
  // A result of older settings is harmless: a newer encode owns the image now.
  if (image->encodeGeneration_ != generation) return;
  if (result.bytes) {
    const int64_t size = result.bytes->size();
    image->setCompressedData(result.bytes);
    image->resultShape_ = result.shape;
    image->setEncodeState(EncodeState::ready(size));
    measureResult(image);
  } else {
    image->setCompressedData(std::nullopt);
    image->resultShape_.reset();
    image->setEncodeState(EncodeState::failed(result.error));
  }
  refreshIsEncoding();
}

void BatchViewModel::schedulePassthrough(const std::shared_ptr<ImportedImage>& image, ImageFormat) {
  // An animated source kept in its own format is exported as it came: nothing is encoded,
  // no semaphore is taken, and quality does not apply.
  const QUuid id = image->id();
  pendingReEncodeImageIDs_.erase(id);
  cancelEncodeTask(id);
  const uint64_t generation = ++image->encodeGeneration_;
  image->setEncodeState(EncodeState::encoding());
  setIsEncoding(true);
  auto task = std::make_shared<EncodeTask>();
  task->image = image;
  encodeTasks_[id] = task;

  const std::string path = image->sourceFilePath();
  std::weak_ptr<ImportedImage> weakImage = image;
  QtConcurrent::run(encodePool_.get(), [reader = options_.reader, path]() -> QByteArray {
    try {
      const std::vector<uint8_t> bytes = reader(path);
      return QByteArray(reinterpret_cast<const char*>(bytes.data()), qsizetype(bytes.size()));
    } catch (...) {
      return {};
    }
  }).then(this, [this, weakImage, generation](const QByteArray& bytes) {
    auto row = weakImage.lock();
    if (!row || row->encodeGeneration_ != generation) return;
    if (!bytes.isEmpty()) {
      row->resultShape_.reset();
      row->setCompressedData(bytes);
      row->setEncodeState(EncodeState::ready(bytes.size()));
    } else {
      row->setEncodeState(
          EncodeState::failed(QString::fromStdString(ImageProcessingError::decodingFailed().description())));
    }
    refreshIsEncoding();
  });
}

QFuture<void> BatchViewModel::waitForEncodingToFinish(double timeoutSeconds) {
  auto busy = [this] { return hasPendingRecompute_ || isEncoding_; };
  if (!busy() || !(timeoutSeconds > 0)) return QtFuture::makeReadyFuture();
  const auto deadline = QDeadlineTimer(qint64(std::min(timeoutSeconds, 1e9) * 1000.0));
  auto promise = std::make_shared<QPromise<void>>();
  promise->start();
  QFuture<void> future = promise->future();
  auto* poll = new QTimer(this);
  poll->setInterval(50);
  connect(poll, &QTimer::timeout, this, [poll, promise, deadline, busy] {
    if (busy() && !deadline.hasExpired()) return;
    poll->stop();
    poll->deleteLater();
    promise->finish();
  });
  poll->start();
  return future;
}

}  // namespace quillane
