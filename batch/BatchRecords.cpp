// Export profiles and export history of BatchViewModel. Both lists are saved whole at each
// assignment; a failed save is silent and the list in memory stays the truth for this run.

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <cerrno>

#include "batch/BatchViewModel.h"
#include "engine/Localization.h"

namespace quillane {

void BatchViewModel::loadRecords() {
  exportHistory_ = ExportHistory::load();
  exportProfiles_ = ExportProfiles::load();
}

void BatchViewModel::setExportHistory(ExportRecordList history) {
  exportHistory_ = std::move(history);
  ExportHistory::save(exportHistory_);
  emit exportHistoryChanged();
}

void BatchViewModel::setExportProfiles(ExportProfileList profiles) {
  exportProfiles_ = std::move(profiles);
  ExportProfiles::save(exportProfiles_);
  emit exportProfilesChanged();
}

// ---- Profiles ----

void BatchViewModel::upsertExportProfile(const ExportProfile& profile) {
  ExportProfileList profiles = exportProfiles_;
  ExportProfiles::upsert(profiles, profile);
  setExportProfiles(std::move(profiles));
}

void BatchViewModel::deleteExportProfile(const ExportProfile& profile) {
  ExportProfileList profiles = exportProfiles_;
  ExportProfiles::remove(profiles, profile);
  setExportProfiles(std::move(profiles));
  // The folder the export dialog opens with stays: only the label goes.
  if (appliedProfileName_ && appliedProfileName_->compare(profile.name, Qt::CaseInsensitive) == 0) {
    setAppliedProfileName(std::nullopt);
  }
}

void BatchViewModel::applyExportProfile(const ExportProfile& profile) {
  setQuality(profile.quality);
  setOutputFormat(profile.format);
  setCompressionOptions(profile.sizing);
  lastAppliedProfileFolder_ = profile.destinationFolder
                                  ? std::optional<QUrl>(QUrl::fromLocalFile(*profile.destinationFolder))
                                  : std::nullopt;
  setAppliedProfileName(profile.name);
}

// ---- History ----

void BatchViewModel::recordExports(const std::vector<BatchExporter::Written>& written) {
  // One save for the whole export, newest first: the last file written heads the list.
  ExportRecordList history = exportHistory_;
  for (const BatchExporter::Written& file : written) {
    ExportRecord record;
    record.id = QUuid::createUuid();
    record.sourceDisplayName = file.image->fileName();
    record.destinationURL = file.destination;
    record.format = file.format;
    record.sizeBytes = file.sizeBytes;
    record.date = ExportHistory::now();
    record.file = file.file;
    history.insert(history.begin(), std::move(record));
  }
  setExportHistory(std::move(history));
}

bool BatchViewModel::isRecordSuperseded(const ExportRecord& record) const {
  return ExportHistory::supersededIDs(exportHistory_).contains(record.id);
}

namespace {
// QFile::moveToTrash, guarded against Qt 6.4's fallback: where the home Trash can't be set up
// (no data folder yet) it "succeeds" by moving the file into ./files of the working folder.
// The data folder is made first, and a file that still lands there is put back. So is one whose
// entry in the Trash (its .trashinfo) came out empty, since Qt does not check that write: on a
// full disk the file went to the Trash where no file manager could put it back.
bool moveToTrash(QFile& file) {
  QDir().mkpath(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
  const QString original = file.fileName();
  if (!file.moveToTrash()) return false;
  const QFileInfo trashed(file.fileName());
  const QString info =
      trashed.isAbsolute() ? trashed.path() + QStringLiteral("/../info/") : QStringLiteral("info/");
  if (trashed.isAbsolute() && QFileInfo(info + trashed.fileName() + QStringLiteral(".trashinfo")).size() > 0)
    return true;
  QFile::rename(file.fileName(), original);
  QFile::remove(info + trashed.fileName() + QStringLiteral(".trashinfo"));
  return false;
}

// Why the file at `path` could not be taken away: its folder's refusal of a change where it
// has one (a read-only volume, no permission), a volume with no room left (for the Trash's
// entry), else an input/output error.
int removalError(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
  if (::access(folder.c_str(), W_OK | X_OK) != 0) return errno;
  // Some volumes give no counts at all (btrfs has no inode count): zeros there say nothing.
  struct statvfs volume {};
  const bool full =
      ::statvfs(folder.c_str(), &volume) == 0 &&
      ((volume.f_blocks > 0 && volume.f_bavail == 0) || (volume.f_files > 0 && volume.f_favail == 0));
  return full ? ENOSPC : EIO;
}
}  // namespace

void BatchViewModel::undoExport(const ExportRecord& record) {
  // A superseded record's file belongs to the newer export, and one changed or put in its place
  // since to the user: only the record goes.
  if (!isRecordSuperseded(record)) {
    const std::string path = localFilePath(record.destinationURL);
    const QString name = QFile::decodeName(QByteArray::fromStdString(path));
    struct stat st {};
    const bool exists = !path.empty() && ::lstat(path.c_str(), &st) == 0;
    const bool folder = exists && S_ISDIR(st.st_mode);
    const bool written = !record.file || *record.file == ExportHistory::exportedFile(st);
    if (folder || (exists && written)) {
      // To the desktop's Trash, not deleted: an undo of an export can itself be taken back
      // from the file manager. A name that is not UTF-8 can't be handed to Qt's Trash: that
      // file is deleted by its bytes.
      // A folder in its place is not what was exported: it stays where it is.
      QFile file(name);
      const bool qtCanNameIt = QFile::encodeName(name).toStdString() == path;
      int failure = folder ? EISDIR : 0;
      if (!folder && !(qtCanNameIt ? moveToTrash(file) : ::unlink(path.c_str()) == 0))
        failure = qtCanNameIt ? removalError(path) : errno;
      if (failure != 0) {
        const std::string reason = Localization::systemError(failure);
        setExportError(QString::fromStdString(
            Localization::format("export.deleteFailedFormat", "Impossible de supprimer « %@ » : %@",
                                 {record.destinationURL.fileName().toStdString(), reason})));
        return;
      }
    }
  }
  ExportRecordList history = exportHistory_;
  std::erase_if(history, [&](const ExportRecord& entry) { return entry.id == record.id; });
  setExportHistory(std::move(history));
}

void BatchViewModel::clearExportHistory() { setExportHistory({}); }

void BatchViewModel::showInFileManager(const ExportRecord& record) {
  if (fileDialogs_) fileDialogs_->showInFileManager(record.destinationURL);
}

}  // namespace quillane
