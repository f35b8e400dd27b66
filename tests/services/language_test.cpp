// The user's settings in a temporary home (language choice, relaunch through fakes, the settings
// file, the background switches and their autostart entry), then the string tables against the
// source tree and the lookup chain that LanguageManager installs.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>

#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/Localization.h"
#include "services/AppLanguage.h"
#include "services/BackgroundSettings.h"
#include "services/BaseDirectories.h"
#include "services/LanguageManager.h"
#include "services/SettingsFile.h"
#include "services/StringTables.h"
#include "services/Strings.h"
#include "services/SystemMessages.h"

namespace quillane {
namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    saved_ = qgetenv("XDG_CONFIG_HOME");
    qputenv("XDG_CONFIG_HOME", dir_.path().toUtf8());
    qunsetenv("XCTestConfigurationFilePath");  // under a test host nothing would be written
  }
  void TearDown() override { qputenv("XDG_CONFIG_HOME", saved_); }

  static void store(const QStringList& value) { SettingsFile::store()->setValue("AppleLanguages", value); }
  static QStringList stored() { return SettingsFile::store()->value("AppleLanguages").toStringList(); }
  QString settingsPath() const { return dir_.path() + "/Quillane/Quillane.conf"; }
  bool writeSettings(const QByteArray& bytes) const {
    QFile file(settingsPath());
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
  }

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
using SettingsFileTest = SettingsTest;
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
  // A value emptied by hand is no choice: the system's language is followed, and English is not stored.
  ASSERT_TRUE(writeSettings("[General]\nAppleLanguages=\n"));
  LanguageManager emptied(platform({"fr-FR"}));
  EXPECT_EQ(std::pair(emptied.selectedLanguage(), emptied.activeLanguage()),
            std::pair(std::optional<AppLanguage>(), AppLanguage::fr));
  store({"nl"});
  EXPECT_EQ(LanguageManager(platform({"fr-FR"})).selectedLanguage(), AppLanguage::enUS);
  EXPECT_EQ(stored(), QStringList{"en-US"});

  // The override reaches the C library's texts too.
  store({"pt-BR"});
  LanguageManager::installLookupReadOnly();
  EXPECT_EQ(Localization::systemError(ENOSPC), "Não há espaço disponível no dispositivo");
  Localization::setLookup({}), Localization::setSystemMessages({});
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
}

// A settings file or lock that can't be read safely gives the defaults, held for the run, and
// is neither waited on, read whole nor written over.
TEST_F(SettingsFileTest, AFileOrLockThatCantBeReadSafelyGivesTheDefaultsAndStays) {
  const QByteArray conf = QFile::encodeName(settingsPath()), lock = conf + ".lock",
                   key = "AppleLanguages=de\n";
  const std::vector<std::pair<const char*, std::function<bool()>>> cases = {
      {"pipe", [&] { return ::mkfifo(conf, 0600) == 0; }},
      {"device", [&] { return ::symlink("/dev/zero", conf) == 0; }},
      {"huge", [&] { return writeSettings(QByteArray(2 << 20, '\n') + key); }},
      {"lock pipe", [&] { return writeSettings(key) && ::mkfifo(lock, 0600) == 0; }},
      {"lock folder", [&] { return writeSettings(key) && ::mkdir(lock, 0700) == 0; }}};
  for (const auto& [name, make] : cases) {
    QDir(dir_.path() + "/Quillane").removeRecursively();
    QDir().mkpath(dir_.path() + "/Quillane");
    ASSERT_TRUE(make()) << name;
    const qint64 size = QFileInfo(settingsPath()).size();
    EXPECT_FALSE(SettingsFile::store()->contains("AppleLanguages")) << name;
    store({"fr"});
    EXPECT_EQ(stored(), QStringList{"fr"}) << name << ": held for the run";
    EXPECT_EQ(QFileInfo(settingsPath()).size(), size) << name;
    SettingsFile::store()->remove("AppleLanguages");
  }
}

// Taken as they are, a relative XDG folder would be under the working folder and a missing HOME the root.
TEST_F(SettingsFileTest, RelativeBaseDirectoriesAreIgnoredAndAMissingHomeIsTheUsers) {
  const QByteArray home = qgetenv("HOME"), data = qgetenv("XDG_DATA_HOME");
  qputenv("XDG_CONFIG_HOME", "relative/config");
  qputenv("XDG_DATA_HOME", dir_.path().toUtf8());
  qunsetenv("HOME");
  BaseDirectories::settle();
  EXPECT_FALSE(qEnvironmentVariableIsSet("XDG_CONFIG_HOME"));
  EXPECT_EQ(qgetenv("XDG_DATA_HOME"), dir_.path().toUtf8());
  const QByteArray own = ::getpwuid(::getuid())->pw_dir;
  EXPECT_EQ(qgetenv("HOME"), own);
  EXPECT_EQ(SettingsFile::path(), QFile::decodeName(own) + "/.config/Quillane/Quillane.conf");
  qputenv("HOME", home);
  qputenv("XDG_DATA_HOME", data);
}

TEST_F(BackgroundSettingsTest, TheFirstNoticeIsGivenOnceAndStartAtLoginWritesAValidAutostartEntry) {
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

// The repository root, above tests/. Qt's test module gives the tests folder as an absolute
// path; __FILE__ may be relative to the build folder (a compiler cache with a base folder).
QString sourceRoot() { return QDir::cleanPath(QStringLiteral(QT_TESTCASE_SOURCEDIR "/..")); }

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
      QFile file(it.next());
      if (!file.open(QIODevice::ReadOnly)) continue;
      for (auto match = call.globalMatch(QString::fromUtf8(file.readAll())); match.hasNext();)
        keys.insert(match.next().captured(1), file.fileName());
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

TEST(InstalledLookup, SystemErrorsSpeakTheChosenLanguageWhereTheCLibraryHasItElseEnglish) {
  // The test process keeps its own locale: the chosen language alone decides.
  const std::pair<AppLanguage, std::string> cases[] = {
      {AppLanguage::fr, "Aucun espace disponible sur le périphérique"},
      {AppLanguage::ptBR, "Não há espaço disponível no dispositivo"},
      {AppLanguage::zhHans, "设备上没有空间"},
      {AppLanguage::hi, "No space left on device"},  // the C library has no Hindi
      {AppLanguage::enGB, "No space left on device"},
  };
  for (const auto& [language, expected] : cases) {
    Localization::setSystemMessages(SystemMessages::translatorFor(language));
    EXPECT_EQ(Localization::systemError(ENOSPC), expected) << AppLanguages::rawValue(language).toStdString();
  }
  // As a file error from the engine reads it.
  Localization::setSystemMessages(SystemMessages::translatorFor(AppLanguage::de));
  try {
    FileIO::readFile("/nonexistent/a.png");
    ADD_FAILURE() << "read a missing file";
  } catch (const FileError& error) {
    EXPECT_STREQ(error.what(), "/nonexistent/a.png: Datei oder Verzeichnis nicht gefunden");
  }
  Localization::setSystemMessages({});
  EXPECT_EQ(Localization::systemError(ENOSPC), "No space left on device");

  // The catalogue as a big-endian machine writes it reads the same; one cut short, or whose words
  // are in the other order than its magic says, gives no translation rather than a part.
  std::ifstream file("/usr/share/locale/fr/LC_MESSAGES/libc.mo", std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const auto translations = SystemMessages::parseCatalogue(bytes);
  EXPECT_GT(translations.size(), 100u);
  EXPECT_TRUE(SystemMessages::parseCatalogue(bytes.substr(0, bytes.size() / 2)).empty());
  const std::string swappedMagic = "\x95\x04\x12\xde" + bytes.substr(4);
  EXPECT_TRUE(SystemMessages::parseCatalogue(swappedMagic).empty());
  // Its header: magic, revision, count, the offsets of the English and the translated tables...
  uint32_t header[7];
  std::memcpy(header, bytes.data(), sizeof header);
  auto swapWords = [&](size_t from, size_t words) {
    for (size_t at = from; at < from + words * 4; at += 4) std::reverse(&bytes[at], &bytes[at + 4]);
  };
  swapWords(0, 7), swapWords(header[3], size_t{header[2]} * 2), swapWords(header[4], size_t{header[2]} * 2);
  EXPECT_EQ(SystemMessages::parseCatalogue(bytes), translations);
}

}  // namespace
}  // namespace quillane
