// The real application, driven through its local API: import, settings, a per-image
// quality, export, then a restart that finds the batch restored; and a quit that does not
// wait for a running encode.
#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <algorithm>

#include "engine/codecs/Writers.h"
#include "tests/support/ProgramUnderTest.h"
#include "tests/support/RawHTTPClient.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;

const std::string token = "qlne_e2eTestTokenAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";

class ApiEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(QFileInfo(program_).isExecutable()) << program_.toStdString();
    ASSERT_TRUE(dir_.isValid());
    port_ = testing::freeLocalPort();
    testing::enableLocalAPI(dir_.path(), port_, token);
    QDir(dir_.path()).mkpath("out");
  }

  void TearDown() override { stop(); }

  void start() {
    process_ = std::make_unique<QProcess>();
    process_->setProcessEnvironment(testing::sandboxEnvironment(dir_.path()));
    process_->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_->start(program_, {});
    ASSERT_TRUE(process_->waitForStarted(10000));
    // The listener comes up with the application, without any window action.
    ASSERT_TRUE(testing::eventually(
        [&] { return process_->state() != QProcess::Running || call("GET", "/v1/status").status == 200; }));
    ASSERT_EQ(process_->state(), QProcess::Running) << "the application ended early";
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
    QJsonArray images;
    testing::eventually(
        [&] {
          images = json(call("GET", "/v1/images")).array();
          return images.size() == count && std::all_of(images.begin(), images.end(), [](const QJsonValue& v) {
                   return v["state"] == "ready";
                 });
        },
        90s);
    return images;
  }

  QString writePhoto(const QString& name, uint32_t seed) {
    auto image = testing::makeImage(160 - 20 * int(seed), 120, testing::Pattern::photo, seed);
    testing::writeBytes(dir_.filePath(name).toStdString(),
                        codecs::writeJpeg(image, codecs::jpegSettings(0.9), std::nullopt));
    return dir_.filePath(name);
  }

  QTemporaryDir dir_;
  QString program_ = testing::builtProgram("quillane");
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
    const QString written = result.toObject()["destination"].toString();
    EXPECT_TRUE(written.endsWith(".webp")) << exported.body;
    EXPECT_EQ(testing::fileStart(written), "RIFF");
    EXPECT_EQ(QFileInfo(written).size(), result.toObject()["compressedSizeBytes"].toInteger());
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
  ASSERT_TRUE(testing::eventually([&] {
    const QJsonArray images = json(call("GET", "/v1/images")).array();
    return images.size() == 1 && images.at(0)["state"] == "encoding";
  })) << "the encode never started";
  process_->terminate();  // SIGTERM quits as the Quit command does
  ASSERT_TRUE(process_->waitForFinished(5000)) << "still waiting for the encode";
  EXPECT_EQ(process_->exitStatus(), QProcess::NormalExit);
  process_.reset();
}

}  // namespace
}  // namespace quillane
