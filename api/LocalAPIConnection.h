#pragma once
// Internal to LocalAPIServer: one accepted connection and its listener.
// Both live on LocalAPIServer::thread() and are touched only there.

#include <QObject>
#include <QTcpServer>
#include <QTimer>

#include <memory>
#include <string>

#include "api/LocalAPIRequestReader.h"
#include "api/LocalAPIServer.h"

class QSocketNotifier;

namespace quillane {

struct LocalAPIServer::Shared {
  double requestReadTimeoutSeconds = 30.0;
  LocalAPIServer::Router router;
};

// The parent of every connection still open, living on LocalAPIServer::thread().
QObject* localAPIConnectionRoot();

// Reads one request with a deadline, routes it, writes the response, then closes. Owns
// the socket descriptor and closes it on every path; deletes itself when done.
class LocalAPIConnection : public QObject {
  Q_OBJECT
 public:
  // Takes ownership of `descriptor`. The server's shared part is held strongly until the
  // connection is done.
  LocalAPIConnection(int descriptor, std::shared_ptr<LocalAPIServer::Shared> server, QObject* parent);
  ~LocalAPIConnection() override;

  void begin();

 private:
  void onReadable();
  void onWritable();
  void onDeadline();
  void settle(LocalAPIRequestReader::Outcome outcome);
  void respond(const LocalAPIResponse& response);
  void flush();
  void linger();
  void drain();
  void closeNow();

  enum class Phase { reading, routing, writing, lingering, closed };
  Phase phase_ = Phase::reading;
  int fd_;
  std::shared_ptr<LocalAPIServer::Shared> server_;
  QSocketNotifier* readNotifier_ = nullptr;
  QSocketNotifier* writeNotifier_ = nullptr;
  QTimer deadline_;
  QTimer lingerTimer_;
  LocalAPIRequestReader reader_;
  std::string out_;
  size_t written_ = 0;
};

// The listening socket of one LocalAPIServer::start.
class LocalAPIListener : public QTcpServer {
  Q_OBJECT
 public:
  LocalAPIListener(std::weak_ptr<LocalAPIServer::Shared> server,
                   std::weak_ptr<LocalAPIServer::StateHandler> stateHandler);

  // Server thread: binds and reports ready or failed.
  void begin(quint16 port);
  // Server thread: closes, reports cancelled, deletes itself.
  void cancel();

 protected:
  void incomingConnection(qintptr descriptor) override;

 private:
  void report(const LocalAPIListenerState& state);
  std::weak_ptr<LocalAPIServer::Shared> server_;
  std::weak_ptr<LocalAPIServer::StateHandler> stateHandler_;
};

}  // namespace quillane
