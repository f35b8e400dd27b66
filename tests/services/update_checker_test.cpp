// UpdateChecker against a real HTTP server on 127.0.0.1 (a QTcpServer that answers one
// canned response per connection), and the version comparison table.

#include <gtest/gtest.h>

#include <QNetworkProxy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include "services/Strings.h"
#include "services/UpdateChecker.h"

namespace quillane {
namespace {

using Kind = UpdateChecker::State::Kind;

// The test's server gives one fixed answer to every request and keeps the last request's head.
class UpdateCheckerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
    ASSERT_TRUE(server_.listen(QHostAddress::LocalHost, 0));
    QObject::connect(&server_, &QTcpServer::newConnection, [this] {
      while (QTcpSocket* socket = server_.nextPendingConnection()) {
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
          QByteArray head = socket->property("head").toByteArray() + socket->readAll();
          socket->setProperty("head", head);
          if (!head.contains("\r\n\r\n")) return;
          lastRequest_ = head;
          if (dripping_) {  // the head at once, then a byte of the body every 100 ms
            socket->write(response_.left(response_.indexOf("\r\n\r\n") + 4));
            auto* drip = new QTimer(socket);
            QObject::connect(drip, &QTimer::timeout, socket, [socket] { socket->write(" "); });
            return drip->start(100);
          }
          socket->write(response_);
          socket->disconnectFromHost();
        });
      }
    });
  }
  void respond(int status, const QByteArray& body) {
    response_ = "HTTP/1.1 " + QByteArray::number(status) + " Status\r\nContent-Type: application/json" +
                "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" +
                body;
  }
  QUrl baseUrl() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(server_.serverPort())); }

  // One check at version `current` against `base` (the test's server by default), once settled.
  UpdateChecker::State check(const QString& current, const std::optional<QUrl>& base = std::nullopt,
                             int deadlineMs = UpdateChecker::kDeadlineMs) {
    UpdateChecker checker(base.value_or(baseUrl()), current, deadlineMs);
    checker.checkNow();
    EXPECT_EQ(checker.state().kind, Kind::checking);
    EXPECT_TRUE(QTest::qWaitFor([&] { return checker.state().kind != Kind::checking; }, 10000));
    return checker.state();
  }

  QTcpServer server_;
  QByteArray response_, lastRequest_;
  bool dripping_ = false;
};

TEST_F(UpdateCheckerTest, TheDocumentAloneDecidesWhatIsOfferedAndTransportErrorsAreNamed) {
  using State = UpdateChecker::State;
  const State unreadable = State::failed(Strings::text("settings.updates.unreadableResponse"));
  const State insecure = State::failed(Strings::text("settings.updates.invalidRemoteFile"));
  const State nine = State::updateAvailable("9.0", QUrl("https://example.org/"));
  const std::tuple<int, QByteArray, QString, State> cases[] = {
      {200, R"({"version":"1.4.2","url":"https://example.org/download"})", "1.4.1",
       State::updateAvailable("1.4.2", QUrl("https://example.org/download"))},
      {200, R"({"version":"1.4","url":"https://example.org/"})", "1.4.0", State::upToDate()},
      // The status is ignored: Qt reports 400 with an error outside its content range.
      {500, R"({"version":"9.0","url":"https://example.org/"})", "1.0", nine},
      {400, R"({"version":"9.0","url":"https://example.org/"})", "1.0", nine},
      {404, "<html>Not found</html>", "1.0", unreadable},
      {200, R"({"version":2.0,"url":"https://example.org/"})", "1.0", unreadable},
      {200, "", "1.0", unreadable},
      // A document of 1 MB is no version document, whatever it ends with.
      {200, QByteArray(1 << 20, ' ') + R"({"version":"9.0","url":"https://example.org/"})", "1.0",
       unreadable},
      {200, R"({"version":"9.0","url":"http://example.org/"})", "1.0", insecure},
      {200, R"({"version":"9.0","url":"HTTPS://example.org/"})", "1.0",
       State::updateAvailable("9.0", QUrl("HTTPS://example.org/"))},
  };
  for (const auto& [status, body, current, expected] : cases) {
    respond(status, body);
    EXPECT_EQ(check(current), expected)
        << status << " " << body.toStdString() << " at " << current.toStdString();
  }
  EXPECT_TRUE(lastRequest_.startsWith("GET /version.json HTTP/1.1\r\n"));
  EXPECT_TRUE(lastRequest_.toLower().contains("cache-control: no-cache"));

  // The desktop's proxy carries the request: here the test's server, for a host that does not exist.
  respond(200, R"({"version":"9.0","url":"https://example.org/"})");
  qputenv("http_proxy", baseUrl().toString().toUtf8());
  EXPECT_EQ(check("1.0", QUrl("http://updates.invalid")), nine);
  qunsetenv("http_proxy");
  EXPECT_TRUE(lastRequest_.startsWith("GET http://updates.invalid/version.json HTTP/1.1\r\n"));

  // No server: a sentence of the string tables, never Qt's English error.
  QTcpServer closed;
  ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
  const QUrl nobody(QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort()));
  closed.close();
  EXPECT_EQ(check("1.0", nobody), State::failed(Strings::text("settings.updates.errorConnection")));

  // A byte every 100 ms is never the silence the transfer time-out waits for: the deadline ends it.
  dripping_ = true;
  respond(200, QByteArray(1000, ' '));
  EXPECT_EQ(check("1.0", std::nullopt, 500), State::failed(Strings::text("settings.updates.timedOut")));
}

TEST(UpdateCheckerIsNewer, ComparesNumericPiecesPaddedWithZeros) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"1.10", "1.9", true},     {"1.2.0", "1.2", false},
      {"1.2.1", "1.2", true},    {"1.2", "1.2.1", false},
      {"1..2", "1.1", true},     {"1.beta.3", "1.2", true},
      {"1.2-rc1", "1.1", false}, {"+2", "1", true},
      {" 1", "0", false},        {"99999999999999999999.1", "1.2", false},  // overflow dropped
  };
  for (const auto& [a, b, newer] : cases) EXPECT_EQ(UpdateChecker::isNewer(a, b), newer) << a << " vs " << b;
}

}  // namespace
}  // namespace quillane
