// The API's settings and token in a private settings folder, and the controller that runs the
// server on the stored port and publishes its state.
#include <QFile>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>

#include <set>
#include <sys/stat.h>

#include "api/LocalAPIController.h"
#include "tests/api/ApiTestSupport.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;
using testing::spinUntil;

class ControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.filePath("config"));
    JSONFileStore::setFolderForTesting(dir_.filePath("data"));
  }
  void TearDown() override {
    controller_.reset();
    model_.reset();
    JSONFileStore::setFolderForTesting(QString());
  }
  LocalAPIController& make() {
    BatchViewModel::Options options;
    options.restoreSession = false;
    model_ = std::make_unique<BatchViewModel>(options);
    controller_ = std::make_unique<LocalAPIController>(*model_);
    return *controller_;
  }
  static int statusCode(int port) {
    std::string request = testing::buildRequest("GET", "/v1/status", LocalAPISettings::token().toStdString());
    return testing::offThread([&] { return testing::httpExchange(port, request); }).status;
  }
  static unsigned fileMode() {
    struct stat info {};
    ::stat(QFile::encodeName(LocalAPISettings::store()->fileName()).constData(), &info);
    return info.st_mode & 0777;
  }

  QTemporaryDir dir_;
  std::unique_ptr<BatchViewModel> model_;
  std::unique_ptr<LocalAPIController> controller_;
};

TEST_F(ControllerTest, TheTokenHasItsFormAndIsKeptInAFileOnlyItsOwnerCanRead) {
  std::set<QString> seen;
  for (int i = 0; i < 200; ++i) {
    auto token = LocalAPISettings::generateToken();
    ASSERT_TRUE(token && QRegularExpression("^qlne_[A-Za-z0-9_-]{43}$").match(*token).hasMatch());
    seen.insert(*token);
  }
  EXPECT_EQ(seen.size(), 200u);

  QString first = LocalAPISettings::token();
  EXPECT_EQ(LocalAPISettings::token(), first);
  EXPECT_TRUE(LocalAPISettings::store()->fileName().endsWith(QStringLiteral("config/Quillane/Quillane.conf")));
  EXPECT_EQ(fileMode(), 0600u);
  LocalAPISettings::setPort(8080);
  EXPECT_EQ(fileMode(), 0600u) << "later writes keep the mode";
  // Missing or empty is replaced; any other value is kept.
  LocalAPISettings::store()->remove(LocalAPISettings::tokenKey);
  QString second = LocalAPISettings::token();
  EXPECT_NE(second, first);
  LocalAPISettings::setToken(QString());
  EXPECT_NE(LocalAPISettings::token(), second);
  EXPECT_FALSE(LocalAPISettings::token().isEmpty());
  LocalAPISettings::setToken(QStringLiteral("not-in-the-usual-form"));
  EXPECT_EQ(LocalAPISettings::token(), QStringLiteral("not-in-the-usual-form"));
}

TEST_F(ControllerTest, ReportsAFailedBindAndRunsOnTheStoredPortOnceReady) {
  QTcpServer blocker;
  ASSERT_TRUE(blocker.listen(QHostAddress::LocalHost, 0));
  LocalAPISettings::setEnabled(true);
  LocalAPISettings::setPort(blocker.serverPort());
  auto& controller = make();  // enabled: it starts by itself
  ASSERT_TRUE(spinUntil([&] { return controller.lastError().has_value(); }, 5s));
  EXPECT_FALSE(controller.isRunning());
  controller.stop();
  EXPECT_TRUE(controller.lastError().has_value()) << "the error outlives the stop";

  int first = testing::freeLocalPort();
  LocalAPISettings::setPort(first);
  QSignalSpy running(&controller, &LocalAPIController::isRunningChanged);
  controller.start();
  EXPECT_FALSE(controller.isRunning()) << "running only once the listener is ready";
  ASSERT_TRUE(spinUntil([&] { return controller.isRunning(); }, 5s));
  EXPECT_EQ(controller.lastError(), std::nullopt) << "cleared by the next ready";
  EXPECT_EQ(statusCode(first), 200);

  int second = testing::freeLocalPort();
  LocalAPISettings::setPort(second);
  controller.start();
  controller.start();  // twice in a row still leaves one listener
  ASSERT_TRUE(spinUntil([&] { return controller.isRunning() && controller.boundPort() == second; }, 5s));
  EXPECT_EQ(statusCode(second), 200);
  EXPECT_FALSE(testing::RawConnection(first).connected());
  EXPECT_GE(running.count(), 3);
}

}  // namespace
}  // namespace quillane
