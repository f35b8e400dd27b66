#pragma once
// Blocking clients run off the GUI thread while its loop turns (the router needs it), a log of listener
// states, a settings sandbox, a real BatchViewModel behind a real server with a fast fake encoder, and a
// volume that stops answering (StalledVolume.h).

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <atomic>
#include <future>
#include <mutex>
#include <semaphore>

#include "api/LocalAPIRouter.h"
#include "api/LocalAPIServer.h"
#include "api/LocalAPISettings.h"
#include "batch/BatchViewModel.h"
#include "engine/codecs/Writers.h"
#include "records/JSONFileStore.h"
#include "tests/support/RawHTTPClient.h"
#include "tests/support/StalledVolume.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {

// Runs `work` on a thread of its own and turns the event loop until it returns.
template <class Work>
auto offThread(Work work) {
  auto future = std::async(std::launch::async, std::move(work));
  EXPECT_TRUE(QTest::qWaitFor(
      [&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, 120000));
  return future.get();
}

// Collects the listener states a server reports (on its own thread).
class StateLog {
 public:
  LocalAPIServer::StateHandler handler() {
    return [this](const LocalAPIListenerState& state) {
      std::lock_guard lock(mutex_);
      states_.push_back(state);
    };
  }
  // Waits for the `index`-th state (0-based); a failed one with port 0 if none came.
  LocalAPIListenerState waitFor(size_t index) {
    LocalAPIListenerState found{LocalAPIListenerState::Kind::failed, "no state reported", 0};
    const auto arrived = [&] {
      std::lock_guard lock(mutex_);
      if (index < states_.size()) found = states_[index];
      return index < states_.size();
    };
    (void)QTest::qWaitFor(arrived, 10000);
    return found;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    states_.clear();
  }

 private:
  std::mutex mutex_;
  std::vector<LocalAPIListenerState> states_;
};

// Private settings and state folders in a temporary folder.
class ApiSandbox : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir_.filePath("config")));
    JSONFileStore::setFolderForTesting(dir_.filePath("data"));
  }
  // After the fixtures' members, which may still save state as they go.
  ~ApiSandbox() override {
    JSONFileStore::setFolderForTesting(QString());
    qputenv("XDG_CONFIG_HOME", savedConfig_);
  }
  // GET /v1/status on `port` with `token`.
  static int statusCode(int port, const std::string& token) {
    return offThread([&] { return httpExchange(port, buildRequest("GET", "/v1/status", token)); }).status;
  }

  QTemporaryDir dir_;
  const QByteArray savedConfig_ = qgetenv("XDG_CONFIG_HOME");
};

// A real BatchViewModel behind a real server on 127.0.0.1 and an encoder whose sizes tell what was asked: ten
// bytes per quality point plus the format's number, made once the gate is open; at quality 13 it fails.
class RouterFixture : public ApiSandbox {
 protected:
  void SetUp() override {
    ApiSandbox::SetUp();
    token_ = LocalAPISettings::token().toStdString();
    BatchViewModel::Options options;
    options.encoder = [this](std::span<const uint8_t>, ImageFormat format, double quality) {
      if (gate_.try_acquire_for(std::chrono::seconds(10))) gate_.release();
      if (quality == 13) throw std::runtime_error("unlucky");
      return std::vector<uint8_t>(size_t(quality * 10) + size_t(format), 0x5A);
    };
    options.debounce = std::chrono::milliseconds(20);
    options.restoreSession = false;
    model_ = std::make_unique<BatchViewModel>(options);
    router_ = std::make_unique<LocalAPIRouter>(*model_);
    server_ = std::make_unique<LocalAPIServer>(30.0, [this, route = router_->serverRouter()](auto request) {
      QFuture<LocalAPIResponse> answer = route(std::move(request));  // queues the router's handling
      // From this thread, so queued behind that handling: the gate opens once the router has taken it.
      if (openGateOnRequest_.exchange(false)) QMetaObject::invokeMethod(qApp, [this] { gate_.release(); });
      return answer;
    });
    server_->setOnStateChange(states_.handler());
    server_->start(0);
    auto ready = states_.waitFor(0);
    ASSERT_EQ(ready.kind, LocalAPIListenerState::Kind::ready);
    port_ = ready.port;
  }

  // One request with the fixture's token (or `token`), answered while the GUI thread turns.
  RawHTTPResponse call(const std::string& method, const std::string& target, const std::string& body = {},
                       const std::optional<std::string>& token = std::nullopt) {
    std::string request = buildRequest(method, target, token ? token : std::optional(token_), body);
    return offThread([&] { return httpExchange(port_, request); });
  }
  RawHTTPResponse raw(const std::string& bytes) {
    return offThread([&] { return httpExchange(port_, bytes); });
  }
  static QJsonDocument json(const RawHTTPResponse& response) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(response.body));
  }
  static std::string error(const std::string& message) { return "{\"error\":\"" + message + "\"}"; }

  // A small JPEG made in code; returns its path.
  std::string writeJPEG(const std::string& name, uint32_t seed = 1) {
    auto bytes =
        codecs::writeJpeg(makeImage(40, 30, Pattern::photo, seed), codecs::jpegSettings(0.8), std::nullopt);
    std::string path = dir_.filePath(QString::fromStdString(name)).toStdString();
    writeBytes(path, bytes);
    return path;
  }
  std::string folder(const std::string& name) {
    QDir(dir_.path()).mkpath(QString::fromStdString(name));
    return dir_.filePath(QString::fromStdString(name)).toStdString();
  }

  // Imports through the API and returns the new ids.
  std::vector<std::string> importPaths(const std::vector<std::string>& paths) {
    QJsonArray array;
    for (const auto& path : paths) array.append(QString::fromStdString(path));
    auto body = QJsonDocument(QJsonObject{{"paths", array}}).toJson(QJsonDocument::Compact).toStdString();
    std::vector<std::string> ids;
    for (const auto& id : json(call("POST", "/v1/import", body))["imported"].toArray())
      ids.push_back(id.toString().toStdString());
    return ids;
  }

  bool waitUntilSettled() {
    const auto settled = [&] {
      if (model_->isEncoding() || model_->hasPendingRecompute()) return false;
      for (const auto& image : model_->images())
        if (image->encodeState().isEncoding()) return false;
      return true;
    };
    return QTest::qWaitFor(settled, 30000);
  }

  std::string token_;
  // Holds the encodes (10 s at most) while a test has it; given back by the test or openGateOnRequest_.
  std::binary_semaphore gate_{1};
  std::atomic<bool> openGateOnRequest_{false};
  // Destroyed from the server down to the model.
  std::unique_ptr<BatchViewModel> model_;
  std::unique_ptr<LocalAPIRouter> router_;
  StateLog states_;
  std::unique_ptr<LocalAPIServer> server_;
  int port_ = 0;
};

}  // namespace quillane::testing
