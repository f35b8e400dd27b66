// Settings and token of the local API, in a private settings folder.
#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>

#include <set>
#include <sys/stat.h>

#include "api/LocalAPISettings.h"

namespace quillane {
namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.path());
  }
  QString fileName() const { return LocalAPISettings::store()->fileName(); }
  QTemporaryDir dir_;
};

TEST_F(SettingsTest, TokensHaveTheirFormAndAreUnique) {
  QRegularExpression form(QStringLiteral("^qlne_[A-Za-z0-9_-]{43}$"));
  std::set<QString> seen;
  for (int i = 0; i < 200; ++i) {
    auto token = LocalAPISettings::generateToken();
    ASSERT_TRUE(token);
    EXPECT_TRUE(form.match(*token).hasMatch()) << token->toStdString();
    seen.insert(*token);
  }
  EXPECT_EQ(seen.size(), 200u);
}

TEST_F(SettingsTest, FirstReadMakesAndStoresATokenInAFileOnlyItsOwnerCanRead) {
  QString token = LocalAPISettings::token();
  EXPECT_EQ(token.size(), 48);
  EXPECT_EQ(LocalAPISettings::token(), token);
  EXPECT_TRUE(fileName().startsWith(dir_.path()));
  EXPECT_TRUE(fileName().endsWith(QStringLiteral("Quillane/Quillane.conf")));
  struct stat info {};
  ASSERT_EQ(::stat(QFile::encodeName(fileName()).constData(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  // Later writes keep the mode.
  LocalAPISettings::setPort(8080);
  ASSERT_EQ(::stat(QFile::encodeName(fileName()).constData(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(SettingsTest, MissingOrEmptyTokenIsReplacedAndAnyOtherValueIsKept) {
  QString first = LocalAPISettings::token();
  auto settings = LocalAPISettings::store();
  settings->remove(LocalAPISettings::tokenKey);
  settings->sync();
  QString second = LocalAPISettings::token();
  EXPECT_NE(second, first);

  LocalAPISettings::setToken(QString());
  QString third = LocalAPISettings::token();
  EXPECT_FALSE(third.isEmpty());
  EXPECT_NE(third, second);

  LocalAPISettings::setToken(QStringLiteral("not-in-the-usual-form"));
  EXPECT_EQ(LocalAPISettings::token(), QStringLiteral("not-in-the-usual-form"));
}

}  // namespace
}  // namespace quillane
