#include "hotfolders/HotFoldersManager.h"

#include <QDateTime>
#include <algorithm>
#include <utility>

#include "batch/PoolTask.h"
#include "engine/Errors.h"
#include "engine/Localization.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "hotfolders/MountObserver.h"

namespace quillane {
namespace {

HotFolderActivity folderLine(const HotFolder& hotFolder, const QString& message) {
  return {
      QUuid::createUuid(), hotFolder.name, QString(), std::nullopt, QDateTime::currentDateTimeUtc(), message,
      std::nullopt};
}

QString unreadableSourceText() {
  return QString::fromStdString(Localization::text("settings.hotFolders.unreadableSource",
                                                   "Impossible d'ouvrir le dossier surveillé."));
}

}  // namespace

HotFoldersManager::HotFoldersManager(QObject* parent)
    : HotFoldersManager(HotFolderWatcher::Timing(), parent) {}

HotFoldersManager::HotFoldersManager(HotFolderWatcher::Timing timing, QObject* parent)
    : QObject(parent), timing_(std::move(timing)) {
  checks_.setObjectName(QStringLiteral("com.quillane.Quillane.hotFolderChecks"));
  hotFolders_ = HotFolders::load();
  applyWatchers();
  volumeMountObserver_ = new MountObserver(this);
  connect(volumeMountObserver_, &MountObserver::mountsChanged, this, &HotFoldersManager::applyWatchers);
}

HotFoldersManager::~HotFoldersManager() {
  ++checkGeneration_;
  for (auto& [id, watcher] : watchers_) watcher->stop();
  // The scans see the stop before their next file; what is being compressed ends first.
  watchers_.clear();
  retired_.clear();
  checks_.waitForDone();
}

std::optional<HotFolderProgress> HotFoldersManager::progress(const QUuid& hotFolderID) const {
  const auto it = progress_.constFind(hotFolderID);
  return it == progress_.constEnd() ? std::nullopt : std::optional(*it);
}

HotFoldersManager::Status HotFoldersManager::status(const QUuid& hotFolderID) const {
  return statuses_.value(hotFolderID);
}

bool HotFoldersManager::isRunning(const QUuid& hotFolderID) const {
  return status(hotFolderID).state == Status::State::watching;
}

void HotFoldersManager::setStatus(const QUuid& hotFolderID, const Status& status) {
  if (statuses_.value(hotFolderID) == status) return;
  if (status.state == Status::State::disabled) {
    statuses_.remove(hotFolderID);
  } else {
    statuses_.insert(hotFolderID, status);
  }
  emit statusChanged();
}

// A stopped watcher is kept until its thread has ended, so that dropping it never waits.
void HotFoldersManager::retire(const QUuid& hotFolderID) {
  std::erase_if(retired_, [](const auto& watcher) { return watcher->isFinished(); });
  const auto it = watchers_.find(hotFolderID);
  if (it != watchers_.end()) {
    it->second->finish();
    retired_.push_back(std::move(it->second));
    watchers_.erase(it);
  }
  if (progress_.remove(hotFolderID)) emit progressChanged();
}

void HotFoldersManager::setPaused(bool paused) {
  if (paused_ == paused) return;
  paused_ = paused;
  applyWatchers();
  emit pausedChanged();
}

bool HotFoldersManager::hasEnabledFolder() const {
  return std::any_of(hotFolders_.begin(), hotFolders_.end(),
                     [](const HotFolder& folder) { return folder.isEnabled; });
}

QFuture<void> HotFoldersManager::applyWatchers() {
  QSet<QUuid> enabledIDs;
  HotFolderList enabled;
  for (const HotFolder& folder : hotFolders_) {
    if (!folder.isEnabled || paused_) continue;
    enabledIDs.insert(folder.id);
    enabled.push_back(folder);
  }
  std::vector<QUuid> unwanted;
  for (const auto& entry : watchers_) {
    const QUuid& id = entry.first;
    const auto folder =
        std::find_if(enabled.begin(), enabled.end(), [&](const HotFolder& f) { return f.id == id; });
    if (folder == enabled.end() || !(*folder == entry.second->hotFolder())) unwanted.push_back(id);
  }
  for (const QUuid& id : unwanted) retire(id);
  for (const QUuid& id : statuses_.keys()) {
    if (!enabledIDs.contains(id)) setStatus(id, {});
  }
  unstartedHotFolderIDs_.intersect(enabledIDs);

  const int generation = ++checkGeneration_;
  auto check = [enabled] {
    try {
      return HotFolders::refusals(enabled);
    } catch (...) {
      // Out of memory: no folder runs unchecked, each says so, and the next edit or mount
      // change checks again.
      std::map<QUuid, QString> all;
      for (const HotFolder& folder : enabled) all[folder.id] = QString::fromStdString(genericErrorText());
      return all;
    }
  };
  return PoolTask::run(&checks_, this, check, [this, generation](const std::map<QUuid, QString>& refusals) {
    if (generation == checkGeneration_) applyChecked(refusals);
  });
}

void HotFoldersManager::applyChecked(const std::map<QUuid, QString>& refusals) {
  for (const HotFolder& folder : hotFolders_) {
    if (!folder.isEnabled || paused_) continue;
    const auto refusal = refusals.find(folder.id);
    if (refusal != refusals.end()) {
      retire(folder.id);
      setStatus(folder.id, {Status::State::refused, refusal->second});
      noteCouldNotStart(folder, refusal->second);
      continue;
    }
    const auto running = watchers_.find(folder.id);
    if (running != watchers_.end() && running->second->hotFolder() == folder) {
      running->second->recheck();  // a mount may have changed what its path names
      continue;
    }
    retire(folder.id);
    auto watcher = std::make_unique<HotFolderWatcher>(folder, timing_);
    // The manager outlives every watcher's threads (see the destructor), so the queued calls
    // may name it directly.
    const QUuid id = folder.id;
    const quint64 serial = ++watcherSerial_;
    serials_.insert(id, serial);
    watcher->onActivity = [this](const HotFolderActivity& activity) {
      QMetaObject::invokeMethod(
          this, [this, activity] { record(activity); }, Qt::QueuedConnection);
    };
    watcher->onProgress = [this, id, serial](int completed, int total) {
      QMetaObject::invokeMethod(
          this, [this, id, serial, completed, total] { updateProgress(id, serial, completed, total); },
          Qt::QueuedConnection);
    };
    watcher->onState = [this, id, serial](HotFolderWatcher::State state) {
      QMetaObject::invokeMethod(
          this, [this, id, serial, state] { watcherStateChanged(id, serial, state); }, Qt::QueuedConnection);
    };
    watcher->start();
    setStatus(folder.id, {Status::State::starting, {}});
    watchers_.emplace(folder.id, std::move(watcher));
  }
}

// Reports of a watcher that has since been replaced are dropped.
void HotFoldersManager::watcherStateChanged(const QUuid& hotFolderID, quint64 serial,
                                            HotFolderWatcher::State state) {
  const auto it = watchers_.find(hotFolderID);
  if (it == watchers_.end() || serials_.value(hotFolderID) != serial) return;
  const HotFolder& folder = it->second->hotFolder();
  if (state == HotFolderWatcher::State::watching) {
    // A folder that has just appeared may close a loop that the last check could not see.
    const bool appeared = status(folder.id).state == Status::State::waitingForFolder;
    unstartedHotFolderIDs_.remove(folder.id);
    setStatus(folder.id, {Status::State::watching, {}});
    if (appeared) applyWatchers();
  } else if (state == HotFolderWatcher::State::waitingForFolder) {
    setStatus(folder.id, {Status::State::waitingForFolder, {}});
    noteCouldNotStart(folder, unreadableSourceText());
  }
}

void HotFoldersManager::noteCouldNotStart(const HotFolder& hotFolder, const QString& message) {
  if (unstartedHotFolderIDs_.contains(hotFolder.id)) return;
  unstartedHotFolderIDs_.insert(hotFolder.id);
  record(folderLine(hotFolder, message));
}

void HotFoldersManager::upsert(const HotFolder& hotFolder) {
  const auto it = std::find_if(hotFolders_.begin(), hotFolders_.end(),
                               [&](const HotFolder& folder) { return folder.id == hotFolder.id; });
  if (it != hotFolders_.end()) {
    *it = hotFolder;
  } else {
    hotFolders_.push_back(hotFolder);
  }
  HotFolders::save(hotFolders_);
  emit hotFoldersChanged();
  applyWatchers();
}

void HotFoldersManager::remove(const HotFolder& hotFolder) {
  std::erase_if(hotFolders_, [&](const HotFolder& folder) { return folder.id == hotFolder.id; });
  HotFolders::save(hotFolders_);
  HotFolderProcessedStore::remove(hotFolder.idText());
  emit hotFoldersChanged();
  applyWatchers();
}

void HotFoldersManager::clearActivity() {
  recentActivity_.clear();
  emit recentActivityChanged();
}

// Errors and successes are counted apart, so that a run of successes never pushes the last
// errors out of sight.
void HotFoldersManager::record(const HotFolderActivity& activity) {
  recentActivity_.insert(recentActivity_.begin(), activity);
  const bool isError = activity.isError();
  int kept = 0;
  std::erase_if(recentActivity_, [&](const HotFolderActivity& line) {
    return line.isError() == isError && ++kept > (isError ? kErrorLimit : kActivityLimit);
  });
  emit recentActivityChanged();
}

// The progress of a replaced watcher's scan, which runs on to the end of its files in flight and
// then stops short of its total, is not the folder's: it would stay on show.
void HotFoldersManager::updateProgress(const QUuid& hotFolderID, quint64 serial, int completed, int total) {
  if (watchers_.count(hotFolderID) && serials_.value(hotFolderID) == serial && completed < total) {
    progress_.insert(hotFolderID, {completed, total});
  } else if (!progress_.remove(hotFolderID)) {
    return;
  }
  emit progressChanged();
}

}  // namespace quillane
