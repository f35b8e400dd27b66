#pragma once
// A blocking HTTP client over a plain TCP socket to 127.0.0.1, for tests that send exact
// bytes and look at exact bytes. It never interprets more than a test needs: the status
// line and the body of one response. No Qt, so that it can run on any thread.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

namespace quillane::testing {

struct RawHTTPResponse {
  std::string raw;  // every byte received until the server closed (or the wait ended)
  bool closedByServer = false;
  int status = 0;  // of the status line, "HTTP/1.1 200 OK"
  std::string body;
};

inline sockaddr_in loopbackAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// One client connection. Every call is bounded by its timeout; nothing here throws.
class RawConnection {
 public:
  // Connects to 127.0.0.1:port; connected() tells whether it worked.
  explicit RawConnection(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopbackAddress(port);
    if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) close();
  }
  ~RawConnection() { close(); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return fd_ >= 0; }
  // Sends everything; false when the peer is gone.
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      if (fd_ < 0) return false;
      ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      bytes.remove_prefix(size_t(n));
    }
    return true;
  }
  // Half-closes: the server sees the end of the stream.
  void shutdownWrite() {
    if (fd_ >= 0) ::shutdown(fd_, SHUT_WR);
  }
  // Reads until the server closes or `timeout` passes, and splits what came into status and body.
  RawHTTPResponse readResponse(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    RawHTTPResponse response;
    for (const auto deadline = Clock::now() + timeout; fd_ >= 0 && !response.closedByServer;) {
      const std::string part =
          receive(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()),
                  response.closedByServer);
      if (part.empty() && !response.closedByServer) break;
      response.raw += part;
    }
    const size_t headEnd = response.raw.find("\r\n\r\n");
    if (headEnd == std::string::npos) return response;
    response.body = response.raw.substr(headEnd + 4);
    const std::string statusLine = response.raw.substr(0, response.raw.find("\r\n"));
    if (statusLine.size() >= 12) response.status = std::atoi(statusLine.c_str() + 9);
    return response;
  }
  // Bytes available within `timeout`, without waiting for the close; empty if none came.
  std::string readSome(std::chrono::milliseconds timeout) {
    bool closed = false;
    return fd_ < 0 ? std::string() : receive(timeout, closed);
  }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  using Clock = std::chrono::steady_clock;

  // The bytes one read gives within `timeout`; nothing when the wait ended or, with `closed`
  // set, when the server closed.
  std::string receive(std::chrono::milliseconds timeout, bool& closed) {
    pollfd p{fd_, POLLIN, 0};
    int ready = 0;
    while ((ready = ::poll(&p, 1, int(std::max<int64_t>(timeout.count(), 0)))) < 0 && errno == EINTR)
      continue;
    if (ready <= 0) return {};
    char buffer[65536];
    ssize_t n = 0;
    while ((n = ::recv(fd_, buffer, sizeof buffer, 0)) < 0 && errno == EINTR) continue;
    closed = n <= 0;
    return closed ? std::string() : std::string(buffer, size_t(n));
  }

  int fd_ = -1;
};

// Connects, sends `bytes`, reads the whole answer.
inline RawHTTPResponse httpExchange(int port, std::string_view bytes,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  RawConnection connection(port);
  if (!connection.connected()) return {};
  connection.send(bytes);
  return connection.readResponse(timeout);
}

// A well-formed request: request line, Authorization when `token` is given, Content-Length
// when there is a body.
inline std::string buildRequest(std::string_view method, std::string_view target,
                                const std::optional<std::string>& token, std::string_view body = {}) {
  std::string request;
  request.append(method).append(" ").append(target).append(" HTTP/1.1\r\nHost: 127.0.0.1\r\n");
  if (token) request.append("Authorization: Bearer ").append(*token).append("\r\n");
  if (!body.empty())
    request.append("Content-Type: application/json\r\nContent-Length: ")
        .append(std::to_string(body.size()))
        .append("\r\n");
  request.append("\r\n").append(body);
  return request;
}

// A TCP port on 127.0.0.1 that was free a moment ago.
inline int freeLocalPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopbackAddress(0);
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

// Descriptors open in this process (entries of /proc/self/fd), less the listing's own.
inline int openDescriptorCount() {
  return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                           std::filesystem::directory_iterator())) -
         1;
}

}  // namespace quillane::testing
