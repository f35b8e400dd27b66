// The real application, driven through its local API: import, settings, a per-image
// quality, export, then a restart that finds the batch restored; and a hot folder that
// compresses at start-up what arrived while the application was closed.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QUrl>
#include <algorithm>
#include <chrono>
#include <thread>

#include "engine/codecs/Writers.h"
#include "tests/support/RawHTTPClient.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;

const std::string token = "qlne_e2eTestTokenAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";

class ApiEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    // QUILLANE_BIN_DIR names the folder of the executable; the test binary is built beside it.
    QString binDir = qEnvironmentVariable("QUILLANE_BIN_DIR", QCoreApplication::applicationDirPath());
    program_ = binDir + "/quillane";
    ASSERT_TRUE(QFileInfo(program_).isExecutable()) << program_.toStdString();
    ASSERT_TRUE(dir_.isValid());
    port_ = testing::freeLocalPort();
    for (const char* folder : {"config/Quillane", "data", "runtime", "out"}) QDir(dir_.path()).mkpath(folder);
    QFile::setPermissions(dir_.filePath("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QFile conf(dir_.filePath("config/Quillane/Quillane.conf"));
    ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
    conf.write(QString("[General]\nlocalAPIEnabled=true\nlocalAPIPort=%1\nlocalAPIToken=%2\n")
                   .arg(port_)
                   .arg(QString::fromStdString(token))
                   .toUtf8());
  }

  void TearDown() override { stop(); }

  void start() {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    env.insert("XDG_CONFIG_HOME", dir_.filePath("config"));
    env.insert("XDG_DATA_HOME", dir_.filePath("data"));
    env.insert("XDG_RUNTIME_DIR", dir_.filePath("runtime"));
    env.insert("XCTestConfigurationFilePath", "api_e2e_test");
    // No session bus: the application runs on its own (and meets no other test's instance).
    env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir_.filePath("no-bus-here"));
    process_ = std::make_unique<QProcess>();
    process_->setProcessEnvironment(env);
    process_->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_->start(program_, {});
    ASSERT_TRUE(process_->waitForStarted(10000));
    // The listener comes up with the application, without any window action.
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (call("GET", "/v1/status").status != 200) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the API never answered";
      ASSERT_EQ(process_->state(), QProcess::Running) << "the application ended early";
      std::this_thread::sleep_for(100ms);
    }
  }

  void stop() {
    if (!process_) return;
    process_->kill();
    process_->waitForFinished(10000);
    process_.reset();
  }

  testing::RawHTTPResponse call(const std::string& method, const std::string& target,
                                const std::string& body = {}) {
    return testing::httpExchange(port_, testing::buildRequest(method, target, token, body), 120s);
  }
  static QJsonDocument json(const testing::RawHTTPResponse& response) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(response.body));
  }

  // Polls the image list until every image is ready (or the time is up).
  QJsonArray waitForReadyImages(int count) {
    for (auto deadline = std::chrono::steady_clock::now() + 90s;; std::this_thread::sleep_for(100ms)) {
      QJsonArray images = json(call("GET", "/v1/images")).array();
      bool ready =
          images.size() == count && std::all_of(images.begin(), images.end(),
                                                [](const QJsonValue& v) { return v["state"] == "ready"; });
      if (ready || std::chrono::steady_clock::now() > deadline) return images;
    }
  }

  QString writePhoto(const QString& name, uint32_t seed) {
    auto image = testing::makeImage(160 - 20 * int(seed), 120, testing::Pattern::photo, seed);
    testing::writeBytes(dir_.filePath(name).toStdString(),
                        codecs::writeJpeg(image, codecs::jpegSettings(0.9), std::nullopt));
    return dir_.filePath(name);
  }

  QTemporaryDir dir_;
  QString program_;
  int port_ = 0;
  std::unique_ptr<QProcess> process_;
};

TEST_F(ApiEndToEnd, ImportTuneExportAndFindTheBatchAfterARestart) {
  start();
  QJsonArray list{writePhoto("first.jpg", 1), writePhoto("second.jpg", 2), writePhoto("third.jpg", 3)};
  auto imported =
      call("POST", "/v1/import", QJsonDocument(QJsonObject{{"paths", list}}).toJson().toStdString());
  QJsonArray ids = json(imported)["imported"].toArray();
  ASSERT_EQ(ids.size(), 3) << imported.body;

  ASSERT_EQ(call("POST", "/v1/settings", R"({"quality":60,"format":"webp"})").status, 200);
  ASSERT_EQ(
      call("POST", "/v1/images/" + ids[1].toString().toStdString() + "/quality", R"({"quality":30})").status,
      200);

  std::string out = dir_.filePath("out").toStdString();
  auto exported = call("POST", "/v1/export", R"({"folder":")" + out + R"(","waitTimeoutSeconds":90})");
  QJsonArray results = json(exported).array();
  ASSERT_EQ(results.size(), 3);
  for (const auto& result : results) {
    QFile file(result.toObject()["destination"].toString());
    ASSERT_TRUE(file.fileName().endsWith(".webp") && file.open(QIODevice::ReadOnly)) << exported.body;
    EXPECT_EQ(file.read(4), QByteArray("RIFF"));
    EXPECT_EQ(file.size(), result.toObject()["compressedSizeBytes"].toInteger());
  }

  QJsonArray before = waitForReadyImages(3);
  stop();
  start();
  // Rows come back from the saved session, with their overrides; the global settings start over.
  QJsonArray after = waitForReadyImages(3);
  ASSERT_EQ(after.size(), 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(after[i].toObject()["name"], before[i].toObject()["name"]);
  EXPECT_EQ(after[1].toObject()["qualityOverride"].toDouble(), 30.0);
  EXPECT_FALSE(after[0].toObject().contains("qualityOverride"));
  auto status = json(call("GET", "/v1/status"));
  EXPECT_TRUE(status["outputFormat"] == "jpeg" && status["quality"] == 75.0 &&
              status["appVersion"] != "unknown");
}

// What arrived in a hot folder while the application was closed is compressed at start-up.
TEST_F(ApiEndToEnd, HotFolderCompressesWhatArrivedWhileClosed) {
  const QString id = "0F8E2C6A-1B7D-4E55-9A3B-6C2D1E0F9A8B";
  QDir(dir_.path()).mkpath("data/Quillane");
  QDir(dir_.path()).mkpath("in");
  QFile list(dir_.filePath("data/Quillane/hotFolders.json"));
  ASSERT_TRUE(list.open(QIODevice::WriteOnly));
  list.write(QString(R"([{"id":"%1","name":"Camera","sourceFolder":"%2","destinationFolder":"%3",)"
                     R"("format":"webp","quality":70,"isEnabled":true}])")
                 .arg(id, QUrl::fromLocalFile(dir_.filePath("in")).toString(),
                      QUrl::fromLocalFile(dir_.filePath("hot")).toString())
                 .toUtf8());
  list.close();
  writePhoto("in/a.jpg", 1);
  writePhoto("in/b.jpg", 2);
  start();
  // The processed memory lists both files once the scan is over (its last step).
  for (auto deadline = std::chrono::steady_clock::now() + 90s;; std::this_thread::sleep_for(100ms)) {
    QFile file(dir_.filePath("data/Quillane/hotFolderProcessed.json"));
    if (file.open(QIODevice::ReadOnly) && QJsonDocument::fromJson(file.readAll())[id].toObject().size() == 2)
      break;
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the scan never finished";
    ASSERT_EQ(process_->state(), QProcess::Running);
  }
  EXPECT_EQ(QDir(dir_.filePath("hot")).entryList(QDir::Files | QDir::Hidden, QDir::Name),
            (QStringList{"a.webp", "b.webp"}));
}

// Quitting abandons running encodes: a large AVIF encode (tens of seconds here) does not keep
// the process alive after the windows close.
TEST_F(ApiEndToEnd, QuitEndsAtOnceWithAnEncodeRunning) {
  start();
  const QString path = dir_.filePath("large.jpg");
  testing::writeBytes(path.toStdString(),
                      codecs::writeJpeg(testing::makeImage(6000, 4000, testing::Pattern::photo, 7),
                                        codecs::jpegSettings(0.9), std::nullopt));
  ASSERT_EQ(call("POST", "/v1/settings", R"({"format":"avif"})").status, 200);
  ASSERT_EQ(call("POST", "/v1/import",
                 QJsonDocument(QJsonObject{{"paths", QJsonArray{path}}}).toJson().toStdString())
                .status,
            200);
  for (auto deadline = std::chrono::steady_clock::now() + 30s;; std::this_thread::sleep_for(50ms)) {
    QJsonArray images = json(call("GET", "/v1/images")).array();
    if (images.size() == 1 && images.at(0)["state"] == "encoding") break;
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the encode never started";
  }
  process_->terminate();  // SIGTERM quits as the Quit command does
  ASSERT_TRUE(process_->waitForFinished(5000)) << "still waiting for the encode";
  EXPECT_EQ(process_->exitStatus(), QProcess::NormalExit);
  process_.reset();
}

}  // namespace
}  // namespace quillane
