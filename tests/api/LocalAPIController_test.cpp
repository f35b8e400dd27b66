// When the server runs, on which port, and what the controller publishes about it.
#include <gtest/gtest.h>

#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "api/LocalAPIController.h"
#include "api/LocalAPISettings.h"
#include "batch/BatchViewModel.h"
#include "records/JSONFileStore.h"
#include "tests/api/ApiTestSupport.h"
#include "tests/support/RawHTTPClient.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;
using testing::spinUntil;

class ControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.filePath("config"));
    JSONFileStore::setFolderForTesting(dir_.filePath("data"));
    BatchViewModel::Options options;
    options.restoreSession = false;
    model_ = std::make_unique<BatchViewModel>(options);
  }
  void TearDown() override {
    controller_.reset();
    model_.reset();
    JSONFileStore::setFolderForTesting(QString());
  }
  LocalAPIController& make() {
    controller_ = std::make_unique<LocalAPIController>(*model_);
    return *controller_;
  }
  int statusCode(int port) {
    std::string request = testing::buildRequest("GET", "/v1/status", LocalAPISettings::token().toStdString());
    return testing::offThread([&] { return testing::httpExchange(port, request); }).status;
  }

  QTemporaryDir dir_;
  std::unique_ptr<BatchViewModel> model_;
  std::unique_ptr<LocalAPIController> controller_;
};

// A listening socket that holds a port for the length of a test.
class PortBlocker {
 public:
  PortBlocker() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(fd_, 1);
    socklen_t length = sizeof address;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~PortBlocker() { ::close(fd_); }
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

TEST_F(ControllerTest, EnabledStartsOnTheStoredPortAndRestartsOnANewOne) {
  int first = testing::freeLocalPort();
  LocalAPISettings::setEnabled(true);
  LocalAPISettings::setPort(first);
  auto& controller = make();
  QSignalSpy running(&controller, &LocalAPIController::isRunningChanged);
  EXPECT_FALSE(controller.isRunning()) << "running only once the listener is ready";
  ASSERT_TRUE(spinUntil([&] { return controller.isRunning(); }, 5s));
  EXPECT_EQ(controller.boundPort(), first);
  EXPECT_EQ(statusCode(first), 200);

  int second = testing::freeLocalPort();
  LocalAPISettings::setPort(second);
  controller.start();
  controller.start();  // twice in a row still leaves one listener
  ASSERT_TRUE(spinUntil([&] { return controller.isRunning(); }, 5s));
  EXPECT_EQ(controller.boundPort(), second);
  EXPECT_EQ(statusCode(second), 200);
  EXPECT_FALSE(testing::RawConnection(first).connected());
  EXPECT_GE(running.count(), 3);
}

TEST_F(ControllerTest, AFailedBindIsReportedAndTheErrorOutlivesTheStop) {
  PortBlocker blocker;
  LocalAPISettings::setPort(blocker.port());
  auto& controller = make();
  controller.start();
  ASSERT_TRUE(spinUntil([&] { return controller.lastError().has_value(); }, 5s));
  EXPECT_FALSE(controller.isRunning());
  EXPECT_FALSE(controller.lastError()->isEmpty());
  controller.stop();
  EXPECT_TRUE(controller.lastError().has_value());

  // The next ready clears it.
  LocalAPISettings::setPort(testing::freeLocalPort());
  controller.start();
  ASSERT_TRUE(spinUntil([&] { return controller.isRunning(); }, 5s));
  EXPECT_EQ(controller.lastError(), std::nullopt);
  controller.stop();
  EXPECT_FALSE(controller.isRunning());
}

}  // namespace
}  // namespace quillane
