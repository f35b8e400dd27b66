#pragma once
// CompressionBudget: a counting semaphore, cost-weighted and first in first out (with one lane
// ahead of the queue, waitAhead), not cancellable. One instance, process(), bounds the working
// memory of every compression the process runs, whichever front end asked for it (the batch,
// the command line, the desktop's compress action, hot folders, comparison previews): one
// permit per megabyte, claimed by CompressionCost's rules. The batch also keeps one of its own
// for its processor slots.
//
// Two ways to wait, on one queue: wait/waitAhead for the GUI thread, whose continuation runs
// later through the event loop of the budget's thread (never inside the call that released
// it), and claim() for worker threads, which blocks. Permits are given back with release(), or
// by the Claim that claim() returns. Every member is safe on any thread unless it says
// otherwise.

#include <QObject>
#include <condition_variable>
#include <deque>
#include <functional>
#include <vector>

#include "engine/ThreadAnnotations.h"

namespace quillane {

class CompressionBudget : public QObject {
  Q_OBJECT

 public:
  // `limit` is raised to at least 1. The budget's thread is the one that makes it.
  explicit CompressionBudget(int limit, QObject* parent = nullptr);
  ~CompressionBudget() override;

  // The process's memory budget, CompressionCost::memoryBudgetMB of the machine's memory, made
  // on first use and living on the application's main thread.
  static CompressionBudget& process();

  int limit() const { return limit_; }
  // Permits not held by anyone.
  int availablePermits() const;
  // Callers still queued.
  int waiterCount() const;
  // `cost` clamped to 1...limit: a job larger than the whole budget still runs, alone.
  int clamp(int cost) const;

  // Takes clamp(cost) permits, then runs `resume` on the budget's thread. A newcomer never
  // overtakes a queued waiter, even when it would fit: the head of the queue holds back
  // everyone behind it. `context` must live on the budget's thread; when it is gone by the
  // time the permits are free, they are given back and `resume` is dropped.
  void wait(int cost, QObject* context, std::function<void()> resume);
  // As wait, but queued ahead of every waiter that came through wait or claim (behind earlier
  // waitAhead ones), and taking free permits at once when no waitAhead caller is queued,
  // whoever else waits. For short jobs that must not sit behind a queue of long ones.
  void waitAhead(int cost, QObject* context, std::function<void()> resume);

  // Permits held by a blocking caller; given back when it ends or on release().
  class Claim {
   public:
    Claim() = default;
    Claim(Claim&& other) noexcept;
    Claim& operator=(Claim&& other) noexcept;
    ~Claim() { release(); }
    int cost() const { return cost_; }
    void release();

   private:
    friend class CompressionBudget;
    Claim(CompressionBudget* budget, int cost) : budget_(budget), cost_(cost) {}
    CompressionBudget* budget_ = nullptr;
    int cost_ = 0;
  };
  // Blocks until clamp(cost) permits are this caller's, in the same queue as wait. REQUIRES:
  // not on the budget's thread where continuations wait (the window's GUI thread): one granted
  // there could neither run nor give its permits back while that thread sleeps.
  [[nodiscard]] Claim claim(int cost);

  // Gives back clamp(cost) permits and releases waiters from the head while the head fits.
  void release(int cost);

 private:
  struct Waiter {
    int cost;
    bool ahead;
    std::function<void()> resume;  // empty for a blocking claim
    bool* granted = nullptr;       // a blocking claim's flag
  };
  // Takes the head's permits while it fits; returns the continuations to post once the lock
  // is dropped.
  std::vector<std::function<void()>> grantLocked() REQUIRES(mutex_);
  void enqueue(int cost, bool ahead, QObject* context, std::function<void()> resume);

  const int limit_;
  mutable Mutex mutex_;
  std::condition_variable_any granted_;  // waits on mutex_
  int available_ GUARDED_BY(mutex_);
  std::deque<Waiter> waiters_ GUARDED_BY(mutex_);
};

}  // namespace quillane
