#include "batch/TimerStarter.h"

#include <QTimer>
#include <utility>

namespace quillane {

QObject* startQTimer(std::chrono::milliseconds delay, QObject* owner, std::function<void()> fire) {
  auto* timer = new QTimer(owner);
  timer->setSingleShot(true);
  QObject::connect(timer, &QTimer::timeout, owner, [timer, fire = std::move(fire)] {
    timer->deleteLater();
    fire();
  });
  timer->start(delay);
  return timer;
}

}  // namespace quillane
