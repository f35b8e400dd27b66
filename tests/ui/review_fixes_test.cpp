// Faults found by comparing the window and the services with what they must do, each pinned
// by the smallest test that failed before the fix.
#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QVariant>

#include "services/LanguageManager.h"
#include "services/UpdateChecker.h"
#include "services/UserDefaults.h"
#include "tests/ui/ui_test_support.h"

namespace quillane::uitest {
namespace {

// Lets the language manager write (the ui sandbox forbids it) and puts "AppleLanguages"
// back as it was afterwards.
class LanguageLaunchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = UserDefaults::store()->value(kKey);
    testHost_ = qgetenv("XCTestConfigurationFilePath");
    qunsetenv("XCTestConfigurationFilePath");
  }
  void TearDown() override {
    auto settings = UserDefaults::store();
    if (saved_.isValid())
      settings->setValue(kKey, saved_);
    else
      settings->remove(kKey);
    UserDefaults::save(*settings);
    qputenv("XCTestConfigurationFilePath", testHost_);
  }
  static void store(const QStringList& list) {
    auto settings = UserDefaults::store();
    settings->setValue(kKey, list);
    UserDefaults::save(*settings);
  }
  static QStringList stored() { return UserDefaults::store()->value(kKey).toStringList(); }
  static LanguageManager::Platform system(QStringList languages) { return {std::move(languages), {}, {}}; }

  static constexpr const char* kKey = "AppleLanguages";
  QVariant saved_;
  QByteArray testHost_;
};

// The first preferred language is the stored list's first entry while the list has one: a
// stored "es-MX" is no override, but Spanish is supported, whatever the system says.
TEST_F(LanguageLaunchTest, SupportIsJudgedOnTheStoredListBeforeTheSystem) {
  store({"es-MX"});
  LanguageManager mexican(system({"nl-NL"}));
  EXPECT_EQ(mexican.selectedLanguage(), std::nullopt);
  EXPECT_EQ(stored(), QStringList{"es-MX"});

  store({"nl"});
  LanguageManager dutch(system({"fr-FR"}));
  EXPECT_EQ(dutch.selectedLanguage(), AppLanguage::enUS);
  EXPECT_EQ(stored(), QStringList{"en-US"});
}


// A version server's answer counts whatever its status: Qt reports 400 and 418 with an error
// of their own (not one of its "content" or "server" error ranges), and those answers were
// taken for transport failures.
TEST(UpdateCheckerAnswers, EveryErrorStatusWithAValidBodyIsAnAnswer) {
  QTcpServer server;
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
  QByteArray response;
  QObject::connect(&server, &QTcpServer::newConnection, [&] {
    while (QTcpSocket* socket = server.nextPendingConnection()) {
      QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
      QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket, &response] {
        socket->setProperty("head", socket->property("head").toByteArray() + socket->readAll());
        if (!socket->property("head").toByteArray().contains("\r\n\r\n")) return;
        socket->write(response);
        socket->disconnectFromHost();
      });
    }
  });
  const QByteArray body = R"({"version":"9.0","url":"https://example.org/"})";
  for (int status : {400, 403, 418, 503}) {
    response = "HTTP/1.1 " + QByteArray::number(status) + " Status\r\nContent-Length: " +
               QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    UpdateChecker checker(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort())), "1.0");
    checker.checkNow();
    QDeadlineTimer deadline(10000);
    while (checker.state().kind == UpdateChecker::State::Kind::checking && !deadline.hasExpired())
      QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    EXPECT_EQ(checker.state(), UpdateChecker::State::updateAvailable("9.0", QUrl("https://example.org/")))
        << status << " " << checker.state().message.toStdString();
  }
}

}  // namespace
}  // namespace quillane::uitest
