#pragma once
// LanguageManager holds the user's choice of language. The choice lives in the settings
// file under "AppleLanguages" (a list whose first entry is the chosen locale code; a
// fixed name, and here only a QSettings key) and is
// read when the process starts, so a change takes effect only after a relaunch: the
// language pane persists the choice and relaunches, as two explicit steps.
//
// It also decides which string table this run uses (activeLanguage) and installs it into
// quillane::Localization (installLookup), which the shared instance does when it is made.
//
// One shared instance, made on first use; GUI thread only.

#include <QObject>
#include <QStringList>
#include <functional>
#include <optional>

#include "services/AppLanguage.h"

namespace quillane {

class LanguageManager : public QObject {
  Q_OBJECT

 public:
  // What the manager needs of the system; tests give their own.
  struct Platform {
    // The system's preferred UI languages, most preferred first (QLocale::system().uiLanguages()).
    QStringList preferredLanguages;
    // Starts a new, detached instance of `program`; true when it started.
    std::function<bool(const QString& program)> startDetached;
    // Ends the running application.
    std::function<void()> quit;
  };
  static Platform systemPlatform();

  // The instance, made on first use with the system platform, with its lookup installed.
  // The application touches it at launch, before any window exists.
  static LanguageManager& shared();

  // Reads the stored choice and applies the launch rules: an override in "AppleLanguages"
  // becomes selectedLanguage; otherwise, unless the environment has
  // "XCTestConfigurationFilePath" (the test runs' marker; then nothing is written), a first preferred
  // language (the stored list while it has entries, else the system's) outside the fifteen stores "en-US" for
  // the next launch and selects enUS.
  explicit LanguageManager(Platform platform, QObject* parent = nullptr);

  // The language chosen by the user; nothing means "follow the system".
  std::optional<AppLanguage> selectedLanguage() const { return selectedLanguage_; }
  void setSelectedLanguage(std::optional<AppLanguage> language);

  // The table this run reads, fixed at construction: the first entry of "AppleLanguages"
  // (or, when that is unset, of the system's languages) that a table serves; enUS if none.
  AppLanguage activeLanguage() const { return activeLanguage_; }

  // Makes every Localization::text call resolve through activeLanguage's table, and makes
  // its locale the default one (numbers, sizes, times) and loads Qt's own translations for it.
  void installLookup() const;

  // For programs without a window (the command-line tool): resolves this run's language as
  // the application would and installs its table, without writing anything. Any thread,
  // before other threads look texts up.
  static void installLookupReadOnly();

  // Stores `language` as the one-element "AppleLanguages" list, or removes the key for
  // nothing, so that the application follows the system again at the next launch.
  static void persist(std::optional<AppLanguage> language);

  // Starts a new instance of this executable, then quits this one, even when the start
  // failed (the choice is persisted already; the user then starts it by hand).
  void relaunch();

  // The pane's restart button: persist(choice), set selectedLanguage, relaunch.
  void confirm(std::optional<AppLanguage> choice);

 signals:
  void selectedLanguageChanged();

 private:
  static std::optional<AppLanguage> currentOverride();
  bool systemLanguageIsUnsupported() const;

  Platform platform_;
  std::optional<AppLanguage> selectedLanguage_;
  AppLanguage activeLanguage_ = AppLanguage::enUS;
};

// The language pane's unconfirmed choice. The outer optional is empty while the user has
// chosen nothing; an inner empty optional is the choice to follow the system.
struct PendingLanguageChoice {
  std::optional<std::optional<AppLanguage>> pending;

  void choose(std::optional<AppLanguage> language) { pending = language; }
  // What the picker shows: the pending choice, else the manager's selection.
  std::optional<AppLanguage> currentSelection(const LanguageManager& manager) const;
  // Whether a choice was made that differs from the manager's selection (restart offered).
  bool hasPendingChange(const LanguageManager& manager) const;
};

}  // namespace quillane
