#pragma once
// Which mutex guards which field, written where clang can check it. Under clang the macros are
// its thread-safety attributes and -Wthread-safety (`make tidy`, and every clang build) reports
// a guarded field touched without its lock; under g++ they expand to nothing.
//
//   Mutex mutex_;
//   int count_ GUARDED_BY(mutex_) = 0;
//   void bump() { MutexLock lock(mutex_); ++count_; }
//
// std::mutex carries no attributes in libstdc++, so guarded fields use the Mutex below.

#include <mutex>

#if defined(__clang__)
#define QUILLANE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QUILLANE_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) QUILLANE_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY QUILLANE_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) QUILLANE_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) QUILLANE_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) QUILLANE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QUILLANE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) QUILLANE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QUILLANE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace quillane {

// A std::mutex that clang's analysis knows as a lock. Also a BasicLockable, so that a
// std::condition_variable_any can wait on it.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace quillane
