#include "batch/BatchExporter.h"

#include <sys/stat.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThreadPool>

#include "batch/BatchSupport.h"
#include "batch/ExportFilenameAllocator.h"
#include "batch/PoolTask.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"

namespace quillane {

namespace {

// The atomic write of `data` to `url`, on the worker thread, no more readable than `source`.
// `replaced` tells whether a file of that name was there before, `file` what was written.
std::optional<QString> write(const QUrl& url, const QByteArray& data, const std::string& source,
                             bool& replaced, std::optional<ExportedFile>& file) {
  const std::string path = localFilePath(url);
  if (path.empty())
    return QString::fromStdString(FileError(url.toString().toStdString(), "not a local file").description());
  struct stat st {};
  // A source gone since its import may have been private: its output is, having nothing to go by.
  const unsigned permissions = ::stat(source.c_str(), &st) == 0 ? FileIO::permissionsFor(source) : 0600;
  replaced = ::lstat(path.c_str(), &st) == 0;
  std::optional<QString> error = batchdetail::writeFileAtomically(path, data, permissions);
  if (!error && ::lstat(path.c_str(), &st) == 0) file = ExportHistory::exportedFile(st);
  return error;
}

// The source's file name without its extension, in the file system's bytes.
std::string sourceBaseName(const ImportedImage& image) {
  std::string name = localFilePath(image.sourceURL());
  if (name.empty()) return image.baseName().toStdString();
  name = name.substr(name.rfind('/') + 1);
  const size_t dot = name.rfind('.');
  return dot != std::string::npos && dot > 0 ? name.substr(0, dot) : name;
}

QString genericError() { return QString::fromStdString(genericErrorText()); }

}  // namespace

BatchExporter::BatchExporter(Recorder recorder, QObject* parent)
    : QObject(parent), recorder_(std::move(recorder)), pool_(std::make_unique<QThreadPool>()) {
  // One job at a time, in the order asked: two exports to one folder never race for names.
  pool_->setMaxThreadCount(1);
}

BatchExporter::~BatchExporter() { pool_->waitForDone(); }

void BatchExporter::finish() {
  pool_->waitForDone();
  // Each job's end is a queued call to this object, posted before its thread let go.
  QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
}

QString BatchExporter::notEncodedDescription(const ImportedImage& image, ImageFormat format) {
  if (image.encodeState().isFailed()) return image.encodeState().message;
  const std::string label(ImageFormats::label(format));
  return QString::fromStdString(ImageProcessingError::encodingFailed(label).description());
}

void BatchExporter::apply(const std::shared_ptr<ImportedImage>& image, const FileResult& result, qint64 size,
                          ImageFormat format, std::vector<Written>& written, ExportSummary& summary) {
  if (result.destination) image->lastExportDestination_ = result.destination;
  image->setExportError(result.error);
  if (result.error || !result.destination) {
    summary.addFailure(result.error.value_or(genericError()));
    return;
  }
  written.push_back({image, *result.destination, size, format, result.file});
  ++summary.writtenCount;
  summary.bytesSaved += image->originalSizeBytes() - size;
  summary.written.append(*result.destination);
  if (result.replaced) summary.replacedNames.append(result.destination->fileName());
}

QFuture<std::vector<ExportOutcome>> BatchExporter::exportAll(
    const QUrl& folder, std::vector<std::shared_ptr<ImportedImage>> images, ImageFormat format,
    std::vector<std::string> sourcePaths) {
  // What the job needs from each row, read now on the GUI thread.
  struct Item {
    std::string baseName;  // names stay the file system's bytes: a source whose name is not
                           // UTF-8 gives an output of the same bytes
    std::string source;
    std::optional<QByteArray> data;
    bool keptOriginal = false;  // the result was not smaller than its source: nothing is written
  };
  std::vector<Item> items;
  items.reserve(images.size());
  for (const auto& image : images)
    items.push_back({sourceBaseName(*image), image->sourceFilePath(), image->compressedData(),
                     image->resultShape() && image->resultShape()->keptOriginal});
  const std::string extension(ImageFormats::fileExtension(format));

  auto job = [folder, items = std::move(items), extension, sourcePaths = std::move(sourcePaths)] {
    std::vector<FileResult> results(items.size());
    try {
      std::string directory = localFilePath(folder);
      while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
      ExportFilenameAllocator allocator =
          folder.isLocalFile() ? ExportFilenameAllocator(directory, sourcePaths) : ExportFilenameAllocator();
      // A folder that is not a local one gets destinations that fail to write, row by row,
      // rather than names resolved against the working directory.
      auto destinationFor = [&](const std::string& name) {
        if (folder.isLocalFile()) return localFileURL(directory == "/" ? "/" + name : directory + "/" + name);
        QUrl url = folder;
        url.setPath(folder.path() + (folder.path().endsWith(u'/') ? "" : "/") +
                    QFile::decodeName(name.c_str()));
        return url;
      };
      for (size_t i = 0; i < items.size(); ++i) {
        if (!items[i].data || items[i].keptOriginal) continue;
        results[i].destination = destinationFor(allocator.filename(items[i].baseName, extension));
        results[i].error = write(*results[i].destination, *items[i].data, items[i].source,
                                 results[i].replaced, results[i].file);
      }
    } catch (...) {
      // Out of memory or worse: every file not yet written fails, and the program goes on.
      for (size_t i = 0; i < items.size(); ++i)
        if (items[i].data && !results[i].error && !results[i].destination) results[i].error = genericError();
    }
    return results;
  };
  return PoolTask::run(pool_.get(), this, std::move(job),
                       [this, images = std::move(images), format](const std::vector<FileResult>& results) {
                         std::vector<ExportOutcome> outcomes;
                         std::vector<Written> written;
                         ExportSummary summary;
                         for (size_t i = 0; i < images.size(); ++i) {
                           const auto& image = images[i];
                           ExportOutcome outcome{image, std::nullopt, std::nullopt};
                           const std::optional<QByteArray>& data = image->compressedData();
                           if (data && image->resultShape() && image->resultShape()->keptOriginal) {
                             outcome.keptOriginal = true;
                             ++summary.keptOriginalCount;
                           } else if (!results[i].destination && !results[i].error) {
                             outcome.errorDescription = image->exportError()
                                                            ? *image->exportError()
                                                            : notEncodedDescription(*image, format);
                             summary.addFailure(*outcome.errorDescription);
                           } else {
                             apply(image, results[i], data ? data->size() : 0, format, written, summary);
                             if (results[i].error)
                               outcome.errorDescription = results[i].error;
                             else
                               outcome.destinationURL = results[i].destination;
                           }
                           outcomes.push_back(std::move(outcome));
                         }
                         if (!written.empty()) recorder_(written);
                         emit finished(summary);
                         return outcomes;
                       });
}

QFuture<bool> BatchExporter::exportSingle(const std::shared_ptr<ImportedImage>& image, const QUrl& url,
                                          ImageFormat format, std::vector<std::string> sourcePaths) {
  if (!image) return QtFuture::makeReadyFuture(false);
  if (!image->compressedData()) {
    image->setExportError(notEncodedDescription(*image, format));
    ExportSummary summary;
    summary.addFailure(*image->exportError());
    emit finished(summary);
    return QtFuture::makeReadyFuture(false);
  }
  const QByteArray data = *image->compressedData();
  auto job = [url, data, source = image->sourceFilePath(), sourcePaths = std::move(sourcePaths)] {
    FileResult result;
    try {
      QUrl destination = url;
      // A destination that is a source of the batch gets the next free name beside it. Paths
      // in the file system's bytes: a name that is not UTF-8 is compared and kept as it is.
      const std::string path = localFilePath(url);
      const size_t slash = path.rfind('/');
      if (slash != std::string::npos) {
        const std::string folder = path.substr(0, slash), name = path.substr(slash + 1);
        ExportFilenameAllocator allocator(folder.empty() ? "/" : folder, sourcePaths);
        if (allocator.isInput(path)) {
          const size_t dot = name.rfind('.');
          const bool extension = dot != std::string::npos && dot > 0;
          const std::string base = extension ? name.substr(0, dot) : name;
          const std::string suffix = extension ? name.substr(dot + 1) : std::string();
          // A free name: the user agreed to replace the source's name, not whatever is beside it.
          std::string beside;
          struct stat st {};
          do {
            beside = folder + '/' + allocator.filename(base, suffix);
          } while (::lstat(beside.c_str(), &st) == 0);
          destination = localFileURL(beside);
        }
      }
      result.destination = destination;
      result.error = write(destination, data, source, result.replaced, result.file);
    } catch (...) {
      result.error = genericError();
    }
    return result;
  };
  return writeOne(image, format, data.size(), std::move(job));
}

QFuture<bool> BatchExporter::writeExport(const std::shared_ptr<ImportedImage>& image, const QByteArray& data,
                                         const QUrl& url, ImageFormat format) {
  if (!image) return QtFuture::makeReadyFuture(false);
  auto job = [url, data, source = image->sourceFilePath()] {
    FileResult result;
    result.destination = url;
    try {
      result.error = write(url, data, source, result.replaced, result.file);
    } catch (...) {
      result.error = genericError();
    }
    return result;
  };
  return writeOne(image, format, data.size(), std::move(job));
}

QFuture<bool> BatchExporter::writeOne(const std::shared_ptr<ImportedImage>& image, ImageFormat format,
                                      qint64 size, std::function<FileResult()> job) {
  return PoolTask::run(pool_.get(), this, std::move(job),
                       [this, image, format, size](const FileResult& result) {
                         std::vector<Written> written;
                         ExportSummary summary;
                         apply(image, result, size, format, written, summary);
                         if (!written.empty()) recorder_(written);
                         emit finished(summary);
                         return !result.error;
                       });
}

}  // namespace quillane
