#pragma once
// BatchExporter: writes the batch's compressed bytes to files, as they are (nothing is encoded
// here), each file through the engine's atomic writer, never over the source of an image of
// the batch. Owned by BatchViewModel.
//
// Each export (the batch into a folder, or one row to a file) is one job on the exporter's own
// worker thread, jobs in the order asked: the folder checks, the names and the writes with
// their syncs never hold the GUI thread, so a slow or dead volume leaves the window working.
// Once a job's files are written, the rows' export state (exportError, lastExportDestination)
// is set on the GUI thread, the files written are handed to the recorder in one call, and the
// job's future finishes.
//
// GUI thread only: every member below. The jobs get copies and touch no QObject.

#include <QByteArray>
#include <QFuture>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "batch/ImportedImage.h"
#include "engine/ImageFormat.h"
#include "records/ExportRecord.h"

class QThreadPool;

namespace quillane {

// One entry of the result of an export of the batch, in batch order.
struct ExportOutcome {
  std::shared_ptr<ImportedImage> image;
  std::optional<QUrl> destinationURL;       // set on success only
  std::optional<QString> errorDescription;  // set on failure only
  bool keptOriginal = false;                // skipped: the result was not smaller than its source
};

// What one export did, for the summary the window shows when it ends.
struct ExportSummary {
  int writtenCount = 0;
  qint64 bytesSaved = 0;      // the sources' sizes less the files written, over the files written
  QStringList replacedNames;  // file names of the files written over, in the order written
  int keptOriginalCount = 0;  // results not smaller than their source: nothing written
  int failureCount = 0;
  QStringList failureReasons;  // the failures' messages, each once, in the order met
  QList<QUrl> written;         // the files written, in the order written

  void addFailure(const QString& reason) {
    ++failureCount;
    if (!failureReasons.contains(reason)) failureReasons.append(reason);
  }
};

class BatchExporter : public QObject {
  Q_OBJECT

 public:
  // A file written, for the export history.
  struct Written {
    std::shared_ptr<ImportedImage> image;
    QUrl destination;
    qint64 sizeBytes = 0;
    ImageFormat format = ImageFormat::jpeg;
    std::optional<ExportedFile> file;  // as the write left it
  };
  // Called on the GUI thread once per job that wrote something, files in the order written.
  using Recorder = std::function<void(const std::vector<Written>&)>;

  explicit BatchExporter(Recorder recorder, QObject* parent = nullptr);
  // Waits for the job being written: a file is never left half done.
  ~BatchExporter() override;

  // Waits for every export asked so far and settles each at once (rows, history, summary), as
  // its end would through the event loop: the process is about to end.
  void finish();

  // Writes every image's compressedData into `folder`, names kept apart within the run, with
  // the extension of `format`; no name is one of `sourcePaths` (file system bytes). An image
  // without data is an outcome with its error and writes nothing. One outcome per image, in
  // the order given.
  QFuture<std::vector<ExportOutcome>> exportAll(const QUrl& folder,
                                                std::vector<std::shared_ptr<ImportedImage>> images,
                                                ImageFormat format, std::vector<std::string> sourcePaths);
  // Writes one image to the file `url`, or, when `url` is one of `sourcePaths`, to the next
  // free name beside it ("photo-2.jpg"); the row's lastExportDestination tells which. False
  // (with the row's exportError set) on failure, at once for an image without data.
  QFuture<bool> exportSingle(const std::shared_ptr<ImportedImage>& image, const QUrl& url, ImageFormat format,
                             std::vector<std::string> sourcePaths);
  // Writes `data` to `url` as it is (also the retry of a failed export); the row's
  // exportError tells a failure.
  QFuture<bool> writeExport(const std::shared_ptr<ImportedImage>& image, const QByteArray& data,
                            const QUrl& url, ImageFormat format);

  // The error an image without data exports with: its failure, else the format's encoding
  // failure (an image still busy is reported so too).
  static QString notEncodedDescription(const ImportedImage& image, ImageFormat format);

 signals:
  // Each export, once its rows and the history are up to date (before its future finishes).
  void finished(const quillane::ExportSummary& summary);

 private:
  struct FileResult {
    std::optional<QUrl> destination;  // set when a write was attempted
    std::optional<QString> error;
    bool replaced = false;             // a file of that name was there before the write
    std::optional<ExportedFile> file;  // the file written
  };
  // Sets the row's export state from `result`; a success goes into `written` and `summary`.
  static void apply(const std::shared_ptr<ImportedImage>& image, const FileResult& result, qint64 size,
                    ImageFormat format, std::vector<Written>& written, ExportSummary& summary);
  // Runs one file's write `job` on the pool; back on the GUI thread, applies its result to the
  // row and records a success. True when the file was written.
  QFuture<bool> writeOne(const std::shared_ptr<ImportedImage>& image, ImageFormat format, qint64 size,
                         std::function<FileResult()> job);

  Recorder recorder_;
  std::unique_ptr<QThreadPool> pool_;
};

}  // namespace quillane
