#pragma once
// Private pieces of BatchViewModel shared by its source files (scheduler, import, export).
// Not for use outside batch/.

#include <QByteArray>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "batch/BatchViewModel.h"

namespace quillane {

// The latest task of one image: a debounced or immediate encode, or a passthrough read.
// Lives in encodeTasks until replaced or until the image leaves the batch. GUI thread only.
struct BatchViewModel::EncodeTask {
  std::shared_ptr<ImportedImage> image;
  double quality = 75.0;
  ImageFormat format = ImageFormat::jpeg;
  int costMB = 1;
  // Set by cancellation. A task queued at a semaphore still passes it, then hands its
  // permits back unused: the semaphores are not cancellable.
  bool cancelled = false;
  // Running only while the task sleeps in its debounce; owned by the model.
  QTimer* debounceTimer = nullptr;
};

// What a pool thread hands back from one encode: bytes, or the text of the error.
struct BatchViewModel::EncodeResult {
  std::optional<QByteArray> bytes;
  std::optional<ResultShape> shape;
  QString error;
  std::optional<DecodedImage> thumbnail;  // asked for when the row has none
};

// One call of inspectConcurrently: results are buffered by index and delivered in URL
// order. GUI thread only.
struct BatchViewModel::InspectionRun {
  struct Outcome {
    std::optional<ImageDecoder::LightDecodedImage> decoded;
    QString error;
  };
  QList<QUrl> urls;
  InspectionResult onResult;
  std::function<void()> onFinished;
  int nextToStart = 0;
  int nextToDeliver = 0;
  std::map<int, Outcome> buffer;
};

namespace batchdetail {

// The localised description of whatever an engine call threw; `fallback` for errors that
// carry none of their own.
QString describeCurrentException(const QString& fallback);

inline QString toQString(std::string_view s) { return QString::fromUtf8(s.data(), qsizetype(s.size())); }

// Atomic whole-file write (temporary file in the same folder, then rename) of `path`, the file
// system's bytes. Nothing on success, the system's text on failure; a failure leaves any
// older file untouched.
std::optional<QString> writeFileAtomically(const std::string& path, const QByteArray& data,
                                           unsigned permissions = 0666);

}  // namespace batchdetail
}  // namespace quillane
