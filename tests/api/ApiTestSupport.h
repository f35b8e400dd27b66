#pragma once
// Helpers for the local API tests: run blocking socket clients off the GUI thread while the
// GUI thread keeps its event loop turning (the router needs it), and wait for listener states.

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>

#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <vector>

#include "api/LocalAPIServer.h"

namespace quillane::testing {

// Turns the GUI thread's event loop until `done()` or the limit.
template <class Predicate>
bool spinUntil(Predicate done, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    QThread::msleep(1);
  }
  return true;
}

// Runs `work` on a thread of its own and turns the event loop until it returns.
template <class Work>
auto offThread(Work work) {
  auto future = std::async(std::launch::async, std::move(work));
  spinUntil([&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
            std::chrono::seconds(120));
  return future.get();
}

// Collects the listener states a server reports (on its own thread).
class StateLog {
 public:
  LocalAPIServer::StateHandler handler() {
    return [this](const LocalAPIListenerState& state) {
      std::lock_guard lock(mutex_);
      states_.push_back(state);
    };
  }
  std::vector<LocalAPIListenerState> states() const {
    std::lock_guard lock(mutex_);
    return states_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    states_.clear();
  }
  // Waits for the `index`-th state (0-based).
  std::optional<LocalAPIListenerState> waitFor(size_t index) {
    spinUntil([&] { return states().size() > index; }, std::chrono::seconds(10));
    auto all = states();
    if (all.size() <= index) return std::nullopt;
    return all[index];
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LocalAPIListenerState> states_;
};

}  // namespace quillane::testing
