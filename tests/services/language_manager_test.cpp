// LanguageManager's launch rules against a real settings file in a temporary folder,
// relaunch through fakes, and the matching of locale tags to tables.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>

#include "services/LanguageManager.h"
#include "services/SettingsFile.h"

namespace quillane {
namespace {

class LanguageManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.path());
    qunsetenv("XCTestConfigurationFilePath");  // under a test host nothing would be written
  }

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
  QStringList started_;
  int quits_ = 0;
};

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
