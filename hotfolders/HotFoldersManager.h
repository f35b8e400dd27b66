#pragma once
// HotFoldersManager: owns the list of hot folders, persisted in hotFolders.json, and one
// running HotFolderWatcher for each enabled folder that could be started. It is what the
// settings pane shows: the folders, the recent activity (newest first, at most 100 lines,
// memory only) and the progress of running scans. One instance lives for the life of the
// application.
//
// GUI thread only. Watchers report on their own threads; their reports reach record() and
// updateProgress() as queued calls. Nothing here waits for a scan, except the destructor,
// which stops every watcher and waits for what they are running, so that no thread still
// writes once the application has quit.

#include <QMap>
#include <QObject>
#include <QSet>
#include <QUuid>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "hotfolders/HotFolder.h"

namespace quillane {

class HotFolderWatcher;
class MountObserver;

class HotFoldersManager : public QObject {
  Q_OBJECT
 public:
  static constexpr int kActivityLimit = 100;

  // Loads the list, starts the enabled folders (each scanned 0.5 s later) and watches the
  // mounts, so that a folder on a volume mounted later comes to life.
  explicit HotFoldersManager(QObject* parent = nullptr);
  ~HotFoldersManager() override;

  const HotFolderList& hotFolders() const { return hotFolders_; }
  const std::vector<HotFolderActivity>& recentActivity() const { return recentActivity_; }
  std::optional<HotFolderProgress> progress(const QUuid& hotFolderID) const;
  // Whether the folder has a running watcher.
  bool isRunning(const QUuid& hotFolderID) const;

  // Adds, or replaces the folder of the same id in place; saves; brings the watchers in line
  // (a changed folder restarts, and so gets a fresh scan; an unchanged one keeps running).
  void upsert(const HotFolder& hotFolder);
  // Removes the folder, saves, forgets its processed files and stops its watcher. Its output
  // files and activity lines stay.
  void remove(const HotFolder& hotFolder);
  void clearActivity();

  // Paused, no folder runs (their settings are kept); resuming starts the enabled ones again,
  // each with a fresh scan. Not saved: a new process starts unpaused.
  void setPaused(bool paused);
  bool isPaused() const { return paused_; }
  bool hasEnabledFolder() const;

  // Starts what should run and is not running, stops what should not. Idempotent; called at
  // each edit and at each mount change.
  void applyWatchers();

 signals:
  void hotFoldersChanged();
  void recentActivityChanged();
  void progressChanged();
  void pausedChanged();

 private:
  void noteCouldNotStart(const HotFolder& hotFolder, const QString& message);
  void record(const HotFolderActivity& activity);
  void updateProgress(const QUuid& hotFolderID, int completed, int total);
  void retire(const QUuid& hotFolderID);

  HotFolderList hotFolders_;
  std::vector<HotFolderActivity> recentActivity_;
  QMap<QUuid, HotFolderProgress> progress_;
  std::map<QUuid, std::shared_ptr<HotFolderWatcher>> watchers_;
  std::vector<std::weak_ptr<HotFolderWatcher>> retired_;  // stopped, perhaps still scanning
  MountObserver* volumeMountObserver_ = nullptr;
  QSet<QUuid> unstartedHotFolderIDs_;
  bool paused_ = false;
  // Folders that were the root of a volume that has been unmounted. Their mount point is an
  // empty folder now, and scanning it would drop the memory of every file; they wait for a
  // volume to be mounted there again.
  QSet<QUuid> awaitingVolumeIDs_;
};

}  // namespace quillane
