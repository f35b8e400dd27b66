#pragma once
// Internal to LocalAPIServer: one accepted connection and its listener.
// Both live on LocalAPIServer::thread() and are touched only there.

#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTimer>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "api/LocalAPIRequestReader.h"
#include "api/LocalAPIServer.h"

class QSocketNotifier;

namespace quillane {

class LocalAPIConnection;
class LocalAPIListener;

// Set up on the owner's thread before start(); the rest is touched on the server thread only.
struct LocalAPIServer::Shared {
  double requestReadTimeoutSeconds = 30.0;
  LocalAPIServer::Router router;
  LocalAPIServer::Gate gate;
  LocalAPIServer::Limits limits;

  std::set<LocalAPIConnection*> connections;  // every connection not yet closed
  size_t bufferedBytes = 0;                   // held by the request readers of all of them
  uint64_t admissions = 0;                    // connections admitted so far, the newest's number
  QPointer<LocalAPIListener> listener;        // the current one, paused while connections are at the cap
  bool atCapacity() const { return int(connections.size()) >= limits.maxConnections; }
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
  // Answered and only draining what the client still sends: closing it loses nothing.
  bool isLingering() const { return phase_ == Phase::lingering; }
  // Reads what the client has sent so far, as when the socket becomes readable.
  void readPending() { onReadable(); }
  // Still reading the request's line and headers.
  bool awaitingHeaders() const { return phase_ == Phase::reading && !gated_; }
  // The order of admission: lower is older.
  uint64_t admission() const { return admission_; }
  void closeNow();

 private:
  void onReadable();
  void onWritable();
  void onDeadline();
  void onHeadersDeadline();
  void settle(LocalAPIRequestReader::Outcome outcome);
  void respond(const LocalAPIResponse& response);
  void flush();
  void linger();
  void drain();
  // Brings the server's count of buffered bytes up to date; false when it went over the limit.
  bool account();
  void releaseBuffer();

  enum class Phase { reading, routing, writing, lingering, closed };
  Phase phase_ = Phase::reading;
  int fd_;
  std::shared_ptr<LocalAPIServer::Shared> server_;
  QSocketNotifier* readNotifier_ = nullptr;
  QSocketNotifier* writeNotifier_ = nullptr;
  uint64_t admission_;
  QTimer deadline_;
  QTimer headersDeadline_;
  QTimer lingerTimer_;
  LocalAPIRequestReader reader_;
  size_t accounted_ = 0;  // this connection's part of Shared::bufferedBytes
  size_t drained_ = 0;    // bytes read and dropped after the response
  bool gated_ = false;
  std::string out_;
  size_t written_ = 0;
};

// The listening socket of one LocalAPIServer::start.
class LocalAPIListener : public QTcpServer {
  Q_OBJECT
 public:
  LocalAPIListener(std::weak_ptr<LocalAPIServer::Shared> server,
                   std::weak_ptr<LocalAPIServer::StateHandler> stateHandler);
  // Closes the descriptors still waiting for a place.
  ~LocalAPIListener() override;

  // Server thread: binds and reports ready or failed.
  void begin(quint16 port);
  // Server thread: closes, reports cancelled, deletes itself.
  void cancel();
  // Server thread: accepting again once a connection has ended below the cap.
  void connectionEnded();

 protected:
  void incomingConnection(qintptr descriptor) override;

 private:
  void report(const LocalAPIListenerState& state);
  void resumeIfBelowCapacity();
  void admitWaiting();
  // Closes the connection admitted first among those still without complete headers (after
  // reading what each has sent meanwhile); false when there is none.
  bool evictOldestWithoutHeaders(LocalAPIServer::Shared& server);
  bool accepting_ = true;  // false while paused for the cap or for an accept error
  bool admitting_ = false;
  std::deque<int> waiting_;  // accepted descriptors beyond the cap, oldest first
  std::weak_ptr<LocalAPIServer::Shared> server_;
  std::weak_ptr<LocalAPIServer::StateHandler> stateHandler_;
};

}  // namespace quillane
