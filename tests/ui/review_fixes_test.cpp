// Faults found by comparing the window and the services with what they must do, each pinned
// by the smallest test that failed before the fix.
#include <gtest/gtest.h>

#include <QVariant>

#include "services/LanguageManager.h"
#include "services/UserDefaults.h"
#include "tests/ui/ui_test_support.h"

namespace quillane::uitest {
namespace {

// Lets the language manager write (the ui sandbox forbids it) and puts "AppleLanguages"
// back as it was afterwards.
class LanguageLaunchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = UserDefaults::store()->value(kKey);
    testHost_ = qgetenv("XCTestConfigurationFilePath");
    qunsetenv("XCTestConfigurationFilePath");
  }
  void TearDown() override {
    auto settings = UserDefaults::store();
    if (saved_.isValid())
      settings->setValue(kKey, saved_);
    else
      settings->remove(kKey);
    UserDefaults::save(*settings);
    qputenv("XCTestConfigurationFilePath", testHost_);
  }
  static void store(const QStringList& list) {
    auto settings = UserDefaults::store();
    settings->setValue(kKey, list);
    UserDefaults::save(*settings);
  }
  static QStringList stored() { return UserDefaults::store()->value(kKey).toStringList(); }
  static LanguageManager::Platform system(QStringList languages) { return {std::move(languages), {}, {}}; }

  static constexpr const char* kKey = "AppleLanguages";
  QVariant saved_;
  QByteArray testHost_;
};

// The first preferred language is the stored list's first entry while the list has one: a
// stored "es-MX" is no override, but Spanish is supported, whatever the system says.
TEST_F(LanguageLaunchTest, SupportIsJudgedOnTheStoredListBeforeTheSystem) {
  store({"es-MX"});
  LanguageManager mexican(system({"nl-NL"}));
  EXPECT_EQ(mexican.selectedLanguage(), std::nullopt);
  EXPECT_EQ(stored(), QStringList{"es-MX"});

  store({"nl"});
  LanguageManager dutch(system({"fr-FR"}));
  EXPECT_EQ(dutch.selectedLanguage(), AppLanguage::enUS);
  EXPECT_EQ(stored(), QStringList{"en-US"});
}

}  // namespace
}  // namespace quillane::uitest
