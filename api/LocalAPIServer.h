#pragma once
// A minimal HTTP/1.1 server on 127.0.0.1: one request per connection, handed to a router
// function, one response written back, then the connection is closed. It knows nothing of
// routes, tokens or the batch (LocalAPIRouter), nor of when to run (LocalAPIController).
//
// Limits keep connections that no one asked for from costing memory or places: at most
// Limits::maxConnections are served at once, and the bytes held for requests being read,
// across all connections, stay under Limits::maxBufferedBytes (a request that would pass it
// is answered 503). A connection must complete its headers within Limits::headersSeconds of
// being admitted, however slowly it trickles them, or it is answered 408. When a client
// arrives at the cap, answered connections still draining give their places up first, then
// the connection that has waited longest without complete headers is closed to make room;
// only when every place holds a request whose headers are complete does the newcomer wait in
// line, unread (the next 1,024; later ones are refused). So idle sockets cannot lock a real
// client out. A gate, when set, sees each request's head before any of its body is read, and
// may answer it there.
//
// Listener and connections live on one long-lived thread named
// "com.quillane.Quillane.localapi", shared by every server of the process and stopped when
// the QCoreApplication goes away. A connection finishes on its own even if its server is
// stopped or destroyed meanwhile.

#include <QFuture>
#include <QObject>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "api/LocalAPIRequest.h"

class QThread;

namespace quillane {

class LocalAPIListener;

struct LocalAPIListenerState {
  enum class Kind { ready, failed, cancelled };
  Kind kind = Kind::cancelled;
  std::string error;  // failed: why, in the system's words
  int port = 0;       // ready: the port actually bound (useful when 0 was asked for)
};

class LocalAPIServer {
 public:
  // Called on the server thread for every request; the response may come from any thread.
  // A future that is cancelled without a result closes the connection with no response.
  using Router = std::function<QFuture<LocalAPIResponse>(LocalAPIRequest)>;
  // Called on the server thread.
  using StateHandler = std::function<void(const LocalAPIListenerState&)>;
  // Called on the server thread with a request's line and headers (no body) as soon as they
  // are read: a response refuses the request at once, its body unread; nothing lets it go on.
  using Gate = std::function<std::optional<LocalAPIResponse>(const LocalAPIRequest& head)>;

  struct Limits {
    int maxConnections = 256;
    size_t maxBufferedBytes = size_t(64) << 20;  // eight bodies of the largest size at once
    double headersSeconds = 5.0;                 // capped by the whole request's timeout
  };

  // `requestReadTimeoutSeconds` bounds the reading of one whole request (the application
  // passes 30). Any thread that has a QCoreApplication.
  LocalAPIServer(double requestReadTimeoutSeconds, Router router);
  // Cancels the listener. States that arrive afterwards are not reported.
  ~LocalAPIServer();
  LocalAPIServer(const LocalAPIServer&) = delete;
  LocalAPIServer& operator=(const LocalAPIServer&) = delete;

  // REQUIRES: called before start().
  void setOnStateChange(StateHandler handler);
  // REQUIRES: called before start().
  void setGate(Gate gate);
  // REQUIRES: called before start().
  void setLimits(Limits limits);

  // Starts listening on 127.0.0.1 with address reuse; a running listener is cancelled
  // first. `port` is clamped to 0...65535 (0 asks the system for a free port). Returns
  // at once: readiness, or the reason of a failed bind, arrive through onStateChange.
  void start(int port);
  // Cancels the listener (reported as `cancelled`). Requests being served are not interrupted.
  void stop();

  double requestReadTimeoutSeconds() const;

  // The thread that runs every listener and connection; started on first use.
  static QThread* thread();

  struct Shared;

 private:
  std::shared_ptr<Shared> shared_;              // also held by every connection being served
  std::shared_ptr<StateHandler> stateHandler_;  // held weakly by the listener
  LocalAPIListener* listener_ = nullptr;        // lives on thread(); deleted there by its cancel
};

}  // namespace quillane
