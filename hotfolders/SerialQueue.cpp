#include "hotfolders/SerialQueue.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <QSemaphore>
#include <QThread>
#include <map>
#include <mutex>
#include <vector>

namespace quillane {

using Clock = std::chrono::steady_clock;

struct SerialQueue::Impl {
  QString label;
  int wakeFd = -1;
  std::mutex mutex;  // guards everything below
  std::vector<std::function<void()>> posted;
  std::multimap<Clock::time_point, std::shared_ptr<WorkItem>> timers;  // equal deadlines keep their order
  struct Source {
    int fd;
    std::shared_ptr<WorkItem> handler;
  };
  std::vector<Source> sources;
  std::vector<std::shared_ptr<WorkItem>> removed;
  bool finishing = false;
  QThread* thread = nullptr;

  ~Impl() {
    for (const Source& source : sources) ::close(source.fd);
    if (wakeFd >= 0) ::close(wakeFd);
  }

  void wake() {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wakeFd, &one, sizeof one);
  }

  void closeRemovedSources() {  // REQUIRES: mutex held
    for (const auto& handler : removed) {
      auto it =
          std::find_if(sources.begin(), sources.end(), [&](const Source& s) { return s.handler == handler; });
      if (it == sources.end()) continue;
      ::close(it->fd);
      sources.erase(it);
    }
    removed.clear();
  }

  void run() {
    std::vector<pollfd> fds;
    std::vector<std::shared_ptr<WorkItem>> handlers;
    for (;;) {
      std::vector<std::function<void()>> tasks;
      int timeout = -1;
      {
        std::lock_guard lock(mutex);
        if (finishing) return;
        closeRemovedSources();
        tasks.swap(posted);
        if (!timers.empty()) {
          const auto wait =
              std::chrono::ceil<std::chrono::milliseconds>(timers.begin()->first - Clock::now());
          timeout = int(std::max<int64_t>(0, wait.count()));
        }
        fds.assign(1, pollfd{wakeFd, POLLIN, 0});
        handlers.assign(1, nullptr);
        for (const Source& source : sources) {
          fds.push_back(pollfd{source.fd, POLLIN, 0});
          handlers.push_back(source.handler);
        }
      }
      if (!tasks.empty()) {
        for (auto& task : tasks) {
          task();
          if (isFinishing()) return;
        }
        continue;  // what the tasks scheduled decides the next wait
      }
      if (::poll(fds.data(), nfds_t(fds.size()), timeout) < 0) continue;  // EINTR
      if (fds[0].revents) {
        uint64_t count;
        [[maybe_unused]] ssize_t n = ::read(wakeFd, &count, sizeof count);
      }
      for (size_t i = 1; i < fds.size(); ++i) {
        if (fds[i].revents && !isFinishing()) handlers[i]->perform();
      }
      runDueTimers();
    }
  }

  bool isFinishing() {
    std::lock_guard lock(mutex);
    return finishing;
  }

  void runDueTimers() {
    for (;;) {
      std::shared_ptr<WorkItem> item;
      {
        std::lock_guard lock(mutex);
        if (finishing || timers.empty() || timers.begin()->first > Clock::now()) return;
        item = std::move(timers.begin()->second);
        timers.erase(timers.begin());
      }
      item->perform();
    }
  }
};

namespace {

std::mutex& retiredMutex() {
  static std::mutex mutex;
  return mutex;
}
std::vector<QThread*>& retiredThreads() {
  static std::vector<QThread*> threads;
  return threads;
}

}  // namespace

SerialQueue::SerialQueue(const QString& label) : impl_(std::make_shared<Impl>()) {
  impl_->label = label;
  impl_->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  // The thread keeps the state alive until it ends, whoever drops the queue first.
  impl_->thread = QThread::create([impl = impl_] { impl->run(); });
  impl_->thread->setObjectName(label);
  impl_->thread->start();
}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->finishing = true;
  }
  impl_->wake();
  std::lock_guard lock(retiredMutex());
  auto& threads = retiredThreads();
  // Threads that have ended are deleted now; the rest wait for waitForAll().
  std::erase_if(threads, [](QThread* thread) {
    if (!thread->isFinished()) return false;
    thread->wait();
    delete thread;
    return true;
  });
  threads.push_back(impl_->thread);
}

const QString& SerialQueue::label() const { return impl_->label; }

void SerialQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->posted.push_back(std::move(task));
  }
  impl_->wake();
}

void SerialQueue::asyncAfter(std::chrono::milliseconds delay, std::shared_ptr<WorkItem> item) {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->timers.emplace(Clock::now() + delay, std::move(item));
  }
  impl_->wake();
}

void SerialQueue::sync(const std::function<void()>& task) {
  QSemaphore done;
  async([&] {
    task();
    done.release();
  });
  done.acquire();
}

std::shared_ptr<WorkItem> SerialQueue::addReadSource(int fd, std::function<void()> onReadable) {
  auto handler = std::make_shared<WorkItem>(std::move(onReadable));
  {
    std::lock_guard lock(impl_->mutex);
    impl_->sources.push_back({fd, handler});
  }
  impl_->wake();
  return handler;
}

void SerialQueue::removeSource(const std::shared_ptr<WorkItem>& source) {
  if (!source) return;
  source->cancel();
  {
    std::lock_guard lock(impl_->mutex);
    impl_->removed.push_back(source);
  }
  impl_->wake();
}

bool SerialQueue::isCurrent() const { return QThread::currentThread() == impl_->thread; }

void SerialQueue::waitForAll() {
  // A thread that ends may retire others (a scan drops its results queue), so go on until
  // none is left.
  for (;;) {
    std::vector<QThread*> threads;
    {
      std::lock_guard lock(retiredMutex());
      threads.swap(retiredThreads());
    }
    if (threads.empty()) return;
    for (QThread* thread : threads) {
      thread->wait();
      delete thread;
    }
  }
}

}  // namespace quillane
