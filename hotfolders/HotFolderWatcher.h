#pragma once
// HotFolderWatcher: watches one hot folder and compresses what lands in it. It is made for
// one fixed copy of a HotFolder; when the configuration changes the owner throws it away and
// makes a new one.
//
// Triggers: inotify on the source folder (entries created, deleted, moved in or out, and a
// file closed after writing, so that a file still being copied when a scan skipped it is
// taken as soon as its writer closes it; a write inside a file is no entry change) feeds a
// trailing debounce of 0.5 s that each event pushes back, though never past 3 s after the
// first event it holds, so that a steady stream of files shows results as it goes. Every
// watch that begins is followed by a first scan after the debounce; on a folder that is not
// on a local volume a timer adds a scan every 30 s.
//
// States: a started watcher is watching its folder, or waiting for it (missing, unreadable,
// deleted while watched, or the root of a volume that has been unmounted: the empty mount
// point is not watched, as its scan would drop the memory of every file). A waiting watcher
// tries again every 2 s and at each recheck(), and reports each change of state.
//
// Threads: everything of one watcher (events, timers, the whole blocking scan) runs on its
// own QThread and its event loop, named "com.quillane.Quillane.hotFolderWatcher.<ID>", so
// scans of one folder never overlap; what escapes an event there (memory running out) is
// reported as a line about the folder, and the loop goes on. A scan compresses on a shared pool, at most
// concurrencyLimit() files at a time. The callbacks are called on those threads, never on
// the GUI thread, one at a time (a lock orders them): the owner moves to its own thread by
// itself. start(), stop(), scheduleScan() and recheck() may be called from any thread other
// than the watcher's own and never wait for a scan; the destructor does.

#include <QString>
#include <QStringList>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "batch/TimerStarter.h"
#include "engine/ThreadAnnotations.h"
#include "hotfolders/HotFolder.h"
#include "hotfolders/HotFolderProcessedStore.h"

class QThread;

namespace quillane {

struct ImageCompressionResult;

// A watcher's delays; tests shorten or lengthen them.
struct HotFolderWatcherTiming {
  std::chrono::milliseconds debounce{500};
  std::chrono::milliseconds longestDelay{3000};  // from the first event a pending scan holds
  // Replaces the 30 s interval and turns polling on whatever the volume.
  std::optional<std::chrono::milliseconds> pollInterval{};
  std::chrono::milliseconds retryInterval{2000};  // while waiting for the folder
  // After a scan whose results its destination refused (full, read-only), the wait before the
  // next; doubled while they keep failing, up to 32 times, so no disk is hammered.
  std::chrono::milliseconds rewriteInterval{30000};
  // Starts the debounce on the watcher's thread; empty: a QTimer. A test passes a clock of its
  // own to say when the debounce has passed.
  TimerStarter startTimer{};
};

class HotFolderWatcher {
 public:
  using ActivityCallback = std::function<void(const HotFolderActivity&)>;
  using ProgressCallback = std::function<void(int completed, int total)>;
  enum class State { stopped, watching, waitingForFolder };
  using StateCallback = std::function<void(State)>;
  using VolumeCheck = std::function<bool(const QString& folder)>;

  using Timing = HotFolderWatcherTiming;

  // `volumeCheck` replaces isOnLocalVolume's reading of the file system (a seam for tests).
  explicit HotFolderWatcher(HotFolder hotFolder, Timing timing = {}, VolumeCheck volumeCheck = nullptr);
  // Stops, then waits for the running scan and ends the thread. Not from the watcher's thread.
  ~HotFolderWatcher();
  HotFolderWatcher(const HotFolderWatcher&) = delete;
  HotFolderWatcher& operator=(const HotFolderWatcher&) = delete;

  const HotFolder& hotFolder() const { return hotFolder_; }

  // Set before start().
  ActivityCallback onActivity;
  ProgressCallback onProgress;
  StateCallback onState;

  // Opens the folder for watching on the watcher's thread, or waits for it; the outcome comes
  // through onState. A second start replaces everything the first made.
  void start();
  // Cancels the pending scan, the watch and the timers. Does not wait for a running scan,
  // which sees the stop before its next file; compressions in flight run to their end.
  void stop();
  // Stops, and lets the thread end once what it runs has ended; the watcher can't be started
  // again. Does not wait.
  void finish();
  // Whether the thread has ended (after finish()): the watcher can then be dropped at once.
  bool isFinished() const;
  // A scan after the debounce. The one entry of every event-driven scan.
  void scheduleScan();
  // Checks that the watched folder is still the one that is there (a mount made over it or an
  // unmount changes it): if it is not, the watch begins again; a waiting watcher tries at once.
  void recheck();

  State state() const;
  bool isWatching() const { return state() == State::watching; }

  // Returns once the watcher's thread has handled what was asked of it before (a scan, say).
  void waitUntilIdle();

  // Lists, picks, names, compresses and records once; returns when every compression it
  // started has ended. Runs on the watcher's thread (also callable directly, which tests do).
  void scanOnce();

  // False for network and FUSE file systems (NFS, SMB/CIFS, SSHFS, 9p, AFS, Ceph, Lustre...)
  // and when the file system can't be asked.
  static bool isOnLocalVolume(const QString& folder);
  // Whether `folder` is the root of a mounted volume (its device differs from its parent's).
  static bool isMountRoot(const QString& folder);
  // Files one scan compresses at a time: the usable processor count, at least 1.
  static int concurrencyLimit();

  // A file as a listing saw it; modificationDate in seconds since 2001-01-01 UTC.
  struct ListedFile {
    std::string path;  // bytes
    int64_t lastKnownSize = 0;
    double modificationDate = 0;
  };
  // For each file, whether it is done being written: true when it is 2 s old or more; the
  // others are read again after one wait of 0.3 s on the calling thread, and are done if their
  // size held. One wait for all, so that a drop of 200 fresh copies waits 0.3 s, not a minute.
  static std::vector<bool> isStableOnDisk(const std::vector<ListedFile>& files);

 private:
  class Loop;         // on the watcher's thread: its descriptor, notifier and timers
  struct Candidate;   // one file a scan compresses
  struct Settings;    // a scan's resolved destination, format and quality
  class OutputNames;  // a scan's output names, given out as it names and writes its files

  // The scan's steps (HotFolderScan.cpp).
  void scanSteps();
  std::vector<Candidate> pick(const HotFolderProcessedMap& known, QStringList& staleNames);
  std::optional<Settings> resolveSettings();
  void name(std::vector<Candidate>& candidates, OutputNames& names) const;
  void compressAll(const std::vector<Candidate>& candidates, const Settings& settings, OutputNames& names);
  ImageCompressionResult compressOne(const Candidate& candidate, const Settings& settings,
                                     OutputNames& names);
  void record(const Candidate& candidate, const ImageCompressionResult& result, int& completed, int total);
  void reportFolderError(const QString& message);
  // Says that something escaped a step (memory running out, say), if even that can be said.
  void reportEscape() noexcept;

  void setState(State state);
  bool isStopped() const;

  const HotFolder hotFolder_;
  const Timing timing_;
  const VolumeCheck volumeCheck_;
  std::unique_ptr<QThread> thread_;
  Loop* loop_;  // lives on thread_; deleted once thread_ has ended

  // Names of the files written and not closed since the watch began (or since events were
  // lost), as inotify tells; the watcher's thread reads its events first when it asks.
  std::set<std::string> namesBeingWritten();

  mutable Mutex stateLock_;  // never held across a call out
  bool isStopped_ GUARDED_BY(stateLock_) = false;
  State state_ GUARDED_BY(stateLock_) = State::stopped;
  std::set<std::string> writing_ GUARDED_BY(stateLock_);  // file names (bytes)

  Mutex reportLock_;  // orders the callbacks
  struct ReportedFailure {
    int64_t size;
    double modificationDate;
    QString error;
    bool operator==(const ReportedFailure&) const = default;
  };
  std::map<std::string, ReportedFailure> reportedFailures_ GUARDED_BY(reportLock_);  // by file name (bytes)
  std::optional<QString> reportedFolderError_ GUARDED_BY(reportLock_);
  bool unwritten_ GUARDED_BY(reportLock_) = false;  // a result of this scan was refused by its destination
};

}  // namespace quillane
