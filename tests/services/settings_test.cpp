// The user's settings against a real settings file and a real autostart folder in a temporary
// home: LanguageManager's launch rules, relaunch through fakes, and the matching of locale tags
// to tables; the background switches, whose autostart entry is checked by the desktop's own
// validator where it is installed.

#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>

#include "services/BackgroundSettings.h"
#include "services/LanguageManager.h"
#include "services/SettingsFile.h"

namespace quillane {
namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    saved_ = qgetenv("XDG_CONFIG_HOME");
    qputenv("XDG_CONFIG_HOME", dir_.path().toUtf8());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.path());
    qunsetenv("XCTestConfigurationFilePath");  // under a test host nothing would be written
  }
  void TearDown() override { qputenv("XDG_CONFIG_HOME", saved_); }

  static void store(const QStringList& value) { SettingsFile::store()->setValue("AppleLanguages", value); }
  static QStringList stored() { return SettingsFile::store()->value("AppleLanguages").toStringList(); }
  QString settingsPath() const { return dir_.path() + "/Quillane/Quillane.conf"; }

  LanguageManager::Platform platform(QStringList system) {
    return {std::move(system),
            [this](const QString& program) {
              started_.append(program);
              return false;  // a failed start must not keep the old instance alive
            },
            [this] { ++quits_; }};
  }

  QTemporaryDir dir_;
  QByteArray saved_;
  QStringList started_;
  int quits_ = 0;
};
using LanguageManagerTest = SettingsTest;
using BackgroundSettingsTest = SettingsTest;

TEST_F(LanguageManagerTest, OnlyAnExactStoredRawValueIsAnOverride) {
  store({"es-419", "en-US"});
  EXPECT_EQ(LanguageManager(platform({"de-DE"})).activeLanguage(), AppLanguage::esLatam);

  // "es-MX" is no raw value, but its language is supported: nothing selected, nothing
  // written, and the run still reads the closest table. Support is judged on the stored
  // list's first entry, whatever the system says.
  store({"es-MX"});
  LanguageManager mexican(platform({"nl-NL"}));
  EXPECT_EQ(mexican.selectedLanguage(), std::nullopt);
  EXPECT_EQ(mexican.activeLanguage(), AppLanguage::esLatam);
  EXPECT_EQ(stored(), QStringList{"es-MX"});
  store({"nl"});
  EXPECT_EQ(LanguageManager(platform({"fr-FR"})).selectedLanguage(), AppLanguage::enUS);
  EXPECT_EQ(stored(), QStringList{"en-US"});
}

TEST_F(LanguageManagerTest, AnUnsupportedSystemStoresEnglishForTheNextLaunchAndASupportedOneNothing) {
  for (const char* tag : {"fr-CA", "zh-Hant-TW"})
    EXPECT_EQ(LanguageManager(platform({tag})).selectedLanguage(), std::nullopt) << tag;
  EXPECT_FALSE(QFile::exists(settingsPath()));

  for (const QStringList& system : {QStringList{"nl-NL", "de-DE"}, QStringList{}, QStringList{"C"}}) {
    LanguageManager::persist(std::nullopt);
    LanguageManager first(platform(system));
    EXPECT_EQ(first.selectedLanguage(), AppLanguage::enUS);
    EXPECT_EQ(stored(), QStringList{"en-US"});
    // This run keeps what the system's list gave; the next one reads the override.
    EXPECT_EQ(first.activeLanguage(), system.size() == 2 ? AppLanguage::de : AppLanguage::enUS);
    EXPECT_EQ(LanguageManager(platform(system)).activeLanguage(), AppLanguage::enUS);
  }
  EXPECT_EQ(QFile::permissions(settingsPath()) & 0x0077, QFileDevice::Permissions());
}

TEST_F(LanguageManagerTest, ConfirmPersistsSelectsAndQuitsEvenIfTheRelaunchFails) {
  store({"de"});
  LanguageManager manager(platform({"de-DE"}));
  QSignalSpy changed(&manager, &LanguageManager::selectedLanguageChanged);
  manager.confirm(std::nullopt);
  EXPECT_FALSE(SettingsFile::store()->contains("AppleLanguages"));
  EXPECT_EQ(manager.selectedLanguage(), std::nullopt);
  EXPECT_EQ(changed.count(), 1);
  EXPECT_EQ(std::pair(started_.size(), quits_), std::pair(qsizetype(1), 1));
  // Following the system again on a supported system leaves the choice absent.
  EXPECT_EQ(LanguageManager(platform({"de-DE"})).selectedLanguage(), std::nullopt);
}

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

TEST(AppLanguages, BestMatchPicksTheRegionalVariant) {
  using L = AppLanguage;
  const std::pair<const char*, std::optional<L>> cases[] = {
      {"en_AU.UTF-8", L::enGB},  {"es-MX", L::esLatam}, {"pt", L::ptBR},  {"pt_PT", L::ptPT},
      {"zh-Hant-CN", L::zhHant}, {"zh_CN", L::zhHans},  {"fr-CA", L::fr}, {"C", std::nullopt},
  };
  for (const auto& [tag, expected] : cases) EXPECT_EQ(AppLanguages::bestMatch(tag), expected) << tag;
}

}  // namespace
}  // namespace quillane
