#include "api/LocalAPIConnection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QFutureWatcher>
#include <QHostAddress>
#include <QSocketNotifier>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <vector>

namespace quillane {

namespace {

// After the response, unread bytes the client is still sending are drained for at most
// this long before the socket is closed: closing with unread data would send a reset,
// which can make the client lose the response it has not read yet.
constexpr int lingerMilliseconds = 2000;
// ... and only up to this many bytes: a client refused early (no token) may still be pushing
// megabytes of body, and reading them all would cost the thread every other client needs.
constexpr size_t maxDrainBytes = size_t(256) * 1024;
// Receives per readiness event, so that one fast sender can't starve the others.
constexpr int receivesPerEvent = 16;
// Clients accepted beyond the cap, kept unread until a place is free.
constexpr size_t maxWaiting = 1024;

char* receiveBuffer() {
  // One buffer for the whole server thread: every connection runs there, one at a time.
  thread_local char buffer[LocalAPIRequestReader::maxChunk];
  return buffer;
}

int milliseconds(double seconds) { return int(std::min(std::ceil(seconds * 1000.0), double(INT_MAX))); }

std::string timeoutMessage(double seconds) {
  // The budget truncated to whole seconds, as the client configured it.
  double whole = std::trunc(seconds);
  long long n = std::isfinite(whole) ? (long long)std::clamp(whole, -9.0e18, 9.0e18) : 0;
  return "Request not received within " + std::to_string(n) + "s";
}

}  // namespace

LocalAPIConnection::LocalAPIConnection(int descriptor, std::shared_ptr<LocalAPIServer::Shared> server,
                                       QObject* parent)
    : QObject(parent), fd_(descriptor), server_(std::move(server)), admission_(++server_->admissions) {
  server_->connections.insert(this);
}

LocalAPIConnection::~LocalAPIConnection() {
  // Deleted with the thread's root while still open: the count goes with the server.
  if (server_) {
    releaseBuffer();
    server_->connections.erase(this);
  }
  if (fd_ >= 0) ::close(fd_);
}

bool LocalAPIConnection::account() {
  const size_t now = reader_.bufferedBytes();
  server_->bufferedBytes = server_->bufferedBytes - accounted_ + now;
  accounted_ = now;
  return server_->bufferedBytes <= server_->limits.maxBufferedBytes;
}

void LocalAPIConnection::releaseBuffer() {
  reader_ = LocalAPIRequestReader();
  server_->bufferedBytes -= accounted_;
  accounted_ = 0;
}

void LocalAPIConnection::begin() {
  int flags = ::fcntl(fd_, F_GETFL);
  if (flags < 0 || ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK) < 0) {
    closeNow();
    return;
  }
  readNotifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
  writeNotifier_ = new QSocketNotifier(fd_, QSocketNotifier::Write, this);
  writeNotifier_->setEnabled(false);
  connect(readNotifier_, &QSocketNotifier::activated, this, &LocalAPIConnection::onReadable);
  connect(writeNotifier_, &QSocketNotifier::activated, this, &LocalAPIConnection::onWritable);

  double seconds = server_->requestReadTimeoutSeconds;
  if (!(seconds > 0)) {
    // No budget at all: the request ends before the first read.
    onDeadline();
    return;
  }
  deadline_.setSingleShot(true);
  deadline_.setTimerType(Qt::PreciseTimer);
  connect(&deadline_, &QTimer::timeout, this, &LocalAPIConnection::onDeadline);
  deadline_.start(milliseconds(seconds));
  // The headers' shorter deadline counts from here, whatever bytes trickle in meanwhile.
  const double headers = server_->limits.headersSeconds;
  if (headers > 0 && headers < seconds) {
    headersDeadline_.setSingleShot(true);
    connect(&headersDeadline_, &QTimer::timeout, this, &LocalAPIConnection::onHeadersDeadline);
    headersDeadline_.start(milliseconds(headers));
  }
}

void LocalAPIConnection::onReadable() {
  if (phase_ == Phase::lingering) {
    drain();
    return;
  }
  if (phase_ != Phase::reading) return;
  char* buffer = receiveBuffer();
  for (int i = 0; i < receivesPerEvent; ++i) {
    ssize_t n = ::recv(fd_, buffer, LocalAPIRequestReader::maxChunk, 0);
    if (n > 0) {
      auto outcome = reader_.receive(std::string_view(buffer, size_t(n)));
      if (!account()) {
        respond(LocalAPIResponse::error(503, "Server busy"));
        return;
      }
      // What the head alone decides (a negative or too large Content-Length) is answered
      // first, token or not: those answers read no body byte either.
      if (outcome == LocalAPIRequestReader::Outcome::malformed ||
          outcome == LocalAPIRequestReader::Outcome::payloadTooLarge) {
        settle(outcome);
        return;
      }
      if (!gated_ && reader_.head()) {
        gated_ = true;
        headersDeadline_.stop();
        if (server_->gate) {
          std::optional<LocalAPIResponse> refusal;
          try {
            refusal = server_->gate(*reader_.head());
          } catch (...) {
            closeNow();
            return;
          }
          if (refusal) {
            respond(*refusal);
            return;
          }
        }
      }
      if (outcome != LocalAPIRequestReader::Outcome::needMore) {
        settle(outcome);
        return;
      }
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    // End of stream or a failed connection, with no bytes.
    settle(reader_.end());
    return;
  }
}

void LocalAPIConnection::onDeadline() {
  if (phase_ != Phase::reading) return;
  respond(LocalAPIResponse::error(408, timeoutMessage(server_->requestReadTimeoutSeconds)));
}

void LocalAPIConnection::onHeadersDeadline() {
  if (awaitingHeaders())
    respond(LocalAPIResponse::error(408, timeoutMessage(server_->limits.headersSeconds)));
}

void LocalAPIConnection::settle(LocalAPIRequestReader::Outcome outcome) {
  using Outcome = LocalAPIRequestReader::Outcome;
  switch (outcome) {
    case Outcome::needMore:
      return;
    case Outcome::malformed:
      respond(LocalAPIResponse::error(400, "Malformed request"));
      return;
    case Outcome::payloadTooLarge:
      respond(LocalAPIResponse::error(
          413, "Request body exceeds " + std::to_string(LocalAPIRequestReader::bodyLimit) + " bytes"));
      return;
    case Outcome::request:
      break;
  }
  phase_ = Phase::routing;
  deadline_.stop();
  readNotifier_->setEnabled(false);
  QFuture<LocalAPIResponse> future;
  try {
    LocalAPIRequest request = reader_.takeRequest();
    releaseBuffer();
    future = server_->router(std::move(request));
  } catch (...) {
    // The router answers every request itself; this only keeps the thread alive.
    closeNow();
    return;
  }
  // A watcher rather than then(): the router's promise is kept on the GUI thread, and Qt 6.4 may run
  // a continuation twice that is attached here while the promise finishes there.
  auto* watcher = new QFutureWatcher<LocalAPIResponse>(this);
  connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher] {
    watcher->deleteLater();
    const QFuture<LocalAPIResponse> answered = watcher->future();
    if (answered.isCanceled() || answered.resultCount() == 0)
      closeNow();
    else
      respond(answered.result());
  });
  watcher->setFuture(future);
}

void LocalAPIConnection::respond(const LocalAPIResponse& response) {
  if (phase_ == Phase::writing || phase_ == Phase::lingering || phase_ == Phase::closed) return;
  phase_ = Phase::writing;
  deadline_.stop();
  headersDeadline_.stop();
  readNotifier_->setEnabled(false);
  releaseBuffer();
  out_ = response.serialize();
  written_ = 0;
  flush();
}

void LocalAPIConnection::onWritable() {
  if (phase_ == Phase::writing) flush();
}

void LocalAPIConnection::flush() {
  while (written_ < out_.size()) {
    ssize_t n = ::send(fd_, out_.data() + written_, out_.size() - written_, MSG_NOSIGNAL);
    if (n > 0) {
      written_ += size_t(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      writeNotifier_->setEnabled(true);
      return;
    }
    break;  // the peer is gone: the send's failure is ignored
  }
  writeNotifier_->setEnabled(false);
  out_.clear();
  linger();
}

void LocalAPIConnection::linger() {
  phase_ = Phase::lingering;
  // At the cap, a place is worth more than the courtesy of draining.
  if (::shutdown(fd_, SHUT_WR) < 0 || server_->atCapacity()) {
    closeNow();
    return;
  }
  lingerTimer_.setSingleShot(true);
  connect(&lingerTimer_, &QTimer::timeout, this, &LocalAPIConnection::closeNow);
  lingerTimer_.start(lingerMilliseconds);
  readNotifier_->setEnabled(true);
  drain();
}

void LocalAPIConnection::drain() {
  char* buffer = receiveBuffer();
  for (int i = 0; i < receivesPerEvent; ++i) {
    ssize_t n = ::recv(fd_, buffer, LocalAPIRequestReader::maxChunk, 0);
    if (n > 0) {
      drained_ += size_t(n);
      if (drained_ <= maxDrainBytes) continue;
      closeNow();
      return;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    closeNow();
    return;
  }
}

void LocalAPIConnection::closeNow() {
  if (phase_ == Phase::closed) return;
  phase_ = Phase::closed;
  deadline_.stop();
  headersDeadline_.stop();
  lingerTimer_.stop();
  // Disabled before the descriptor is closed, so that a later socket reusing the number
  // isn't watched by a stale notifier.
  if (readNotifier_) readNotifier_->setEnabled(false);
  if (writeNotifier_) writeNotifier_->setEnabled(false);
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  releaseBuffer();
  server_->connections.erase(this);
  if (LocalAPIListener* listener = server_->listener) listener->connectionEnded();
  server_.reset();
  deleteLater();
}

LocalAPIListener::LocalAPIListener(std::weak_ptr<LocalAPIServer::Shared> server,
                                   std::weak_ptr<LocalAPIServer::StateHandler> stateHandler)
    : server_(std::move(server)), stateHandler_(std::move(stateHandler)) {
  // Out of descriptors: stop accepting for a moment rather than spin on a listening
  // socket that stays readable. Waiting clients stay in the backlog until then.
  connect(this, &QTcpServer::acceptError, this, [this] {
    pauseAccepting();
    accepting_ = false;
    QTimer::singleShot(100, this, [this] { resumeIfBelowCapacity(); });
  });
}

void LocalAPIListener::resumeIfBelowCapacity() {
  auto server = server_.lock();
  if (accepting_ || !server || server->atCapacity() || !waiting_.empty()) return;
  accepting_ = true;
  resumeAccepting();
}

void LocalAPIListener::connectionEnded() {
  admitWaiting();
  resumeIfBelowCapacity();
}

void LocalAPIListener::admitWaiting() {
  auto server = server_.lock();
  if (admitting_ || !server) return;
  admitting_ = true;
  while (!waiting_.empty()) {
    if (server->atCapacity()) {
      // Answered connections that only drain give their places up first.
      const std::set<LocalAPIConnection*> open = server->connections;
      for (LocalAPIConnection* other : open)
        if (other->isLingering()) other->closeNow();
    }
    if (server->atCapacity()) evictOldestWithoutHeaders(*server);
    if (server->atCapacity()) {
      // The rest wait, unread: a descriptor each, no buffer, no deadline yet.
      if (accepting_) pauseAccepting();
      accepting_ = false;
      break;
    }
    const int descriptor = waiting_.front();
    waiting_.pop_front();
    auto* connection = new LocalAPIConnection(descriptor, server, localAPIConnectionRoot());
    connection->begin();
  }
  admitting_ = false;
}

bool LocalAPIListener::evictOldestWithoutHeaders(LocalAPIServer::Shared& server) {
  std::vector<LocalAPIConnection*> candidates;
  for (LocalAPIConnection* connection : server.connections)
    if (connection->awaitingHeaders()) candidates.push_back(connection);
  std::sort(candidates.begin(), candidates.end(),
            [](const LocalAPIConnection* a, const LocalAPIConnection* b) {
              return a->admission() < b->admission();
            });
  for (LocalAPIConnection* connection : candidates) {
    // Headers already sent but not read yet (its readiness event still queued) are no idling.
    connection->readPending();
    if (connection->awaitingHeaders()) {
      connection->closeNow();
      return true;
    }
    if (!server.atCapacity()) return true;
  }
  return false;
}

LocalAPIListener::~LocalAPIListener() {
  for (int descriptor : waiting_) ::close(descriptor);
}

void LocalAPIListener::begin(quint16 port) {
  if (auto server = server_.lock()) server->listener = this;
  setListenBacklogSize(1024);
  // QTcpServer sets SO_REUSEADDR on Unix, so a port left in TIME_WAIT can be bound again.
  if (listen(QHostAddress(QHostAddress::LocalHost), port)) {
    report({LocalAPIListenerState::Kind::ready, {}, int(serverPort())});
  } else {
    report({LocalAPIListenerState::Kind::failed, errorString().toStdString(), 0});
  }
}

void LocalAPIListener::cancel() {
  bool wasListening = isListening();
  close();
  if (wasListening) report({LocalAPIListenerState::Kind::cancelled, {}, 0});
  deleteLater();
}

void LocalAPIListener::incomingConnection(qintptr descriptor) {
  auto server = server_.lock();
  if (!server) {
    ::close(int(descriptor));
    return;
  }
  // QTcpServer accepts everything pending in one go, so the cap is kept here: beyond it a
  // client waits in line, and beyond the line it is refused.
  if (waiting_.size() >= maxWaiting) {
    ::close(int(descriptor));
    return;
  }
  waiting_.push_back(int(descriptor));
  admitWaiting();
}

void LocalAPIListener::report(const LocalAPIListenerState& state) {
  if (auto handler = stateHandler_.lock(); handler && *handler) (*handler)(state);
}

}  // namespace quillane
