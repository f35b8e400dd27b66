// The HTTP listener over real sockets: raw bytes in, raw bytes out.
#include <gtest/gtest.h>

#include <QPromise>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "api/LocalAPIServer.h"
#include "engine/Json.h"
#include "tests/api/ApiTestSupport.h"
#include "tests/support/RawHTTPClient.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;
using testing::httpExchange;
using testing::RawConnection;

// Answers with what it was given, so that each test sees how the request was read.
QFuture<LocalAPIResponse> echo(const LocalAPIRequest& request) {
  JsonValue headers = JsonValue::object(), query = JsonValue::object();
  for (const auto& [name, value] : request.headers) headers.set(name, value);
  for (const auto& [name, value] : request.query) query.set(name, value);
  JsonValue dto = JsonValue::object()
                      .set("method", request.method)
                      .set("path", request.path)
                      .set("query", query)
                      .set("headers", headers)
                      .set("bodyLength", int64_t(request.body.size()))
                      .set("body", request.body.size() < 1000 ? request.body : std::string("(long)"));
  return QtFuture::makeReadyFuture(LocalAPIResponse::json(200, dto));
}

class ServerTest : public ::testing::Test {
 protected:
  // Starts a server on a free port with `timeout` seconds to read a request.
  int startServer(double timeout = 10.0, LocalAPIServer::Router router = echo) {
    server_ = std::make_unique<LocalAPIServer>(timeout, std::move(router));
    server_->setOnStateChange(log_.handler());
    server_->start(0);
    auto state = log_.waitFor(0);
    EXPECT_TRUE(state && state->kind == LocalAPIListenerState::Kind::ready);
    return state ? state->port : 0;
  }

  testing::StateLog log_;
  std::unique_ptr<LocalAPIServer> server_;
};

std::string expectedResponse(int status, const std::string& reason, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) + " " + reason +
         "\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

TEST_F(ServerTest, AnswersWithExactlyThreeHeadersAndClosesEvenWhenAskedToKeepAlive) {
  int port = startServer();
  auto response = httpExchange(port, "GET /v1/status HTTP/1.1\r\nConnection: keep-alive\r\n\r\n");
  std::string body =
      R"({"body":"","bodyLength":0,"headers":{"connection":"keep-alive"},"method":"GET","path":"\/v1\/status","query":{}})";
  EXPECT_EQ(response.raw, expectedResponse(200, "OK", body));
  EXPECT_TRUE(response.closedByServer);
}

TEST_F(ServerTest, ReadsHeaderNamesInLowerCaseAndTrimsValues) {
  int port = startServer();
  auto response = httpExchange(port,
                           "POST /x?a=1 HTTP/1.0\r\nX-UPPER:  \t value \t\r\nEmpty:\r\nno colon here\r\n"
                           "Dup: first\r\ndup: second\r\n\r\n");
  EXPECT_EQ(response.status, 200);
  EXPECT_NE(response.body.find(R"("headers":{"dup":"second","empty":"","x-upper":"value"})"), std::string::npos)
      << response.body;
  EXPECT_NE(response.body.find(R"("method":"POST")"), std::string::npos);
  EXPECT_NE(response.body.find(R"("query":{"a":"1"})"), std::string::npos);
}

TEST_F(ServerTest, RequestLineNeedsMethodAndTargetButNoVersion) {
  int port = startServer();
  EXPECT_EQ(httpExchange(port, "get /lower\r\n\r\n").status, 200);
  EXPECT_NE(httpExchange(port, "get /lower\r\n\r\n").body.find(R"("method":"get")"), std::string::npos);
  // Two spaces make an empty target, which is still a request.
  EXPECT_EQ(httpExchange(port, "GET  /x HTTP/1.1\r\n\r\n").status, 200);

  std::string malformed = expectedResponse(400, "Bad Request", R"({"error":"Malformed request"})");
  EXPECT_EQ(httpExchange(port, "GET\r\n\r\n").raw, malformed);
  EXPECT_EQ(httpExchange(port, "\r\n\r\n").raw, malformed);
  EXPECT_EQ(httpExchange(port, "GET /\xff\xfe HTTP/1.1\r\n\r\n").raw, malformed);
}

TEST_F(ServerTest, ContentLengthFraming) {
  int port = startServer();
  // Letters count as no length: the bytes after the head are ignored.
  auto letters = httpExchange(port, "POST /x HTTP/1.1\r\nContent-Length: abc\r\n\r\nhello");
  EXPECT_NE(letters.body.find(R"("body":"")"), std::string::npos) << letters.body;
  auto plus = httpExchange(port, "POST /x HTTP/1.1\r\nContent-Length: +5\r\n\r\nhello");
  EXPECT_NE(plus.body.find(R"("body":"hello")"), std::string::npos) << plus.body;
  // A longer body is cut to its length; the surplus never becomes a second request.
  auto surplus = httpExchange(port, "POST /x HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcGET /second HTTP/1.1\r\n\r\n");
  EXPECT_NE(surplus.body.find(R"("body":"abc")"), std::string::npos);
  EXPECT_EQ(surplus.raw.find("HTTP/1.1", 1), std::string::npos) << "one response only";
  EXPECT_EQ(httpExchange(port, "POST /x HTTP/1.1\r\nContent-Length: -1\r\n\r\n").raw,
            expectedResponse(400, "Bad Request", R"({"error":"Malformed request"})"));
}

TEST_F(ServerTest, BodyLimitIsInclusiveAndTooLargeIsRefusedFromTheHeadAlone) {
  int port = startServer();
  std::string body(8388608, 'x');
  auto accepted = testing::offThread(
      [&] { return httpExchange(port, "POST /big HTTP/1.1\r\nContent-Length: 8388608\r\n\r\n" + body); });
  EXPECT_EQ(accepted.status, 200);
  EXPECT_NE(accepted.body.find(R"("bodyLength":8388608)"), std::string::npos);

  // No body byte is sent: the answer must come from the head alone.
  RawConnection connection(port);
  connection.send("POST /big HTTP/1.1\r\nContent-Length: 8388609\r\n\r\n");
  auto refused = connection.readResponse(5s);
  EXPECT_EQ(refused.raw, expectedResponse(413, "Payload Too Large", R"({"error":"Request body exceeds 8388608 bytes"})"));
}

TEST_F(ServerTest, HeadsOverOneMebibyteAreMalformed) {
  int port = startServer();
  auto response = testing::offThread([&] {
    RawConnection connection(port);
    std::string line = "X-Filler: " + std::string(1000, 'a') + "\r\n";
    connection.send("GET /x HTTP/1.1\r\n");
    for (int i = 0; i < 1100 && connection.send(line); ++i) {
    }
    return connection.readResponse(10s);
  });
  EXPECT_EQ(response.status, 400);
  EXPECT_EQ(response.body, R"({"error":"Malformed request"})");
}

TEST_F(ServerTest, RequestsCutShortAreMalformed) {
  int port = startServer();
  for (const char* partial : {"GET /x HTTP/1.1\r\nHost: a\r\n", "POST /x HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"}) {
    RawConnection connection(port);
    connection.send(partial);
    connection.shutdownWrite();
    auto response = connection.readResponse(5s);
    EXPECT_EQ(response.body, R"({"error":"Malformed request"})") << partial;
    EXPECT_EQ(response.status, 400);
  }
}

TEST_F(ServerTest, DeadlineCoversTheWholeRequest) {
  // 0.4 s truncates to 0 in the message.
  int port = startServer(0.4);
  std::string timedOut = expectedResponse(408, "Request Timeout", R"({"error":"Request not received within 0s"})");
  // Lines ended by LF alone never end the head.
  EXPECT_EQ(httpExchange(port, "GET /x HTTP/1.1\nHost: a\n\n", 5s).raw, timedOut);
  // A body that stops arriving.
  EXPECT_EQ(httpExchange(port, "POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\nab", 5s).raw, timedOut);
  // A silent client.
  EXPECT_EQ(httpExchange(port, "", 5s).raw, timedOut);
}

TEST_F(ServerTest, TimeoutMessageTruncatesAndZeroEndsBeforeTheFirstRead) {
  int port = startServer(0.0);
  EXPECT_EQ(httpExchange(port, "GET /x HTTP/1.1\r\n\r\n", 5s).body, R"({"error":"Request not received within 0s"})");
  server_.reset();
  log_.clear();
  port = startServer(1.9);
  EXPECT_EQ(httpExchange(port, "GET /x", 5s).body, R"({"error":"Request not received within 1s"})");
}

TEST_F(ServerTest, SlowClientWithinTheDeadlineIsServed) {
  int port = startServer(10.0);
  auto response = testing::offThread([&] {
    RawConnection connection(port);
    std::string request = "POST /slow HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
    for (char c : request) {
      connection.send(std::string_view(&c, 1));
      std::this_thread::sleep_for(2ms);
    }
    return connection.readResponse(5s);
  });
  EXPECT_EQ(response.status, 200);
  EXPECT_NE(response.body.find(R"("body":"body")"), std::string::npos);
}

}  // namespace
}  // namespace quillane
