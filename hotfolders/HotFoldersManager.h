#pragma once
// HotFoldersManager: owns the list of hot folders, persisted in hotFolders.json, and one
// HotFolderWatcher for each enabled folder that may run. It is what the settings pane shows:
// the folders and the state of each, the recent activity (newest first, memory only: the
// last 100 successes and, apart from them, the last 100 errors) and the progress of running
// scans. One instance lives for the life of the application.
//
// GUI thread only. What touches the file system runs elsewhere: the checks of the enabled
// folders against each other on a private pool, each watcher's opening of its folder on the
// watcher's thread; their results and the watchers' reports arrive as queued calls. Nothing
// here waits for a scan, except the destructor, which stops every watcher and waits for what
// they are running, so that no thread still writes once the application has quit.

#include <QFuture>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QThreadPool>
#include <QUuid>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "hotfolders/HotFolder.h"
#include "hotfolders/HotFolderWatcher.h"

namespace quillane {

class MountObserver;

class HotFoldersManager : public QObject {
  Q_OBJECT
 public:
  static constexpr int kActivityLimit = 100;  // successes
  static constexpr int kErrorLimit = 100;

  // What an enabled folder is doing. A disabled or unknown folder is `disabled`.
  struct Status {
    enum class State { disabled, starting, watching, waitingForFolder, refused };
    State state = State::disabled;
    QString message;  // why a folder is refused
    bool operator==(const Status&) const = default;
  };

  // Loads the list, starts the enabled folders (each scanned after its watch begins) and
  // watches the mounts, so that a folder on a volume mounted later comes to life. `timing`
  // is the watchers' (tests shorten it).
  explicit HotFoldersManager(QObject* parent = nullptr);
  explicit HotFoldersManager(HotFolderWatcher::Timing timing, QObject* parent = nullptr);
  ~HotFoldersManager() override;

  const HotFolderList& hotFolders() const { return hotFolders_; }
  const std::vector<HotFolderActivity>& recentActivity() const { return recentActivity_; }
  std::optional<HotFolderProgress> progress(const QUuid& hotFolderID) const;
  Status status(const QUuid& hotFolderID) const;
  // Whether the folder is being watched.
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

  // Stops at once what should not run; then checks the enabled folders off this thread and
  // starts what may run and is not running, and has each running watcher check its folder.
  // Idempotent; called at each edit and at each mount change. The future finishes once the
  // check's result has been applied, or dropped for a newer check's.
  QFuture<void> applyWatchers();

 signals:
  void hotFoldersChanged();
  void recentActivityChanged();
  void progressChanged();
  void statusChanged();
  void pausedChanged();

 private:
  void applyChecked(const std::map<QUuid, QString>& refusals);
  void watcherStateChanged(const QUuid& hotFolderID, quint64 serial, HotFolderWatcher::State state);
  void setStatus(const QUuid& hotFolderID, const Status& status);
  void noteCouldNotStart(const HotFolder& hotFolder, const QString& message);
  void record(const HotFolderActivity& activity);
  void updateProgress(const QUuid& hotFolderID, quint64 serial, int completed, int total);
  void retire(const QUuid& hotFolderID);

  const HotFolderWatcher::Timing timing_;
  HotFolderList hotFolders_;
  std::vector<HotFolderActivity> recentActivity_;
  QMap<QUuid, HotFolderProgress> progress_;
  QMap<QUuid, Status> statuses_;
  std::map<QUuid, std::unique_ptr<HotFolderWatcher>> watchers_;
  QMap<QUuid, quint64> serials_;  // of the running watchers, so that a replaced one's reports are dropped
  quint64 watcherSerial_ = 0;
  std::vector<std::unique_ptr<HotFolderWatcher>> retired_;  // stopped, perhaps still scanning
  MountObserver* volumeMountObserver_ = nullptr;
  QSet<QUuid> unstartedHotFolderIDs_;
  bool paused_ = false;
  QThreadPool checks_;       // the folder checks, which may block on a slow volume
  int checkGeneration_ = 0;  // only the newest check's result is applied
};

}  // namespace quillane
