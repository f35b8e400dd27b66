#include "hotfolders/HotFolderWatcher.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <QFile>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

namespace quillane {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPollInterval{30'000};

// Entry changes of the folder, plus a file closed after writing, ask for a scan; IN_MODIFY,
// which every write() of a copy raises, only marks the file as being written until it is
// closed. The *_SELF and UNMOUNT events tell that the folder went away.
constexpr uint32_t kEntryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE;
constexpr uint32_t kGoneEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

// File systems whose changes need not pass through this machine's kernel, so that inotify
// may miss them (f_type values of statfs(2)).
bool isRemoteFileSystem(unsigned long type) {
  switch (type) {
    case 0x6969:      // NFS
    case 0x517B:      // SMB
    case 0xFF534D42:  // CIFS
    case 0xFE534D42:  // SMB2
    case 0x65735546:  // FUSE (SSHFS and every other FUSE file system)
    case 0x01021997:  // 9p
    case 0x5346414F:  // AFS
    case 0x6B414653:  // kAFS
    case 0x00C36400:  // Ceph
    case 0x0BD00BD0:  // Lustre
    case 0x73757245:  // Coda
    case 0x564C:      // NCP
    case 0x01161970:  // GFS2
    case 0x7461636F:  // OCFS2
    case 0x20030528:  // OrangeFS
      return true;
    default:
      return false;
  }
}

bool statFolder(const QString& folder, struct stat& st) {
  return ::stat(QFile::encodeName(folder).constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

// The watcher's side on its own thread: the inotify descriptor and its notifier, the
// debounce, poll and retry timers. Every member is touched on that thread only, until the
// thread has ended.
class HotFolderWatcher::Loop : public QObject {
 public:
  explicit Loop(HotFolderWatcher& watcher)
      : watcher_(watcher),
        startTimer_(watcher.timing_.startTimer ? watcher.timing_.startTimer : &startQTimer) {
    connect(&poll_, &QTimer::timeout, this, [this] { scanIfRunning(); });  // a poll is not debounced
    connect(&retry_, &QTimer::timeout, this, [this] { guarded([this] { open(); }); });
    rewrite_.setSingleShot(true);
    connect(&rewrite_, &QTimer::timeout, this, [this] { scanIfRunning(); });
  }

  // Runs `step` as one of the loop's events. What escapes it (memory running out, say) is said
  // as a line about the folder, and the loop goes on: nothing may leave an event through Qt's
  // loop, which does not support it. A scan catches what escapes it by itself.
  template <class Step>
  void guarded(const Step& step) {
    try {
      step();
    } catch (...) {
      watcher_.reportEscape();
    }
  }

  ~Loop() override { closeWatch(); }  // a no-op by then: the thread's end stopped everything

  // Watches the folder, or waits for it. Each watch that begins asks for a first scan, which
  // picks up what arrived while the folder was not watched.
  void open() {
    closeWatch();
    if (watcher_.isStopped()) return;
    const QString& folder = watcher_.hotFolder_.sourceFolder;
    struct stat st {};
    // A volume's root that has lost its volume is an empty mount point: wait for the volume.
    if ((wasMountRoot_ && !isMountRoot(folder)) || !statFolder(folder, st)) return wait();
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    // Watching needs read permission on the folder, so an unreadable folder fails here.
    if (fd_ < 0 || ::inotify_add_watch(fd_, QFile::encodeName(folder).constData(),
                                       kEntryEvents | IN_MODIFY | kGoneEvents | IN_ONLYDIR) < 0)
      return wait();
    notifier_ = new QSocketNotifier(qintptr(fd_), QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, [this] { guarded([this] { readEvents(); }); });
    {
      MutexLock lock(watcher_.stateLock_);
      watcher_.writing_.clear();
    }
    device_ = uint64_t(st.st_dev);
    inode_ = uint64_t(st.st_ino);
    wasMountRoot_ = wasMountRoot_ || isMountRoot(folder);
    retry_.stop();
    if (watcher_.timing_.pollInterval) {
      poll_.start(*watcher_.timing_.pollInterval);
    } else if (!(watcher_.volumeCheck_ ? watcher_.volumeCheck_(folder) : isOnLocalVolume(folder))) {
      poll_.start(kPollInterval);  // inotify sees every change of a local folder: no timer there
    }
    watcher_.setState(State::watching);
    requestScan();
  }

  // A mount over the folder or an unmount changes what its path names: watch that instead.
  void recheck() {
    if (watcher_.isStopped()) return;
    struct stat st {};
    if (fd_ < 0 || !statFolder(watcher_.hotFolder_.sourceFolder, st) || uint64_t(st.st_dev) != device_ ||
        uint64_t(st.st_ino) != inode_)
      open();
  }

  // The trailing debounce, held back by each request but never past longestDelay after the
  // first request it holds.
  void requestScan() {
    if (watcher_.isStopped()) return;
    const Clock::time_point now = Clock::now();
    if (!debounce_) firstRequest_ = now;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        firstRequest_ + watcher_.timing_.longestDelay - now);
    delete debounce_;
    debounce_ =
        startTimer_(std::clamp(left, std::chrono::milliseconds(0), watcher_.timing_.debounce), this, [this] {
          debounce_ = nullptr;
          scanIfRunning();
        });
  }

  void stop() {
    closeWatch();
    retry_.stop();
    rewrite_.stop();
  }

  // Drains the descriptor; an entry change asks for a scan, the folder going away ends the
  // watch and waits for the folder to come back.
  void readEvents() {
    if (fd_ < 0) return;
    bool changed = false, gone = false;
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
      const ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) break;
      MutexLock lock(watcher_.stateLock_);
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        // An overflowed event queue lost entry events: a scan finds out what they were. It may
        // have lost the close of a file marked as being written, which would then wait for ever:
        // the marks start afresh, as when the watch began.
        changed = changed || (event->mask & (kEntryEvents | IN_Q_OVERFLOW));
        if (event->mask & IN_Q_OVERFLOW) watcher_.writing_.clear();
        gone = gone || (event->mask & kGoneEvents);
        if (event->len > 0 && !(event->mask & IN_ISDIR)) {
          if (event->mask & IN_MODIFY) {
            watcher_.writing_.insert(event->name);
          } else if (event->mask & (IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO)) {
            watcher_.writing_.erase(event->name);
          }
        }
        at += ssize_t(sizeof(inotify_event) + event->len);
      }
    }
    if (gone) {
      wait();
    } else if (changed) {
      requestScan();
    }
  }

 private:
  // A scan whose results the destination refused (full, read-only) is followed by another,
  // later and later while they keep failing: no event may come once there is room again.
  void scanIfRunning() {
    if (watcher_.isStopped()) return;
    {
      MutexLock lock(watcher_.reportLock_);
      watcher_.unwritten_ = false;
    }
    watcher_.scanOnce();
    MutexLock lock(watcher_.reportLock_);
    if (!watcher_.unwritten_) {
      rewrite_.stop();
      rewriteDelay_ = watcher_.timing_.rewriteInterval;
    } else if (!rewrite_.isActive()) {
      rewrite_.start(rewriteDelay_);
      rewriteDelay_ = std::min(rewriteDelay_ * 2, watcher_.timing_.rewriteInterval * 32);
    }
  }

  void wait() {
    closeWatch();
    retry_.start(watcher_.timing_.retryInterval);
    watcher_.setState(State::waitingForFolder);
  }

  void closeWatch() {
    delete notifier_;
    notifier_ = nullptr;
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    delete debounce_;
    poll_.stop();
  }

  HotFolderWatcher& watcher_;
  const TimerStarter startTimer_;
  int fd_ = -1;
  QSocketNotifier* notifier_ = nullptr;
  QPointer<QObject> debounce_;  // the pending scan's timer, null once it has fired or stopped
  QTimer poll_{this}, retry_{this}, rewrite_{this};
  std::chrono::milliseconds rewriteDelay_ = watcher_.timing_.rewriteInterval;
  uint64_t device_ = 0, inode_ = 0;
  bool wasMountRoot_ = false;  // for the life of the watcher: then only a volume's root will do
  Clock::time_point firstRequest_;
};

HotFolderWatcher::HotFolderWatcher(HotFolder hotFolder, Timing timing, VolumeCheck volumeCheck)
    : hotFolder_(std::move(hotFolder)),
      timing_(std::move(timing)),
      volumeCheck_(std::move(volumeCheck)),
      thread_(std::make_unique<QThread>()),
      loop_(new Loop(*this)) {
  thread_->setObjectName(QStringLiteral("com.quillane.Quillane.hotFolderWatcher.") + hotFolder_.idText());
  loop_->moveToThread(thread_.get());
  // The notifier and the timers are let go on their own thread, as the thread ends; the
  // object itself is deleted once the thread has ended.
  QObject::connect(
      thread_.get(), &QThread::finished, loop_, [loop = loop_] { loop->stop(); }, Qt::DirectConnection);
  thread_->start();
}

HotFolderWatcher::~HotFolderWatcher() {
  stop();
  thread_->quit();
  thread_->wait();
  delete loop_;
}

bool HotFolderWatcher::isStopped() const {
  MutexLock lock(stateLock_);
  return isStopped_;
}

HotFolderWatcher::State HotFolderWatcher::state() const {
  MutexLock lock(stateLock_);
  return state_;
}

void HotFolderWatcher::setState(State state) {
  {
    MutexLock lock(stateLock_);
    if (isStopped_ || state_ == state) return;
    state_ = state;
  }
  if (onState) onState(state);
}

void HotFolderWatcher::start() {
  {
    MutexLock lock(stateLock_);
    isStopped_ = false;
  }
  QMetaObject::invokeMethod(
      loop_, [loop = loop_] { loop->guarded([loop] { loop->open(); }); }, Qt::QueuedConnection);
}

void HotFolderWatcher::stop() {
  {
    MutexLock lock(stateLock_);
    isStopped_ = true;
    state_ = State::stopped;
  }
  QMetaObject::invokeMethod(
      loop_, [loop = loop_] { loop->stop(); }, Qt::QueuedConnection);
}

std::set<std::string> HotFolderWatcher::namesBeingWritten() {
  // A scan runs on the watcher's thread and blocks its events: read what came meanwhile.
  if (QThread::currentThread() == thread_.get()) loop_->readEvents();
  MutexLock lock(stateLock_);
  return writing_;
}

void HotFolderWatcher::finish() {
  stop();
  thread_->quit();
}

bool HotFolderWatcher::isFinished() const { return thread_->isFinished(); }

void HotFolderWatcher::scheduleScan() {
  if (isStopped()) return;
  QMetaObject::invokeMethod(
      loop_, [loop = loop_] { loop->guarded([loop] { loop->requestScan(); }); }, Qt::QueuedConnection);
}

void HotFolderWatcher::recheck() {
  QMetaObject::invokeMethod(
      loop_, [loop = loop_] { loop->guarded([loop] { loop->recheck(); }); }, Qt::QueuedConnection);
}

void HotFolderWatcher::waitUntilIdle() {
  QMetaObject::invokeMethod(
      loop_, [] {}, Qt::BlockingQueuedConnection);
}

bool HotFolderWatcher::isMountRoot(const QString& folder) {
  struct statx st {};
  if (::statx(AT_FDCWD, QFile::encodeName(folder).constData(), 0, STATX_BASIC_STATS, &st) != 0) return false;
  if (st.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) return (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  // Kernels before 5.8 don't say; a device of its own still tells most volumes apart.
  struct stat self {
  }, parent{};
  return statFolder(folder, self) && statFolder(folder + QStringLiteral("/.."), parent) &&
         self.st_dev != parent.st_dev;
}

bool HotFolderWatcher::isOnLocalVolume(const QString& folder) {
  struct statfs fs {};
  if (::statfs(QFile::encodeName(folder).constData(), &fs) != 0) return false;
  return !isRemoteFileSystem((unsigned long)fs.f_type);
}

int HotFolderWatcher::concurrencyLimit() {
  static const int limit = std::max(1, QThread::idealThreadCount());
  return limit;
}

}  // namespace quillane
