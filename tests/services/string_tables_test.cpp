// The string tables against the source tree: every key the code looks up exists in all
// fifteen tables, the tables agree on their keys, and format strings keep English's
// placeholders. Also the lookup chain that LanguageManager installs.

#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>

#include "engine/Localization.h"
#include "services/AppLanguage.h"
#include "services/StringTables.h"
#include "services/Strings.h"

namespace quillane {
namespace {

// The repository root, above tests/. Qt's test module gives the tests folder as an absolute
// path; __FILE__ may be relative to the build folder (a compiler cache with a base folder).
QString sourceRoot() {
  QDir dir(QStringLiteral(QT_TESTCASE_SOURCEDIR));
  dir.cdUp();
  return dir.absolutePath();
}

// Dotted keys passed as string literals to any text(...) or format(...) call that is not a
// member call (Localization::text, Strings::format, the views' ui::text...), in every source
// folder of the program, mapped to one file that uses each.
QMap<QString, QString> keysUsedInCode() {
  static const QRegularExpression call(QStringLiteral(
      R"re((?<![\w.>])(?:\w+::)*(?:text|format)\(\s*(?:QStringLiteral\(\s*)?"([A-Za-z]+(?:\.[A-Za-z0-9]+)+)")re"));
  QMap<QString, QString> keys;
  for (const char* folder :
       {"engine", "records", "batch", "api", "automation", "hotfolders", "services", "ui", "app"}) {
    QDirIterator it(sourceRoot() + QLatin1Char('/') + QLatin1String(folder), {"*.cpp", "*.h"}, QDir::Files,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
      QString path = it.next();
      QFile file(path);
      if (!file.open(QIODevice::ReadOnly)) continue;
      const QString source = QString::fromUtf8(file.readAll());
      for (auto match = call.globalMatch(source); match.hasNext();)
        keys.insert(match.next().captured(1), path);
    }
  }
  return keys;
}

// Placeholders of a format string, sorted: "%@", "%lld", "%1$@"... ("%%" is a percent sign).
QStringList placeholders(const QString& text) {
  static const QRegularExpression placeholder(QStringLiteral(R"(%%|%(?:\d+\$)?l*[@dsu])"));
  QStringList out;
  for (auto match = placeholder.globalMatch(text); match.hasNext();) {
    QString token = match.next().captured(0);
    if (token != QLatin1String("%%")) out.append(token);
  }
  out.sort();
  return out;
}

QString textOf(AppLanguage language, const QString& key) {
  const std::string* text = StringTables::table(language).find(key.toStdString());
  return text ? QString::fromStdString(*text) : QString();
}

TEST(StringTables, EveryKeyUsedInTheCodeIsInEveryTable) {
  QMap<QString, QString> used = keysUsedInCode();
  // Guards the scan itself: the engine's error texts are always there.
  ASSERT_TRUE(used.contains(QStringLiteral("error.decodingFailed")))
      << "source scan found nothing under " << sourceRoot().toStdString();
  for (AppLanguage language : AppLanguages::allCases()) {
    for (auto it = used.cbegin(); it != used.cend(); ++it) {
      EXPECT_NE(StringTables::table(language).find(it.key().toStdString()), nullptr)
          << AppLanguages::rawValue(language).toStdString() << " lacks \"" << it.key().toStdString()
          << "\", used in " << it.value().toStdString();
    }
  }
}

TEST(StringTables, AllTablesHaveEnglishKeysWithItsPlaceholdersAndNoEmptyText) {
  const StringTable& english = StringTables::table(AppLanguage::enUS);
  ASSERT_GT(english.keys().size(), 100);
  for (AppLanguage language : AppLanguages::allCases())
    EXPECT_EQ(StringTables::table(language).keys().size(), english.keys().size())
        << AppLanguages::rawValue(language).toStdString() << " has other keys than English";
  for (const QString& key : english.keys()) {
    const QStringList expected = placeholders(textOf(AppLanguage::enUS, key));
    for (AppLanguage language : AppLanguages::allCases()) {
      const QString text = textOf(language, key);
      EXPECT_FALSE(text.trimmed().isEmpty())
          << AppLanguages::rawValue(language).toStdString() << " " << key.toStdString();
      EXPECT_EQ(placeholders(text), expected) << AppLanguages::rawValue(language).toStdString() << " "
                                              << key.toStdString() << ": \"" << text.toStdString() << "\"";
    }
  }
}

TEST(InstalledLookup, ChosenTableThenCallersDefaultAndArgumentsInTheTablesOrder) {
  Localization::setLookup(StringTables::lookupFor(AppLanguage::de));
  EXPECT_EQ(Localization::text("settings.updates.checkNow", "Vérifier"), "Jetzt prüfen");
  // An unknown key comes back as itself, so the caller's French default stands in.
  EXPECT_EQ(Localization::text("no.such.key", "Défaut"), "Défaut");
  // Hindi puts the total first; the arguments keep their meaning.
  Localization::setLookup(StringTables::lookupFor(AppLanguage::hi));
  EXPECT_EQ(Strings::format("progress.format", 3, 12), QStringLiteral("12 में से 3"));

  // The UI helpers' default is the French table, then the key.
  Localization::setLookup({});
  EXPECT_EQ(Strings::text("settings.language.title"), QStringLiteral("Langue"));
}

}  // namespace
}  // namespace quillane
