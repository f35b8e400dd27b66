#include "batch/EncodeScheduler.h"

#include <QPointer>
#include <QThreadPool>
#include <algorithm>
#include <atomic>
#include <optional>
#include <utility>

#include "batch/BatchSupport.h"
#include "batch/PoolTask.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/Cancellation.h"
#include "engine/Errors.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"

namespace quillane {

// The latest task of one image: a debounced or immediate encode, or a passthrough read.
struct EncodeScheduler::Task {
  std::shared_ptr<ImportedImage> image;
  Settings settings;
  int costMB = 1;
  // Set by cancellation. A task queued for a slot or for memory still gets it, then gives it
  // back unused: the budgets are not cancellable.
  bool cancelled = false;
  // Running only while the task sleeps in its debounce; a child of the scheduler.
  QPointer<QObject> debounceTimer;
};

// What a pool thread hands back from one encode: bytes, or the text of the error.
struct EncodeScheduler::Result {
  std::optional<QByteArray> bytes;
  std::optional<ResultShape> shape;
  QString error;
  std::optional<DecodedImage> thumbnail;  // asked for when the row has none
  // The source as its header gives it, where it does: what its measure claims from.
  std::optional<EncodeCost::Source> source;
  // Above 0, nothing was encoded: the source holds more than was claimed for it (the file was
  // replaced since its import), and the encode is to claim this much instead.
  int reclaimMB = 0;
};

namespace {

// The figures of the source in `bytes` as its header gives them; nothing where it has none.
std::optional<EncodeCost::Source> sourceFigures(std::span<const uint8_t> bytes) {
  const auto format = ImageFormats::detect(bytes);
  const auto header = format ? ImageService::properties(bytes) : std::nullopt;
  if (!header) return std::nullopt;
  return EncodeCost::Source{*format, header->width, header->height, bytes.size(), header->heldCellPixels};
}

}  // namespace

EncodeCost::Source EncodeScheduler::importedFigures(const ImportedImage& image) {
  return {image.originalFormat(), image.width(), image.height(),
          uint64_t(std::max<int64_t>(image.originalSizeBytes(), 0)), image.heldCellPixels()};
}

EncodeScheduler::EncodeScheduler(Options options, SettingsSource settings, QObject* parent)
    : QObject(parent), options_(std::move(options)), settings_(std::move(settings)) {
  options_.processorCount = std::max(options_.processorCount, 1);
  if (!options_.startTimer) options_.startTimer = &startQTimer;
  processorSlots_ = std::make_unique<CompressionBudget>(options_.processorCount);
  pool_ = std::make_unique<QThreadPool>(this);
  pool_->setObjectName(QStringLiteral("encodePool"));
  // The processor slots bound the encodes that count; the pool only needs room beyond them for
  // work abandoned by a timeout, which runs on (holding its memory) until the encoder returns.
  pool_->setMaxThreadCount(options_.processorCount + 16);
}

EncodeScheduler::~EncodeScheduler() {
  // Abandoned work still holds pool threads; their results go nowhere, since every
  // continuation is tied to this object.
  pool_->waitForDone();
}

void EncodeScheduler::cancel(const QUuid& id) {
  auto it = tasks_.find(id);
  if (it == tasks_.end()) return;
  Task& task = *it->second;
  task.cancelled = true;
  // A task asleep in its debounce simply never wakes: it holds no permit yet.
  delete task.debounceTimer.data();
}

void EncodeScheduler::forget(const QUuid& id) {
  cancel(id);
  tasks_.erase(id);
  pendingReEncode_.erase(id);
  if (const auto measure = measures_.find(id); measure != measures_.end()) {
    measure->second->store(true);
    measures_.erase(measure);
  }
  // A running encode of it (active_) ends by itself and clears its own entry.
}

void EncodeScheduler::forgetAll() {
  for (auto& entry : tasks_) cancel(entry.first);
  tasks_.clear();
  pendingReEncode_.clear();
  for (auto& entry : measures_) entry.second->store(true);
  measures_.clear();
}

void EncodeScheduler::schedule(const std::shared_ptr<ImportedImage>& image, bool debounce) {
  if (!image) return;
  const Settings settings = settings_(*image);
  if (image->frameCount() >= 2 && settings.format == image->originalFormat()) {
    schedulePassthrough(image);
    return;
  }
  const QUuid id = image->id();
  image->setEncodeState(EncodeState::encoding());
  emit encodeStarted();
  if (active_.count(id)) {
    // The running encode finishes first; run() then schedules again with the settings of
    // that moment.
    pendingReEncode_.insert(id);
    return;
  }
  cancel(id);
  auto task = std::make_shared<Task>();
  task->image = image;
  task->settings = settings;
  task->costMB = CompressionCost::encodeCostMB(importedFigures(*image), settings.format, settings.quality);
  tasks_[id] = task;

  if (!debounce) {
    start(task);
    return;
  }
  task->debounceTimer = options_.startTimer(options_.debounce, this, [this, task] {
    task->debounceTimer.clear();
    if (!task->cancelled) start(task);
  });
}

void EncodeScheduler::start(const std::shared_ptr<Task>& task) {
  // Always the processor slot first, then the memory: every task takes them in the same order
  // and none holds one while asleep, so they cannot deadlock. The slot goes back when the
  // encode is settled (by its result or by the watchdog); the memory when the work ends, which
  // for an encode that can't be cancelled is later than its deadline.
  CompressionBudget* memory = options_.memoryBudget;
  processorSlots_->wait(1, this, [this, task, memory] {
    memory->wait(task->costMB, this, [this, task, memory] {
      if (task->cancelled) {
        memory->release(task->costMB);
        processorSlots_->release(1);
        return;
      }
      run(task);
    });
  });
}

void EncodeScheduler::run(const std::shared_ptr<Task>& task) {
  const QUuid id = task->image->id();
  active_.insert(id);
  encode(task, [this, task, id] {
    active_.erase(id);
    if (pendingReEncode_.erase(id) > 0) schedule(task->image, false);
    processorSlots_->release(1);
  });
}

namespace {
// The first of the work and the watchdog to report settles the encode; the other's report is
// dropped. Both report on the GUI thread, so a plain flag suffices for that. The work also
// calls the watchdog off from its own thread the moment it ends: a result that is already on
// its way to a busy GUI thread must not lose to a timeout that fires meanwhile.
struct EncodeRace {
  bool settled = false;
  QPointer<QObject> watchdog;
};
}  // namespace

void EncodeScheduler::encode(const std::shared_ptr<Task>& task, std::function<void()> done) {
  const std::shared_ptr<ImportedImage> image = task->image;
  const uint64_t generation = ++image->encodeGeneration_;
  auto race = std::make_shared<EncodeRace>();
  auto workEnded = std::make_shared<std::atomic<bool>>(false);  // set on the pool thread
  auto settle = [this, race, task, image, generation, done = std::move(done)](const Result& result) {
    if (race->settled) return;
    race->settled = true;
    if (result.reclaimMB > 0) {
      // Encoded once the slot and the memory the source now takes are free again.
      task->costMB = result.reclaimMB;
      done();
      if (!task->cancelled) start(task);
      return;
    }
    finish(image, generation, result);
    done();
  };

  // The watchdog starts when the work is submitted, after the slot and the memory were
  // claimed. A timeout settles the encode as failed and raises the work's cancellation flag,
  // which the engine polls where its libraries let it; the work ends soon after (or, in a
  // library that can't be stopped, when it ends) and its result is dropped.
  const ImageFormat format = task->settings.format;
  const double quality = task->settings.quality;
  const CompressionOptions sizing = task->settings.sizing;
  const std::string label(ImageFormats::label(format));
  auto cancel = std::make_shared<Cancellation::Flag>(false);
  race->watchdog = options_.startTimer(options_.watchdog, this, [workEnded, settle, label, cancel] {
    cancel->store(true);
    if (*workEnded) return;  // the work's result is already queued and wins
    Result timedOut;
    timedOut.error = QString::fromStdString(ImageProcessingError::encodingFailed(label).description());
    settle(timedOut);
  });

  // A row imported without a thumbnail (inspection could not afford it) gets one after its
  // encode, within the memory the encode claimed and no longer uses: a reduced decode takes
  // less than the full one before it, so no preview bound of its own applies.
  const bool wantsThumbnail = image->thumbnail().empty();
  const std::string path = image->sourceFilePath();
  PoolTask::run(
      pool_.get(), this,
      [workEnded, reader = options_.reader, encoder = options_.encoder, sizedEncoder = options_.sizedEncoder,
       sizing, path, format, quality, label, cancel, wantsThumbnail, memory = options_.memoryBudget,
       costMB = task->costMB]() -> Result {
        Result result;
        Cancellation::Scope scope(cancel.get());
        try {
          const std::vector<uint8_t> source = reader(path);
          result.source = sourceFigures(source);
          // The claim was made from the figures of the row's import: a larger picture put in the
          // file's place since is not decoded under it.
          const int needMB =
              result.source ? CompressionCost::encodeCostMB(*result.source, format, quality) : 0;
          if (memory->clamp(needMB) > memory->clamp(costMB)) {
            result.reclaimMB = needMB;
            memory->release(costMB);
            *workEnded = true;
            return result;
          }
          std::vector<uint8_t> bytes;
          if (sizing.fits() || sizing.maxBytes > 0) {
            ImageCompressor::Encoded encoded = sizedEncoder(source, format, quality, sizing);
            bytes = std::move(encoded.bytes);
            result.shape =
                ResultShape{encoded.quality, encoded.width, encoded.height, false, quality, sizing};
          } else {
            bytes = encoder(source, format, quality);
            // A JPEG repackaged as JPEG XL keeps its orientation in the header: the shape is the
            // picture as shown.
            if (auto header = ImageService::properties(bytes)) {
              if (header->orientation.value_or(1) >= 5) std::swap(header->width, header->height);
              result.shape = ResultShape{quality, header->width, header->height, false, quality, sizing};
            }
          }
          if (result.shape) result.shape->keptOriginal = sizing.skipLarger && bytes.size() >= source.size();
          result.bytes = QByteArray(reinterpret_cast<const char*>(bytes.data()), qsizetype(bytes.size()));
          if (wantsThumbnail)
            result.thumbnail = ImageDecoder::loadPreview(source, ImageDecoder::kThumbnailSize, UINT64_MAX);
        } catch (...) {
          result.error = batchdetail::describeCurrentException(
              QString::fromStdString(ImageProcessingError::encodingFailed(label).description()));
        }
        memory->release(costMB);
        *workEnded = true;
        return result;
      },
      [race, settle](const Result& result) {
        delete race->watchdog.data();
        settle(result);
      });
}

void EncodeScheduler::finish(const std::shared_ptr<ImportedImage>& image, uint64_t generation,
                             const Result& result) {
  if (result.thumbnail && !result.thumbnail->empty() && image->thumbnail().empty())
    image->setThumbnail(*result.thumbnail);
  // A result of older settings is harmless: a newer encode owns the image now.
  if (image->encodeGeneration_ != generation) return;
  if (result.bytes) {
    const int64_t size = result.bytes->size();
    image->setCompressedData(result.bytes);
    image->resultShape_ = result.shape;
    image->setEncodeState(EncodeState::ready(size));
    // Not for a row that left the batch; from the source as the encode read it.
    if (tasks_.count(image->id())) measureResult(image, result.source.value_or(importedFigures(*image)));
  } else {
    image->setCompressedData(std::nullopt);
    image->resultShape_.reset();
    image->setEncodeState(EncodeState::failed(result.error));
  }
  emit encodeSettled();
}

void EncodeScheduler::schedulePassthrough(const std::shared_ptr<ImportedImage>& image) {
  // An animated source kept in its own format is exported as it came: nothing is encoded, no
  // slot is taken, and quality does not apply. Its file is read whole (an animation may take
  // up to 1 GiB) and copied for the row, and that much memory is claimed as an encode's is.
  const QUuid id = image->id();
  pendingReEncode_.erase(id);
  cancel(id);
  const uint64_t generation = ++image->encodeGeneration_;
  image->setEncodeState(EncodeState::encoding());
  emit encodeStarted();
  auto task = std::make_shared<Task>();
  task->image = image;
  task->costMB = CompressionCost::megabytes(2 * uint64_t(std::max<int64_t>(image->originalSizeBytes(), 0)));
  tasks_[id] = task;

  CompressionBudget* memory = options_.memoryBudget;
  memory->wait(task->costMB, this, [this, task, memory, generation] {
    if (task->cancelled) {
      memory->release(task->costMB);
      return;
    }
    std::weak_ptr<ImportedImage> weakImage = task->image;
    PoolTask::run(
        pool_.get(), this,
        [reader = options_.reader, path = task->image->sourceFilePath(), memory,
         costMB = task->costMB]() -> QByteArray {
          QByteArray copy;
          try {
            const std::vector<uint8_t> bytes = reader(path);
            copy = QByteArray(reinterpret_cast<const char*>(bytes.data()), qsizetype(bytes.size()));
          } catch (...) {
            copy = {};  // no result: the row fails
          }
          memory->release(costMB);
          return copy;
        },
        [this, weakImage, generation](const QByteArray& bytes) {
          auto row = weakImage.lock();
          if (!row || row->encodeGeneration_ != generation) return;
          if (!bytes.isEmpty()) {
            row->resultShape_.reset();
            row->setCompressedData(bytes);
            row->setEncodeState(EncodeState::ready(bytes.size()));
          } else {
            row->setEncodeState(EncodeState::failed(
                QString::fromStdString(ImageProcessingError::decodingFailed().description())));
          }
          emit encodeSettled();
        });
  });
}

}  // namespace quillane
