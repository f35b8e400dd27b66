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
#include <thread>

#include "batch/ExportFilenameAllocator.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "hotfolders/HotFolderWatcher.h"
#include "records/ExportProfileResolver.h"

namespace quillane {
namespace {

constexpr int64_t kSecondsFrom1970To2001 = 978307200;
constexpr double kStableAge = 2.0;
constexpr std::chrono::milliseconds kStabilityWait{300};

double secondsSince2001(const timespec& time) {
  return double(int64_t(time.tv_sec) - kSecondsFrom1970To2001) + double(time.tv_nsec) * 1e-9;
}

double nowSince2001() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return secondsSince2001(now);
}

struct FolderEntry {
  std::string fileName;  // bytes, whatever their encoding
  int64_t size;
  double modificationDate;
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
    files.push_back({entry->d_name, int64_t(st.st_size), secondsSince2001(st.st_mtim)});
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
  QString name;  // the store's key and the activity line's; lossy where the bytes are no UTF-8
  std::string fileName;
  std::string path;
  int64_t size;
  double modificationDate;
  std::string destinationFilename;
};

struct HotFolderWatcher::Settings {
  QString destination;
  ImageFormat format;
  double quality;
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

void HotFolderWatcher::scanOnce() {
  QStringList stale;
  std::vector<Candidate> candidates = pick(stale);
  const QString id = hotFolder_.idText();
  if (candidates.empty()) {
    if (!stale.isEmpty()) HotFolderProcessedStore::pruneProcessedState(id, stale);
    return;
  }
  // Nothing compressed and the stale names kept, so that recreating the profile resumes the
  // folder where it stood.
  const std::optional<Settings> settings = resolveSettings();
  if (!settings) return;
  if (!stale.isEmpty()) HotFolderProcessedStore::pruneProcessedState(id, stale);
  QDir().mkpath(settings->destination);  // on failure each file fails and says so
  name(candidates, *settings);
  compressAll(candidates, *settings);
}

// The files that are images, not known unchanged to the store and done being written; the
// store's names that the listing no longer has go to `staleNames`.
std::vector<HotFolderWatcher::Candidate> HotFolderWatcher::pick(QStringList& staleNames) const {
  const std::optional<std::vector<FolderEntry>> listing = listFolder(hotFolder_.sourceFolder);
  if (!listing) return {};  // unreadable or gone: quietly, the store untouched

  const HotFolderProcessedMap known = HotFolderProcessedStore::folderState(hotFolder_.idText());
  const std::string folder = QFile::encodeName(hotFolder_.sourceFolder).toStdString() + '/';
  QSet<QString> seenNames;
  std::vector<Candidate> candidates;
  std::vector<ListedFile> listed;
  for (const FolderEntry& file : *listing) {
    const QString name = QFile::decodeName(file.fileName.c_str());
    seenNames.insert(name);
    const auto entry = known.constFind(name);
    if (entry != known.constEnd() && entry->sizeBytes == file.size &&
        entry->modificationDate == file.modificationDate)
      continue;
    const std::string path = folder + file.fileName;
    if (!ImageFormats::detect(path)) continue;
    candidates.push_back({name, file.fileName, path, file.size, file.modificationDate, {}});
    listed.push_back({path, file.size, file.modificationDate});
  }
  const std::vector<bool> stable = isStableOnDisk(listed);
  for (size_t i = candidates.size(); i-- > 0;) {
    if (!stable[i]) candidates.erase(candidates.begin() + std::ptrdiff_t(i));
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
    return Settings{resolved.outputDirectory.value_or(hotFolder_.destinationFolder), resolved.format,
                    resolved.quality};
  } catch (const QuillaneError& error) {
    std::lock_guard lock(reportLock_);
    if (onActivity) {
      onActivity({QUuid::createUuid(), hotFolder_.name, QString(), std::nullopt,
                  QDateTime::currentDateTimeUtc(), QString::fromStdString(error.description())});
    }
    return std::nullopt;
  }
}

// Sorts the candidates as a file manager does ("2.png" before "10.png") and gives each an
// output name of its own.
void HotFolderWatcher::name(std::vector<Candidate>& candidates, const Settings& settings) const {
  QCollator collator{QLocale()};
  collator.setNumericMode(true);
  std::stable_sort(candidates.begin(), candidates.end(), [&](const Candidate& a, const Candidate& b) {
    return collator.compare(a.name, b.name) < 0;
  });
  // The files of this scan are its inputs: a name in the destination that is one of them (a
  // hard link, say) is passed over, so that no output replaces a source it has yet to read.
  std::vector<std::string> inputPaths;
  inputPaths.reserve(candidates.size());
  for (const Candidate& candidate : candidates) inputPaths.push_back(candidate.path);
  ExportFilenameAllocator allocator(QFile::encodeName(settings.destination).toStdString(), inputPaths);
  const std::string extension(ImageFormats::fileExtension(settings.format));
  for (Candidate& candidate : candidates) {
    const size_t dot = candidate.fileName.rfind('.');
    candidate.destinationFilename = allocator.filename(candidate.fileName.substr(0, dot), extension);
  }
}

// Compresses in sorted order, at most concurrencyLimit() files at a time, each recorded as it
// ends. A stop lets no further file start.
void HotFolderWatcher::compressAll(const std::vector<Candidate>& candidates, const Settings& settings) {
  const int total = int(candidates.size());
  int completed = 0;  // under reportLock_
  {
    std::lock_guard lock(reportLock_);
    if (onProgress) onProgress(0, total);
  }
  const std::string destination = QFile::encodeName(settings.destination).toStdString();
  std::atomic<size_t> next{0};
  QSemaphore finished;
  const int workers = std::min(concurrencyLimit(), total);
  for (int i = 0; i < workers; ++i) {
    utilityPool().start([&] {
      for (size_t index; !isStopped() && (index = next++) < candidates.size();) {
        const Candidate& candidate = candidates[index];
        record(candidate,
               ImageCompressor::compress(candidate.path, destination, settings.format, settings.quality,
                                         candidate.destinationFilename),
               completed, total);
      }
      finished.release();
    });
  }
  finished.acquire(workers);
}

// A success is stored at once, so that a crash redoes only the files in flight; then the
// line and the progress are reported.
void HotFolderWatcher::record(const Candidate& candidate, const ImageCompressionResult& result,
                              int& completed, int total) {
  if (!result.error) {
    // The listed values, not fresh ones: a file that changed meanwhile comes up again.
    HotFolderProcessedStore::update(hotFolder_.idText(), [&](HotFolderProcessedMap& files) {
      files.insert(candidate.name, {candidate.size, candidate.modificationDate});
    });
  }
  std::lock_guard lock(reportLock_);
  HotFolderActivity line{
      QUuid::createUuid(), hotFolder_.name, candidate.name, std::nullopt, QDateTime::currentDateTimeUtc(),
      std::nullopt};
  if (result.destination) line.destinationURL = QFile::decodeName(result.destination->c_str());
  if (result.error) line.error = QString::fromStdString(*result.error);
  if (onActivity) onActivity(line);
  ++completed;
  if (onProgress) onProgress(completed, total);
}

}  // namespace quillane
