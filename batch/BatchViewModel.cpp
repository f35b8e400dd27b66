// BatchViewModel: construction, the plain state of the batch and the list operations.
// The scheduler, import, export and records operations live in the Batch*.cpp files.

#include "batch/BatchViewModel.h"

#include <QThread>
#include <QThreadPool>
#include <algorithm>

#include "batch/BatchViewModelPrivate.h"
#include "budget/CompressionBudget.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/Localization.h"

namespace quillane {

namespace batchdetail {
QString describeCurrentException(const QString& fallback) {
  try {
    throw;
  } catch (const QuillaneError& error) {
    return QString::fromStdString(error.description());
  } catch (...) {
    return fallback;
  }
}
}  // namespace batchdetail

BatchViewModel::BatchViewModel(QObject* parent) : BatchViewModel(Options{}, parent) {}

BatchViewModel::BatchViewModel(Options options, QObject* parent)
    : QObject(parent), options_(std::move(options)) {
  if (!options_.reader) options_.reader = &ImageDecoder::readSource;
  if (!options_.encoder) options_.encoder = &ImageCompressor::encodeData;
  if (!options_.sizedEncoder) options_.sizedEncoder = &ImageCompressor::encode;
  if (!options_.inspector) options_.inspector = &ImageDecoder::inspect;
  const int processors = options_.processorCount > 0 ? options_.processorCount : QThread::idealThreadCount();
  options_.processorCount = std::max(processors, 1);

  loadRecords();

  processorSlots_ = std::make_unique<CompressionBudget>(options_.processorCount);
  if (options_.memoryBudgetMB > 0)
    ownMemoryBudget_ = std::make_unique<CompressionBudget>(options_.memoryBudgetMB);
  memoryBudget_ = ownMemoryBudget_ ? ownMemoryBudget_.get() : &CompressionBudget::process();
  encodePool_ = std::make_unique<QThreadPool>();
  // The processor slots bound the encodes that count; the pool only needs room beyond them
  // for work abandoned by a timeout, which runs on (holding its memory) until the encoder
  // returns.
  encodePool_->setMaxThreadCount(options_.processorCount + 16);
  inspectPool_ = std::make_unique<QThreadPool>();
  inspectPool_->setMaxThreadCount(options_.processorCount);

  // The quality debounce: a value passes when the quiet time has gone by without a newer one.
  qualityDebounce_.setSingleShot(true);
  qualityDebounce_.setInterval(options_.debounce);
  connect(&qualityDebounce_, &QTimer::timeout, this, [this] {
    setHasPendingRecompute(false);
    recomputeAll();
  });

  // Format and quality are saved once a change has settled (a slider drag writes once) and
  // come back with the restored batch.
  settingsSave_.setSingleShot(true);
  settingsSave_.setInterval(500);
  connect(&settingsSave_, &QTimer::timeout, this, &BatchViewModel::persistSettings);
  if (options_.restoreSession) {
    restoreSettings();
    QTimer::singleShot(0, this, [this] { restoreSession(); });
  }
}

BatchViewModel::~BatchViewModel() {
  if (settingsSave_.isActive()) persistSettings();
  // Abandoned work still holds pool threads (and its memory, given back as it ends); their
  // results go nowhere, since every continuation is tied to this object.
  encodePool_->waitForDone();
  inspectPool_->waitForDone();
}

std::shared_ptr<ImportedImage> BatchViewModel::image(const QUuid& id) const {
  auto it =
      std::find_if(images_.begin(), images_.end(), [&](const auto& image) { return image->id() == id; });
  return it == images_.end() ? nullptr : *it;
}

void BatchViewModel::setQuality(double quality) {
  quality_ = quality;
  emit qualityChanged();
  scheduleRecompute();
  settingsSave_.start();
}

void BatchViewModel::setOutputFormat(ImageFormat format) {
  outputFormat_ = format;
  emit outputFormatChanged();
  scheduleRecompute();
  settingsSave_.start();
}

void BatchViewModel::setCompressionOptions(const CompressionOptions& options) {
  if (options == compressionOptions_) return;
  compressionOptions_ = options;
  emit compressionOptionsChanged();
  scheduleRecompute();
}

void BatchViewModel::setExportError(std::optional<QString> error) {
  if (error == exportError_) return;
  exportError_ = std::move(error);
  emit exportErrorChanged();
}

void BatchViewModel::setAppliedProfileName(std::optional<QString> name) {
  if (name == appliedProfileName_) return;
  appliedProfileName_ = std::move(name);
  emit appliedProfileNameChanged();
}

void BatchViewModel::setQualityOverride(const std::shared_ptr<ImportedImage>& image,
                                        std::optional<double> quality) {
  if (!image) return;
  const std::optional<double> before = image->qualityOverride();
  image->setQualityOverride(quality);
  scheduleEncode(image, true);
  persistImportSession();
  if (before == quality) return;
  std::weak_ptr<ImportedImage> weak = image;
  auto set = [this, weak](std::optional<double> value) {
    return [this, weak, value] {
      if (auto target = weak.lock()) setQualityOverride(target, value);
    };
  };
  announceUndoable(QString::fromStdString(Localization::text("undo.quality", "Qualité de l'image")),
                   image->id().toString(), set(before), set(quality));
}

void BatchViewModel::removeImage(const std::shared_ptr<ImportedImage>& given) {
  // A copy: `given` may be the very element of images_ that the removal erases.
  const std::shared_ptr<ImportedImage> image = given;  // NOLINT(performance-unnecessary-copy-initialization)
  if (!image) return;
  const QUuid id = image->id();
  const auto at = std::find(images_.begin(), images_.end(), image);
  if (at == images_.end()) return;
  const ImagePlacements removed{{int(at - images_.begin()), image}};
  cancelEncodeTask(id);
  encodeTasks_.erase(id);
  pendingReEncodeImageIDs_.erase(id);
  // A running encode of it (activeEncodeImageIDs) ends by itself and clears its own entry.
  std::erase_if(images_, [&](const auto& candidate) { return candidate->id() == id; });
  emit imagesChanged();
  refreshIsEncoding();
  persistImportSession();
  announceUndoable(
      QString::fromStdString(Localization::text("undo.remove", "Retrait de l'image")), {},
      [this, removed] { restoreImages(removed); }, [this, image] { removeImage(image); });
}

void BatchViewModel::moveImage(int from, int to) {
  const int count = int(images_.size());
  if (from < 0 || from >= count || to < 0 || to >= count || from == to) return;
  auto moved = images_[size_t(from)];
  images_.erase(images_.begin() + from);
  images_.insert(images_.begin() + to, std::move(moved));
  emit imagesChanged();
  persistImportSession();
}

void BatchViewModel::clearAll() {
  if (images_.empty() && importFailures_.empty()) return;
  ImagePlacements removed;
  for (size_t i = 0; i < images_.size(); ++i) removed.emplace_back(int(i), images_[i]);
  const ImportFailureList failures = importFailures_;
  for (auto& entry : encodeTasks_) cancelEncodeTask(entry.first);
  encodeTasks_.clear();
  pendingReEncodeImageIDs_.clear();
  images_.clear();
  importFailures_.clear();
  emit imagesChanged();
  emit importFailuresChanged();
  setIsEncoding(false);
  setHasPendingRecompute(false);
  persistImportSession();
  announceUndoable(
      QString::fromStdString(Localization::text("undo.clearAll", "Tout effacer")), {},
      [this, removed, failures] { restoreImages(removed, failures); }, [this] { clearAll(); });
}

}  // namespace quillane
