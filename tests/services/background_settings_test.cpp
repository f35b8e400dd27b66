// The background switches against a real settings file and a real autostart folder in a
// temporary home; the autostart entry is checked by the desktop's own validator where it
// is installed.
#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include "services/BackgroundSettings.h"
#include "services/SettingsFile.h"

namespace quillane {
namespace {

class BackgroundSettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    saved_ = qgetenv("XDG_CONFIG_HOME");
    qputenv("XDG_CONFIG_HOME", dir_.path().toUtf8());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.path());
  }
  void TearDown() override { qputenv("XDG_CONFIG_HOME", saved_); }

  QTemporaryDir dir_;
  QByteArray saved_;
};

TEST_F(BackgroundSettingsTest, SwitchesAreOffUntilSetAndStartAtLoginWritesAValidAutostartEntry) {
  EXPECT_FALSE(BackgroundSettings::keepsWatching());
  BackgroundSettings::setKeepsWatching(true);
  EXPECT_TRUE(BackgroundSettings::keepsWatching());
  EXPECT_TRUE(BackgroundSettings::takeFirstBackgroundNotice()) << "given once";
  EXPECT_FALSE(BackgroundSettings::takeFirstBackgroundNotice());
  const QString path = BackgroundSettings::autostartEntryPath();
  EXPECT_EQ(path, dir_.path() + "/autostart/com.quillane.Quillane.desktop");
  EXPECT_FALSE(BackgroundSettings::startsAtLogin());

  // A program path with a space and a per cent sign, which the Exec key must quote and escape.
  ASSERT_TRUE(BackgroundSettings::setStartsAtLogin(true, "/opt/My Apps/100%/quillane"));
  EXPECT_TRUE(BackgroundSettings::startsAtLogin());
  QFile entry(path);
  ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
  EXPECT_TRUE(entry.readAll().contains("\nExec=\"/opt/My Apps/100%%/quillane\" --background\n"));
  const QString validator = QStandardPaths::findExecutable("desktop-file-validate");
  if (!validator.isEmpty()) {
    QProcess validate;
    validate.start(validator, {path});
    ASSERT_TRUE(validate.waitForFinished(30000));
    EXPECT_EQ(validate.exitCode(), 0) << validate.readAll().toStdString();
  }

  ASSERT_TRUE(BackgroundSettings::setStartsAtLogin(false, {}));
  EXPECT_FALSE(QFile::exists(path));
  EXPECT_TRUE(BackgroundSettings::setStartsAtLogin(false, {}));  // nothing to remove
}

}  // namespace
}  // namespace quillane
