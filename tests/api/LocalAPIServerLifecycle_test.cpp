// The listener's lifetime and its behaviour under many connections.
#include <gtest/gtest.h>

#include <QPromise>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "api/LocalAPIServer.h"
#include "tests/api/ApiTestSupport.h"
#include "tests/support/RawHTTPClient.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;
using testing::httpExchange;
using testing::RawConnection;
using Kind = LocalAPIListenerState::Kind;

// Answers "/slow" only when released; everything else at once.
class GatedRouter {
 public:
  LocalAPIServer::Router router() {
    return [this](const LocalAPIRequest& request) {
      if (request.path != "/slow") return QtFuture::makeReadyFuture(LocalAPIResponse::error(200, request.path));
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
  void releaseAll() {
    std::lock_guard lock(mutex_);
    for (auto& promise : pending_) {
      promise->addResult(LocalAPIResponse::error(200, "released"));
      promise->finish();
    }
    pending_.clear();
  }
  // Drops the promises unanswered, as a router that went away would.
  void abandonAll() {
    std::lock_guard lock(mutex_);
    pending_.clear();
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<QPromise<LocalAPIResponse>>> pending_;
};

class LifecycleTest : public ::testing::Test {
 protected:
  std::unique_ptr<LocalAPIServer> makeServer(double timeout = 10.0) {
    auto server = std::make_unique<LocalAPIServer>(timeout, gate_.router());
    server->setOnStateChange(log_.handler());
    return server;
  }
  GatedRouter gate_;
  testing::StateLog log_;
};

bool canConnect(int port) { return RawConnection(port).connected(); }

TEST_F(LifecycleTest, ReportsReadyThenCancelledAndStopsAccepting) {
  auto server = makeServer();
  server->start(0);
  auto ready = log_.waitFor(0);
  ASSERT_TRUE(ready && ready->kind == Kind::ready);
  EXPECT_GT(ready->port, 0);
  EXPECT_EQ(httpExchange(ready->port, "GET /a\r\n\r\n").body, R"({"error":"\/a"})");
  server->stop();
  auto cancelled = log_.waitFor(1);
  ASSERT_TRUE(cancelled && cancelled->kind == Kind::cancelled);
  EXPECT_FALSE(canConnect(ready->port));
}

TEST_F(LifecycleTest, StartingTwiceLeavesOneListenerAndTheAddressCanBeReused) {
  int port = testing::freeLocalPort();
  auto server = makeServer();
  server->start(port);
  ASSERT_EQ(log_.waitFor(0)->kind, Kind::ready);
  // Connections closed by the server leave the port in TIME_WAIT on its side.
  for (int i = 0; i < 5; ++i) EXPECT_EQ(httpExchange(port, "GET /a\r\n\r\n").status, 200);
  server->start(port);
  auto states = std::vector<Kind>{};
  testing::spinUntil([&] { return log_.states().size() >= 3; }, 5s);
  for (const auto& state : log_.states()) states.push_back(state.kind);
  EXPECT_EQ(states, (std::vector<Kind>{Kind::ready, Kind::cancelled, Kind::ready}));
  EXPECT_EQ(httpExchange(port, "GET /a\r\n\r\n").status, 200);
}

TEST_F(LifecycleTest, PortInUseFailsWithAReason) {
  int blocker = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(blocker, 1), 0);
  socklen_t length = sizeof address;
  ::getsockname(blocker, reinterpret_cast<sockaddr*>(&address), &length);

  auto server = makeServer();
  server->start(ntohs(address.sin_port));
  auto state = log_.waitFor(0);
  ::close(blocker);
  ASSERT_TRUE(state);
  EXPECT_EQ(state->kind, Kind::failed);
  EXPECT_FALSE(state->error.empty());
}

TEST_F(LifecycleTest, SlowRoutesDoNotHoldUpReadingOrOtherRequests) {
  auto server = makeServer();
  server->start(0);
  int port = log_.waitFor(0)->port;

  RawConnection slow(port), readingA(port), readingB(port);
  slow.send("GET /slow\r\n\r\n");
  readingA.send("GET /a HTTP/1.1\r\n");
  readingB.send("GET /b HTTP/1.1\r\n");
  ASSERT_TRUE(testing::spinUntil([&] { return gate_.pendingCount() == 1; }, 5s));
  // Both readers are mid-head while the first request waits for its route.
  readingB.send("\r\n");
  readingA.send("\r\n");
  EXPECT_EQ(readingA.readResponse(5s).body, R"({"error":"\/a"})");
  EXPECT_EQ(readingB.readResponse(5s).body, R"({"error":"\/b"})");
  EXPECT_TRUE(slow.readSome(100ms).empty());
  gate_.releaseAll();
  EXPECT_EQ(slow.readResponse(5s).body, R"({"error":"released"})");
}

TEST_F(LifecycleTest, StoppingDoesNotInterruptARequestBeingRouted) {
  auto server = makeServer();
  server->start(0);
  int port = log_.waitFor(0)->port;
  RawConnection slow(port);
  slow.send("GET /slow\r\n\r\n");
  ASSERT_TRUE(testing::spinUntil([&] { return gate_.pendingCount() == 1; }, 5s));
  server.reset();
  gate_.releaseAll();
  EXPECT_EQ(slow.readResponse(5s).body, R"({"error":"released"})");
}

TEST_F(LifecycleTest, AnAbandonedRouteClosesTheConnectionWithoutAnswer) {
  auto server = makeServer();
  server->start(0);
  int port = log_.waitFor(0)->port;
  RawConnection slow(port);
  slow.send("GET /slow\r\n\r\n");
  ASSERT_TRUE(testing::spinUntil([&] { return gate_.pendingCount() == 1; }, 5s));
  gate_.abandonAll();
  auto response = slow.readResponse(5s);
  EXPECT_TRUE(response.closedByServer);
  EXPECT_EQ(response.raw, "");
}

TEST_F(LifecycleTest, HundredsOfConcurrentConnectionsAreServedWithoutLeakingDescriptors) {
  auto server = makeServer(20.0);
  server->start(0);
  int port = log_.waitFor(0)->port;
  int before = testing::openDescriptorCount();
  constexpr int count = 400;
  int served = testing::offThread([&] {
    std::vector<std::unique_ptr<RawConnection>> connections;
    // All open at once and mid-request before any finishes.
    for (int i = 0; i < count; ++i) {
      connections.push_back(std::make_unique<RawConnection>(port));
      connections.back()->send("GET /c" + std::to_string(i) + " HTTP/1.1\r\n");
    }
    for (auto& connection : connections) connection->send("\r\n");
    int ok = 0;
    for (int i = 0; i < count; ++i) {
      auto response = connections[size_t(i)]->readResponse(10s);
      ok += response.body == R"({"error":"\/c)" + std::to_string(i) + R"("})";
    }
    return ok;
  });
  EXPECT_EQ(served, count);
  // Half of a later wave hangs up mid-request; the rest must still be answered.
  int later = testing::offThread([&] {
    int ok = 0;
    for (int i = 0; i < 50; ++i) {
      RawConnection rude(port);
      rude.send("GET /rude HTTP/1.1\r\nContent-");
      ok += httpExchange(port, "GET /fine\r\n\r\n").status == 200;
    }
    return ok;
  });
  EXPECT_EQ(later, 50);
  EXPECT_TRUE(testing::spinUntil([&] { return testing::openDescriptorCount() <= before; }, 10s))
      << testing::openDescriptorCount() << " descriptors open, " << before << " before";
}

}  // namespace
}  // namespace quillane
