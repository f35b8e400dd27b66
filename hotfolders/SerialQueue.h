#pragma once
// SerialQueue: one named thread that runs tasks one at a time, in order of their due time,
// and watches file descriptors for input. It is what a hot-folder watcher runs on: its
// events, its debounce, its poll timer and the whole blocking scan share this one thread,
// so that two scans of one folder never overlap and anything that comes due during a scan
// waits behind it. Idle, the thread sleeps in poll() with no timeout: no CPU at all.
//
// The thread's object name is the queue's label. Destroying a SerialQueue never waits: the
// thread finishes the task it is running, drops the rest and ends on its own; waitForAll()
// joins every such thread (the application calls it once before it quits).
//
// Any thread, unless said otherwise.

#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace quillane {

// A cancellable task. Cancelling a task that has not started keeps it from running; one
// that runs already runs to its end.
class WorkItem {
 public:
  explicit WorkItem(std::function<void()> task) : task_(std::move(task)) {}
  void cancel() { cancelled_ = true; }
  bool isCancelled() const { return cancelled_; }
  void perform() {
    if (!cancelled_) task_();
  }

 private:
  std::function<void()> task_;
  std::atomic<bool> cancelled_{false};
};

class SerialQueue {
 public:
  explicit SerialQueue(const QString& label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const QString& label() const;

  void async(std::function<void()> task);
  void asyncAfter(std::chrono::milliseconds delay, std::shared_ptr<WorkItem> item);
  // Runs `task` on the queue and returns when it has run. Never from the queue itself.
  void sync(const std::function<void()>& task);

  // Calls `onReadable` on the queue whenever `fd` has input, until the returned item is
  // cancelled and removeSource() called for it. The queue owns `fd` from here on and closes
  // it when the source is removed or the queue ends, and nowhere else.
  std::shared_ptr<WorkItem> addReadSource(int fd, std::function<void()> onReadable);
  void removeSource(const std::shared_ptr<WorkItem>& source);

  // True on the queue's own thread.
  bool isCurrent() const;

  // Joins every queue thread whose SerialQueue has been destroyed. Not from a queue thread.
  static void waitForAll();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace quillane
