#include "api/LocalAPIServer.h"

#include <QCoreApplication>
#include <QThread>
#include <algorithm>
#include <utility>

#include "api/LocalAPIConnection.h"

namespace quillane {

namespace {

struct ServerThread {
  QThread* thread = nullptr;
  QObject* root = nullptr;  // parent of every live connection, deleted on the thread at its end
};

void stopServerThread();

ServerThread& serverThread() {
  static ServerThread instance = [] {
    ServerThread t;
    t.thread = new QThread;
    t.thread->setObjectName(QStringLiteral("com.quillane.Quillane.localapi"));
    t.root = new QObject;
    t.root->moveToThread(t.thread);
    // Runs on the server thread as it ends: connections still open close their sockets
    // there, where their notifiers live.
    QObject* root = t.root;
    QObject::connect(t.thread, &QThread::finished, [root] { delete root; });
    t.thread->start();
    qAddPostRoutine(stopServerThread);
    return t;
  }();
  return instance;
}

void stopServerThread() {
  ServerThread& t = serverThread();
  t.thread->quit();
  t.thread->wait();
}

}  // namespace

QObject* localAPIConnectionRoot() { return serverThread().root; }

LocalAPIServer::LocalAPIServer(double requestReadTimeoutSeconds, Router router)
    : shared_(std::make_shared<Shared>()), stateHandler_(std::make_shared<StateHandler>()) {
  shared_->requestReadTimeoutSeconds = requestReadTimeoutSeconds;
  shared_->router = std::move(router);
  serverThread();
}

LocalAPIServer::~LocalAPIServer() {
  // Dropping the handler first makes the listener's weak reference expire, so that the
  // `cancelled` of this stop goes nowhere.
  stateHandler_.reset();
  stop();
}

void LocalAPIServer::setOnStateChange(StateHandler handler) { *stateHandler_ = std::move(handler); }

void LocalAPIServer::setGate(Gate gate) { shared_->gate = std::move(gate); }

void LocalAPIServer::setLimits(Limits limits) { shared_->limits = limits; }

double LocalAPIServer::requestReadTimeoutSeconds() const { return shared_->requestReadTimeoutSeconds; }

QThread* LocalAPIServer::thread() { return serverThread().thread; }

void LocalAPIServer::start(int port) {
  stop();
  auto bound = quint16(std::clamp(port, 0, 65535));
  auto* listener = new LocalAPIListener(shared_, stateHandler_);
  listener->moveToThread(thread());
  QMetaObject::invokeMethod(
      listener, [listener, bound] { listener->begin(bound); }, Qt::QueuedConnection);
  listener_ = listener;
}

void LocalAPIServer::stop() {
  if (!listener_) return;
  auto* listener = std::exchange(listener_, nullptr);
  QMetaObject::invokeMethod(
      listener, [listener] { listener->cancel(); }, Qt::QueuedConnection);
}

}  // namespace quillane
