#pragma once
// SettingsWindow: the settings window, one tab per pane in this order: language, local API,
// profiles, hot folders (inserted by its owner when that pane exists), updates. Each pane
// gets the shared object it works on. A child window of the main window: one at a time.
//
// GUI thread only.

#include <QWidget>
#include <functional>

class QTabWidget;

namespace quillane {
class BatchViewModel;
class LanguageManager;
class LocalAPIController;
class UpdateChecker;
}  // namespace quillane

namespace quillane::ui {

class DesktopFileDialogs;

class SettingsWindow : public QWidget {
  Q_OBJECT
 public:
  struct Services {
    BatchViewModel& viewModel;
    LocalAPIController& apiController;
    UpdateChecker& updateChecker;
    LanguageManager& languageManager;
    DesktopFileDialogs* fileDialogs = nullptr;  // folder chooser of the profile form
  };

  explicit SettingsWindow(Services services, QWidget* parent = nullptr);

  // The settings window of `mainWindow`, made on first use, raised and activated.
  static SettingsWindow* showFor(QWidget* mainWindow, Services services);

  QTabWidget* tabs() const { return tabs_; }
  // Places the hot folders pane between profiles and updates.
  void insertHotFoldersPane(QWidget* pane);

 private:
  // Adds `pane` in a scroll area as the tab at `index` (-1: the last).
  void addPane(QWidget* pane, const char* icon, const char* titleKey, int index = -1);
  // Access keys for the tabs and for the labels of each pane's fields and its buttons.
  void assignAccessKeys();
  // At least 560 x 420, and wide enough for every tab's title to show whole.
  void fitMinimumWidthToTabs();

  QTabWidget* tabs_;
};

}  // namespace quillane::ui
