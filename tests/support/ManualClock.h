#pragma once
// A clock that moves only when the test says: the timers started on it (in the shape of
// TimerStarter) fire in `advance`, on the calling thread, as they come due.

#include <QObject>
#include <QPointer>
#include <chrono>
#include <functional>
#include <map>

namespace quillane::testing {

class ManualClock {
 public:
  auto starter() {
    return [this](std::chrono::milliseconds delay, QObject* owner, std::function<void()> fire) -> QObject* {
      auto* timer = new QObject(owner);
      timers_.emplace(now_ + delay, std::pair(QPointer(timer), std::move(fire)));
      return timer;
    };
  }
  // Fires, in order, each timer not deleted that comes due within `by`, those it starts included.
  void advance(std::chrono::milliseconds by) {
    const auto until = now_ + by;
    for (auto next = timers_.begin(); next != timers_.end() && next->first <= until; next = timers_.begin()) {
      now_ = next->first;
      const auto [timer, fire] = std::move(next->second);
      timers_.erase(next);
      if (!timer) continue;
      timer->deleteLater();
      fire();
    }
    now_ = until;
  }

 private:
  std::chrono::milliseconds now_{0};
  std::multimap<std::chrono::milliseconds, std::pair<QPointer<QObject>, std::function<void()>>> timers_;
};

}  // namespace quillane::testing
