#include "tests/support/RawHTTPClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>

namespace quillane::testing {

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// The bytes one read gives within `timeout`; nothing when the wait ended or, with `closed` set,
// when the server closed.
std::string receive(int fd, std::chrono::milliseconds timeout, bool& closed) {
  pollfd p{fd, POLLIN, 0};
  int ready = 0;
  while ((ready = ::poll(&p, 1, int(std::max<int64_t>(timeout.count(), 0)))) < 0 && errno == EINTR) {
  }
  if (ready <= 0) return {};
  char buffer[65536];
  ssize_t n = 0;
  while ((n = ::recv(fd, buffer, sizeof buffer, 0)) < 0 && errno == EINTR) {
  }
  closed = n <= 0;
  return closed ? std::string() : std::string(buffer, size_t(n));
}

// Splits a raw response into status line and body.
RawHTTPResponse parseResponse(std::string raw, bool closedByServer) {
  RawHTTPResponse response;
  response.raw = std::move(raw), response.closedByServer = closedByServer;
  const size_t headEnd = response.raw.find("\r\n\r\n");
  if (headEnd == std::string::npos) return response;
  response.body = response.raw.substr(headEnd + 4);
  response.statusLine = response.raw.substr(0, response.raw.find("\r\n"));
  if (response.statusLine.size() >= 12) response.status = std::atoi(response.statusLine.c_str() + 9);
  return response;
}

}  // namespace

RawConnection::RawConnection(int port) {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  sockaddr_in address = loopback(port);
  if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) close();
}

RawConnection::~RawConnection() { close(); }

bool RawConnection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (fd_ < 0) return false;
    ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(size_t(n));
  }
  return true;
}

void RawConnection::shutdownWrite() {
  if (fd_ >= 0) ::shutdown(fd_, SHUT_WR);
}

RawHTTPResponse RawConnection::readResponse(std::chrono::milliseconds timeout) {
  std::string raw;
  bool closed = false;
  for (const auto deadline = Clock::now() + timeout; fd_ >= 0 && !closed;) {
    const std::string part =
        receive(fd_, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()), closed);
    if (part.empty() && !closed) break;
    raw += part;
  }
  return parseResponse(std::move(raw), closed);
}

std::string RawConnection::readSome(std::chrono::milliseconds timeout) {
  bool closed = false;
  return fd_ < 0 ? std::string() : receive(fd_, timeout, closed);
}

void RawConnection::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

RawHTTPResponse httpExchange(int port, std::string_view bytes, std::chrono::milliseconds timeout) {
  RawConnection connection(port);
  if (!connection.connected()) return {};
  connection.send(bytes);
  return connection.readResponse(timeout);
}

std::string buildRequest(std::string_view method, std::string_view target,
                         const std::optional<std::string>& token, std::string_view body) {
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

int freeLocalPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

int openDescriptorCount() {
  // Less the descriptor of the listing itself.
  return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                           std::filesystem::directory_iterator())) -
         1;
}

}  // namespace quillane::testing
