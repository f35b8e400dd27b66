#pragma once
// A real BatchViewModel behind a real server on 127.0.0.1, with a fast encoder injected at
// the engine seam, private settings and state folders, and small JPEG files made in code.

#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTemporaryDir>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "api/LocalAPIRouter.h"
#include "api/LocalAPIServer.h"
#include "api/LocalAPISettings.h"
#include "batch/BatchViewModel.h"
#include "engine/codecs/Writers.h"
#include "records/JSONFileStore.h"
#include "tests/api/ApiTestSupport.h"
#include "tests/support/RawHTTPClient.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {

class RouterFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.filePath("config"));
    JSONFileStore::setFolderForTesting(dir_.filePath("data"));
    token_ = LocalAPISettings::token().toStdString();

    BatchViewModel::Options options;
    // Sizes that tell what was asked for: ten bytes per quality point, plus the format.
    options.encoder = [this](std::span<const uint8_t>, ImageFormat format, double quality) {
      if (int delay = encoderDelayMs_.load()) std::this_thread::sleep_for(std::chrono::milliseconds(delay));
      return std::vector<uint8_t>(size_t(quality * 10 * encoderScale_.load()) + size_t(format), 0x5A);
    };
    options.debounce = std::chrono::milliseconds(20);
    options.restoreSession = false;
    model_ = std::make_unique<BatchViewModel>(options);
    router_ = std::make_unique<LocalAPIRouter>(*model_);
    server_ = std::make_unique<LocalAPIServer>(30.0, router_->serverRouter());
    server_->setOnStateChange(states_.handler());
    server_->start(0);
    auto ready = states_.waitFor(0);
    ASSERT_TRUE(ready && ready->kind == LocalAPIListenerState::Kind::ready);
    port_ = ready->port;
  }

  void TearDown() override {
    server_.reset();
    router_.reset();
    model_.reset();
    JSONFileStore::setFolderForTesting(QString());
  }

  // One request with the fixture's token (or `token`), answered while the GUI thread turns.
  RawHTTPResponse call(const std::string& method, const std::string& target, const std::string& body = {},
                       std::optional<std::string> token = std::nullopt) {
    std::string request = buildRequest(method, target, token ? token : std::optional(token_), body);
    return offThread([&] { return httpExchange(port_, request); });
  }
  RawHTTPResponse raw(const std::string& bytes) {
    return offThread([&] { return httpExchange(port_, bytes); });
  }

  static QJsonDocument json(const RawHTTPResponse& response) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(response.body));
  }
  static std::string error(const std::string& message) {
    return "{\"error\":\"" + message + "\"}";
  }

  // A small JPEG made in code; returns its path.
  std::string writeJPEG(const std::string& name, int width = 48, int height = 32, uint32_t seed = 1) {
    auto bytes = codecs::writeJpeg(makeImage(width, height, Pattern::photo, seed), codecs::jpegSettings(0.8),
                                   std::nullopt);
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
    QJsonObject body{{"paths", array}};
    auto response = call("POST", "/v1/import", QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString());
    std::vector<std::string> ids;
    for (const auto& id : json(response)["imported"].toArray()) ids.push_back(id.toString().toStdString());
    return ids;
  }

  bool waitUntilSettled() {
    return spinUntil([&] {
      if (model_->isEncoding() || model_->hasPendingRecompute()) return false;
      for (const auto& image : model_->images()) {
        if (image->encodeState().isEncoding()) return false;
      }
      return true;
    });
  }

  QTemporaryDir dir_;
  std::string token_;
  std::atomic<int> encoderDelayMs_{0};
  std::atomic<int> encoderScale_{1};
  std::unique_ptr<BatchViewModel> model_;
  std::unique_ptr<LocalAPIRouter> router_;
  StateLog states_;
  std::unique_ptr<LocalAPIServer> server_;
  int port_ = 0;
};

}  // namespace quillane::testing
