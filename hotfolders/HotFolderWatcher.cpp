#include "hotfolders/HotFolderWatcher.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <QFile>
#include <QThread>

#include "hotfolders/SerialQueue.h"

namespace quillane {
namespace {

constexpr std::chrono::milliseconds kDebounce{500};
constexpr double kPollIntervalSeconds = 30.0;

// Entry changes of the folder, plus a file closed after writing; never IN_MODIFY, which every
// write() of a copy raises. The *_SELF and UNMOUNT events tell that the folder went away.
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

std::shared_ptr<HotFolderWatcher> HotFolderWatcher::make(HotFolder hotFolder,
                                                         std::optional<double> pollIntervalOverride,
                                                         VolumeCheck volumeCheck) {
  return std::shared_ptr<HotFolderWatcher>(
      new HotFolderWatcher(std::move(hotFolder), pollIntervalOverride, std::move(volumeCheck)));
}

HotFolderWatcher::HotFolderWatcher(HotFolder hotFolder, std::optional<double> pollIntervalOverride,
                                   VolumeCheck volumeCheck)
    : hotFolder_(std::move(hotFolder)),
      pollIntervalOverride_(pollIntervalOverride),
      volumeCheck_(std::move(volumeCheck)),
      queue_(std::make_unique<SerialQueue>(QStringLiteral("com.quillane.Quillane.hotFolderWatcher.") +
                                           hotFolder_.idText())) {}

HotFolderWatcher::~HotFolderWatcher() { stop(); }

bool HotFolderWatcher::isStopped() const {
  std::lock_guard lock(stateLock_);
  return isStopped_;
}

bool HotFolderWatcher::start() {
  stop();
  struct stat st {};
  if (!statFolder(hotFolder_.sourceFolder, st)) return false;
  const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) return false;
  // Watching needs read permission on the folder, so an unreadable folder fails here.
  if (::inotify_add_watch(fd, QFile::encodeName(hotFolder_.sourceFolder).constData(),
                          kEntryEvents | kGoneEvents | IN_ONLYDIR) < 0) {
    ::close(fd);
    return false;
  }
  const bool mountRoot = isMountRoot(hotFolder_.sourceFolder);
  std::weak_ptr<HotFolderWatcher> weak = weak_from_this();
  std::shared_ptr<WorkItem> source = queue_->addReadSource(fd, [weak] {
    if (auto self = weak.lock()) self->readEvents();
  });
  {
    std::lock_guard lock(stateLock_);
    isStopped_ = false;
    source_ = source;
    watchedFd_ = fd;
    watchedDevice_ = uint64_t(st.st_dev);
    watchedInode_ = uint64_t(st.st_ino);
    sourceLost_ = false;
    startedOnMountRoot_ = mountRoot;
  }
  startPollingIfNeeded();
  scheduleScan();  // picks up what arrived while the folder was not watched
  return true;
}

void HotFolderWatcher::stop() {
  std::shared_ptr<WorkItem> pending, source, timer;
  {
    std::lock_guard lock(stateLock_);
    isStopped_ = true;
    pending = std::move(pendingScan_);
    source = std::move(source_);
    timer = std::move(pollTimer_);
    watchedFd_ = -1;
  }
  if (pending) pending->cancel();
  if (source) queue_->removeSource(source);  // the queue closes the descriptor
  if (timer) timer->cancel();
}

void HotFolderWatcher::scheduleScan() {
  std::weak_ptr<HotFolderWatcher> weak = weak_from_this();
  auto item = std::make_shared<WorkItem>([weak] {
    auto self = weak.lock();
    if (self && !self->isStopped()) self->scanOnce();
  });
  std::shared_ptr<WorkItem> replaced;
  {
    std::lock_guard lock(stateLock_);
    if (!isStopped_) {
      replaced = std::move(pendingScan_);
      pendingScan_ = item;
    }
  }
  if (replaced) replaced->cancel();
  if (isStopped()) {
    item->cancel();
    return;
  }
  queue_->asyncAfter(kDebounce, std::move(item));
}

void HotFolderWatcher::startPollingIfNeeded() {
  double interval = kPollIntervalSeconds;
  if (pollIntervalOverride_) {
    interval = *pollIntervalOverride_;
  } else if (isSourceOnLocalVolume()) {
    return;  // inotify sees every change of a local folder: no timer
  }
  schedulePoll(std::chrono::milliseconds(int64_t(interval * 1000)));
}

// A poll is not debounced. The next firing is armed before the scan, so a scan that outlasts
// the interval is followed at once by the next.
void HotFolderWatcher::schedulePoll(std::chrono::milliseconds interval) {
  std::weak_ptr<HotFolderWatcher> weak = weak_from_this();
  auto item = std::make_shared<WorkItem>([weak, interval] {
    auto self = weak.lock();
    if (!self || self->isStopped()) return;
    self->schedulePoll(interval);
    self->scanOnce();
  });
  {
    std::lock_guard lock(stateLock_);
    if (isStopped_) return;
    pollTimer_ = item;
  }
  queue_->asyncAfter(interval, std::move(item));
}

// On the queue. Drains the descriptor; an entry change asks for a scan, the folder going
// away ends the watch quietly (isWatching() then turns false and the owner tries again).
void HotFolderWatcher::readEvents() {
  int fd;
  {
    std::lock_guard lock(stateLock_);
    fd = watchedFd_;
  }
  if (fd < 0) return;
  bool changed = false, gone = false;
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      // An overflowed event queue lost entry events: a scan finds out what they were.
      changed = changed || (event->mask & (kEntryEvents | IN_Q_OVERFLOW));
      gone = gone || (event->mask & kGoneEvents);
      at += ssize_t(sizeof(inotify_event) + event->len);
    }
  }
  if (gone) {
    std::shared_ptr<WorkItem> source;
    {
      std::lock_guard lock(stateLock_);
      sourceLost_ = true;
      source = std::move(source_);
      watchedFd_ = -1;
    }
    queue_->removeSource(source);
    return;
  }
  if (changed) scheduleScan();
}

bool HotFolderWatcher::isWatching() const {
  uint64_t device, inode;
  {
    std::lock_guard lock(stateLock_);
    if (isStopped_ || !source_ || sourceLost_) return false;
    device = watchedDevice_;
    inode = watchedInode_;
  }
  // A volume mounted over the folder after start hides what inotify watches.
  struct stat st {};
  return statFolder(hotFolder_.sourceFolder, st) && uint64_t(st.st_dev) == device &&
         uint64_t(st.st_ino) == inode;
}

void HotFolderWatcher::waitUntilIdle() {
  queue_->sync([] {});
}

bool HotFolderWatcher::startedOnMountRoot() const {
  std::lock_guard lock(stateLock_);
  return startedOnMountRoot_;
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

bool HotFolderWatcher::isSourceOnLocalVolume() const {
  return volumeCheck_ ? volumeCheck_(hotFolder_.sourceFolder) : isOnLocalVolume(hotFolder_.sourceFolder);
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
