// UpdateChecker against a real HTTP server on 127.0.0.1 (a QTcpServer that answers one
// canned response per connection), and the version comparison table.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QNetworkProxy>
#include <QTcpServer>
#include <QTcpSocket>

#include "services/Strings.h"
#include "services/UpdateChecker.h"

namespace quillane {
namespace {

using Kind = UpdateChecker::State::Kind;

// Serves one fixed answer to every request and keeps the last request's head.
class VersionServer {
 public:
  VersionServer() {
    server_.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server_, &QTcpServer::newConnection, [this] {
      while (QTcpSocket* socket = server_.nextPendingConnection()) serve(socket);
    });
  }

  void respond(int status, const QByteArray& body, const QByteArray& type = "application/json") {
    response_ = "HTTP/1.1 " + QByteArray::number(status) + " Status\r\nContent-Type: " + type +
                "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" +
                body;
  }
  QUrl baseUrl() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(server_.serverPort())); }
  const QByteArray& lastRequest() const { return lastRequest_; }

 private:
  void serve(QTcpSocket* socket) {
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
      QByteArray head = socket->property("head").toByteArray() + socket->readAll();
      socket->setProperty("head", head);
      if (!head.contains("\r\n\r\n")) return;
      lastRequest_ = head;
      socket->write(response_);
      socket->disconnectFromHost();
    });
  }

  QTcpServer server_;
  QByteArray response_;
  QByteArray lastRequest_;
};

// Starts a check, which is `checking` at once, and waits (at most 10 s) for its outcome.
UpdateChecker::State settle(UpdateChecker& checker) {
  checker.checkNow();
  EXPECT_EQ(checker.state().kind, Kind::checking);
  QDeadlineTimer deadline(10000);
  while (checker.state().kind == Kind::checking && !deadline.hasExpired())
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  return checker.state();
}

class UpdateCheckerTest : public ::testing::Test {
 protected:
  void SetUp() override { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); }

  // Runs one check at version `current` and waits for it to settle.
  UpdateChecker::State check(const QString& current) {
    UpdateChecker checker(server_.baseUrl(), current);
    return settle(checker);
  }

  VersionServer server_;
};

TEST_F(UpdateCheckerTest, NewerVersionOffersItsLink) {
  server_.respond(200, R"({"version":"1.4.2","url":"https://example.org/download"})");
  UpdateChecker::State state = check("1.4.1");
  EXPECT_EQ(state, UpdateChecker::State::updateAvailable("1.4.2", QUrl("https://example.org/download")));
  EXPECT_TRUE(server_.lastRequest().startsWith("GET /version.json HTTP/1.1\r\n"));
  EXPECT_TRUE(server_.lastRequest().toLower().contains("cache-control: no-cache"));
}

TEST_F(UpdateCheckerTest, SameOrOlderVersionIsUpToDate) {
  server_.respond(200, R"({"version":"1.4","url":"https://example.org/"})");
  EXPECT_EQ(check("1.4.0").kind, Kind::upToDate);
  EXPECT_EQ(check("2.0").kind, Kind::upToDate);
  // A version with no numeric piece is the empty list: never newer than one above 0.
  server_.respond(200, R"({"version":"beta","url":"https://example.org/"})");
  EXPECT_EQ(check("0.1").kind, Kind::upToDate);
}

TEST_F(UpdateCheckerTest, StatusCodeIsIgnoredOnlyTheBodyCounts) {
  server_.respond(500, R"({"version":"9.0","url":"https://example.org/"})");
  EXPECT_EQ(check("1.0").kind, Kind::updateAvailable);
  server_.respond(404, "<html>Not found</html>", "text/html");
  EXPECT_EQ(check("1.0"), UpdateChecker::State::failed(Strings::text("settings.updates.unreadableResponse")));
}

TEST_F(UpdateCheckerTest, UndecodableDocumentsFail) {
  const UpdateChecker::State unreadable =
      UpdateChecker::State::failed(Strings::text("settings.updates.unreadableResponse"));
  for (const char* body : {
           R"({"version":"2.0","url":"https://example.org/")",  // truncated
           R"(["2.0","https://example.org/"])",                 // not an object
           R"({"version":"2.0"})",                              // no url
           R"({"url":"https://example.org/"})",                 // no version
           R"({"version":2.0,"url":"https://example.org/"})",   // version not a string
           R"({"version":"2.0","url":""})",                     // empty url
           "",
       }) {
    server_.respond(200, body);
    EXPECT_EQ(check("1.0"), unreadable) << body;
  }
}

TEST_F(UpdateCheckerTest, OnlyHttpsLinksAreOffered) {
  const UpdateChecker::State insecure =
      UpdateChecker::State::failed(Strings::text("settings.updates.invalidRemoteFile"));
  for (const char* url : {"http://example.org/", "ftp://example.org/", "example.org/download"}) {
    server_.respond(200, QByteArray(R"({"version":"9.0","url":")") + url + "\"}");
    EXPECT_EQ(check("1.0"), insecure) << url;
  }
  server_.respond(200, R"({"version":"9.0","url":"HTTPS://example.org/"})");
  EXPECT_EQ(check("1.0").kind, Kind::updateAvailable);
}

TEST_F(UpdateCheckerTest, UnreachableServerFailsWithTheTransportError) {
  QTcpServer closed;
  ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
  const quint16 port = closed.serverPort();
  closed.close();

  UpdateChecker checker(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)), "1.0");
  EXPECT_EQ(settle(checker).kind, Kind::failed);
  EXPECT_FALSE(checker.state().message.isEmpty());
  checker.checkNow();  // from failed, straight back to checking
  EXPECT_EQ(checker.state().kind, Kind::checking);
}

TEST(UpdateCheckerSetup, ProductionCheckerAsksOverHttpsForVersionJson) {
  UpdateChecker checker;
  EXPECT_EQ(checker.versionCheckUrl().scheme(), QStringLiteral("https"));
  EXPECT_FALSE(checker.versionCheckUrl().host().isEmpty());
  EXPECT_EQ(checker.versionCheckUrl().path(), QStringLiteral("/version.json"));
  EXPECT_FALSE(UpdateChecker::currentAppVersion().isEmpty());
}

TEST(UpdateCheckerIsNewer, ComparesNumericPiecesPaddedWithZeros) {
  struct Case {
    const char* a;
    const char* b;
    bool newer;
  };
  const Case cases[] = {
      {"1.10", "1.9", true},
      {"1.9", "1.10", false},
      {"1.2", "1.2.0", false},
      {"1.2.0", "1.2", false},
      {"2", "1.9.9", true},
      {"1..2", "1.1", true},
      {"1.beta.3", "1.2", true},
      {"1.2-rc1", "1.1", false},
      {"", "0", false},
      {"beta", "0.1", false},
      {"+2", "1", true},
      {"0", "-1", true},
      {" 1", "0", false},
      {"1.٣", "1", false},
      {"99999999999999999999.1", "1.2", false},  // overflow dropped
  };
  for (const Case& c : cases)
    EXPECT_EQ(UpdateChecker::isNewer(QString::fromUtf8(c.a), QString::fromUtf8(c.b)), c.newer)
        << c.a << " vs " << c.b;
}

}  // namespace
}  // namespace quillane
