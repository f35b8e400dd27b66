// The API's settings and token in a private settings folder, and the controller that runs the
// server on the stored port and publishes its state.
#include "api/LocalAPIController.h"

#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTcpServer>

#include "services/UpdateChecker.h"
#include "tests/api/ApiTestSupport.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;

class ControllerTest : public testing::ApiSandbox {
 protected:
  LocalAPIController& make() {
    BatchViewModel::Options options;
    options.restoreSession = false;
    model_ = std::make_unique<BatchViewModel>(options);
    controller_ = std::make_unique<LocalAPIController>(*model_);
    return *controller_;
  }
  static unsigned fileMode() {
    struct stat info {};
    ::stat(QFile::encodeName(LocalAPISettings::store()->fileName()).constData(), &info);
    return info.st_mode & 0777;
  }

  std::unique_ptr<BatchViewModel> model_;
  std::unique_ptr<LocalAPIController> controller_;
};

TEST_F(ControllerTest, TheTokenHasItsFormAndIsKeptInAFileOnlyItsOwnerCanRead) {
  QString first = LocalAPISettings::token();
  EXPECT_TRUE(QRegularExpression("^qlne_[A-Za-z0-9_-]{43}$").match(first).hasMatch()) << first.toStdString();
  EXPECT_EQ(LocalAPISettings::token(), first);
  EXPECT_EQ(fileMode(), 0600u);
  LocalAPISettings::setPort(8080);
  EXPECT_EQ(fileMode(), 0600u) << "later writes keep the mode";
  // Empty is replaced by a fresh token.
  LocalAPISettings::setToken(QString());
  QString second = LocalAPISettings::token();
  EXPECT_TRUE(second != first && !second.isEmpty());
}

// Values written by hand: a switch is on only for a true value, and a token is one string.
TEST_F(ControllerTest, HandWrittenSettingsAreReadStrictly) {
  const auto write = [&](const QByteArray& lines) {
    QFile file(LocalAPISettings::store()->fileName());
    QDir().mkpath(QFileInfo(file).path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("[General]\n" + lines);
  };
  const std::vector<const char*> offValues{"no", "off", "0", "false", "nein", ""},
      onValues{"true", "yes", "On", "1"};
  for (bool on : {false, true})
    for (const char* value : on ? onValues : offValues) {
      write(QByteArray("localAPIEnabled=") + value + "\nupdateCheckEnabled=" + value + "\n");
      EXPECT_EQ(LocalAPISettings::isEnabled(), on) << value;
      EXPECT_EQ(UpdateChecker::isCheckAtLaunchEnabled(), on) << value;
    }
  write("localAPIToken=abc,def\n");
  EXPECT_EQ(LocalAPISettings::token(), QStringLiteral("abc,def"));
}

TEST_F(ControllerTest, ReportsAFailedBindAndRestartsOnANewPort) {
  QTcpServer blocker;
  ASSERT_TRUE(blocker.listen(QHostAddress::LocalHost, 0));
  LocalAPISettings::setEnabled(true);
  LocalAPISettings::setPort(blocker.serverPort());
  auto& controller = make();  // enabled: it starts by itself
  ASSERT_TRUE(QTest::qWaitFor([&] { return controller.lastError().has_value(); }, 5000));
  EXPECT_FALSE(controller.isRunning());

  int first = testing::freeLocalPort();
  LocalAPISettings::setPort(first);
  controller.start();
  EXPECT_FALSE(controller.isRunning()) << "running only once the listener is ready";
  ASSERT_TRUE(QTest::qWaitFor([&] { return controller.isRunning(); }, 5000));
  EXPECT_EQ(controller.lastError(), std::nullopt) << "cleared by the next ready";
  EXPECT_EQ(statusCode(first), 200);

  int second = testing::freeLocalPort();
  LocalAPISettings::setPort(second);
  controller.start();
  ASSERT_TRUE(
      QTest::qWaitFor([&] { return controller.isRunning() && controller.boundPort() == second; }, 5000));
  EXPECT_EQ(statusCode(second), 200);
  EXPECT_FALSE(testing::RawConnection(first).connected());
}

// Enabled by hand in the settings file, with no token yet: a client that reads the token from
// the file as soon as the API runs is let in, without the settings pane ever opening. Any web
// page can make the browser open connections to 127.0.0.1: without the token, a request is
// refused as soon as its head is read, and its body is never waited for.
TEST_F(ControllerTest, TheTokenExistsAsSoonAsTheAPIRunsAndRequestsWithoutItAreRefusedBeforeTheirBody) {
  LocalAPISettings::setEnabled(true);
  LocalAPISettings::setPort(testing::freeLocalPort());
  auto& controller = make();
  ASSERT_TRUE(QTest::qWaitFor([&] { return controller.isRunning(); }, 5000));
  const std::string token =
      LocalAPISettings::store()->value(LocalAPISettings::tokenKey).toString().toStdString();
  ASSERT_FALSE(token.empty());
  const int port = controller.boundPort();
  EXPECT_EQ(statusCode(port, token), 200);
  // No token, a wrong one, and the right one, each with a body that never comes.
  const auto answers = testing::offThread([&] {
    std::vector<testing::RawHTTPResponse> found;
    for (const std::string authorization : {"", "Authorization: Bearer qlne_wrong\r\n"}) {
      testing::RawConnection connection(port);
      connection.send("POST /v1/import HTTP/1.1\r\n" + authorization + "Content-Length: 8388608\r\n\r\nx");
      found.push_back(connection.readResponse(10s));
    }
    testing::RawConnection allowed(port);
    allowed.send("POST /v1/import HTTP/1.1\r\nAuthorization: Bearer " + token +
                 "\r\nContent-Length: 9\r\n\r\nx");
    found.emplace_back().raw = allowed.readSome(100ms);
    return found;
  });
  for (size_t i : {0, 1})
    EXPECT_TRUE(answers[i].status == 401 && answers[i].closedByServer) << answers[i].raw;
  EXPECT_EQ(answers[2].raw, "") << "with the token, the body is awaited";
  EXPECT_EQ(statusCode(port), 200);
}

}  // namespace
}  // namespace quillane
