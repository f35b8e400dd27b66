#include "batch/AsyncSemaphore.h"

#include <QMetaObject>
#include <algorithm>
#include <vector>

namespace quillane {

AsyncSemaphore::AsyncSemaphore(int limit, QObject* parent)
    : QObject(parent), limit_(std::max(limit, 1)), available_(limit_) {}

int AsyncSemaphore::availablePermits() const {
  std::lock_guard lock(mutex_);
  return available_;
}

int AsyncSemaphore::waiterCount() const {
  std::lock_guard lock(mutex_);
  return int(waiters_.size());
}

int AsyncSemaphore::clampCost(int cost) const { return std::clamp(cost, 1, limit_); }

void AsyncSemaphore::wait(int cost, std::function<void()> resume) {
  const int effective = clampCost(cost);
  {
    std::lock_guard lock(mutex_);
    if (!waiters_.empty() || available_ < effective) {
      waiters_.push_back({effective, std::move(resume)});
      return;
    }
    available_ -= effective;
  }
  // Resumed through the event loop even when the permits were free, so that a caller never
  // sees its continuation run inside its own call.
  QMetaObject::invokeMethod(this, std::move(resume), Qt::QueuedConnection);
}

void AsyncSemaphore::waitAhead(int cost, std::function<void()> resume) {
  const int effective = clampCost(cost);
  {
    std::lock_guard lock(mutex_);
    const bool aheadQueued = !waiters_.empty() && waiters_.front().ahead;
    if (aheadQueued || available_ < effective) {
      auto after = std::find_if(waiters_.begin(), waiters_.end(), [](const Waiter& w) { return !w.ahead; });
      waiters_.insert(after, Waiter{effective, std::move(resume), true});
      return;
    }
    available_ -= effective;
  }
  QMetaObject::invokeMethod(this, std::move(resume), Qt::QueuedConnection);
}

void AsyncSemaphore::signal(int cost) {
  const int effective = clampCost(cost);
  std::vector<std::function<void()>> released;
  {
    std::lock_guard lock(mutex_);
    available_ = std::min(available_ + effective, limit_);
    while (!waiters_.empty() && waiters_.front().cost <= available_) {
      available_ -= waiters_.front().cost;
      released.push_back(std::move(waiters_.front().resume));
      waiters_.pop_front();
    }
  }
  for (auto& resume : released) QMetaObject::invokeMethod(this, std::move(resume), Qt::QueuedConnection);
}

}  // namespace quillane
