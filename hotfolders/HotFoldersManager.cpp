#include "hotfolders/HotFoldersManager.h"

#include <QDateTime>
#include <algorithm>

#include "engine/Localization.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "hotfolders/HotFolderWatcher.h"
#include "hotfolders/MountObserver.h"
#include "hotfolders/SerialQueue.h"

namespace quillane {
namespace {

HotFolderActivity folderLine(const HotFolder& hotFolder, const QString& message) {
  return {
      QUuid::createUuid(), hotFolder.name, QString(), std::nullopt, QDateTime::currentDateTimeUtc(), message};
}

QString sameFolderText() {
  return QString::fromStdString(
      Localization::text("settings.hotFolders.sameFolderWarning",
                         "La source et la destination doivent être des dossiers différents."));
}

QString unreadableSourceText() {
  return QString::fromStdString(Localization::text("settings.hotFolders.unreadableSource",
                                                   "Impossible d'ouvrir le dossier surveillé."));
}

}  // namespace

HotFoldersManager::HotFoldersManager(QObject* parent) : QObject(parent) {
  hotFolders_ = HotFolders::load();
  applyWatchers();
  volumeMountObserver_ = new MountObserver(this);
  connect(volumeMountObserver_, &MountObserver::mountsChanged, this, &HotFoldersManager::applyWatchers);
}

HotFoldersManager::~HotFoldersManager() {
  std::vector<std::shared_ptr<HotFolderWatcher>> all;
  for (auto& [id, watcher] : watchers_) all.push_back(std::move(watcher));
  watchers_.clear();
  for (const auto& weak : retired_) {
    if (auto watcher = weak.lock()) all.push_back(std::move(watcher));
  }
  for (const auto& watcher : all) watcher->stop();
  // The scans see the stop before their next file; what is being compressed ends first.
  for (const auto& watcher : all) watcher->waitUntilIdle();
  all.clear();
  SerialQueue::waitForAll();
}

std::optional<HotFolderProgress> HotFoldersManager::progress(const QUuid& hotFolderID) const {
  const auto it = progress_.constFind(hotFolderID);
  return it == progress_.constEnd() ? std::nullopt : std::optional(*it);
}

bool HotFoldersManager::isRunning(const QUuid& hotFolderID) const {
  return watchers_.count(hotFolderID) != 0;
}

void HotFoldersManager::retire(const QUuid& hotFolderID) {
  const auto it = watchers_.find(hotFolderID);
  if (it != watchers_.end()) {
    it->second->stop();
    std::erase_if(retired_, [](const auto& weak) { return weak.expired(); });
    retired_.push_back(it->second);
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

void HotFoldersManager::applyWatchers() {
  QSet<QUuid> enabledIDs;
  for (const HotFolder& folder : hotFolders_) {
    if (folder.isEnabled && !paused_) enabledIDs.insert(folder.id);
  }
  std::vector<QUuid> unwanted;
  for (const auto& [id, watcher] : watchers_) {
    if (!enabledIDs.contains(id)) unwanted.push_back(id);
  }
  for (const QUuid& id : unwanted) retire(id);
  unstartedHotFolderIDs_.intersect(enabledIDs);
  awaitingVolumeIDs_.intersect(enabledIDs);

  for (const HotFolder& folder : hotFolders_) {
    if (!enabledIDs.contains(folder.id)) continue;
    const auto running = watchers_.find(folder.id);
    // A watcher whose folder went away (deleted, unmounted, covered by a mount) is tried again.
    if (running != watchers_.end() && running->second->hotFolder() == folder &&
        running->second->isWatching()) {
      continue;
    }
    if (running != watchers_.end() && running->second->hotFolder() == folder &&
        running->second->startedOnMountRoot() && !HotFolderWatcher::isMountRoot(folder.sourceFolder)) {
      awaitingVolumeIDs_.insert(folder.id);
    }
    retire(folder.id);
    if (awaitingVolumeIDs_.contains(folder.id)) {
      if (!HotFolderWatcher::isMountRoot(folder.sourceFolder)) {
        noteCouldNotStart(folder, unreadableSourceText());
        continue;
      }
      awaitingVolumeIDs_.remove(folder.id);
    }
    if (HotFolders::isSameFolder(folder.sourceFolder, folder.destinationFolder)) {
      noteCouldNotStart(folder, sameFolderText());
      continue;
    }
    auto watcher = HotFolderWatcher::make(folder);
    // The manager outlives every watcher's threads (see the destructor), so the queued calls
    // may name it directly.
    const QUuid id = folder.id;
    watcher->onActivity = [this](const HotFolderActivity& activity) {
      QMetaObject::invokeMethod(
          this, [this, activity] { record(activity); }, Qt::QueuedConnection);
    };
    watcher->onProgress = [this, id](int completed, int total) {
      QMetaObject::invokeMethod(
          this, [this, id, completed, total] { updateProgress(id, completed, total); }, Qt::QueuedConnection);
    };
    if (!watcher->start()) {
      noteCouldNotStart(folder, unreadableSourceText());
      continue;
    }
    unstartedHotFolderIDs_.remove(folder.id);
    watchers_.emplace(folder.id, std::move(watcher));
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
  // An edit is the user's word that the folder is meant as it is now.
  if (it == hotFolders_.end() || !(*it == hotFolder)) awaitingVolumeIDs_.remove(hotFolder.id);
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

void HotFoldersManager::record(const HotFolderActivity& activity) {
  recentActivity_.insert(recentActivity_.begin(), activity);
  if (recentActivity_.size() > size_t(kActivityLimit)) recentActivity_.resize(kActivityLimit);
  emit recentActivityChanged();
}

void HotFoldersManager::updateProgress(const QUuid& hotFolderID, int completed, int total) {
  if (watchers_.count(hotFolderID) && completed < total) {
    progress_.insert(hotFolderID, {completed, total});
  } else if (!progress_.remove(hotFolderID)) {
    return;
  }
  emit progressChanged();
}

}  // namespace quillane
