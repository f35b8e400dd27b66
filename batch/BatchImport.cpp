// Import and session persistence of BatchViewModel. Inspection runs on the inspection pool,
// at most one file per processor; results are buffered and delivered in URL order on the
// GUI thread, so rows appear in the order the user chose whatever finished first.

#include <sys/stat.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPromise>
#include <QThreadPool>
#include <cerrno>

#include "batch/BatchSupport.h"
#include "batch/BatchViewModel.h"
#include "batch/PoolTask.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/Errors.h"
#include "engine/ImageFormat.h"
#include "engine/Localization.h"
#include "records/JSONFileStore.h"
#include "records/JsonForms.h"

namespace quillane {

// One call of inspectConcurrently: results are buffered by index and delivered in URL order.
// GUI thread only.
struct BatchViewModel::InspectionRun {
  struct Outcome {
    std::optional<ImageDecoder::LightDecodedImage> decoded;
    QString error;
    bool canRetry = true;  // false for a format that is none of the six: trying again can't help
  };
  QList<QUrl> urls;
  InspectionResult onResult;
  std::function<void()> onFinished;
  quint64 clearCount = 0;  // the model's at the start: a Clear All since ends the run
  int nextToStart = 0;
  int nextToDeliver = 0;
  std::map<int, Outcome> buffer;
};

namespace {
const QString kSessionFile = QStringLiteral("importSession.json");
const QString kSettingsFile = QStringLiteral("batchSettings.json");

// What the failure of a file that reads, but as none of the six formats, says: the format by
// name where its first bytes tell a common one. Nothing for a file that can't be read or
// that is one of the six (damaged, then). Reads the file's first bytes: a worker thread.
std::optional<QString> foreignFormat(const std::string& path) {
  if (ImageFormats::detect(path)) return std::nullopt;
  // A pipe would hold the opening until a writer came: only a regular file is looked at.
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  QFile file(QFile::decodeName(path.c_str()));
  if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
  const QByteArray head = file.read(16);
  if (head.isEmpty()) return std::nullopt;
  QString name;
  if (head.startsWith("GIF87a") || head.startsWith("GIF89a"))
    name = QStringLiteral("GIF");
  else if (head.startsWith(QByteArray("II*\0", 4)) || head.startsWith(QByteArray("MM\0*", 4)))
    name = QStringLiteral("TIFF");
  else if (head.startsWith("BM"))
    name = QStringLiteral("BMP");
  if (name.isEmpty())
    return QString::fromStdString(
        Localization::text("import.formatNotRead", "Quillane ne lit pas ce format."));
  return QString::fromStdString(Localization::format(
      "import.formatNotReadNamedFormat", "%@ est un format que Quillane ne lit pas.", {name.toStdString()}));
}

struct Snapshot {
  QUrl sourceURL;
  std::optional<double> qualityOverride;
  std::optional<CompressionOptions> sizingOverride;
};

// One row of importSession.json, as decodeSession reads it.
JsonValue sessionEntry(const Snapshot& row) {
  JsonValue entry = JsonValue::object();
  entry.set("sourceURL", JsonForms::fileURL(row.sourceURL));
  if (row.qualityOverride) entry.set("qualityOverride", *row.qualityOverride);
  if (row.sizingOverride) {
    JsonValue sizing = JsonValue::object();
    JsonForms::setSizeOptions(sizing, *row.sizingOverride);
    entry.set("sizingOverride", std::move(sizing));
  }
  return entry;
}

// A list of {"sourceURL": file URL text, "qualityOverride": number?, "sizingOverride": the
// size options' object?}. Any malformed entry makes the whole file count as empty.
std::vector<Snapshot> decodeSession(const QJsonDocument& document) {
  std::vector<Snapshot> snapshots;
  const bool ok = JsonForms::forEachObject(document, [&](const QJsonObject& object) {
    Snapshot snapshot{JsonForms::requireFileURLExact(object, "sourceURL"), std::nullopt, std::nullopt};
    const QJsonValue quality = object.value("qualityOverride");
    if (quality.isDouble()) {
      snapshot.qualityOverride = quality.toDouble();
    } else if (!quality.isUndefined() && !quality.isNull()) {
      throw JsonForms::DecodingError("qualityOverride is not a number");
    }
    const QJsonValue sizing = object.value("sizingOverride");
    if (sizing.isObject()) {
      snapshot.sizingOverride = JsonForms::sizeOptions(sizing.toObject());
    } else if (!sizing.isUndefined() && !sizing.isNull()) {
      throw JsonForms::DecodingError("sizingOverride is not an object");
    }
    snapshots.push_back(std::move(snapshot));
  });
  return ok ? snapshots : std::vector<Snapshot>{};
}
}  // namespace

void BatchViewModel::promptImport() {
  if (!fileDialogs_) return;
  const QList<QUrl> urls = fileDialogs_->chooseFilesToImport();
  if (urls.isEmpty()) return;
  importFiles(urls);
}

QFuture<void> BatchViewModel::importFiles(const QList<QUrl>& urls) {
  if (urls.isEmpty()) return QtFuture::makeReadyFuture();
  auto promise = std::make_shared<QPromise<void>>();
  promise->start();
  QFuture<void> future = promise->future();
  auto anyImported = std::make_shared<bool>(false);
  inspectConcurrently(
      urls,
      [this, anyImported](int, const QUrl& url, const ImageDecoder::LightDecodedImage* decoded,
                          const QString& error, bool canRetry) {
        if (!decoded) {
          recordImportFailure(url, error, canRetry);
          return;
        }
        auto image = std::make_shared<ImportedImage>(url, *decoded);
        appendImported(image);
        *anyImported = true;
        if (std::erase_if(importFailures_, [&](const ImportFailure& failure) { return failure.url == url; }) >
            0) {
          emit importFailuresChanged();
        }
        scheduleEncode(image, false);
      },
      [this, anyImported, promise] {
        if (*anyImported) persistImportSession();
        promise->finish();
      });
  return future;
}

void BatchViewModel::appendImported(const std::shared_ptr<ImportedImage>& image) {
  images_.push_back(image);
  emit imagesChanged();
}

void BatchViewModel::inspectConcurrently(const QList<QUrl>& urls, InspectionResult onResult,
                                         std::function<void()> onFinished) {
  if (urls.isEmpty()) {
    onFinished();
    return;
  }
  auto run = std::make_shared<InspectionRun>();
  run->urls = urls;
  run->onResult = std::move(onResult);
  ++importsUnderWay_;
  run->onFinished = [this, finished = std::move(onFinished)] {
    --importsUnderWay_;
    finished();
  };
  run->clearCount = clearCount_;
  const int width = std::min(options_.processorCount, int(urls.size()));
  run->nextToStart = width;
  for (int index = 0; index < width; ++index) startInspection(run, index);
}

void BatchViewModel::startInspection(const std::shared_ptr<InspectionRun>& run, int index) {
  // An inspection claims what it will take (its file's bytes and its thumbnail's decode, from
  // the header: at most ImageDecoder::kInspectionMemory) from the encodes' memory budget. It
  // waits for running encodes to give memory back, but ahead of the queued ones: an import
  // must not sit behind a queue of long encodes, and inspections are short.
  const std::string path = localFilePath(run->urls[index]);
  PoolTask::run(
      inspectPool_.get(), this,
      [path] {
        try {
          return CompressionCost::megabytes(ImageDecoder::inspectionPeakBytes(path));
        } catch (...) {
          return CompressionCost::megabytes(ImageDecoder::kInspectionMemory);  // the most it may take
        }
      },
      [this, run, index, path](int costMB) {
        memoryBudget_->waitAhead(costMB, this,
                                 [this, run, index, path, costMB] { inspect(run, index, path, costMB); });
      });
}

void BatchViewModel::inspect(const std::shared_ptr<InspectionRun>& run, int index, const std::string& path,
                             int costMB) {
  using Outcome = InspectionRun::Outcome;
  Inspector inspector = options_.inspector;
  PoolTask::run(
      inspectPool_.get(), this,
      [inspector, path, memory = memoryBudget_, costMB]() -> Outcome {
        Outcome outcome;
        try {
          outcome.decoded = inspector(path);
        } catch (...) {
          outcome.error = batchdetail::describeCurrentException(
              QString::fromStdString(ImageProcessingError::decodingFailed().description()));
          // A file that reads but is none of the six formats is said to be so, and not retried; so
          // is a folder, which the import does not enter.
          struct stat st {};
          if (const auto foreign = foreignFormat(path)) {
            outcome.error = *foreign;
            outcome.canRetry = false;
          } else if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            outcome.error = QString::fromStdString(Localization::systemError(EISDIR));
            outcome.canRetry = false;
          }
        }
        memory->release(costMB);
        return outcome;
      },
      [this, run, index](const Outcome& outcome) {
        if (run->clearCount != clearCount_) {  // cleared: nothing more of it is started or shown
          if (auto finished = std::exchange(run->onFinished, nullptr)) finished();
          return;
        }
        run->buffer[index] = outcome;
        if (run->nextToStart < run->urls.size()) startInspection(run, run->nextToStart++);
        // A slow early file holds back the delivery of later ones, never their inspection.
        while (true) {
          auto it = run->buffer.find(run->nextToDeliver);
          if (it == run->buffer.end()) break;
          const Outcome ready = std::move(it->second);
          run->buffer.erase(it);
          const int delivered = run->nextToDeliver++;
          run->onResult(delivered, run->urls[delivered], ready.decoded ? &*ready.decoded : nullptr,
                        ready.error, ready.canRetry);
        }
        if (run->nextToDeliver == run->urls.size() && run->onFinished) {
          auto finished = std::move(run->onFinished);
          run->onFinished = nullptr;
          finished();
        }
      });
}

void BatchViewModel::recordImportFailure(const QUrl& url, const QString& message, bool canRetry) {
  ImportFailure failure{QUuid::createUuid(), url, message, canRetry};
  auto it = std::find_if(importFailures_.begin(), importFailures_.end(),
                         [&](const ImportFailure& existing) { return existing.url == url; });
  if (it != importFailures_.end()) {
    *it = std::move(failure);
  } else {
    importFailures_.push_back(std::move(failure));
  }
  emit importFailuresChanged();
}

void BatchViewModel::retryImport(const ImportFailure& failure) {
  // Copied first: `failure` may be an element of importFailures_, which dismissing destroys.
  const QUrl url = failure.url;
  dismissImportFailure(failure.id);
  importFiles({url});
}

void BatchViewModel::dismissImportFailure(const QUuid& id) {
  // By value into the predicate: `id` may belong to an element that erasing moves over.
  const auto matches = [target = id](const ImportFailure& failure) { return failure.id == target; };
  if (std::erase_if(importFailures_, matches) > 0) {
    emit importFailuresChanged();
  }
}

void BatchViewModel::persistImportSession() {
  JsonValue list = JsonValue::array();
  for (const auto& image : images_)
    list.push(sessionEntry({image->sourceURL(), image->qualityOverride(), image->sizingOverride()}));
  for (const auto& [index, entry] : unrestored_) list.push(entry);
  JSONFileStore::save(list, kSessionFile);
}

void BatchViewModel::persistSettings() {
  settingsSave_.stop();
  JsonValue settings = JsonValue::object();
  settings.set("outputFormat", ImageFormats::rawValue(outputFormat_));
  settings.set("quality", quality_);
  JsonForms::setSizeOptions(settings, compressionOptions_);
  JSONFileStore::save(settings, kSettingsFile);
}

void BatchViewModel::restoreSettings() {
  // {"outputFormat": raw name, "quality": 1...100, and the size options where set}; anything
  // else keeps the defaults.
  const std::optional<QJsonDocument> document = JSONFileStore::load(kSettingsFile);
  if (!document || !document->isObject()) return;
  const QJsonObject object = document->object();
  const std::string raw = object.value("outputFormat").toString().toStdString();
  if (const auto format = ImageFormats::fromRawValue(raw)) outputFormat_ = *format;
  const double quality = object.value("quality").toDouble(-1);
  if (quality >= 1 && quality <= 100) quality_ = quality;
  try {
    compressionOptions_ = JsonForms::sizeOptions(object);
  } catch (const JsonForms::DecodingError&) {
    // a size option of the wrong kind leaves them all off
  }
}

void BatchViewModel::restoreSession() {
  const std::optional<QJsonDocument> document = JSONFileStore::load(kSessionFile);
  const std::vector<Snapshot> snapshots = document ? decodeSession(*document) : std::vector<Snapshot>{};
  if (snapshots.empty()) {
    emit sessionRestored();
    return;
  }
  QList<QUrl> urls;
  for (const Snapshot& snapshot : snapshots) {
    unrestored_.emplace(int(urls.size()), sessionEntry(snapshot));
    urls.push_back(snapshot.sourceURL);
  }
  inspectConcurrently(
      urls,
      [this, snapshots](int index, const QUrl& url, const ImageDecoder::LightDecodedImage* decoded,
                        const QString& error, bool canRetry) {
        unrestored_.erase(index);
        if (!decoded) {
          // A moved or deleted file: listed with the chance to retry, dropped from the session.
          recordImportFailure(url, error, canRetry);
          return;
        }
        auto image = std::make_shared<ImportedImage>(url, *decoded);
        image->setQualityOverride(snapshots[size_t(index)].qualityOverride);
        image->setSizingOverride(snapshots[size_t(index)].sizingOverride);
        appendImported(image);
        scheduleEncode(image, false);
      },
      [this] {
        persistImportSession();
        emit sessionRestored();
      });
}

}  // namespace quillane
