// BatchViewModel: construction, the plain state of the batch, the list operations, and the
// model's side of encoding and export (the settings, the debounce of global changes and
// isEncoding; the work itself is EncodeScheduler's and BatchExporter's). Import and session
// live in BatchImport.cpp, profiles and history in BatchRecords.cpp.

#include "batch/BatchViewModel.h"

#include <QDeadlineTimer>
#include <QPromise>
#include <QThread>
#include <QThreadPool>
#include <algorithm>

#include "batch/BatchSupport.h"
#include "budget/CompressionBudget.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/Localization.h"

namespace quillane {

BatchViewModel::BatchViewModel(QObject* parent) : BatchViewModel(Options{}, parent) {}

BatchViewModel::BatchViewModel(Options options, QObject* parent)
    : QObject(parent), options_(std::move(options)) {
  if (!options_.reader) options_.reader = &ImageDecoder::readSource;
  if (!options_.encoder) options_.encoder = &ImageCompressor::encodeData;
  if (!options_.sizedEncoder) options_.sizedEncoder = &ImageCompressor::encode;
  if (!options_.inspector) options_.inspector = &ImageDecoder::inspect;
  if (!options_.startTimer) options_.startTimer = &startQTimer;
  const int processors = options_.processorCount > 0 ? options_.processorCount : QThread::idealThreadCount();
  options_.processorCount = std::max(processors, 1);

  loadRecords();

  if (options_.memoryBudgetMB > 0)
    ownMemoryBudget_ = std::make_unique<CompressionBudget>(options_.memoryBudgetMB);
  memoryBudget_ = ownMemoryBudget_ ? ownMemoryBudget_.get() : &CompressionBudget::process();
  inspectPool_ = std::make_unique<QThreadPool>();
  inspectPool_->setMaxThreadCount(options_.processorCount);

  EncodeScheduler::Options scheduling{options_.reader,         options_.encoder,        options_.sizedEncoder,
                                      options_.processorCount, memoryBudget_,           options_.watchdog,
                                      options_.debounce,       options_.measureResults, options_.startTimer};
  scheduler_ = std::make_unique<EncodeScheduler>(
      scheduling,
      [this](const ImportedImage& image) {
        return EncodeScheduler::Settings{outputFormat_, image.qualityOverride().value_or(quality_),
                                         image.sizingOverride().value_or(compressionOptions_)};
      },
      this);
  connect(scheduler_.get(), &EncodeScheduler::encodeStarted, this, [this] { setIsEncoding(true); });
  connect(scheduler_.get(), &EncodeScheduler::encodeSettled, this, [this] { refreshIsEncoding(); });
  exporter_ = std::make_unique<BatchExporter>(
      [this](const std::vector<BatchExporter::Written>& written) { recordExports(written); });
  connect(exporter_.get(), &BatchExporter::finished, this, &BatchViewModel::exportFinished);

  // Format, quality and size options are saved once a change has settled (a slider drag writes once) and
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
  // The scheduler and the exporter wait for their own threads as they go; results go nowhere,
  // since every continuation is tied to an object being destroyed.
  scheduler_.reset();
  exporter_.reset();
  inspectPool_->waitForDone();
}

void BatchViewModel::finishWrites() {
  exporter_->finish();
  if (settingsSave_.isActive()) persistSettings();
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
  settingsSave_.start();
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

void BatchViewModel::setSizingOverride(const std::shared_ptr<ImportedImage>& image,
                                       std::optional<CompressionOptions> sizing) {
  if (!image || image->sizingOverride() == sizing) return;
  image->setSizingOverride(sizing);
  scheduleEncode(image, true);
  persistImportSession();
}

void BatchViewModel::removeImage(const std::shared_ptr<ImportedImage>& given) {
  // A copy: `given` may be the very element of images_ that the removal erases.
  const std::shared_ptr<ImportedImage> image = given;  // NOLINT(performance-unnecessary-copy-initialization)
  if (!image) return;
  const QUuid id = image->id();
  const auto at = std::find(images_.begin(), images_.end(), image);
  if (at == images_.end()) return;
  const ImagePlacements removed{{int(at - images_.begin()), image}};
  scheduler_->forget(id);
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
  // An import that has shown nothing yet (the session's restore at start-up) ends too.
  if (images_.empty() && importFailures_.empty() && importsUnderWay_ == 0) return;
  ImagePlacements removed;
  for (size_t i = 0; i < images_.size(); ++i) removed.emplace_back(int(i), images_[i]);
  const ImportFailureList failures = importFailures_;
  ++clearCount_;  // the imports under way end too, a restore with the rows it has not shown
  unrestored_.clear();
  scheduler_->forgetAll();
  images_.clear();
  importFailures_.clear();
  emit imagesChanged();
  emit importFailuresChanged();
  setIsEncoding(false);
  setHasPendingRecompute(false);
  persistImportSession();
  if (removed.empty() && failures.empty()) return;  // nothing shown, nothing to take back
  announceUndoable(
      QString::fromStdString(Localization::text("undo.clearAll", "Tout effacer")), {},
      [this, removed, failures] { restoreImages(removed, failures); }, [this] { clearAll(); });
}

// ---- Encoding ----

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
  if (!isQualitySliderEditing_) restartQualityDebounce();
}

void BatchViewModel::setQualitySliderEditing(bool editing) {
  isQualitySliderEditing_ = editing;
  if (!editing && hasPendingRecompute_) restartQualityDebounce();
}

// A value passes when the quiet time has gone by without a newer one.
void BatchViewModel::restartQualityDebounce() {
  delete qualityDebounce_.data();
  qualityDebounce_ = options_.startTimer(options_.debounce, this, [this] {
    qualityDebounce_.clear();
    setHasPendingRecompute(false);
    recomputeAll();
  });
}

void BatchViewModel::recomputeAll() {
  const ImageList snapshot = images_;  // scheduling may not change the list, but stay safe
  for (const auto& image : snapshot) scheduleEncode(image, false);
}

void BatchViewModel::scheduleEncode(const std::shared_ptr<ImportedImage>& image, bool debounce) {
  scheduler_->schedule(image, debounce);
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

// ---- Export ----

std::vector<std::string> BatchViewModel::sourcePaths() const {
  std::vector<std::string> paths;
  paths.reserve(images_.size());
  for (const auto& image : images_)
    if (image->sourceURL().isLocalFile()) paths.push_back(image->sourceFilePath());
  return paths;
}

void BatchViewModel::promptExportAll() {
  if (!fileDialogs_) return;
  const QString prompt =
      QString::fromStdString(Localization::text("export.chooseFolder.prompt", "Exporter ici"));
  const QString message = QString::fromStdString(
      Localization::text("export.chooseFolder.message", "Choisissez le dossier de destination des images."));
  const std::optional<QUrl> folder =
      fileDialogs_->chooseExportFolder(lastAppliedProfileFolder_, prompt, message);
  if (!folder || folder->isEmpty()) return;
  // Failures show in the rows through their exportError; the outcomes are not needed here.
  if (!hasPendingRecompute_ && !isEncoding_) {
    exportAll(*folder);
    return;
  }
  // The settings changed while the dialog was up (the local API, files handed over by a second
  // launch): the export waits for what they make, so that no row's bytes of the former settings
  // go out under the new format's name.
  auto* poll = new QTimer(this);
  poll->setInterval(50);
  connect(poll, &QTimer::timeout, this, [this, poll, chosen = *folder] {
    if (hasPendingRecompute_ || isEncoding_) return;
    poll->stop();
    poll->deleteLater();
    exportAll(chosen);
  });
  poll->start();
}

QFuture<std::vector<ExportOutcome>> BatchViewModel::exportAll(const QUrl& folder) {
  return exporter_->exportAll(folder, images_, outputFormat_, sourcePaths());
}

QFuture<bool> BatchViewModel::exportSingle(const std::shared_ptr<ImportedImage>& image, const QUrl& url) {
  // Bytes of the settings before a change would be written under the new format's name: the
  // file waits for this image's result at the current settings.
  const auto replacing = [this, image] {
    return image && image->compressedData() && this->image(image->id()) &&
           (hasPendingRecompute_ || image->encodeState().isEncoding());
  };
  if (!replacing()) return exporter_->exportSingle(image, url, outputFormat_, sourcePaths());
  auto promise = std::make_shared<QPromise<bool>>();
  promise->start();
  auto* poll = new QTimer(this);
  poll->setInterval(50);
  connect(poll, &QTimer::timeout, this, [this, poll, promise, replacing, image, url] {
    if (replacing()) return;
    poll->stop();
    poll->deleteLater();
    if (!this->image(image->id())) {  // it left the batch meanwhile: nothing is written
      promise->addResult(false);
      promise->finish();
      return;
    }
    exporter_->exportSingle(image, url, outputFormat_, sourcePaths()).then([promise](bool written) {
      promise->addResult(written);
      promise->finish();
    });
  });
  poll->start();
  return promise->future();
}

QFuture<bool> BatchViewModel::writeExport(const std::shared_ptr<ImportedImage>& image, const QByteArray& data,
                                          const QUrl& url) {
  return exporter_->writeExport(image, data, url, outputFormat_);
}

}  // namespace quillane
