#pragma once
// A blocking HTTP client over a plain TCP socket to 127.0.0.1, for tests that send exact
// bytes and look at exact bytes. It never interprets more than a test needs: the status
// line and the body of one response. No Qt, so that it can run on any thread.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace quillane::testing {

struct RawHTTPResponse {
  std::string raw;  // every byte received until the server closed (or the wait ended)
  bool closedByServer = false;
  std::string statusLine;  // "HTTP/1.1 200 OK"
  int status = 0;
  std::string body;
};

// One client connection. Every call is bounded by its timeout; nothing here throws.
class RawConnection {
 public:
  // Connects to 127.0.0.1:port; connected() tells whether it worked.
  explicit RawConnection(int port);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return fd_ >= 0; }
  // Sends everything; false when the peer is gone.
  bool send(std::string_view bytes);
  // Half-closes: the server sees the end of the stream.
  void shutdownWrite();
  // Reads until the server closes or `timeout` passes.
  RawHTTPResponse readResponse(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Bytes available within `timeout`, without waiting for the close; empty if none came.
  std::string readSome(std::chrono::milliseconds timeout);
  void close();

 private:
  int fd_ = -1;
};

// Connects, sends `bytes`, reads the whole answer.
RawHTTPResponse httpExchange(int port, std::string_view bytes,
                             std::chrono::milliseconds timeout = std::chrono::seconds(20));

// A well-formed request: request line, Authorization when `token` is given, Content-Length
// when there is a body.
std::string buildRequest(std::string_view method, std::string_view target,
                         const std::optional<std::string>& token, std::string_view body = {});

// A TCP port on 127.0.0.1 that was free a moment ago.
int freeLocalPort();

// Descriptors open in this process (entries of /proc/self/fd).
int openDescriptorCount();

}  // namespace quillane::testing
