#pragma once
// Silencing of libraries that print, for the readers and the JPEG XL encoder. Internal to
// the engine.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "engine/ThreadAnnotations.h"

namespace quillane::codecs {

// Some codec libraries write to stderr with no way to turn it off: libjxl 0.7 as Debian builds
// it prints every internal failure, and dav1d (which libheif 1.15 uses for AV1 data, with no
// hook for its log) complains about damaged data. Damaged files must not print anything.
// While any such read runs, file descriptor 2 points at /dev/null; the last reader out puts
// it back. Whatever another thread writes to stderr in that window is lost, which is
// acceptable for a program that keeps no log.
class QuietStderr {
 public:
  QuietStderr() {
    MutexLock lock(mutex_);
    if (depth_++ > 0) return;
    std::fflush(stderr);
    saved_ = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
      ::dup2(null, 2);
      ::close(null);
    }
  }
  ~QuietStderr() {
    MutexLock lock(mutex_);
    if (--depth_ > 0) return;
    std::fflush(stderr);
    if (saved_ >= 0) {
      ::dup2(saved_, 2);
      ::close(saved_);
      saved_ = -1;
    }
  }
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;

 private:
  static inline Mutex mutex_;
  static inline int depth_ GUARDED_BY(mutex_) = 0;
  static inline int saved_ GUARDED_BY(mutex_) = -1;
};

}  // namespace quillane::codecs
