#pragma once
// PoolTask::run: work on a thread pool whose result comes back to an object's thread.
//
// QtConcurrent::run(pool, work).then(context, done) races in Qt 6.4: when the work ends on its
// thread while then() is attaching the continuation, Qt may run the continuation twice (once in
// then(), which finds the future finished, and again as the work's thread reports it), and the
// second run starts a promise already moved away: the process crashes. Here the continuation is
// attached to a promise's future before the work is even queued, so only the work's thread
// ever runs it.

#include <QFuture>
#include <QObject>
#include <QPromise>
#include <QThreadPool>
#include <exception>
#include <memory>
#include <type_traits>
#include <utility>

namespace quillane::PoolTask {

// Runs `work()` on `pool`, then `done(result)` on `context`'s thread unless `context` is gone by
// then; returns the future of `done`'s result. An exception that escapes `work` reaches that
// future, as with QtConcurrent, and `done` is not called.
template <class Work, class Done>
auto run(QThreadPool* pool, QObject* context, Work work, Done done) {
  using Result = std::invoke_result_t<Work&>;
  auto promise = std::make_shared<QPromise<Result>>();
  auto continued = promise->future().then(context, std::move(done));
  pool->start([promise, work = std::move(work)]() mutable {
    promise->start();
    try {
      if constexpr (std::is_void_v<Result>)
        work();
      else
        promise->addResult(work());
    } catch (...) {
      promise->setException(std::current_exception());
    }
    promise->finish();
  });
  return continued;
}

}  // namespace quillane::PoolTask
