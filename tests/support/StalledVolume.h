#pragma once
// A volume that stops answering, for the tests of what waits on one.

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quillane::testing {

// A FUSE volume on `mountPoint` that answers nothing once mounted, as a network volume whose server went
// away: a look-up there waits until release() (or ten seconds, so that a test of a thread it froze
// ends), then fails. Needs the right to mount (root in a container, say): mounted() is false elsewhere.
class StalledVolume {
 public:
  // A hung server takes each request and never answers: what waits on it can't be ended, not even
  // killed, before release(). A server that is gone takes none: what waits ends with its process.
  enum class Server { hung, gone };

  explicit StalledVolume(const std::string& mountPoint, Server server = Server::hung)
      : mountPoint_(mountPoint), server_(server) {
    fd_ = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options = "fd=" + std::to_string(fd_) + ",rootmode=40000,user_id=0,group_id=0";
    mounted_ = fd_ >= 0 && ::mount("quillane-test", mountPoint_.c_str(), "fuse", MS_NOSUID | MS_NODEV,
                                   options.c_str()) == 0;
    // The kernel's first request is answered before any look-up: one made before the answer takes
    // the folder's lock (parallel look-ups not agreed yet) and holds up the look-ups behind it.
    if (mounted_) answerInit();
    if (mounted_) thread_ = std::thread([this] { serve(); });
  }
  ~StalledVolume() {
    release();
    if (thread_.joinable()) thread_.join();
    if (mounted_) ::umount2(mountPoint_.c_str(), MNT_DETACH);
    if (fd_ >= 0) ::close(fd_);
  }
  bool mounted() const { return mounted_; }
  // The look-ups waiting for an answer; on a server that is gone, 1 once one waited.
  int holding() const { return released_ ? 0 : held_.load(); }
  void release() { released_ = true; }

 private:
  void answerInit() {
    std::vector<char> buffer(FUSE_MIN_READ_BUFFER);
    const auto* in = reinterpret_cast<const fuse_in_header*>(buffer.data());
    if (::read(fd_, buffer.data(), buffer.size()) < ssize_t(sizeof *in) || in->opcode != FUSE_INIT) return;
    struct {
      fuse_out_header head;
      fuse_init_out init;
    } out{{sizeof out, 0, in->unique}, {}};
    out.init.major = FUSE_KERNEL_VERSION;
    out.init.minor =
        std::min<uint32_t>(reinterpret_cast<const fuse_init_in*>(in + 1)->minor, FUSE_KERNEL_MINOR_VERSION);
    out.init.max_write = 4096;
    out.init.flags = FUSE_PARALLEL_DIROPS;  // look-ups in one folder wait side by side
    (void)!::write(fd_, &out, sizeof out);
  }

  void serve() {
    std::vector<char> buffer(FUSE_MIN_READ_BUFFER + (1 << 20));
    auto deadline = std::chrono::steady_clock::time_point::max();
    for (pollfd ready{fd_, POLLIN, 0}; !released_;) {
      if (std::chrono::steady_clock::now() > deadline) released_ = true;
      if (::poll(&ready, 1, 20) <= 0) continue;
      if (server_ == Server::gone) {
        if (held_.exchange(1) == 0) deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the request stays unread
        continue;
      }
      if (::read(fd_, buffer.data(), buffer.size()) < ssize_t(sizeof(fuse_in_header))) continue;
      const auto* in = reinterpret_cast<const fuse_in_header*>(buffer.data());
      if (in->opcode == FUSE_LOOKUP && held_++ == 0)
        deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    }
    ::close(std::exchange(fd_, -1));  // what waits fails, as on a volume that is gone
  }

  std::string mountPoint_;
  Server server_;
  int fd_ = -1;
  bool mounted_ = false;
  std::atomic<int> held_{0};
  std::atomic<bool> released_{false};
  std::thread thread_;
};

}  // namespace quillane::testing
