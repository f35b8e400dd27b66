#include "ui/BackgroundTrayMenu.h"

#include "hotfolders/HotFoldersManager.h"
#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/Mnemonics.h"

namespace quillane::ui {

BackgroundTrayMenu::BackgroundTrayMenu(HotFoldersManager& manager, std::function<void()> openWindow,
                                       std::function<void()> quit, QWidget* parent)
    : QMenu(parent), manager_(manager) {
  QAction* open = addAction(Icons::applicationIcon(), Strings::text("tray.open"));
  open->setObjectName(QStringLiteral("trayOpen"));
  connect(open, &QAction::triggered, this, [openWindow = std::move(openWindow)] { openWindow(); });
  pause_ = addAction(QString());
  pause_->setObjectName(QStringLiteral("trayPause"));
  connect(pause_, &QAction::triggered, this, [this] { manager_.setPaused(!manager_.isPaused()); });
  addSeparator();
  QAction* quitAction = addAction(Strings::text("tray.quit"));
  quitAction->setObjectName(QStringLiteral("trayQuit"));
  connect(quitAction, &QAction::triggered, this, [quit = std::move(quit)] { quit(); });

  connect(&manager_, &HotFoldersManager::pausedChanged, this, &BackgroundTrayMenu::refresh);
  connect(&manager_, &HotFoldersManager::hotFoldersChanged, this, &BackgroundTrayMenu::refresh);
  refresh();
}

QString BackgroundTrayMenu::toolTipText() const {
  return Strings::text(manager_.isPaused() ? "tray.pausedTooltip" : "tray.tooltip");
}

void BackgroundTrayMenu::refresh() {
  pause_->setText(Strings::text(manager_.isPaused() ? "tray.resumeHotFolders" : "tray.pauseHotFolders"));
  // Nothing to pause without an enabled folder; a paused manager can always be resumed.
  pause_->setEnabled(manager_.isPaused() || manager_.hasEnabledFolder());
  Mnemonics::assign(this);
  emit toolTipChanged();
}

}  // namespace quillane::ui
