// LanguageManager's launch rules against a real settings file in a temporary folder, the
// pane's pending choice, relaunch through fakes, and the matching of locale tags to tables.

#include "engine/Localization.h"
#include "services/LanguageManager.h"
#include "services/UserDefaults.h"

#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace quillane {
namespace {

const char* const kTestHost = "XCTestConfigurationFilePath";

class LanguageManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, dir_.path());
    savedTestHost_ = qgetenv(kTestHost);
    hadTestHost_ = qEnvironmentVariableIsSet(kTestHost);
    qunsetenv(kTestHost);
  }
  void TearDown() override {
    if (hadTestHost_) qputenv(kTestHost, savedTestHost_);
    else qunsetenv(kTestHost);
    Localization::setLookup({});
  }

  static void store(const QVariant& value) {
    auto settings = UserDefaults::store();
    settings->setValue("AppleLanguages", value);
    settings->sync();
  }
  static QVariant stored() { return UserDefaults::store()->value("AppleLanguages"); }
  QString settingsPath() const { return dir_.path() + "/Quillane/Quillane.conf"; }

  LanguageManager::Platform platform(QStringList system) {
    LanguageManager::Platform p;
    p.preferredLanguages = std::move(system);
    p.startDetached = [this](const QString& program) {
      started_.append(program);
      return startSucceeds_;
    };
    p.quit = [this] { ++quits_; };
    return p;
  }

  QTemporaryDir dir_;
  QByteArray savedTestHost_;
  bool hadTestHost_ = false;
  QStringList started_;
  bool startSucceeds_ = true;
  int quits_ = 0;
};

TEST_F(LanguageManagerTest, StoredRawValueIsTheOverride) {
  store(QStringList{"es-419", "en-US"});
  LanguageManager manager(platform({"de-DE"}));
  EXPECT_EQ(manager.selectedLanguage(), AppLanguage::esLatam);
  EXPECT_EQ(manager.activeLanguage(), AppLanguage::esLatam);
}

TEST_F(LanguageManagerTest, OnlyAnExactFirstEntryIsAnOverride) {
  // "es-MX" and "fr-FR" are not raw values; their languages are supported, so nothing is
  // selected and nothing written, while the run still reads the matching table.
  store(QStringList{"es-MX"});
  LanguageManager mexican(platform({"es-MX"}));
  EXPECT_EQ(mexican.selectedLanguage(), std::nullopt);
  EXPECT_EQ(mexican.activeLanguage(), AppLanguage::esLatam);
  EXPECT_EQ(stored().toStringList(), QStringList{"es-MX"});

  store(QStringList{"fr-FR"});
  LanguageManager french(platform({"fr-FR"}));
  EXPECT_EQ(french.selectedLanguage(), std::nullopt);
  EXPECT_EQ(french.activeLanguage(), AppLanguage::fr);
}

TEST_F(LanguageManagerTest, UnsupportedSystemStoresEnglishForTheNextLaunch) {
  LanguageManager first(platform({"nl-NL", "de-DE"}));
  EXPECT_EQ(first.selectedLanguage(), AppLanguage::enUS);
  EXPECT_EQ(stored().toStringList(), QStringList{"en-US"});
  // This run keeps what the system's list gave.
  EXPECT_EQ(first.activeLanguage(), AppLanguage::de);

  LanguageManager second(platform({"nl-NL", "de-DE"}));
  EXPECT_EQ(second.selectedLanguage(), AppLanguage::enUS);
  EXPECT_EQ(second.activeLanguage(), AppLanguage::enUS);
}

TEST_F(LanguageManagerTest, SupportedSystemWritesNothing) {
  for (const char* tag : {"fr-CA", "pt-AO", "zh-Hant-TW", "en"}) {
    LanguageManager manager(platform({tag}));
    EXPECT_EQ(manager.selectedLanguage(), std::nullopt) << tag;
  }
  EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST_F(LanguageManagerTest, SystemWithoutALanguageCountsAsUnsupported) {
  for (QStringList system : {QStringList{}, QStringList{"C"}, QStringList{"*"}}) {
    UserDefaults::store()->remove("AppleLanguages");
    LanguageManager manager(platform(system));
    EXPECT_EQ(manager.selectedLanguage(), AppLanguage::enUS) << system.join(",").toStdString();
    EXPECT_EQ(manager.activeLanguage(), AppLanguage::enUS);
    EXPECT_EQ(stored().toStringList(), QStringList{"en-US"});
  }
}

TEST_F(LanguageManagerTest, UnderATestHostNothingIsWritten) {
  qputenv(kTestHost, "/tmp/config.xctestconfiguration");
  LanguageManager manager(platform({"nl-NL"}));
  EXPECT_EQ(manager.selectedLanguage(), std::nullopt);
  EXPECT_FALSE(QFile::exists(settingsPath()));

  // An override is still read: only writing is suppressed.
  store(QStringList{"ja"});
  LanguageManager withOverride(platform({"nl-NL"}));
  EXPECT_EQ(withOverride.selectedLanguage(), AppLanguage::ja);
}

TEST_F(LanguageManagerTest, PersistWritesOrRemovesTheKeyAndKeepsTheFilePrivate) {
  LanguageManager::persist(AppLanguage::zhHant);
  EXPECT_EQ(stored().toStringList(), QStringList{"zh-Hant"});
  EXPECT_EQ(QFile::permissions(settingsPath()) & 0x0077, QFileDevice::Permissions());
  EXPECT_EQ(LanguageManager(platform({"en-US"})).selectedLanguage(), AppLanguage::zhHant);

  LanguageManager::persist(std::nullopt);
  EXPECT_FALSE(UserDefaults::store()->contains("AppleLanguages"));
  EXPECT_EQ(LanguageManager(platform({"en-US"})).selectedLanguage(), std::nullopt);
}

TEST_F(LanguageManagerTest, ConfirmPersistsSelectsAndRelaunches) {
  store(QStringList{"de"});
  LanguageManager manager(platform({"de-DE"}));
  QSignalSpy changed(&manager, &LanguageManager::selectedLanguageChanged);
  manager.confirm(std::nullopt);
  EXPECT_FALSE(UserDefaults::store()->contains("AppleLanguages"));
  EXPECT_EQ(manager.selectedLanguage(), std::nullopt);
  EXPECT_EQ(changed.count(), 1);
  EXPECT_EQ(started_, QStringList{QCoreApplication::applicationFilePath()});
  EXPECT_EQ(quits_, 1);
}

TEST_F(LanguageManagerTest, RelaunchQuitsEvenWhenTheNewInstanceFailsToStart) {
  startSucceeds_ = false;
  LanguageManager manager(platform({"en-US"}));
  manager.relaunch();
  EXPECT_EQ(started_.size(), 1);
  EXPECT_EQ(quits_, 1);
}

TEST_F(LanguageManagerTest, PendingChoiceOffersARestartOnlyForADifferentLanguage) {
  store(QStringList{"it"});
  LanguageManager manager(platform({"it-IT"}));
  PendingLanguageChoice pane;
  EXPECT_EQ(pane.currentSelection(manager), AppLanguage::it);
  EXPECT_FALSE(pane.hasPendingChange(manager));

  pane.choose(AppLanguage::it);
  EXPECT_FALSE(pane.hasPendingChange(manager));

  pane.choose(std::nullopt);  // follow the system while an override is active
  EXPECT_EQ(pane.currentSelection(manager), std::nullopt);
  EXPECT_TRUE(pane.hasPendingChange(manager));

  pane.choose(AppLanguage::ko);
  EXPECT_EQ(pane.currentSelection(manager), AppLanguage::ko);
  EXPECT_TRUE(pane.hasPendingChange(manager));
}

TEST_F(LanguageManagerTest, InstalledLookupReadsTheActiveTable) {
  store(QStringList{"ru"});
  LanguageManager manager(platform({"en-US"}));
  manager.installLookup();
  EXPECT_EQ(Localization::text("settings.language.title", "Langue"), "Язык");
}

TEST(AppLanguages, RawValuesRoundTripInPickerOrder) {
  const auto& cases = AppLanguages::allCases();
  EXPECT_EQ(cases.front(), AppLanguage::enGB);
  EXPECT_EQ(cases.back(), AppLanguage::zhHant);
  for (AppLanguage language : cases)
    EXPECT_EQ(AppLanguages::fromRawValue(AppLanguages::rawValue(language)), language);
  EXPECT_EQ(AppLanguages::fromRawValue("EN-US"), std::nullopt);
  EXPECT_EQ(AppLanguages::nativeName(AppLanguage::zhHans), QStringLiteral("中文（简体）"));
}

TEST(AppLanguages, BestMatchPicksTheRegionalVariant) {
  struct Case {
    const char* tag;
    std::optional<AppLanguage> expected;
  };
  const Case cases[] = {
      {"en", AppLanguage::enUS},        {"en-US", AppLanguage::enUS},      {"en_AU.UTF-8", AppLanguage::enGB},
      {"en-GB", AppLanguage::enGB},     {"es", AppLanguage::esES},         {"es-MX", AppLanguage::esLatam},
      {"es-419", AppLanguage::esLatam}, {"pt", AppLanguage::ptBR},         {"pt_PT", AppLanguage::ptPT},
      {"pt-AO", AppLanguage::ptPT},     {"zh", AppLanguage::zhHans},       {"zh-TW", AppLanguage::zhHant},
      {"zh-Hant-CN", AppLanguage::zhHant}, {"zh_CN.GB2312", AppLanguage::zhHans}, {"zh-hans", AppLanguage::zhHans},
      {"fr-CA", AppLanguage::fr},       {"de-CH", AppLanguage::de},        {"hi-IN", AppLanguage::hi},
      {"nl", std::nullopt},             {"C", std::nullopt},               {"", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(AppLanguages::bestMatch(c.tag), c.expected) << c.tag;
}

}  // namespace
}  // namespace quillane
