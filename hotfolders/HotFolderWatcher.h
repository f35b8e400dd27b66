#pragma once
// HotFolderWatcher: watches one hot folder and compresses what lands in it. It is made for
// one fixed copy of a HotFolder; when the configuration changes the owner throws it away and
// makes a new one.
//
// Triggers: inotify on the source folder (entries created, deleted, moved in or out, and a
// file closed after writing, so that a file still being copied when a scan skipped it is
// taken as soon as its writer closes it; a write inside a file is no entry change) feeds a
// trailing debounce of 0.5 s that each event pushes back; every start is followed by a first
// scan 0.5 s later; on a folder that is not on a local volume a timer adds a scan every 30 s.
//
// Threads: everything of one watcher (events, debounce, timer, the whole blocking scan) runs
// on its own SerialQueue, labelled "com.quillane.Quillane.hotFolderWatcher.<ID>", so scans of
// one folder never overlap. A scan compresses on the shared utility pool, at most
// concurrencyLimit() files at a time, and reports through a serial results queue. The two
// callbacks are called on those threads, never on the GUI thread: the owner moves to its
// own thread by itself. start(), stop() and scheduleScan() may be called from any thread and
// never wait for a scan. The owner holds the watcher in a shared_ptr; queued work holds it
// weakly, so a dropped watcher runs no further scan.

#include <QDateTime>
#include <QString>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "hotfolders/HotFolder.h"

namespace quillane {

class SerialQueue;
class WorkItem;

class HotFolderWatcher : public std::enable_shared_from_this<HotFolderWatcher> {
 public:
  using ActivityCallback = std::function<void(const HotFolderActivity&)>;
  using ProgressCallback = std::function<void(int completed, int total)>;
  using VolumeCheck = std::function<bool(const QString& folder)>;

  // `pollIntervalOverride` (seconds) replaces the 30 s interval and turns polling on whatever
  // the volume; the manager leaves it absent. `volumeCheck` replaces isSourceOnLocalVolume's
  // reading of the file system (a seam for tests).
  static std::shared_ptr<HotFolderWatcher> make(HotFolder hotFolder,
                                                std::optional<double> pollIntervalOverride = std::nullopt,
                                                VolumeCheck volumeCheck = nullptr);
  ~HotFolderWatcher();

  const HotFolder& hotFolder() const { return hotFolder_; }

  // Set before start().
  ActivityCallback onActivity;
  ProgressCallback onProgress;

  // Opens the folder for watching, starts the timer when the volume needs one and asks for a
  // first scan. False when the folder can't be watched (missing, unreadable, not a folder):
  // then nothing runs. A second start replaces everything the first made.
  bool start();
  // Cancels the pending scan, the watch and the timer. Does not wait for a running scan,
  // which sees the stop before its next file; compressions in flight run to their end.
  void stop();
  // A scan 0.5 s from now, replacing a pending one. The one entry of every event-driven scan.
  void scheduleScan();

  // False for network and FUSE file systems (NFS, SMB/CIFS, SSHFS, 9p, AFS, Ceph, Lustre...)
  // and when the file system can't be asked.
  bool isSourceOnLocalVolume() const;
  static bool isOnLocalVolume(const QString& folder);

  // True while started and the watched folder still exists as the one watched (not deleted,
  // unmounted or covered by a mount made after start). The owner restarts a watcher that
  // has lost its source.
  bool isWatching() const;
  // Whether the folder was the root of a mounted volume when the watch began.
  bool startedOnMountRoot() const;
  // Whether `folder` is the root of a mounted volume (its device differs from its parent's).
  static bool isMountRoot(const QString& folder);

  // Returns once the queue has finished what it is running (a scan, say). Not from the
  // queue itself. The owner calls it after stop() when the process ends.
  void waitUntilIdle();

  // Lists, picks, compresses and records once; returns when every compression it started has
  // ended. Runs on the watcher's queue (also callable directly, which tests do).
  void scanOnce();

  // Files one scan compresses at a time: the usable processor count, at least 1.
  static int concurrencyLimit();

  // A file as a listing saw it; modificationDate in seconds since 2001-01-01 UTC.
  struct ListedFile {
    QString path;
    int64_t lastKnownSize = 0;
    double modificationDate = 0;
  };
  // For each file, whether it is done being written: true when it is 2 s old or more; the
  // others are read again after one wait of 0.3 s on the calling thread, and are done if their
  // size held. One wait for all, so that a drop of 200 fresh copies waits 0.3 s, not a minute.
  static std::vector<bool> isStableOnDisk(const std::vector<ListedFile>& files);

 private:
  HotFolderWatcher(HotFolder hotFolder, std::optional<double> pollIntervalOverride, VolumeCheck volumeCheck);
  void startPollingIfNeeded();
  void schedulePoll(std::chrono::milliseconds interval);
  void readEvents();
  bool isStopped() const;

  const HotFolder hotFolder_;
  const std::optional<double> pollIntervalOverride_;
  const VolumeCheck volumeCheck_;
  std::unique_ptr<SerialQueue> queue_;

  mutable std::mutex stateLock_;  // guards the fields below; never held across a call out
  bool isStopped_ = false;
  std::shared_ptr<WorkItem> source_;
  int watchedFd_ = -1;  // the inotify descriptor of source_, owned by the queue
  uint64_t watchedDevice_ = 0, watchedInode_ = 0;
  bool sourceLost_ = false;
  bool startedOnMountRoot_ = false;
  std::shared_ptr<WorkItem> pendingScan_;
  std::shared_ptr<WorkItem> pollTimer_;
};

}  // namespace quillane
