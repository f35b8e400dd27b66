// The real application, headless, with a hot folder written to its data folder before
// launch: what arrived while it was closed is compressed at start-up, and after a restart
// only the file that is new is compressed again.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QUrl>

#include <chrono>
#include <thread>

#include "engine/codecs/Writers.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;

class HotFoldersEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    program_ = qEnvironmentVariable("QUILLANE_BIN_DIR", QCoreApplication::applicationDirPath()) + "/quillane";
    ASSERT_TRUE(QFileInfo(program_).isExecutable()) << program_.toStdString();
    for (const char* folder : {"config/Quillane", "data/Quillane", "runtime", "in"}) QDir(dir_.path()).mkpath(folder);
    QFile::setPermissions(dir_.filePath("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QFile list(dir_.filePath("data/Quillane/hotFolders.json"));
    ASSERT_TRUE(list.open(QIODevice::WriteOnly));
    list.write(QString(R"([{"id":"0F8E2C6A-1B7D-4E55-9A3B-6C2D1E0F9A8B","name":"Camera","sourceFolder":"%1",)"
                       R"("destinationFolder":"%2","format":"webp","quality":70,"isEnabled":true}])")
                   .arg(QUrl::fromLocalFile(dir_.filePath("in")).toString(),
                        QUrl::fromLocalFile(dir_.filePath("out")).toString())
                   .toUtf8());
  }
  void TearDown() override { stop(); }

  void start() {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    env.insert("XDG_CONFIG_HOME", dir_.filePath("config"));
    env.insert("XDG_DATA_HOME", dir_.filePath("data"));
    env.insert("XDG_RUNTIME_DIR", dir_.filePath("runtime"));
    env.insert("XCTestConfigurationFilePath", "hot_folders_e2e_test");
    // No session bus: the application runs on its own (and meets no other test's instance).
    env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir_.filePath("no-bus-here"));
    process_ = std::make_unique<QProcess>();
    process_->setProcessEnvironment(env);
    process_->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_->start(program_, {});
    ASSERT_TRUE(process_->waitForStarted(10000));
  }
  void stop() {
    if (!process_) return;
    process_->kill();
    process_->waitForFinished(10000);
    process_.reset();
  }
  void writePhoto(const QString& name, uint32_t seed) {
    const auto image = testing::makeImage(120, 90, testing::Pattern::photo, seed);
    testing::writeBytes(dir_.filePath("in/" + name).toStdString(),
                        codecs::writeJpeg(image, codecs::jpegSettings(0.9), std::nullopt));
  }
  // Polls until the processed memory lists `count` files (the scan's last step).
  bool waitForRemembered(int count) {
    for (auto deadline = std::chrono::steady_clock::now() + 90s; std::chrono::steady_clock::now() < deadline;
         std::this_thread::sleep_for(100ms)) {
      QFile file(dir_.filePath("data/Quillane/hotFolderProcessed.json"));
      if (file.open(QIODevice::ReadOnly)) {
        const QJsonObject folders = QJsonDocument::fromJson(file.readAll()).object();
        if (folders.value("0F8E2C6A-1B7D-4E55-9A3B-6C2D1E0F9A8B").toObject().size() == count) return true;
      }
      if (process_->state() != QProcess::Running) return false;
    }
    return false;
  }
  QFileInfoList outputs() const { return QDir(dir_.filePath("out")).entryInfoList(QDir::Files | QDir::Hidden, QDir::Name); }

  QTemporaryDir dir_;
  QString program_;
  std::unique_ptr<QProcess> process_;
};

TEST_F(HotFoldersEndToEnd, CompressesWhatArrivedWhileClosedAndNothingTwiceAfterARestart) {
  writePhoto("a.jpg", 1);
  writePhoto("b.jpg", 2);
  start();
  ASSERT_TRUE(waitForRemembered(2));
  QFileInfoList first = outputs();
  ASSERT_EQ(first.size(), 2);
  EXPECT_EQ(first[0].fileName(), "a.webp");
  stop();

  writePhoto("c.jpg", 3);
  start();
  ASSERT_TRUE(waitForRemembered(3));
  const QFileInfoList second = outputs();
  ASSERT_EQ(second.size(), 3);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(second[i].fileName(), first[i].fileName());
    EXPECT_EQ(second[i].lastModified(), first[i].lastModified()) << "rewritten: " << first[i].fileName().toStdString();
  }
}

}  // namespace
}  // namespace quillane
