#include "engine/FileIO.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <unordered_map>

#include "engine/Errors.h"
#include "engine/Localization.h"
#include "engine/ThreadAnnotations.h"

namespace quillane::FileIO {
namespace {
struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};
[[noreturn]] void fail(const std::string& path, int err) {
  throw FileError(path, Localization::systemError(err));
}

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool isTemporaryName(std::string_view name) {
  const size_t prefix = sizeof temporaryPrefix - 1, suffix = sizeof temporarySuffix - 1;
  return name.size() == prefix + 6 + suffix && name.substr(0, prefix) == temporaryPrefix &&
         name.substr(prefix + 6) == temporarySuffix;
}

// Whether the temporary `name` is a leftover: no writer holds its lock (one that can't be
// locked counts as a leftover once a day old). Writers lock only files they have just made,
// so a leftover never becomes owned again.
bool isLeftover(int dirFd, const char* name, time_t now) {
  struct stat st {};
  if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) return false;
  const long long age = now - st.st_mtime;
  if (age < unlockedTemporaryGraceSeconds) return false;
  Fd f;
  f.fd = ::openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (f.fd < 0) return age > staleTemporaryAgeSeconds;
  if (::flock(f.fd, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno == EWOULDBLOCK) return false;
  return age > staleTemporaryAgeSeconds;
}

Mutex sweepMutex;
std::unordered_map<std::string, time_t> lastSweep GUARDED_BY(sweepMutex);

// Temporaries left by a power cut or a kill, removed when the folder is written to, at most
// once a minute per folder. Failures are ignored: this is tidying, not the write.
void removeLeftoverTemporaries(const std::string& folder) {
  const time_t now = ::time(nullptr);
  {
    MutexLock lock(sweepMutex);
    auto [it, inserted] = lastSweep.try_emplace(folder, now);
    if (!inserted) {
      if (now - it->second < 60 && now >= it->second) return;
      it->second = now;
    }
  }
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return;
  const int dirFd = ::dirfd(dir);
  while (const dirent* entry = ::readdir(dir)) {
    if (isTemporaryName(entry->d_name) && isLeftover(dirFd, entry->d_name, now))
      ::unlinkat(dirFd, entry->d_name, 0);
  }
  ::closedir(dir);
}

// Refuses a destination that is neither absent, a regular file nor a link. Returns the
// group and other bits of a regular file there (077 when there is none).
unsigned checkDestination(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return 077;
  if (S_ISLNK(st.st_mode)) return 077;
  if (!S_ISREG(st.st_mode)) throw DestinationNotAFile(path);
  return unsigned(st.st_mode) & 077;
}

// Creates folder/.quillane-XXXXXX.tmp exclusively, with `mode` less the umask (as any new
// file), and locks it. The umask is never read by changing it: that would briefly widen it
// for every other thread of the process. Returns the descriptor, or -1 with errno set.
int createTemporary(const std::string& folder, mode_t mode, std::string& tmp) {
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  for (int attempt = 0; attempt < 100; ++attempt) {
    uint8_t random[6] = {};
    if (::getrandom(random, sizeof random, 0) != ssize_t(sizeof random)) {
      const auto mixed =
          uint64_t(::getpid()) * 0x9E3779B97F4A7C15ull ^ uint64_t(attempt) ^ uint64_t(uintptr_t(&tmp));
      std::memcpy(random, &mixed, sizeof random);
    }
    tmp = folder + "/" + temporaryPrefix;
    for (uint8_t r : random) tmp += kLetters[r % (sizeof kLetters - 1)];
    tmp += temporarySuffix;
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0) {
      // Marks it as owned for other processes' sweeps; a file system without locks falls
      // back to the age rule.
      (void)::flock(fd, LOCK_EX | LOCK_NB);
      return fd;
    }
    if (errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

// The whole file, at most the size it had when opened, its head shown to `check` first; or
// only the head when `headOnly`.
std::vector<uint8_t> readRegular(const std::string& path, const HeadCheck& check, size_t headBytes,
                                 bool headOnly) {
  Fd f;
  f.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (f.fd < 0) {
    // A FIFO opened for reading never fails with ENXIO; a socket does.
    if (errno == ENXIO) throw NotARegularFile(path);
    fail(path, errno);
  }
  struct stat st {};
  if (::fstat(f.fd, &st) != 0) fail(path, errno);
  if (!S_ISREG(st.st_mode)) throw NotARegularFile(path);
  const size_t size = size_t(std::max<off_t>(st.st_size, 0));
  std::vector<uint8_t> data;
  // Reads into `data` until it holds `want` bytes or the file ends.
  auto readUpTo = [&](size_t want) {
    while (data.size() < want) {
      const size_t before = data.size();
      data.resize(want);
      ssize_t n = ::read(f.fd, data.data() + before, want - before);
      if (n < 0) {
        data.resize(before);
        if (errno == EINTR) continue;
        fail(path, errno);
      }
      data.resize(before + size_t(n));
      if (n == 0) return;
    }
  };
  if (check || headOnly) readUpTo(std::min(size, headBytes));
  if (headOnly) return data;
  if (check) check(std::span<const uint8_t>(data), uint64_t(size));
  readUpTo(size);
  return data;
}
}  // namespace

std::vector<uint8_t> readFile(const std::string& path, const HeadCheck& check, size_t headBytes) {
  return readRegular(path, check, headBytes, false);
}

std::vector<uint8_t> readHead(const std::string& path, size_t headBytes) {
  return readRegular(path, {}, headBytes, true);
}

std::vector<int> openClosedStandardDescriptors() {
  std::vector<int> closed;
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    closed.push_back(fd);
    // The lowest free number, which is `fd` itself: those below it are open by now.
    const int null = ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    if (null >= 0 && null != fd) {
      ::dup2(null, fd);
      ::close(null);
    }
  }
  return closed;
}

unsigned permissionsFor(const std::string& source) {
  struct stat st {};
  if (::stat(source.c_str(), &st) != 0) return 0666;
  return 0600 | (unsigned(st.st_mode) & 066);
}

namespace {

// The writes under way, and whether the process is ending (see stopWritesForExit).
Mutex writesMutex;
std::condition_variable_any writesChanged;
int writesUnderWay GUARDED_BY(writesMutex) = 0;
bool writesStopped GUARDED_BY(writesMutex) = false;

// Counts one write from before its temporary exists to after its rename; waits for good once
// the process is ending.
class WriteUnderWay {
 public:
  WriteUnderWay() {
    MutexLock lock(writesMutex);
    while (writesStopped) writesChanged.wait(writesMutex);
    ++writesUnderWay;
  }
  ~WriteUnderWay() {
    {
      MutexLock lock(writesMutex);
      --writesUnderWay;
    }
    writesChanged.notify_all();
  }
  WriteUnderWay(const WriteUnderWay&) = delete;
  WriteUnderWay& operator=(const WriteUnderWay&) = delete;
};

}  // namespace

bool stopWritesForExit(std::chrono::steady_clock::time_point deadline) {
  MutexLock lock(writesMutex);
  writesStopped = true;
  while (writesUnderWay > 0)
    if (writesChanged.wait_until(writesMutex, deadline) == std::cv_status::timeout)
      return writesUnderWay == 0;
  return true;
}

void writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes, unsigned permissions,
                         const ReplaceCheck& mayReplace) {
  const WriteUnderWay underWay;
  const std::string folder = folderOf(path);
  auto failIn = [&](const std::string& place, int err) {
    throw WriteError(path, place, Localization::systemError(err));
  };
  const unsigned existing = checkDestination(path);
  removeLeftoverTemporaries(folder);
  std::string tmpl;
  Fd f;
  f.fd = createTemporary(folder, mode_t(permissions & (0700 | existing)), tmpl);
  if (f.fd < 0) failIn(folder, errno);
  auto cleanup = [&](const std::string& place, int err) {
    ::unlink(tmpl.c_str());
    ::close(f.fd);
    f.fd = -1;
    failIn(place, err);
  };
  size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::write(f.fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      cleanup(folder, errno);
    }
    written += size_t(n);
  }
  if (::fsync(f.fd) != 0) cleanup(folder, errno);
  // Looked at again just before the rename: what appeared meanwhile is not ours either.
  try {
    checkDestination(path);
  } catch (const WriteError&) {
    ::unlink(tmpl.c_str());
    throw;
  }
  // Renamed while still open, so that the lock marks it as owned until it has its name.
  if (!mayReplace) {
    if (::rename(tmpl.c_str(), path.c_str()) != 0) cleanup(path, errno);
  } else {
    for (;;) {
      struct stat st {};
      if (::lstat(path.c_str(), &st) == 0) {
        if (!mayReplace(st)) {
          ::unlink(tmpl.c_str());
          throw DestinationTaken(path);
        }
        if (::rename(tmpl.c_str(), path.c_str()) != 0) cleanup(path, errno);
        break;
      }
      if (::renameat2(AT_FDCWD, tmpl.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) break;
      if (errno == EEXIST) continue;  // a file came in that instant: ask about it
      // A file system that can't refuse a replacement by itself: the check above stands.
      if (errno != EINVAL && errno != ENOSYS) cleanup(path, errno);
      if (::rename(tmpl.c_str(), path.c_str()) != 0) cleanup(path, errno);
      break;
    }
  }
  // The data was synced above: a late error of close() could only be about what is already
  // on disk, and the file has its name.
  ::close(f.fd);
  f.fd = -1;
  // The rename is durable once the folder is synced. A folder that can't be opened for it
  // (write and search permission without read) or whose file system can't sync folders
  // (EINVAL) keeps the rename as it is; an I/O error means the file may not survive.
  Fd dir;
  dir.fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir.fd >= 0 && ::fsync(dir.fd) != 0 && errno == EIO) failIn(folder, EIO);
}

}  // namespace quillane::FileIO
