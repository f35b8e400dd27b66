// The HTTP listener over real sockets, raw bytes in and out: its lifetime, routes that answer late
// or never, many connections at once. Then the request reader's head limit and parsers, no sockets.
#include <QAbstractEventDispatcher>
#include <QPromise>
#include <QThread>

#include "api/LocalAPIRequestReader.h"
#include "engine/Json.h"
#include "tests/api/ApiTestSupport.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;
using testing::httpExchange;
using testing::RawConnection;
using Kind = LocalAPIListenerState::Kind;

// Answers with what it was given, so that each test sees how the request was read; "/slow"
// waits until the test answers it or drops it unanswered, as a router that went away would.
class EchoRouter {
 public:
  LocalAPIServer::Router router() {
    return [this](const LocalAPIRequest& request) {
      if (request.path != "/slow")
        return QtFuture::makeReadyFuture(LocalAPIResponse::json(200, echo(request)));
      std::lock_guard lock(mutex_);
      auto promise = std::make_shared<QPromise<LocalAPIResponse>>();
      promise->start();
      pending_.push_back(promise);
      return promise->future();
    };
  }
  size_t pendingCount() {
    std::lock_guard lock(mutex_);
    return pending_.size();
  }
  void finishAll(bool answer) {
    std::lock_guard lock(mutex_);
    if (answer)
      for (auto& promise : pending_) {
        promise->addResult(LocalAPIResponse::error(200, "released"));
        promise->finish();
      }
    pending_.clear();
  }

 private:
  static JsonValue echo(const LocalAPIRequest& request) {
    JsonValue headers = JsonValue::object(), query = JsonValue::object();
    for (const auto& [name, value] : request.headers) headers.set(name, value);
    for (const auto& [name, value] : request.query) query.set(name, value);
    JsonValue echoed = JsonValue::object().set("method", request.method).set("path", request.path);
    echoed.set("query", query).set("headers", headers).set("bodyLength", int64_t(request.body.size()));
    return echoed.set("body", request.body.size() < 1000 ? request.body : std::string("(long)"));
  }
  std::mutex mutex_;
  std::vector<std::shared_ptr<QPromise<LocalAPIResponse>>> pending_;
};

class ServerTest : public ::testing::Test {
 protected:
  // Starts a server with `timeout` seconds to read a request and returns its port.
  int startServer(double timeout = 10.0, LocalAPIServer::Limits limits = {}, LocalAPIServer::Gate gate = {}) {
    server_.reset();
    log_.clear();
    server_ = std::make_unique<LocalAPIServer>(timeout, router_.router());
    server_->setLimits(limits);
    server_->setGate(std::move(gate));
    server_->setOnStateChange(log_.handler());
    server_->start(0);
    auto state = log_.waitFor(0);
    EXPECT_EQ(state.kind, Kind::ready);
    return state.port;
  }
  EchoRouter router_;
  testing::StateLog log_;
  std::unique_ptr<LocalAPIServer> server_;
};

// Three turns of the server thread's loop, each a blocking call queued there. A turn takes up
// what the kernel held for it before it began (a client in the listening queue, bytes a client
// sent), so by the last one a client that connected and sent its head before the call has been
// accepted, and, were it admitted, read: no wait on a clock is needed to see that it was not.
void letTheServerThreadTurn() {
  for (int turn = 0; turn < 3; ++turn)
    QMetaObject::invokeMethod(
        LocalAPIServer::thread()->eventDispatcher(), [] {}, Qt::BlockingQueuedConnection);
}

std::string expectedResponse(int status, const std::string& reason, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) + " " + reason +
         "\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}
const std::string malformed = expectedResponse(400, "Bad Request", R"({"error":"Malformed request"})"),
                  timedOut = expectedResponse(408, "Request Timeout",
                                              R"({"error":"Request not received within 0s"})");

TEST_F(ServerTest, ReadsTheHeadLenientlyFramesTheBodyByItsLengthAndClosesEvenWhenAskedToKeepAlive) {
  int port = startServer();
  // No version, a lower-case method, header names in any case, padded values, a line without
  // a colon, a repeated header (the last one counts).
  auto response = httpExchange(port,
                               "get /x?a=1\r\nConnection: keep-alive\r\nX-UPPER:  \t value \t\r\n"
                               "no colon here\r\nDup: first\r\ndup: second\r\n\r\n");
  EXPECT_EQ(response.raw,
            expectedResponse(200, "OK",
                             R"({"body":"","bodyLength":0,"headers":{"connection":"keep-alive",)"
                             R"("dup":"second","x-upper":"value"},"method":"get","path":"\/x",)"
                             R"("query":{"a":"1"}})"));
  EXPECT_TRUE(response.closedByServer);
  // A longer body is cut to its length; the surplus never becomes a second request.
  auto surplus =
      httpExchange(port, "POST /x HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcGET /second HTTP/1.1\r\n\r\n");
  EXPECT_NE(surplus.body.find(R"("body":"abc")"), std::string::npos) << surplus.body;
  EXPECT_EQ(surplus.raw.find("HTTP/1.1", 1), std::string::npos) << "one response only";
}

// What the head alone shows is answered before the gate (here one that lets nobody in) and
// before any body byte; a request the client cuts short is malformed, or refused by the gate
// once its head is complete (without waiting for the rest).
TEST_F(ServerTest, MalformedAndTooLargeRequestsAreAnsweredBeforeTheGate) {
  const std::string tooLarge =
      expectedResponse(413, "Payload Too Large", R"({"error":"Request body exceeds 8388608 bytes"})");
  const std::string refused = expectedResponse(401, "Unauthorized", R"({"error":"no"})");
  const struct {
    std::string request;
    bool cut;
    std::string open, gated;
  } cases[] = {
      {"GET\r\n\r\n", false, malformed, malformed},
      {"GET /\xff\xfe HTTP/1.1\r\n\r\n", false, malformed, malformed},
      {"POST /x HTTP/1.1\r\nContent-Length: -1\r\n\r\n", false, malformed, malformed},
      {"POST /x HTTP/1.1\r\nContent-Length: 8388609\r\n\r\n", false, tooLarge, tooLarge},
      {"GET /x HTTP/1.1\r\nHost: a\r\n", true, malformed, malformed},
      {"POST /x HTTP/1.1\r\nContent-Length: 8388608\r\n\r\nabc", true, malformed, refused},
  };
  for (bool gated : {false, true}) {
    int port = startServer(10.0, {}, [gated](const LocalAPIRequest&) {
      return gated ? std::optional(LocalAPIResponse::error(401, "no")) : std::nullopt;
    });
    for (const auto& c : cases) {
      const std::string& expected = gated ? c.gated : c.open;
      RawConnection connection(port);
      connection.send(c.request);
      if (c.cut && expected == malformed) connection.shutdownWrite();
      EXPECT_EQ(connection.readResponse(5s).raw, expected) << gated << " " << c.request;
    }
  }
  // A head over 1 MiB, while the client is still sending.
  int port = startServer();
  auto response = testing::offThread([&] {
    RawConnection connection(port);
    std::string line = "X-Filler: " + std::string(1000, 'a') + "\r\n";
    connection.send("GET /x HTTP/1.1\r\n");
    for (int i = 0; i < 1100 && connection.send(line); ++i) continue;
    return connection.readResponse(10s);
  });
  EXPECT_EQ(response.body, R"({"error":"Malformed request"})");
}

TEST_F(ServerTest, TheDeadlineCoversTheWholeRequest) {
  int port = startServer(0.4);  // 0.4 s truncates to 0 in the message

  for (const char* request : {"",                              // a silent client
                              "GET /x HTTP/1.1\nHost: a\n\n",  // LF alone never ends the head
                              "POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\nab"})  // a body that stops
    EXPECT_EQ(httpExchange(port, request, 5s).raw, timedOut) << request;
}

std::string pathBody(const std::string& path) {
  return R"({"body":"","bodyLength":0,"headers":{},"method":"GET","path":")" + path + R"(","query":{}})";
}

TEST_F(ServerTest, ASlowRouteHoldsUpNothingAndIsAnsweredAfterAStopOrClosedWhenAbandoned) {
  for (bool abandon : {false, true}) {
    int port = startServer();
    RawConnection slow(port), reading(port);
    slow.send("GET /slow\r\n\r\n");
    reading.send("GET /a\r\n");
    ASSERT_TRUE(QTest::qWaitFor([&] { return router_.pendingCount() == 1; }, 5000));
    reading.send("\r\n");  // finished reading while the first request waits for its route
    EXPECT_EQ(reading.readResponse(5s).body, pathBody("\\/a"));
    if (!abandon) server_.reset();
    router_.finishAll(!abandon);
    auto response = slow.readResponse(5s);
    EXPECT_TRUE(response.closedByServer);
    EXPECT_EQ(response.body, abandon ? "" : R"({"error":"released"})");
  }
}

TEST_F(ServerTest, HundredsOfConcurrentConnectionsAreServedWithoutLeakingDescriptors) {
  int port = startServer(20.0);
  int before = testing::openDescriptorCount();
  constexpr int count = 400;
  int served = testing::offThread([&] {
    std::vector<std::unique_ptr<RawConnection>> connections;
    // All open at once and mid-request (headers complete, so none gives way to a newcomer)
    // before any finishes; every tenth client hangs up.
    for (int i = 0; i < count; ++i) {
      connections.push_back(std::make_unique<RawConnection>(port));
      connections.back()->send("POST /c" + std::to_string(i) + " HTTP/1.1\r\nContent-Length: 1\r\n\r\n");
    }
    for (int i = 0; i < count; i += 10) connections[size_t(i)]->close();
    for (auto& connection : connections)
      if (connection->connected()) connection->send("x");
    int ok = 0;
    for (int i = 0; i < count; ++i)
      ok += i % 10 && connections[size_t(i)]->readResponse(10s).body.find(
                          "\"path\":\"\\/c" + std::to_string(i) + "\"") != std::string::npos;
    return ok;
  });
  EXPECT_EQ(served, count - count / 10);
  EXPECT_TRUE(QTest::qWaitFor([&] { return testing::openDescriptorCount() <= before; }, 10000))
      << testing::openDescriptorCount() << " descriptors open, " << before << " before";
  server_->stop();
  EXPECT_EQ(log_.waitFor(1).kind, Kind::cancelled);
  EXPECT_FALSE(RawConnection(port).connected());
}

TEST_F(ServerTest, ClientsBeyondTheCapWaitAndBufferedBytesHaveOneBudgetForAll) {
  // The heads seen, so that the third client arrives only once both places hold complete
  // headers: before that, a place whose headers were still unread would be given to it.
  auto heads = std::make_shared<std::atomic<int>>(0);
  int port = startServer(10.0, {2, size_t(1) << 20}, [heads](const LocalAPIRequest&) {
    ++*heads;
    return std::optional<LocalAPIResponse>{};
  });
  RawConnection first(port), second(port);
  first.send("POST /first HTTP/1.1\r\nContent-Length: 1\r\n\r\n");
  second.send("POST /second HTTP/1.1\r\nContent-Length: 1\r\n\r\n");
  ASSERT_TRUE(QTest::qWaitFor([&] { return heads->load() == 2; }, 5000));
  RawConnection third(port);
  third.send("GET /third\r\n\r\n");
  letTheServerThreadTurn();
  EXPECT_EQ(heads->load(), 2) << "two places, both taken by requests with their headers";
  first.send("x");
  EXPECT_EQ(first.readResponse(5s).status, 200);
  EXPECT_EQ(third.readResponse(5s).body, pathBody("\\/third")) << "its turn came when the first ended";
  second.close();

  // Two bodies of 600 KB against 1 MiB for everything: the one that crosses it is refused.
  const std::string head = "POST /big HTTP/1.1\r\nContent-Length: 8388608\r\n\r\n";
  auto answers = testing::offThread([&] {
    RawConnection a(port), b(port);
    a.send(head + std::string(600000, 'a'));
    b.send(head + std::string(600000, 'b'));
    std::string refusal;
    RawConnection* other = nullptr;
    for (int i = 0; i < 100 && !other; ++i) {
      if (!(refusal = a.readSome(20ms)).empty())
        other = &b;
      else if (!(refusal = b.readSome(20ms)).empty())
        other = &a;
    }
    if (!other) return std::pair<std::string, int>{};
    other->shutdownWrite();  // still awaited, so it ends short: 400
    return std::pair{refusal, other->readResponse(5s).status};
  });
  EXPECT_TRUE(answers.first.starts_with("HTTP/1.1 503 Service Unavailable\r\n")) << answers.first;
  EXPECT_EQ(answers.second, 400);
  // Their bytes were given back: a body of 900 KB fits again.
  auto accepted = testing::offThread([&] {
    return httpExchange(port,
                        "POST /fits HTTP/1.1\r\nContent-Length: 900000\r\n\r\n" + std::string(900000, 'c'));
  });
  EXPECT_EQ(accepted.status, 200);
}

TEST_F(ServerTest, ClientsWithoutHeadersGiveWayAtTheCapAndHaveAShortDeadlineHoweverTheyTrickle) {
  {
    int port = startServer(10.0, {3, size_t(1) << 20, 60.0});
    RawConnection oldest(port);
    oldest.send("GET /trickling");
    RawConnection idle1(port), idle2(port);
    auto answer = testing::offThread([&] { return httpExchange(port, "GET /real\r\n\r\n", 5s); });
    EXPECT_EQ(answer.body, pathBody("\\/real")) << "the three places were held by sockets without headers";
    auto evicted = oldest.readResponse(5s);
    EXPECT_TRUE(evicted.closedByServer);
    EXPECT_EQ(evicted.raw, "") << "closed to make room, not answered";
    idle1.send("GET /idle\r\n\r\n");
    EXPECT_EQ(idle1.readResponse(5s).body, pathBody("\\/idle")) << "only the oldest gave way";
  }
  // A header line every 50 ms keeps bytes coming, but the headers' 0.3 s are counted from
  // the start, well within the request's 30 s.
  int port = startServer(30.0, {256, size_t(1) << 20, 0.3});
  RawConnection trickler(port);
  trickler.send("GET /slow HTTP/1.1\r\n");
  std::string answer;
  for (int i = 0; i < 200 && answer.empty() && trickler.send("X-Pad: 1\r\n"); ++i)
    answer = trickler.readSome(50ms);
  answer += trickler.readResponse(5s).raw;
  EXPECT_EQ(answer, timedOut);
}

using Outcome = LocalAPIRequestReader::Outcome;

TEST(RequestReader, HeaderLimitCountsTheWholeBufferEvenWhenTheHeadIsComplete) {
  LocalAPIRequestReader reader;
  const size_t limit = LocalAPIRequestReader::headerLimit;
  ASSERT_EQ(reader.receive("GET / HTTP/1.1\r\nX: " + std::string(limit - 40, 'a')), Outcome::needMore);
  // This chunk both completes the head and pushes the buffer past the limit.
  EXPECT_EQ(reader.receive("\r\n\r\n" + std::string(100, 'b')), Outcome::malformed);

  std::string head = "GET / HTTP/1.1\r\nX: ";
  head.append(limit - head.size() - 4, 'a');
  head += "\r\n\r\n";
  EXPECT_EQ(LocalAPIRequestReader().receive(head), Outcome::request) << "exactly at the limit";
}

TEST(RequestReader, ContentLengthAndPercentEscapesAreReadStrictly) {
  EXPECT_EQ(LocalAPIHTTP::parseDecimal("+5"), 5);
  for (const char* bad : {"", "+", "9223372036854775808", " 1", "1e3", "+-1"})
    EXPECT_EQ(LocalAPIHTTP::parseDecimal(bad), std::nullopt) << bad;
  // Too big for 64 bits counts as no length at all, not as too large.
  EXPECT_EQ(
      LocalAPIRequestReader().receive("POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n"),
      Outcome::request);
  // Broken escapes, a cut sequence, a surrogate and an overlong "/" are refused.
  EXPECT_EQ(LocalAPIHTTP::percentDecode("%C3%A9t%C3%A9"), "été");
  for (const char* bad : {"100%", "%g1", "%C3", "%ED%A0%80", "%C0%AF"})
    EXPECT_EQ(LocalAPIHTTP::percentDecode(bad), std::nullopt) << bad;
}

}  // namespace
}  // namespace quillane
