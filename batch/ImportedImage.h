#pragma once
// One image of the open batch, and the small value types that describe its state.
//
// An ImportedImage is shared by reference (std::shared_ptr) between the batch list, the
// row that shows it and the encode task that works on it; identity is id(). It is a
// QObject so that a row can follow its observable fields through their change signals.
// GUI thread only: the immutable fields may be read anywhere, but every observable field
// is written by the batch (EncodeScheduler, BatchExporter) on the GUI thread and signalled
// there.

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QUuid>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "engine/DecodedImage.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageFormat.h"

namespace quillane {

// Where one image's encoding stands. `idle` only before the first scheduling.
struct EncodeState {
  enum class Kind { idle, encoding, ready, failed };

  Kind kind = Kind::idle;
  int64_t sizeBytes = 0;  // ready only: the byte count of the result
  QString message;        // failed only: the localised description of the error

  static EncodeState idle() { return {}; }
  static EncodeState encoding() { return {Kind::encoding, 0, {}}; }
  static EncodeState ready(int64_t sizeBytes) { return {Kind::ready, sizeBytes, {}}; }
  static EncodeState failed(QString message) { return {Kind::failed, 0, std::move(message)}; }

  bool isEncoding() const { return kind == Kind::encoding; }
  bool isReady() const { return kind == Kind::ready; }
  bool isFailed() const { return kind == Kind::failed; }
  // "idle", "encoding", "ready", "failed": the names the local API sends.
  const char* name() const;

  friend bool operator==(const EncodeState&, const EncodeState&) = default;
};

// A file that could not be imported. Lives only in memory; retried or dismissed by the user.
struct ImportFailure {
  QUuid id;
  QUrl url;
  QString message;
  bool canRetry = true;  // false where trying again can't help (a format Quillane doesn't read)

  friend bool operator==(const ImportFailure&, const ImportFailure&) = default;
};

// The path of a local file URL as the file system's bytes, exact also for a name that is not
// valid UTF-8: such bytes stay percent-encoded in the URL, where toLocalFile() would turn them
// into U+FFFD and name another file. Empty for a URL that is not a local file.
std::string localFilePath(const QUrl& url);
// The file URL of a path given as the file system's bytes, the reverse of localFilePath.
QUrl localFileURL(const std::string& path);
// Whether a file argument is written as a URL: a scheme (a letter, then letters, digits, "+",
// "-" or ".") and "://", or "file:" and a path.
bool isURLText(std::string_view argument);
// A URL argument as the local file it names (file: of no host or "localhost", in any case);
// nothing for another scheme or host. Its escapes are kept, so that a name that is not UTF-8
// keeps its bytes.
std::optional<QUrl> localFileOfURL(const QByteArray& argument);

// What the latest result is beside the settings it was asked with: the quality encoded at
// (lower than asked under a byte budget), its size in pixels (smaller when fitted), and,
// under "skip larger", that it was not smaller than its source, so the original stays; then
// the quality and the size options it was asked with.
struct ResultShape {
  double quality = 0;
  int width = 0;
  int height = 0;
  bool keptOriginal = false;
  double askedQuality = 0;
  CompressionOptions sizing;

  friend bool operator==(const ResultShape&, const ResultShape&) = default;
};

class ImportedImage : public QObject {
  Q_OBJECT
  Q_PROPERTY(quillane::EncodeState encodeState READ encodeState NOTIFY encodeStateChanged)
  Q_PROPERTY(std::optional<QByteArray> compressedData READ compressedData NOTIFY compressedDataChanged)
  Q_PROPERTY(std::optional<double> qualityOverride READ qualityOverride NOTIFY qualityOverrideChanged)
  Q_PROPERTY(std::optional<QString> exportError READ exportError NOTIFY exportErrorChanged)

 public:
  // Builds a row from the result of inspecting `sourceURL` (a file URL). A new id each time.
  ImportedImage(QUrl sourceURL, const ImageDecoder::LightDecodedImage& decoded, QObject* parent = nullptr);

  // Immutable after construction; any thread.
  QUuid id() const { return id_; }
  QUrl sourceURL() const { return sourceURL_; }
  // The path to open the source with: the file system's bytes (localFilePath).
  std::string sourceFilePath() const { return localFilePath(sourceURL_); }
  QString fileName() const;  // last path component of sourceURL, with extension
  QString baseName() const;  // fileName() without its last extension
  ImageFormat originalFormat() const { return originalFormat_; }
  int64_t originalSizeBytes() const { return originalSizeBytes_; }
  int width() const { return width_; }
  int height() const { return height_; }
  int frameCount() const { return frameCount_; }
  // The cells its decode holds beside the picture (LightDecodedImage::heldCellPixels).
  uint64_t heldCellPixels() const { return heldCellPixels_; }
  bool isAnimated() const { return frameCount_ > 1; }

  // Observable fields. GUI thread only.
  // 8-bit RGBA, at most 256 pixels on the longer side, upright. Empty when inspection could not
  // afford one; then the first successful encode, which decodes the picture anyway, adds it.
  const DecodedImage& thumbnail() const { return thumbnail_; }
  // Whether the picture has pixels that are not opaque, as its thumbnail shows them; false
  // while it has no thumbnail.
  bool hasTransparency() const { return hasTransparency_; }
  EncodeState encodeState() const { return encodeState_; }
  // The latest result; kept during a new encoding so that a busy row can still be exported.
  const std::optional<QByteArray>& compressedData() const { return compressedData_; }
  // How the latest result looks beside its source, measured after its encode: the
  // butteraugli distance (PerceptualDistance) and the result decoded as a thumbnail like
  // thumbnail(). Absent and empty until measured, and again whenever compressedData changes;
  // absent for good where the measure failed.
  std::optional<double> butteraugli() const { return butteraugli_; }
  const DecodedImage& resultThumbnail() const { return resultThumbnail_; }
  // Set with each encoded result (not for a source passed through as it came).
  const std::optional<ResultShape>& resultShape() const { return resultShape_; }
  // Empty: the image follows the batch's global quality.
  std::optional<double> qualityOverride() const { return qualityOverride_; }
  // Empty: the image follows the batch's size options.
  const std::optional<CompressionOptions>& sizingOverride() const { return sizingOverride_; }
  // The last export failure of this row; cleared by the next successful write.
  const std::optional<QString>& exportError() const { return exportError_; }

  // Plain fields. GUI thread only.
  // Set when an export is attempted, before the write; the retry of a failed export uses it.
  const std::optional<QUrl>& lastExportDestination() const { return lastExportDestination_; }

  // Stores the override and signals it; nothing more. Callers that want the image re-encoded
  // and the session saved use BatchViewModel::setQualityOverride instead.
  void setQualityOverride(std::optional<double> quality);
  // The same for the size options (BatchViewModel::setSizingOverride re-encodes and saves).
  void setSizingOverride(std::optional<CompressionOptions> sizing);

 signals:
  void encodeStateChanged();
  void compressedDataChanged();
  void qualityOverrideChanged();
  void sizingOverrideChanged();
  void exportErrorChanged();
  void thumbnailChanged();
  void resultLookChanged();  // butteraugli and resultThumbnail

 private:
  // The writers of the observable fields: the encodes and the exports.
  friend class EncodeScheduler;
  friend class BatchExporter;
  void setEncodeState(EncodeState state);
  void setCompressedData(std::optional<QByteArray> data);
  void setExportError(std::optional<QString> error);
  void setThumbnail(DecodedImage thumbnail);
  void setResultLook(std::optional<double> butteraugli, DecodedImage thumbnail);

  const QUuid id_;
  const QUrl sourceURL_;
  const ImageFormat originalFormat_;
  const int64_t originalSizeBytes_;
  const int width_;
  const int height_;
  const int frameCount_;
  const uint64_t heldCellPixels_;
  DecodedImage thumbnail_;
  bool hasTransparency_ = false;

  EncodeState encodeState_;
  std::optional<QByteArray> compressedData_;
  std::optional<double> butteraugli_;
  std::optional<ResultShape> resultShape_;
  DecodedImage resultThumbnail_;
  std::optional<double> qualityOverride_;
  std::optional<CompressionOptions> sizingOverride_;
  std::optional<QString> exportError_;
  std::optional<QUrl> lastExportDestination_;
  uint64_t encodeGeneration_ = 0;
};

}  // namespace quillane
