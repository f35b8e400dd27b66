#pragma once
// The two small settings tabs:
// - UpdateSettingsView: the check at launch on or off, a check on demand, and its result.
// - LanguageSettingsView: the application's language. A choice is only pending until the
//   restart button confirms it; closing the pane drops it.
//
// GUI thread only. The checker and the manager are shared and outlive the panes.

#include <QWidget>

#include "services/LanguageManager.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QProgressBar;
class QPushButton;

namespace quillane {
class UpdateChecker;
}

namespace quillane::ui {

class UpdateSettingsView : public QWidget {
  Q_OBJECT
 public:
  explicit UpdateSettingsView(UpdateChecker& checker, QWidget* parent = nullptr);

 private:
  void setEnabled(bool on);
  void refresh();

  UpdateChecker& checker_;
  QCheckBox* enable_;
  QWidget* statusRow_;
  QProgressBar* spinner_;
  QLabel* status_;
  QPushButton* download_;
  QPushButton* checkNow_;
};

class LanguageSettingsView : public QWidget {
  Q_OBJECT
 public:
  explicit LanguageSettingsView(LanguageManager& manager, QWidget* parent = nullptr);

  // The picker's action: remembers the choice without applying it.
  void choose(std::optional<AppLanguage> language);
  // The restart button: persist, select, relaunch.
  void restartNow();

 private:
  void refresh();

  LanguageManager& manager_;
  PendingLanguageChoice pending_;
  QComboBox* picker_;
  QLabel* note_;
  QPushButton* restart_;
};

}  // namespace quillane::ui
