// HotFolderWatcher::scanOnce and what it needs: the listing, the choice of candidates, the
// parallel compression and the record of what was done.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <QCollator>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSemaphore>
#include <QStringList>
#include <QThreadPool>
#include <algorithm>
#include <thread>

#include "batch/ExportFilenameAllocator.h"
#include "engine/Errors.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "hotfolders/HotFolderWatcher.h"
#include "hotfolders/SerialQueue.h"
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
  QString name;
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
    files.push_back({QFile::decodeName(entry->d_name), int64_t(st.st_size), secondsSince2001(st.st_mtim)});
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

struct Candidate {
  QString name;
  QString path;
  int64_t size;
  double modificationDate;
  QString destinationFilename;
};

struct ResolvedSettings {
  QString destination;
  ImageFormat format;
  double quality;
};

// What the work units of one scan share. `completed` and `processed` are touched only on
// `results`.
struct ScanState {
  explicit ScanState(const QString& id)
      : results(QStringLiteral("com.quillane.Quillane.hotFolderWatcher.results.") + id),
        inFlight(HotFolderWatcher::concurrencyLimit()) {}
  std::vector<Candidate> candidates;
  ResolvedSettings settings;
  SerialQueue results;
  QSemaphore inFlight;
  QSemaphore finished;  // one release per unit: the group
  int completed = 0;
  HotFolderProcessedMap processed;
};

}  // namespace

namespace {

// A date in the future gives a negative age and so needs the size test.
bool isOldEnough(double modificationDate) { return nowSince2001() - modificationDate >= kStableAge; }

bool hasSize(const QString& path, int64_t size) {
  struct stat st {};
  return ::stat(QFile::encodeName(path).constData(), &st) == 0 && int64_t(st.st_size) == size;
}

}  // namespace

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
  const QString id = hotFolder_.idText();
  const std::optional<std::vector<FolderEntry>> listing = listFolder(hotFolder_.sourceFolder);
  if (!listing) return;  // unreadable or gone: quietly, the store untouched

  const HotFolderProcessedMap known = HotFolderProcessedStore::folderState(id);
  QSet<QString> seenNames;
  std::vector<Candidate> candidates;
  std::vector<ListedFile> images;
  for (const FolderEntry& file : *listing) {
    seenNames.insert(file.name);
    const auto entry = known.constFind(file.name);
    if (entry != known.constEnd() && entry->sizeBytes == file.size &&
        entry->modificationDate == file.modificationDate)
      continue;
    const QString path = hotFolder_.sourceFolder + QLatin1Char('/') + file.name;
    if (!ImageFormats::detect(QFile::encodeName(path).toStdString())) continue;
    candidates.push_back({file.name, path, file.size, file.modificationDate, {}});
    images.push_back({path, file.size, file.modificationDate});
  }
  const std::vector<bool> stable = isStableOnDisk(images);
  for (size_t i = candidates.size(); i-- > 0;) {
    if (!stable[i]) candidates.erase(candidates.begin() + std::ptrdiff_t(i));
  }
  QStringList stale;
  for (auto it = known.constBegin(); it != known.constEnd(); ++it) {
    if (!seenNames.contains(it.key())) stale.append(it.key());
  }
  // An empty listing prunes nothing: it is what an unmounted volume's mount point, or a share
  // that is not there yet, looks like, and forgetting its files would compress them all again
  // when it comes back. A folder really emptied drops its memory at the next listing with a file.
  if (listing->empty()) stale.clear();
  if (candidates.empty()) {
    if (!stale.isEmpty()) HotFolderProcessedStore::pruneProcessedState(id, stale);
    return;
  }
  auto state = std::make_shared<ScanState>(id);
  state->candidates = std::move(candidates);

  try {
    const ExportProfileResolver::Resolved resolved = ExportProfileResolver::resolve(
        hotFolder_.profileName, hotFolder_.quality, hotFolder_.format, hotFolder_.destinationFolder);
    state->settings = {resolved.outputDirectory.value_or(hotFolder_.destinationFolder), resolved.format,
                       resolved.quality};
  } catch (const QuillaneError& error) {
    // Nothing compressed and the stale names kept, so that recreating the profile resumes
    // the folder where it stood.
    if (onActivity) {
      onActivity({QUuid::createUuid(), hotFolder_.name, QString(), std::nullopt,
                  QDateTime::currentDateTimeUtc(), QString::fromStdString(error.description())});
    }
    return;
  }
  QDir().mkpath(state->settings.destination);  // on failure each file fails and says so

  QCollator collator{QLocale()};
  collator.setNumericMode(true);
  std::stable_sort(
      state->candidates.begin(), state->candidates.end(),
      [&](const Candidate& a, const Candidate& b) { return collator.compare(a.name, b.name) < 0; });
  // The files of this scan are its inputs: a name in the destination that is one of them (a
  // hard link, say) is passed over, so that no output replaces a source it has yet to read.
  std::vector<std::string> inputPaths;
  inputPaths.reserve(state->candidates.size());
  for (const Candidate& candidate : state->candidates)
    inputPaths.push_back(QFile::encodeName(candidate.path).toStdString());
  ExportFilenameAllocator allocator(QFile::encodeName(state->settings.destination).toStdString(), inputPaths);
  const QString extension = QString::fromLatin1(ImageFormats::fileExtension(state->settings.format).data());
  for (Candidate& candidate : state->candidates) {
    candidate.destinationFilename =
        allocator.filename(QFileInfo(candidate.name).completeBaseName(), extension);
  }

  const int total = int(state->candidates.size());
  if (onProgress) onProgress(0, total);
  std::weak_ptr<HotFolderWatcher> weak = weak_from_this();
  int started = 0;
  for (size_t index = 0; index < state->candidates.size(); ++index) {
    if (isStopped()) break;
    state->inFlight.acquire();
    ++started;
    utilityPool().start([state, weak, index, total] {
      auto self = weak.lock();
      if (!self || self->isStopped()) {
        state->inFlight.release();
        state->finished.release();
        return;
      }
      const Candidate& candidate = state->candidates[index];
      const ResolvedSettings& settings = state->settings;
      const ImageCompressionResult result = ImageCompressor::compress(
          QFile::encodeName(candidate.path).toStdString(),
          QFile::encodeName(settings.destination).toStdString(), settings.format, settings.quality,
          QFile::encodeName(candidate.destinationFilename).toStdString());
      state->results.sync([&] {
        HotFolderActivity line{QUuid::createUuid(), self->hotFolder_.name,           candidate.name,
                               std::nullopt,        QDateTime::currentDateTimeUtc(), std::nullopt};
        if (result.destination) line.destinationURL = QFile::decodeName(result.destination->c_str());
        if (result.error) line.error = QString::fromStdString(*result.error);
        if (self->onActivity) self->onActivity(line);
        // The listed values, not fresh ones: a file that changed meanwhile comes up again.
        if (!result.error)
          state->processed.insert(candidate.name, {candidate.size, candidate.modificationDate});
        ++state->completed;
        if (self->onProgress) self->onProgress(state->completed, total);
      });
      self.reset();  // the watcher is let go here, not on the scan's far side of the release
      state->inFlight.release();
      state->finished.release();
    });
  }
  state->finished.acquire(started);

  // Also after a stop in mid-scan, so that the files that finished stay remembered.
  if (!state->processed.isEmpty() || !stale.isEmpty()) {
    HotFolderProcessedStore::update(id, [&](HotFolderProcessedMap& files) {
      for (const QString& name : stale) files.remove(name);
      for (auto it = state->processed.constBegin(); it != state->processed.constEnd(); ++it)
        files.insert(it.key(), it.value());
    });
  }
}

}  // namespace quillane
