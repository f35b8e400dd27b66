#include "ui/SettingsWindow.h"

#include <QAction>
#include <QTabBar>
#include <QTabWidget>
#include <QVBoxLayout>

#include "services/Strings.h"
#include "ui/DesktopFileDialogs.h"
#include "ui/ExportProfilesSettingsView.h"
#include "ui/Icons.h"
#include "ui/LocalAPISettingsView.h"
#include "ui/Mnemonics.h"
#include "ui/SettingsForm.h"
#include "ui/SmallSettingsViews.h"

namespace quillane::ui {
namespace {
constexpr int kUpdatesTabFromEnd = 1;  // the hot folders tab goes before the last tab
}

SettingsWindow::SettingsWindow(Services services, QWidget* parent) : QWidget(parent, Qt::Window) {
  setWindowTitle(Strings::text("settings.windowTitle"));
  setWindowIcon(Icons::applicationIcon());
  setObjectName(QStringLiteral("QuillaneSettingsWindow"));
  // Closing drops what was not confirmed (a pending language); the next opening reads the
  // settings afresh.
  setAttribute(Qt::WA_DeleteOnClose);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(8, 8, 8, 8);
  tabs_ = new QTabWidget(this);
  tabs_->setDocumentMode(true);
  layout->addWidget(tabs_);

  addPane(new LanguageSettingsView(services.languageManager), "globe", "settings.language.title");
  addPane(new LocalAPISettingsView(services.apiController), "terminal", "settings.api.title");
  DesktopFileDialogs* dialogs = services.fileDialogs;
  auto chooser = [dialogs, this](const std::optional<QUrl>& start) -> std::optional<QUrl> {
    return dialogs ? dialogs->chooseFolder(start, this) : std::nullopt;
  };
  addPane(new ExportProfilesSettingsView(services.viewModel, chooser), "square.and.arrow.up.on.square",
          "settings.profiles.title");
  addPane(new UpdateSettingsView(services.updateChecker), "arrow.down.circle", "settings.updates.title");
  // Escape closes the window as it would a dialog, and Ctrl+W as the desktop closes a window.
  auto* closeWindow = new QAction(this);
  closeWindow->setShortcuts(QKeySequence::keyBindings(QKeySequence::Close) << QKeySequence(Qt::Key_Escape));
  connect(closeWindow, &QAction::triggered, this, &QWidget::close);
  addAction(closeWindow);
  resize(680, 560);
  setMinimumHeight(420);
  assignAccessKeys();
  fitMinimumWidthToTabs();
}

void SettingsWindow::assignAccessKeys() {
  // Alt with a letter reaches the tabs and what the current page shows (its fields and buttons),
  // so the pages share only the tabs' letters.
  QString tabKeys;
  Mnemonics::assign(tabs_, tabKeys);
  for (int i = 0; i < tabs_->count(); ++i) {
    QString taken = tabKeys;
    Mnemonics::assignControls(tabs_->widget(i), taken);
  }
}

void SettingsWindow::fitMinimumWidthToTabs() {
  // In the longer languages the titles need more than the panes do; a tab bar that scrolls
  // would show the last one cut.
  const QMargins margins = layout()->contentsMargins();
  setMinimumWidth(std::max(560, tabs_->tabBar()->sizeHint().width() + margins.left() + margins.right()));
}

void SettingsWindow::insertHotFoldersPane(QWidget* pane) {
  addPane(pane, "eye", "settings.hotFolders.title", tabs_->count() - kUpdatesTabFromEnd);
  assignAccessKeys();
  fitMinimumWidthToTabs();
}

void SettingsWindow::addPane(QWidget* pane, const char* icon, const char* titleKey, int index) {
  QWidget* wrapped = wrapPane(pane, 600);
  // The scroll area is a Tab stop, for the keys that scroll a long pane: it says which pane it is.
  wrapped->setAccessibleName(Strings::text(titleKey));
  tabs_->insertTab(index, wrapped, Icons::icon(icon), Strings::text(titleKey));
}

SettingsWindow* SettingsWindow::showFor(QWidget* mainWindow, Services services) {
  auto* window =
      mainWindow ? mainWindow->findChild<SettingsWindow*>(QString(), Qt::FindDirectChildrenOnly) : nullptr;
  if (!window) window = new SettingsWindow(services, mainWindow);
  window->show();
  window->raise();
  window->activateWindow();
  return window;
}

}  // namespace quillane::ui
