#pragma once
// A counting semaphore for continuations: cost-weighted, first in first out (with one lane
// ahead of the queue, waitAhead), not cancellable. Used by the batch to bound how many
// encodes run at once (one permit per processor) and how much working memory they may claim
// (one permit per megabyte).
//
// Owned by BatchViewModel; lives on the GUI thread. wait() and signal() may be called from
// any thread; continuations always run later, on the semaphore's thread, through its event
// loop, never inside the call that released them. A continuation queued when the semaphore
// is destroyed is dropped.

#include <QObject>
#include <deque>
#include <functional>
#include <mutex>

namespace quillane {

class AsyncSemaphore : public QObject {
  Q_OBJECT

 public:
  // `limit` is raised to at least 1.
  explicit AsyncSemaphore(int limit, QObject* parent = nullptr);

  int limit() const { return limit_; }
  // Permits not held by anyone. Any thread.
  int availablePermits() const;
  // Continuations still queued. Any thread.
  int waiterCount() const;

  // Takes `cost` permits, clamped to 1...limit (a job larger than the whole budget still
  // runs, alone), then runs `resume`. A newcomer never overtakes a queued waiter, even when
  // it would fit: the head of the queue holds back everyone behind it.
  void wait(int cost, std::function<void()> resume);

  // As wait, but queued ahead of every waiter that came through wait (behind earlier
  // waitAhead ones), and taking free permits at once when no waitAhead caller is queued,
  // whoever else waits. For short jobs that must not sit behind a queue of long ones.
  void waitAhead(int cost, std::function<void()> resume);

  // Gives back `cost` permits (clamped as in wait) and releases waiters from the head while
  // the head fits.
  void signal(int cost);

 private:
  int clampCost(int cost) const;

  struct Waiter {
    int cost;
    std::function<void()> resume;
    bool ahead = false;
  };
  const int limit_;
  mutable std::mutex mutex_;
  int available_;
  std::deque<Waiter> waiters_;
};

}  // namespace quillane
