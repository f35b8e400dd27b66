#pragma once
// BatchViewModel: the one model of the open batch. It holds the list of images, the global
// quality and output format, the export profiles and history, and the bookkeeping of the
// encodes that keep every image's compressed bytes up to date with the settings.
//
// Exactly one instance per process, built and owned by the application on the GUI thread
// and shared by reference with the window and the local API. GUI thread only: every
// operation below must be called on the GUI thread, and every change signal is emitted
// there. The model owns its images (shared with rows and tasks), its EncodeScheduler (the
// encodes), its BatchExporter (the export writes) and the inspection pool; inspections and
// encodes claim memory from the process's CompressionBudget. Work runs on worker threads and
// its results come back by queued calls. The window may install a FileDialogs for the file
// dialogs.

#include <QFuture>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QUuid>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "batch/BatchExporter.h"
#include "batch/EncodeScheduler.h"
#include "batch/ImportedImage.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageFormat.h"
#include "engine/Json.h"
#include "records/ExportProfile.h"
#include "records/ExportRecord.h"

class QThreadPool;

namespace quillane {

class CompressionBudget;

using ImageList = std::vector<std::shared_ptr<ImportedImage>>;
using ImportFailureList = std::vector<ImportFailure>;

// The file dialogs the model needs, installed by the window (ui/). Without one, the prompts
// do nothing. Called on the GUI thread; the calls may be modal.
class FileDialogs {
 public:
  virtual ~FileDialogs() = default;
  // Open dialog: several image files, no folders. Empty when the user cancels.
  virtual QList<QUrl> chooseFilesToImport() = 0;
  // Folder chooser that may create folders, starting in `startFolder` when given, with the
  // localised `prompt` (button) and `message`. Empty when the user cancels.
  virtual std::optional<QUrl> chooseExportFolder(const std::optional<QUrl>& startFolder,
                                                 const QString& prompt, const QString& message) = 0;
  // Shows `file` selected in the desktop's file manager.
  virtual void showInFileManager(const QUrl& file) = 0;
};

class BatchViewModel : public QObject {
  Q_OBJECT
  Q_PROPERTY(quillane::ImageList images READ images NOTIFY imagesChanged)
  Q_PROPERTY(double quality READ quality WRITE setQuality NOTIFY qualityChanged)
  Q_PROPERTY(
      quillane::ImageFormat outputFormat READ outputFormat WRITE setOutputFormat NOTIFY outputFormatChanged)
  Q_PROPERTY(
      std::optional<QString> exportError READ exportError WRITE setExportError NOTIFY exportErrorChanged)
  Q_PROPERTY(bool isEncoding READ isEncoding NOTIFY isEncodingChanged)
  Q_PROPERTY(quillane::ImportFailureList importFailures READ importFailures NOTIFY importFailuresChanged)
  Q_PROPERTY(std::optional<QString> appliedProfileName READ appliedProfileName WRITE setAppliedProfileName
                 NOTIFY appliedProfileNameChanged)
  Q_PROPERTY(bool hasPendingRecompute READ hasPendingRecompute NOTIFY hasPendingRecomputeChanged)
  Q_PROPERTY(quillane::ExportRecordList exportHistory READ exportHistory NOTIFY exportHistoryChanged)
  Q_PROPERTY(quillane::ExportProfileList exportProfiles READ exportProfiles NOTIFY exportProfilesChanged)

 public:
  // GUI thread only: every member below, unless it says otherwise.

  // The engine seams: reading a source file whole, encoding it, and inspection of one path.
  // All are called on pool threads and report failure by throwing (QuillaneError for a
  // described one).
  using SourceReader = EncodeScheduler::SourceReader;
  using Encoder = EncodeScheduler::Encoder;
  using Inspector = std::function<ImageDecoder::LightDecodedImage(const std::string& path)>;
  // The encoder under size options (fit, byte budget), used instead of `encoder` while any is on.
  using SizedEncoder = EncodeScheduler::SizedEncoder;

  struct Options {
    SourceReader reader;                        // empty: ImageDecoder::readSource
    Encoder encoder;                            // empty: ImageCompressor::encodeData
    Inspector inspector;                        // empty: ImageDecoder::inspect
    SizedEncoder sizedEncoder;                  // empty: ImageCompressor::encode
    int processorCount = 0;                     // 0 or less: QThread::idealThreadCount()
    int memoryBudgetMB = 0;                     // 0 or less: CompressionBudget::process(), else its own
    std::chrono::milliseconds watchdog{45000};  // an encode slower than this fails
    std::chrono::milliseconds debounce{250};    // quiet time before a recompute or an override encode
    bool restoreSession = true;                 // start restoring importSession.json after construction
    bool measureResults = true;                 // each result's distance and thumbnail after its encode
    TimerStarter startTimer;                    // the watchdog's and debounces'; empty: QTimers
  };

  // Reads exportHistory.json and exportProfiles.json now, and starts the session restore as
  // a queued call, so that a window may appear before the restored rows do.
  explicit BatchViewModel(QObject* parent = nullptr);
  explicit BatchViewModel(Options options, QObject* parent = nullptr);
  // Running encodes are abandoned; waits for pool threads still busy with them, and for the
  // export being written.
  ~BatchViewModel() override;

  // ---- Batch state ----
  const ImageList& images() const { return images_; }
  // First image with that id, or null.
  std::shared_ptr<ImportedImage> image(const QUuid& id) const;
  // Images in any state but `encoding` (an idle image counts as completed).
  int encodingCompletedCount() const;

  double quality() const { return quality_; }
  // Stores and calls scheduleRecompute, even for an unchanged value.
  void setQuality(double quality);
  ImageFormat outputFormat() const { return outputFormat_; }
  // Stores and calls scheduleRecompute, even for an unchanged value.
  void setOutputFormat(ImageFormat format);
  // Fit within a box, a byte budget, skip larger results: all off by default. A change
  // re-encodes every image; an export leaves out a result that kept its original.
  const CompressionOptions& compressionOptions() const { return compressionOptions_; }
  void setCompressionOptions(const CompressionOptions& options);

  // The window-wide error (a failed undo). The window's alert clears it with nullopt.
  const std::optional<QString>& exportError() const { return exportError_; }
  void setExportError(std::optional<QString> error);

  bool isEncoding() const { return isEncoding_; }
  // True from a change of quality or format until the debounced recompute starts.
  bool hasPendingRecompute() const { return hasPendingRecompute_; }
  bool isQualitySliderEditing() const { return isQualitySliderEditing_; }
  // The global slider's editing callback: while editing, changes wait; on release, a
  // recompute held back during the drag is sent at once (nothing is sent if none is pending).
  void setQualitySliderEditing(bool editing);

  // Marks a recompute of every image after the debounce; nothing when the batch is empty.
  // Called by setQuality and setOutputFormat.
  void scheduleRecompute();

  // Shows `encoding` at once and encodes the image with the settings of this moment
  // (its override, else the global quality; the current output format). With `debounce`,
  // the encode starts after the quiet time, and a newer call replaces this one. An image
  // already encoding is marked and encoded again when the running encode ends.
  void scheduleEncode(const std::shared_ptr<ImportedImage>& image, bool debounce);

  // The per-image quality writers (popup, local API): stores the override (nullopt
  // follows the global quality again), schedules a debounced encode and saves the session.
  void setQualityOverride(const std::shared_ptr<ImportedImage>& image, std::optional<double> quality);
  // The same for one image's size options (nullopt follows the batch's again); no undo step.
  void setSizingOverride(const std::shared_ptr<ImportedImage>& image,
                         std::optional<CompressionOptions> sizing);

  // Polls every 50 ms until neither a recompute is pending nor an encode running, or the
  // time is up. The future finishes on the GUI thread; it tells nothing of how it ended.
  QFuture<void> waitForEncodingToFinish(double timeoutSeconds);

  // ---- Import ----
  // Imports through the installed FileDialogs; nothing without one or when cancelled.
  void promptImport();
  // Inspects the files in parallel and appends the readable ones in the order given, each
  // starting to encode as it arrives; unreadable ones become importFailures. The future
  // finishes on the GUI thread once every URL is delivered (and the session saved).
  QFuture<void> importFiles(const QList<QUrl>& urls);
  const ImportFailureList& importFailures() const { return importFailures_; }
  // Drops the failure with that id and imports its URL again.
  void retryImport(const ImportFailure& failure);
  // Removes every failure with that id, and nothing else.
  void dismissImportFailure(const QUuid& id);
  // Removes the row; a running encode of it ends by itself and changes nothing visible.
  void removeImage(const std::shared_ptr<ImportedImage>& image);
  // Moves the image at `from` to index `to` (after removal), then saves the session.
  void moveImage(int from, int to);
  // Empties the batch and the failures and saves the (empty) session. The imports under way
  // end: files they have not shown yet never appear.
  void clearAll();

  // ---- Export ----
  // The writes run on the exporter's worker thread, one export after another; each future
  // finishes on the GUI thread once the rows' export state and the history are up to date.
  // Asks for a folder through the installed FileDialogs, starting in the folder of the
  // last applied profile, and exports all into it once what the settings make is encoded.
  void promptExportAll();
  // Writes every image's compressedData into `folder`, names kept apart within the run,
  // with the extension of the current output format. One outcome per image, in batch order.
  QFuture<std::vector<ExportOutcome>> exportAll(const QUrl& folder);
  // Writes one image to the file `url`, or, when `url` is the source of an image of the
  // batch, to the next free name beside it ("photo-2.jpg"); the row's lastExportDestination
  // tells which. False (with the row's exportError set) on failure. While the image's result is
  // being replaced after a change of settings, it waits for the new one (false, writing
  // nothing, if the image leaves the batch meanwhile).
  QFuture<bool> exportSingle(const std::shared_ptr<ImportedImage>& image, const QUrl& url);
  // Atomic write of `data` to `url`, recorded in the history on success; the row's
  // exportError tells a failure. Also the retry of a failed export (lastExportDestination).
  QFuture<bool> writeExport(const std::shared_ptr<ImportedImage>& image, const QByteArray& data,
                            const QUrl& url);

  // ---- Session ----
  // Saves the list of source URLs and overrides to importSession.json, followed, while the
  // session is being restored, by the saved rows not back yet.
  void persistImportSession();
  // Saves the output format, the global quality and the size options to batchSettings.json (also done by
  // itself half a second after a change); they are read back at start-up with the session.
  void persistSettings();
  // Before the process ends without the event loop: writes the exports asked so far and records
  // them in the history, and saves settings still waiting to be saved.
  void finishWrites();

  // ---- Profiles ----
  const ExportProfileList& exportProfiles() const { return exportProfiles_; }
  // Replaces by id, else by name (ignoring case and surrounding white space), else appends.
  // A default profile clears the default flag of every other. Saves exportProfiles.json.
  void upsertExportProfile(const ExportProfile& profile);
  // Removes by id; clears appliedProfileName if it named this profile. Saves.
  void deleteExportProfile(const ExportProfile& profile);
  // Sets quality, format and size options (each with its recompute), the export dialog's start folder and
  // the applied name.
  void applyExportProfile(const ExportProfile& profile);
  const std::optional<QString>& appliedProfileName() const { return appliedProfileName_; }
  // The profile menu's "none" entry sets nullopt; nothing else changes.
  void setAppliedProfileName(std::optional<QString> name);

  // ---- History ----
  // Newest first.
  const ExportRecordList& exportHistory() const { return exportHistory_; }
  // True when another record has the same destination and a strictly later date.
  bool isRecordSuperseded(const ExportRecord& record) const;
  // Moves the record's file to the desktop's Trash (unless a later export owns it, or it was
  // changed or replaced since it was written) and removes the record. A failed move sets
  // exportError and keeps the record.
  void undoExport(const ExportRecord& record);
  // Empties the history; files stay.
  void clearExportHistory();
  // Shows the record's file through the installed FileDialogs.
  void showInFileManager(const ExportRecord& record);

  // ---- Undo ----
  // Removals (one image, Clear All) and per-image quality changes, from the window or the
  // local API, are announced by undoableChange; the window keeps them on its undo stack.
  // Undoing or redoing one announces nothing.
  using ImagePlacements = std::vector<std::pair<int, std::shared_ptr<ImportedImage>>>;
  // Puts the images back at their indices (ascending; clamped to the list), encodes them with
  // the settings of this moment and saves the session.
  void restoreImages(const ImagePlacements& placements, const ImportFailureList& failures = {});

  // ---- File dialogs ----
  // Not owned; the window installs it and resets it to null before it goes away.
  void setFileDialogs(FileDialogs* dialogs) { fileDialogs_ = dialogs; }
  FileDialogs* fileDialogs() const { return fileDialogs_; }

 signals:
  // A change the user may take back: its menu text, and what undoing and redoing it do. Changes
  // with the same non-empty `mergeKey` one after the other are one step (a slider drag).
  void undoableChange(const QString& text, const QString& mergeKey, std::function<void()> undo,
                      std::function<void()> redo);
  // Each export (all, one image, a retry) once its rows and the history are up to date.
  void exportFinished(const quillane::ExportSummary& summary);
  void imagesChanged();
  void qualityChanged();
  void outputFormatChanged();
  void compressionOptionsChanged();
  void exportErrorChanged();
  void isEncodingChanged();
  void importFailuresChanged();
  void exportHistoryChanged();
  void exportProfilesChanged();
  void appliedProfileNameChanged();
  void hasPendingRecomputeChanged();
  // The restore of importSession.json started at construction has ended: each saved row is back
  // or listed among the failures (sent also when there was nothing to restore).
  void sessionRestored();

 private:
  struct InspectionRun;
  using InspectionResult =
      std::function<void(int index, const QUrl& url, const ImageDecoder::LightDecodedImage*,
                         const QString& error, bool canRetry)>;

  void recomputeAll();
  void restartQualityDebounce();
  void setHasPendingRecompute(bool pending);
  void refreshIsEncoding();
  void setIsEncoding(bool encoding);

  // Import.
  void inspectConcurrently(const QList<QUrl>& urls, InspectionResult onResult,
                           std::function<void()> onFinished);
  void startInspection(const std::shared_ptr<InspectionRun>& run, int index);
  // The inspection itself, once its memory is claimed; gives the memory back when it ends.
  void inspect(const std::shared_ptr<InspectionRun>& run, int index, const std::string& path, int costMB);
  void recordImportFailure(const QUrl& url, const QString& message, bool canRetry);
  void appendImported(const std::shared_ptr<ImportedImage>& image);
  void restoreSession();
  void restoreSettings();

  // Undo: announces a change unless one is being replayed; `replay` runs a change replayed.
  void announceUndoable(const QString& text, const QString& mergeKey, std::function<void()> undo,
                        std::function<void()> redo);
  std::function<void()> replay(std::function<void()> change);
  bool replaying_ = false;

  // Export and records.
  // The local source files of every image, as file system bytes: no export replaces them.
  std::vector<std::string> sourcePaths() const;
  void recordExports(const std::vector<BatchExporter::Written>& written);
  void loadRecords();
  void setExportHistory(ExportRecordList history);
  void setExportProfiles(ExportProfileList profiles);

  Options options_;
  ImageList images_;
  double quality_ = 75.0;
  ImageFormat outputFormat_ = ImageFormat::jpeg;
  CompressionOptions compressionOptions_;
  std::optional<QString> exportError_;
  bool isEncoding_ = false;
  ImportFailureList importFailures_;
  quint64 clearCount_ = 0;   // Clear Alls so far: an import started before the last one is over
  int importsUnderWay_ = 0;  // imports and the session's restore not finished yet
  // The saved rows that the restore under way has not shown yet, by their place in the saved
  // list: each save meanwhile keeps them after the rows shown.
  std::map<int, JsonValue> unrestored_;
  ExportRecordList exportHistory_;
  ExportProfileList exportProfiles_;
  std::optional<QUrl> lastAppliedProfileFolder_;
  std::optional<QString> appliedProfileName_;
  bool hasPendingRecompute_ = false;
  bool isQualitySliderEditing_ = false;

  QPointer<QObject> qualityDebounce_;  // the quiet time's timer while it runs; each change restarts it
  QTimer settingsSave_;                // single shot, restarted by each change of format or quality
  std::unique_ptr<CompressionBudget> ownMemoryBudget_;  // when Options::memoryBudgetMB is set
  CompressionBudget* memoryBudget_ = nullptr;           // megabytes: own, else the process's
  std::unique_ptr<QThreadPool> inspectPool_;
  std::unique_ptr<BatchExporter> exporter_;
  std::unique_ptr<EncodeScheduler> scheduler_;
  FileDialogs* fileDialogs_ = nullptr;
};

}  // namespace quillane
