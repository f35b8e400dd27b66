#include "tests/support/RawHTTPClient.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

int remainingMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? int(left) : 0;
}

// Splits a raw response into status line, headers and body.
RawHTTPResponse parseResponse(std::string raw, bool closedByServer) {
  RawHTTPResponse response;
  response.raw = std::move(raw);
  response.closedByServer = closedByServer;
  size_t headEnd = response.raw.find("\r\n\r\n");
  if (headEnd == std::string::npos) return response;
  std::string head = response.raw.substr(0, headEnd);
  response.body = response.raw.substr(headEnd + 4);
  size_t lineEnd = head.find("\r\n");
  response.statusLine = head.substr(0, lineEnd);
  if (response.statusLine.size() >= 12) response.status = std::atoi(response.statusLine.c_str() + 9);
  while (lineEnd != std::string::npos) {
    size_t start = lineEnd + 2;
    lineEnd = head.find("\r\n", start);
    std::string line = head.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
    size_t colon = line.find(": ");
    if (colon != std::string::npos) response.headers[line.substr(0, colon)] = line.substr(colon + 2);
  }
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

bool RawConnection::receive(std::string& into, int timeoutMs) {
  pollfd p{fd_, POLLIN, 0};
  if (fd_ < 0 || ::poll(&p, 1, timeoutMs) <= 0) return true;
  char buffer[65536];
  ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
  if (n > 0) into.append(buffer, size_t(n));
  return n > 0 || (n < 0 && errno == EINTR);
}

RawHTTPResponse RawConnection::readResponse(std::chrono::milliseconds timeout) {
  std::string raw;
  bool open = true;
  for (auto deadline = Clock::now() + timeout; open && fd_ >= 0 && Clock::now() < deadline;)
    open = receive(raw, remainingMs(deadline));
  return parseResponse(std::move(raw), !open);
}

std::string RawConnection::readSome(std::chrono::milliseconds timeout) {
  std::string some;
  receive(some, int(timeout.count()));
  return some;
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
  int count = 0;
  if (DIR* dir = ::opendir("/proc/self/fd")) {
    while (dirent* entry = ::readdir(dir)) {
      if (entry->d_name[0] != '.') ++count;
    }
    ::closedir(dir);
    --count;  // the directory's own descriptor
  }
  return count;
}

}  // namespace quillane::testing
