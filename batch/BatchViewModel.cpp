// Temporary stub: the interface compiles while the implementation is written.
#include "batch/BatchViewModel.h"

#include <QThreadPool>

#include "batch/AsyncSemaphore.h"

#if __has_include("records/ExportRecord.h") && __has_include("records/ExportProfile.h")
#include "records/ExportProfile.h"
#include "records/ExportRecord.h"
#else
namespace quillane {
struct ExportProfile {};
struct ExportRecord {};
}  // namespace quillane
#endif

namespace quillane {

struct BatchViewModel::EncodeTask {};

BatchViewModel::BatchViewModel(QObject* parent) : BatchViewModel(Options{}, parent) {}
BatchViewModel::BatchViewModel(Options options, QObject* parent) : QObject(parent), options_(std::move(options)) {}
BatchViewModel::~BatchViewModel() = default;

int BatchViewModel::encodeMemoryBudgetMB(uint64_t bytes) {
  return bytes > 4294967295ull ? int(std::min<uint64_t>(bytes >> 23, 4096)) : 512;
}
int BatchViewModel::encodeCostMB(int width, int height) {
  return int(std::max<int64_t>(int64_t(width) * height * 20 / 1048576 + 8, 1));
}
std::shared_ptr<ImportedImage> BatchViewModel::image(const QUuid&) const { return nullptr; }
int BatchViewModel::encodingCompletedCount() const { return 0; }
void BatchViewModel::setQuality(double q) { quality_ = q; emit qualityChanged(); }
void BatchViewModel::setOutputFormat(ImageFormat f) { outputFormat_ = f; emit outputFormatChanged(); }
void BatchViewModel::setExportError(std::optional<QString> e) { exportError_ = std::move(e); emit exportErrorChanged(); }
void BatchViewModel::setQualitySliderEditing(bool editing) { isQualitySliderEditing_ = editing; }
void BatchViewModel::scheduleRecompute() {}
void BatchViewModel::scheduleEncode(const std::shared_ptr<ImportedImage>&, bool) {}
void BatchViewModel::setQualityOverride(const std::shared_ptr<ImportedImage>&, std::optional<double>) {}
QFuture<void> BatchViewModel::waitForEncodingToFinish(double) { return QtFuture::makeReadyFuture(); }
void BatchViewModel::promptImport() {}
QFuture<void> BatchViewModel::importFiles(const QList<QUrl>&) { return QtFuture::makeReadyFuture(); }
void BatchViewModel::retryImport(const ImportFailure&) {}
void BatchViewModel::dismissImportFailure(const QUuid&) {}
void BatchViewModel::removeImage(const std::shared_ptr<ImportedImage>&) {}
void BatchViewModel::moveImage(int, int) {}
void BatchViewModel::clearAll() {}
void BatchViewModel::promptExportAll() {}
std::vector<ExportOutcome> BatchViewModel::exportAll(const QUrl&) { return {}; }
bool BatchViewModel::exportSingle(const std::shared_ptr<ImportedImage>&, const QUrl&) { return false; }
bool BatchViewModel::writeExport(const std::shared_ptr<ImportedImage>&, const QByteArray&, const QUrl&) { return false; }
void BatchViewModel::persistImportSession() {}
void BatchViewModel::upsertExportProfile(const ExportProfile&) {}
void BatchViewModel::deleteExportProfile(const ExportProfile&) {}
void BatchViewModel::applyExportProfile(const ExportProfile&) {}
void BatchViewModel::setAppliedProfileName(std::optional<QString> n) { appliedProfileName_ = std::move(n); emit appliedProfileNameChanged(); }
bool BatchViewModel::isRecordSuperseded(const ExportRecord&) const { return false; }
void BatchViewModel::undoExport(const ExportRecord&) {}
void BatchViewModel::clearExportHistory() {}
void BatchViewModel::showInFileManager(const ExportRecord&) {}

}  // namespace quillane
