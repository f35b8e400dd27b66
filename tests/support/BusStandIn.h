#pragma once
// A desktop service stood in for on a D-Bus connection: it answers every call to its path and
// keeps each one. Notify is answered with the notification's number (from 1), GetCapabilities
// with "actions", "body" and "body-markup". It answers on a thread of its own, so that it serves a program
// the test is waiting for; its name and path go with it.
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QMutex>
#include <QThread>
#include <utility>

namespace quillane::testing {

class BusStandIn : public QDBusVirtualObject {
 public:
  struct Call {
    QString member;
    QVariantList arguments;
  };

  BusStandIn(QDBusConnection connection, const QString& service, const QString& path)
      : connection_(std::move(connection)), service_(service), path_(path) {
    moveToThread(&thread_);
    thread_.start();
    registered_ = connection_.registerVirtualObject(path_, this) && connection_.registerService(service_);
  }
  ~BusStandIn() override {
    connection_.unregisterService(service_);
    connection_.unregisterObject(path_);
    thread_.quit();
    thread_.wait();
  }
  bool registered() const { return registered_; }

  // The calls of `member` so far, each as its arguments.
  QList<QVariantList> calls(const QString& member) const {
    QMutexLocker lock(&mutex_);
    QList<QVariantList> found;
    for (const Call& call : calls_)
      if (call.member == member) found << call.arguments;
    return found;
  }

  // From hold() to release(), calls are kept unanswered: a service that takes its time.
  void hold() {
    QMutexLocker lock(&mutex_);
    held_ = true;
  }
  void release() {
    QMutexLocker lock(&mutex_);
    held_ = false;
    for (const QDBusMessage& reply : std::exchange(heldReplies_, {})) connection_.send(reply);
  }

  QString introspect(const QString&) const override { return {}; }
  // A call is kept once its reply is on its way: a test that has seen it and then sends a
  // signal on this connection (an action chosen) is sure the caller gets the reply first.
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    QMutexLocker lock(&mutex_);
    QDBusMessage reply = message.createReply();
    uint number = 1;
    for (const Call& call : calls_) number += call.member == "Notify";
    if (message.member() == "Notify") reply << QVariant::fromValue(number);
    if (message.member() == "GetCapabilities") reply << QStringList{"actions", "body", "body-markup"};
    if (held_)
      heldReplies_ << reply;
    else
      connection.send(reply);
    calls_.append({message.member(), message.arguments()});
    return true;
  }

 private:
  QDBusConnection connection_;
  QString service_, path_;
  QThread thread_;
  bool registered_ = false;
  bool held_ = false;
  QList<QDBusMessage> heldReplies_;
  mutable QMutex mutex_;
  QList<Call> calls_;
};

}  // namespace quillane::testing
