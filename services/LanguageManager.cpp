#include "services/LanguageManager.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QProcess>
#include <QSet>
#include <QTranslator>
#include <memory>
#include <vector>

#include "engine/Localization.h"
#include "services/SettingsFile.h"
#include "services/StringTables.h"
#include "services/SystemMessages.h"

namespace quillane {

namespace {

const QString kAppleLanguagesKey = QStringLiteral("AppleLanguages");
const char* const kTestHostVariable = "XCTestConfigurationFilePath";

// The stored list without empty entries: a value emptied by hand ("AppleLanguages=") reads as a list
// of one empty entry, which would count as a choice of no language the tables serve.
QStringList storedLanguages() {
  QStringList languages = SettingsFile::store()->value(kAppleLanguagesKey).toStringList();
  languages.removeIf([](const QString& tag) { return tag.trimmed().isEmpty(); });
  return languages;
}

// The table of this run: the first language of the list in force that a table serves.
AppLanguage resolveActiveLanguage(const QStringList& stored, const QStringList& system) {
  const QStringList& candidates = stored.isEmpty() ? system : stored;
  for (const QString& tag : candidates)
    if (std::optional<AppLanguage> match = AppLanguages::bestMatch(tag)) return *match;
  return AppLanguage::enUS;
}

// The tables of `language`, and the C library's translation of its error descriptions.
void installTextsOf(AppLanguage language) {
  Localization::setLookup(StringTables::lookupFor(language));
  Localization::setSystemMessages(SystemMessages::translatorFor(language));
}

// Numbers, sizes and times in the chosen language's notation, and Qt's own texts (file
// dialogs, message box buttons, shortcut names) from Debian's Qt translations, beside the
// application's tables. A language without a Qt catalogue keeps Qt's English. Portugal's
// catalogue is Qt 4's, without the buttons and most of the file dialog of Qt 6: Brazil's
// fills in what it lacks.
void useLocaleOf(AppLanguage language) {
  const QLocale locale(AppLanguages::rawValue(language));
  QLocale::setDefault(locale);
  QCoreApplication* application = QCoreApplication::instance();
  if (!application) return;
  // Never destroyed: the application may be gone by then.
  static auto& installed = *new std::vector<std::unique_ptr<QTranslator>>;
  for (const auto& translator : installed) QCoreApplication::removeTranslator(translator.get());
  installed.clear();
  QList<QLocale> catalogues;
  if (language == AppLanguage::ptPT) catalogues.append(QLocale(AppLanguages::rawValue(AppLanguage::ptBR)));
  catalogues.append(locale);  // installed last, so asked first
  const QString folder = QLibraryInfo::path(QLibraryInfo::TranslationsPath);
  for (const QLocale& catalogue : catalogues) {
    auto translator = std::make_unique<QTranslator>();
    if (translator->load(catalogue, QStringLiteral("qt"), QStringLiteral("_"), folder) &&
        QCoreApplication::installTranslator(translator.get()))
      installed.push_back(std::move(translator));
  }
}

}  // namespace

LanguageManager::Platform LanguageManager::systemPlatform() {
  Platform platform;
  platform.preferredLanguages = QLocale::system().uiLanguages();
  platform.startDetached = [](const QString& program) {
    // The new instance learns which process it replaces, so that it can wait for this one
    // to let go of what only one instance may hold (the local API's port).
    QProcess process;
    process.setProgram(program);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QUILLANE_RELAUNCHED_FROM"),
                       QString::number(QCoreApplication::applicationPid()));
    process.setProcessEnvironment(environment);
    return process.startDetached();
  };
  platform.quit = [] {
    // Queued, so that the caller's slot returns before the event loop is left.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [] { QCoreApplication::quit(); }, Qt::QueuedConnection);
  };
  return platform;
}

LanguageManager& LanguageManager::shared() {
  static LanguageManager* instance = [] {
    auto* manager = new LanguageManager(systemPlatform());
    manager->installLookup();
    return manager;
  }();
  return *instance;
}

void LanguageManager::installLookupReadOnly() {
  installTextsOf(resolveActiveLanguage(storedLanguages(), QLocale::system().uiLanguages()));
}

LanguageManager::LanguageManager(Platform platform, QObject* parent)
    : QObject(parent), platform_(std::move(platform)) {
  activeLanguage_ = resolveActiveLanguage(storedLanguages(), platform_.preferredLanguages);

  if (std::optional<AppLanguage> override = currentOverride()) {
    selectedLanguage_ = override;
    return;
  }
  // Under a test host the settings file is left alone.
  if (qEnvironmentVariableIsSet(kTestHostVariable)) return;
  if (systemLanguageIsUnsupported()) {
    // Takes effect at the next launch; this run keeps the table resolved above.
    selectedLanguage_ = AppLanguage::enUS;
    persist(AppLanguage::enUS);
  }
}

void LanguageManager::setSelectedLanguage(std::optional<AppLanguage> language) {
  if (selectedLanguage_ == language) return;
  selectedLanguage_ = language;
  emit selectedLanguageChanged();
}

void LanguageManager::installLookup() const {
  installTextsOf(activeLanguage_);
  useLocaleOf(activeLanguage_);
}

std::optional<AppLanguage> LanguageManager::currentOverride() {
  QStringList stored = storedLanguages();
  if (stored.isEmpty()) return std::nullopt;
  return AppLanguages::fromRawValue(stored.front());
}

bool LanguageManager::systemLanguageIsUnsupported() const {
  QSet<QString> supported;
  for (AppLanguage language : AppLanguages::allCases())
    if (std::optional<QString> code = AppLanguages::languageCode(AppLanguages::rawValue(language)))
      supported.insert(*code);
  // The preferred languages are the stored list while it has entries (a first entry such as
  // "es-MX" is no override but is a supported language), else the system's.
  const QStringList stored = storedLanguages();
  const QStringList& preferred = stored.isEmpty() ? platform_.preferredLanguages : stored;
  if (preferred.isEmpty()) return true;
  std::optional<QString> code = AppLanguages::languageCode(preferred.front());
  return !code || !supported.contains(*code);
}

void LanguageManager::persist(std::optional<AppLanguage> language) {
  auto settings = SettingsFile::store();
  if (language)
    settings->setValue(kAppleLanguagesKey, QStringList{AppLanguages::rawValue(*language)});
  else
    settings->remove(kAppleLanguagesKey);
  SettingsFile::save(*settings);
}

void LanguageManager::relaunch() {
  if (platform_.startDetached) platform_.startDetached(QCoreApplication::applicationFilePath());
  if (platform_.quit) platform_.quit();
}

void LanguageManager::confirm(std::optional<AppLanguage> choice) {
  persist(choice);
  setSelectedLanguage(choice);
  relaunch();
}

std::optional<AppLanguage> PendingLanguageChoice::currentSelection(const LanguageManager& manager) const {
  return pending ? *pending : manager.selectedLanguage();
}

bool PendingLanguageChoice::hasPendingChange(const LanguageManager& manager) const {
  return pending && *pending != manager.selectedLanguage();
}

}  // namespace quillane
