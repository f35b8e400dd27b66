// HotFolderWatcher::scanOnce and its steps: list the folder, pick the files that are new and
// finished, name their outputs, compress them side by side and record each outcome.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <QCollator>
#include <QDir>
#include <QFile>
#include <QSemaphore>
#include <QStringList>
#include <QThreadPool>
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "batch/ExportFilenameAllocator.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "engine/Localization.h"
#include "hotfolders/FileCompleteness.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "hotfolders/HotFolderWatcher.h"
#include "records/ExportProfileResolver.h"
#include "records/JsonForms.h"

namespace quillane {
namespace {

constexpr double kStableAge = 2.0;
constexpr std::chrono::milliseconds kStabilityWait{300};

double nowSince2001() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return JsonForms::secondsSince2001(now);
}

HotFolderProcessedEntry::Identity identityOf(const struct stat& st) {
  return {uint64_t(st.st_dev), uint64_t(st.st_ino), int64_t(st.st_size),
          JsonForms::secondsSince2001(st.st_mtim)};
}

struct FolderEntry {
  std::string fileName;  // bytes, whatever their encoding
  int64_t size;
  double modificationDate;
  HotFolderProcessedEntry::Identity identity;
};

// One level of `folder`, hidden entries left out, regular files only (no sub-folders, no
// symbolic links). Nothing when the folder can't be read.
std::optional<std::vector<FolderEntry>> listFolder(const QString& folder) {
  DIR* dir = ::opendir(QFile::encodeName(folder).constData());
  if (!dir) return std::nullopt;
  std::vector<FolderEntry> files;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    struct stat st {};
    if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode))
      continue;
    files.push_back(
        {entry->d_name, int64_t(st.st_size), JsonForms::secondsSince2001(st.st_mtim), identityOf(st)});
  }
  ::closedir(dir);
  return files;
}

// The pool of every hot folder's compressions. It sets no common limit of its own: each scan
// bounds itself at concurrencyLimit(), and folders scan side by side.
QThreadPool& utilityPool() {
  static QThreadPool pool;
  static const bool configured = [] {
    pool.setMaxThreadCount(64);
    pool.setObjectName(QStringLiteral("com.quillane.Quillane.hotFolderUnits"));
    return true;
  }();
  (void)configured;
  return pool;
}

// A date in the future gives a negative age and so needs the size test.
bool isOldEnough(double modificationDate) { return nowSince2001() - modificationDate >= kStableAge; }

bool hasSize(const std::string& path, int64_t size) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && int64_t(st.st_size) == size;
}

}  // namespace

struct HotFolderWatcher::Candidate {
  QString name;  // the activity line's; lossy where the bytes are no UTF-8
  QString key;   // the store's, HotFolderProcessedStore::nameKey
  std::string fileName;
  std::string path;
  int64_t size;
  double modificationDate;
  std::string destinationFilename;
  std::optional<HotFolderProcessedEntry::Output> ownOutput;  // written at an earlier scan
};

struct HotFolderWatcher::Settings {
  QString destination;
  ImageFormat format;
  double quality;
  CompressionOptions sizing;
  std::optional<std::string> unusable{};  // why the destination can't be made: each file's error
};

// Each name is the allocator's next whose file in the destination is free, or is the source's
// own earlier output: someone else's file (a file of the user's, another source's output) is
// passed over. The scan names its files first; a worker whose name was taken while it compressed
// asks again. The files of the scan are its inputs: a name in the destination that is one of
// them (a hard link, say) is passed over too, so that no output replaces a source it has yet to
// read.
class HotFolderWatcher::OutputNames {
 public:
  OutputNames(QString hotFolderID, const Settings& settings, const std::vector<Candidate>& candidates)
      : hotFolderID_(std::move(hotFolderID)),
        folder_(QFile::encodeName(settings.destination).toStdString() + '/'),
        extension_(ImageFormats::fileExtension(settings.format)),
        allocator_(folder_, inputPaths(candidates)) {}

  std::string next(const Candidate& candidate) {
    const std::string base = candidate.fileName.substr(0, candidate.fileName.rfind('.'));
    MutexLock lock(mutex_);
    for (;;) {
      std::string name = allocator_.filename(base, extension_);
      struct stat st {};
      if (::lstat((folder_ + name).c_str(), &st) != 0 || isOwn(candidate.ownOutput, name, st)) return name;
    }
  }

  // Whether `existing`, named `name`, is the candidate's own output as the memory has it now,
  // just before it is replaced: a scan that overlaps this one (the folder's previous watcher,
  // after an edit) may have written it meanwhile.
  bool isOwnNow(const Candidate& candidate, const std::string& name, const struct stat& existing) const {
    return isOwn(HotFolderProcessedStore::folderState(hotFolderID_).value(candidate.key).output, name,
                 existing);
  }

 private:
  static bool isOwn(const std::optional<HotFolderProcessedEntry::Output>& own, const std::string& name,
                    const struct stat& existing) {
    return own && HotFolderProcessedStore::fileNameOf(own->name) == name &&
           own->identity == identityOf(existing);
  }

  static std::vector<std::string> inputPaths(const std::vector<Candidate>& candidates) {
    std::vector<std::string> paths;
    paths.reserve(candidates.size());
    for (const Candidate& candidate : candidates) paths.push_back(candidate.path);
    return paths;
  }

  const QString hotFolderID_;
  const std::string folder_, extension_;
  Mutex mutex_;
  ExportFilenameAllocator allocator_ GUARDED_BY(mutex_);
};

std::vector<bool> HotFolderWatcher::isStableOnDisk(const std::vector<ListedFile>& files) {
  std::vector<bool> stable;
  bool anyRecent = false;
  for (const ListedFile& file : files) {
    stable.push_back(isOldEnough(file.modificationDate));
    anyRecent = anyRecent || !stable.back();
  }
  if (!anyRecent) return stable;
  std::this_thread::sleep_for(kStabilityWait);
  for (size_t i = 0; i < files.size(); ++i) {
    if (!stable[i]) stable[i] = hasSize(files[i].path, files[i].lastKnownSize);
  }
  return stable;
}

// What escapes a step (memory running out, say) ends this scan with a line about the folder,
// never the watcher's thread; the next event or poll scans again.
void HotFolderWatcher::scanOnce() {
  try {
    scanSteps();
  } catch (...) {
    reportEscape();
  }
}

void HotFolderWatcher::scanSteps() {
  const QString id = hotFolder_.idText();
  const HotFolderProcessedMap known = HotFolderProcessedStore::folderState(id);
  QStringList stale;
  std::vector<Candidate> candidates = pick(known, stale);
  if (candidates.empty()) {
    if (!stale.isEmpty()) HotFolderProcessedStore::pruneProcessedState(id, stale);
    return;
  }
  // Nothing compressed and the stale names kept, so that recreating the profile resumes the
  // folder where it stood.
  std::optional<Settings> settings = resolveSettings();
  if (!settings) return;
  if (!stale.isEmpty()) HotFolderProcessedStore::pruneProcessedState(id, stale);
  // On failure each file fails with the reason (a read-only or full volume), not with the
  // missing folder that follows from it, and nothing is compressed for nothing.
  const std::string destination = QFile::encodeName(settings->destination).toStdString();
  std::error_code made;
  std::filesystem::create_directories(destination, made);
  if (made)
    settings->unusable =
        FileIO::WriteError(destination, destination, Localization::systemError(made.value())).description();
  OutputNames names(id, *settings, candidates);
  name(candidates, names);
  compressAll(candidates, *settings, names);
}

// The files that are images, not known unchanged to the store, not written by a hot folder,
// and done being written (closed by their writer, their size still, their structure whole);
// the store's names that the listing no longer has go to `staleNames`.
std::vector<HotFolderWatcher::Candidate> HotFolderWatcher::pick(const HotFolderProcessedMap& known,
                                                                QStringList& staleNames) {
  const std::optional<std::vector<FolderEntry>> listing = listFolder(hotFolder_.sourceFolder);
  if (!listing) return {};  // unreadable or gone: quietly, the store untouched

  const std::set<HotFolderProcessedEntry::Identity> outputs = HotFolderProcessedStore::outputs();
  const std::set<std::string> writing = namesBeingWritten();
  const std::string folder = QFile::encodeName(hotFolder_.sourceFolder).toStdString() + '/';
  QSet<QString> seenNames;
  std::vector<Candidate> candidates;
  std::vector<ListedFile> listed;
  std::vector<ImageFormat> formats;
  for (const FolderEntry& file : *listing) {
    const QString key = HotFolderProcessedStore::nameKey(file.fileName);
    seenNames.insert(key);
    const auto entry = known.constFind(key);
    if (entry != known.constEnd() && entry->sizeBytes == file.size &&
        entry->modificationDate == file.modificationDate)
      continue;
    if (writing.count(file.fileName) || outputs.count(file.identity)) continue;
    const std::string path = folder + file.fileName;
    const std::optional<ImageFormat> format = ImageFormats::detect(path);
    if (!format) continue;
    candidates.push_back({QFile::decodeName(file.fileName.c_str()),
                          key,
                          file.fileName,
                          path,
                          file.size,
                          file.modificationDate,
                          {},
                          entry != known.constEnd() ? entry->output : std::nullopt});
    listed.push_back({path, file.size, file.modificationDate});
    formats.push_back(*format);
  }
  const std::vector<bool> stable = isStableOnDisk(listed);
  for (size_t i = candidates.size(); i-- > 0;) {
    // Each check reads a whole file: the first scan of a large folder reads them all, and a quit
    // or an edit of the folder does not wait for that.
    if (isStopped()) return {};
    // A file cut short is taken at its next close or change, which starts another scan.
    if (!stable[i] || !FileCompleteness::isComplete(candidates[i].path, formats[i]))
      candidates.erase(candidates.begin() + std::ptrdiff_t(i));
  }
  // An empty listing prunes nothing: it is what an unmounted volume's mount point, or a share
  // that is not there yet, looks like, and forgetting its files would compress them all again
  // when it comes back. A folder really emptied drops its memory at the next listing with a file.
  if (listing->empty()) return candidates;
  for (auto it = known.constBegin(); it != known.constEnd(); ++it) {
    if (!seenNames.contains(it.key())) staleNames.append(it.key());
  }
  return candidates;
}

// The profile's settings as they are now; a missing profile is reported as a line about the
// whole folder.
std::optional<HotFolderWatcher::Settings> HotFolderWatcher::resolveSettings() {
  try {
    const ExportProfileResolver::Resolved resolved = ExportProfileResolver::resolve(
        hotFolder_.profileName, hotFolder_.quality, hotFolder_.format, hotFolder_.destinationFolder);
    {
      MutexLock lock(reportLock_);
      reportedFolderError_.reset();
    }
    return Settings{resolved.outputDirectory.value_or(hotFolder_.destinationFolder), resolved.format,
                    resolved.quality, ExportProfileResolver::merged(hotFolder_.sizing, resolved.sizing)};
  } catch (const QuillaneError& error) {
    reportFolderError(QString::fromStdString(error.description()));
    return std::nullopt;
  }
}

void HotFolderWatcher::reportEscape() noexcept {
  try {
    reportFolderError(QString::fromStdString(genericErrorText()));
  } catch (...) {
    // not even the line could be made
  }
}

// Said once, not at every scan, until a scan resolves its settings again.
void HotFolderWatcher::reportFolderError(const QString& message) {
  MutexLock lock(reportLock_);
  if (onActivity && reportedFolderError_ != message) {
    onActivity({QUuid::createUuid(), hotFolder_.name, QString(), std::nullopt,
                QDateTime::currentDateTimeUtc(), message, std::nullopt});
  }
  reportedFolderError_ = message;
}

// Sorts the candidates as a file manager does ("2.png" before "10.png") and gives each an
// output name of its own.
void HotFolderWatcher::name(std::vector<Candidate>& candidates, OutputNames& names) const {
  QCollator collator{QLocale()};
  collator.setNumericMode(true);
  std::stable_sort(candidates.begin(), candidates.end(), [&](const Candidate& a, const Candidate& b) {
    return collator.compare(a.name, b.name) < 0;
  });
  for (Candidate& candidate : candidates) candidate.destinationFilename = names.next(candidate);
}

// Compresses in sorted order, at most concurrencyLimit() files at a time, each claiming its
// cost from the process's compression budget, and each recorded as it ends. A stop lets no
// further file start.
void HotFolderWatcher::compressAll(const std::vector<Candidate>& candidates, const Settings& settings,
                                   OutputNames& names) {
  const int total = int(candidates.size());
  int completed = 0;  // under reportLock_
  {
    MutexLock lock(reportLock_);
    if (onProgress) onProgress(0, total);
  }
  std::atomic<size_t> next{0};
  QSemaphore finished;
  // The workers use this frame: it is left only once every one that started has ended.
  int started = 0;
  try {
    for (; started < std::min(concurrencyLimit(), total); ++started)
      utilityPool().start([&] {
        for (size_t index; !isStopped() && (index = next++) < candidates.size();) {
          const Candidate& candidate = candidates[index];
          try {
            record(candidate, compressOne(candidate, settings, names), completed, total);
          } catch (...) {
            // Out of memory before the file's outcome was told: it fails, and the scan goes on.
            // Nothing escapes, the making of the failure's text included: an escape would end
            // the process, and the scan would wait for this worker.
            try {
              ImageCompressionResult failed;
              failed.error = genericErrorText();
              record(candidate, failed, completed, total);
            } catch (...) {
              // its next scan takes it again
            }
          }
        }
        finished.release();
      });
  } catch (...) {
    // the workers that could start take every file
  }
  finished.acquire(started);
}

// One file, under its claim on the compression budget. A file that took its name while it was
// compressed stays: the next free name is written instead, compressed again.
ImageCompressionResult HotFolderWatcher::compressOne(const Candidate& candidate, const Settings& settings,
                                                     OutputNames& names) {
  if (settings.unusable) {
    ImageCompressionResult failed;
    failed.path = candidate.path;
    failed.originalSizeBytes = candidate.size;
    failed.error = settings.unusable;
    failed.unwritten = true;
    return failed;
  }
  const CompressionBudget::Claim claim = CompressionBudget::process().claim(
      CompressionCost::fileCostMB(candidate.path, settings.format, settings.quality));
  const std::string destination = QFile::encodeName(settings.destination).toStdString();
  for (std::string name = candidate.destinationFilename;;) {
    bool taken = false;
    ImageCompressionResult result =
        ImageCompressor::compress(candidate.path, destination, settings.format, settings.quality, name, false,
                                  settings.sizing, [&](const struct stat& existing) {
                                    taken = !names.isOwnNow(candidate, name, existing);
                                    return !taken;
                                  });
    if (!taken) return result;
    name = names.next(candidate);
  }
}

// A success is stored at once, with the identity of what it wrote, so that a crash redoes
// only the files in flight; then the line and the progress are reported. A failure that
// repeats the last one reported for the file as it stands is not reported again.
void HotFolderWatcher::record(const Candidate& candidate, const ImageCompressionResult& result,
                              int& completed, int total) {
  if (!result.error) {
    // The listed values, not fresh ones: a file that changed meanwhile comes up again.
    HotFolderProcessedEntry entry{candidate.size, candidate.modificationDate, std::nullopt};
    struct stat st {};
    if (result.destination && ::stat(result.destination->c_str(), &st) == 0) {
      const std::string& written = *result.destination;
      entry.output = {HotFolderProcessedStore::nameKey(written.substr(written.rfind('/') + 1)),
                      identityOf(st)};
    }
    HotFolderProcessedStore::update(
        hotFolder_.idText(), [&](HotFolderProcessedMap& files) { files.insert(candidate.key, entry); });
  }
  MutexLock lock(reportLock_);
  HotFolderActivity line{
      QUuid::createUuid(), hotFolder_.name, candidate.name, std::nullopt, QDateTime::currentDateTimeUtc(),
      std::nullopt,        std::nullopt};
  if (result.destination) line.destinationURL = QFile::decodeName(result.destination->c_str());
  if (result.skipped) line.note = QString::fromStdString(*result.skipped);
  bool repeated = false;
  if (result.error) {
    line.error = QString::fromStdString(*result.error);
    unwritten_ = unwritten_ || result.unwritten;
    const ReportedFailure failure{candidate.size, candidate.modificationDate, *line.error};
    const auto previous = reportedFailures_.find(candidate.fileName);
    repeated = previous != reportedFailures_.end() && previous->second == failure;
    reportedFailures_[candidate.fileName] = failure;
  } else {
    reportedFailures_.erase(candidate.fileName);
  }
  if (onActivity && !repeated) onActivity(line);
  ++completed;
  if (onProgress) onProgress(completed, total);
}

}  // namespace quillane
