#include "budget/CompressionBudget.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThread>
#include <algorithm>
#include <vector>

#include "budget/CompressionCost.h"
#include "engine/SystemMemory.h"

namespace quillane {

CompressionBudget::CompressionBudget(int limit, QObject* parent)
    : QObject(parent), limit_(std::max(limit, 1)), available_(limit_) {}

CompressionBudget::~CompressionBudget() = default;

CompressionBudget& CompressionBudget::process() {
  static CompressionBudget* const budget = [] {
    auto* made = new CompressionBudget(CompressionCost::memoryBudgetMB(physicalMemoryBytes()));
    // Continuations run on the main thread, whichever thread first asked for the budget.
    if (auto* app = QCoreApplication::instance(); app && made->thread() != app->thread())
      made->moveToThread(app->thread());
    return made;
  }();
  return *budget;
}

int CompressionBudget::availablePermits() const {
  std::lock_guard lock(mutex_);
  return available_;
}

int CompressionBudget::waiterCount() const {
  std::lock_guard lock(mutex_);
  return int(waiters_.size());
}

int CompressionBudget::clamp(int cost) const { return std::clamp(cost, 1, limit_); }

void CompressionBudget::wait(int cost, QObject* context, std::function<void()> resume) {
  enqueue(cost, false, context, std::move(resume));
}

void CompressionBudget::waitAhead(int cost, QObject* context, std::function<void()> resume) {
  enqueue(cost, true, context, std::move(resume));
}

void CompressionBudget::enqueue(int cost, bool ahead, QObject* context, std::function<void()> resume) {
  const int effective = clamp(cost);
  // Read on the budget's thread only, which is the context's.
  QPointer<QObject> guard(context);
  auto guarded = [this, effective, guard, resume = std::move(resume)] {
    if (!guard) {
      release(effective);
      return;
    }
    resume();
  };
  {
    std::lock_guard lock(mutex_);
    const bool queued = ahead ? !waiters_.empty() && waiters_.front().ahead : !waiters_.empty();
    if (queued || available_ < effective) {
      Waiter waiter{effective, ahead, std::move(guarded)};
      if (ahead) {
        auto after = std::find_if(waiters_.begin(), waiters_.end(), [](const Waiter& w) { return !w.ahead; });
        waiters_.insert(after, std::move(waiter));
      } else {
        waiters_.push_back(std::move(waiter));
      }
      return;
    }
    available_ -= effective;
  }
  // Resumed through the event loop even when the permits were free, so that a caller never
  // sees its continuation run inside its own call.
  QMetaObject::invokeMethod(this, std::move(guarded), Qt::QueuedConnection);
}

CompressionBudget::Claim CompressionBudget::claim(int cost) {
  const int effective = clamp(cost);
  std::unique_lock lock(mutex_);
  if (waiters_.empty() && available_ >= effective) {
    available_ -= effective;
    return Claim(this, effective);
  }
  bool granted = false;
  waiters_.push_back(Waiter{effective, false, {}, &granted});
  granted_.wait(lock, [&] { return granted; });
  return Claim(this, effective);
}

std::vector<std::function<void()>> CompressionBudget::grantLocked() {
  std::vector<std::function<void()>> released;
  bool wake = false;
  while (!waiters_.empty() && waiters_.front().cost <= available_) {
    Waiter& head = waiters_.front();
    available_ -= head.cost;
    if (head.granted) {
      *head.granted = true;
      wake = true;
    } else {
      released.push_back(std::move(head.resume));
    }
    waiters_.pop_front();
  }
  if (wake) granted_.notify_all();
  return released;
}

void CompressionBudget::release(int cost) {
  const int effective = clamp(cost);
  std::vector<std::function<void()>> released;
  {
    std::lock_guard lock(mutex_);
    available_ = std::min(available_ + effective, limit_);
    released = grantLocked();
  }
  for (auto& resume : released) QMetaObject::invokeMethod(this, std::move(resume), Qt::QueuedConnection);
}

CompressionBudget::Claim::Claim(Claim&& other) noexcept
    : budget_(std::exchange(other.budget_, nullptr)), cost_(std::exchange(other.cost_, 0)) {}

CompressionBudget::Claim& CompressionBudget::Claim::operator=(Claim&& other) noexcept {
  if (this != &other) {
    release();
    budget_ = std::exchange(other.budget_, nullptr);
    cost_ = std::exchange(other.cost_, 0);
  }
  return *this;
}

void CompressionBudget::Claim::release() {
  if (auto* budget = std::exchange(budget_, nullptr)) budget->release(cost_);
  cost_ = 0;
}

}  // namespace quillane
