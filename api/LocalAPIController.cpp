#include "api/LocalAPIController.h"

#include <QCoreApplication>
#include <QPointer>

#include "api/LocalAPIRouter.h"
#include "api/LocalAPISettings.h"

namespace quillane {

LocalAPIController::LocalAPIController(BatchViewModel& viewModel, QObject* parent)
    : QObject(parent), router_(new LocalAPIRouter(viewModel, this)) {
  if (LocalAPISettings::isEnabled()) start();
}

LocalAPIController::~LocalAPIController() = default;

void LocalAPIController::start() {
  stop();
  // The token exists from the moment the API runs, so that a client handed it (from the
  // settings file or the pane) is let in at once.
  LocalAPISettings::token();
  auto server = std::make_unique<LocalAPIServer>(requestReadTimeoutSeconds, router_->serverRouter());
  server->setGate(LocalAPIRouter::serverGate());
  quint64 generation = ++generation_;
  QPointer<LocalAPIController> self(this);
  server->setOnStateChange([self, generation](const LocalAPIListenerState& state) {
    // Server thread: only the queued call touches the controller, on its own thread.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [self, generation, state] {
          if (self) self->apply(state, generation);
        },
        Qt::QueuedConnection);
  });
  server->start(LocalAPISettings::effectivePort());
  server_ = std::move(server);
}

void LocalAPIController::stop() {
  if (server_) server_->stop();
  server_.reset();
  boundPort_ = 0;
  setRunning(false);
}

void LocalAPIController::apply(const LocalAPIListenerState& state, quint64 generation) {
  if (generation != generation_ || !server_) return;
  switch (state.kind) {
    case LocalAPIListenerState::Kind::ready:
      boundPort_ = state.port;
      setRunning(true);
      setLastError(std::nullopt);
      break;
    case LocalAPIListenerState::Kind::failed:
      setRunning(false);
      setLastError(QString::fromStdString(state.error));
      stop();
      break;
    case LocalAPIListenerState::Kind::cancelled:
      boundPort_ = 0;
      setRunning(false);
      break;
  }
}

void LocalAPIController::setRunning(bool running) {
  if (isRunning_ == running) return;
  isRunning_ = running;
  emit isRunningChanged();
}

void LocalAPIController::setLastError(std::optional<QString> error) {
  if (lastError_ == error) return;
  lastError_ = std::move(error);
  emit lastErrorChanged();
}

}  // namespace quillane
