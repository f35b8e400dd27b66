#include "app/gui/DesktopSession.h"

#include <QApplication>
#include <QDBusConnection>
#include <QSystemTrayIcon>
#include <QUrl>
#include <QWidget>

#include "app/gui/QuillaneApp.h"
#include "automation/DesktopNotification.h"
#include "batch/BatchViewModel.h"
#include "hotfolders/HotFoldersManager.h"
#include "services/BackgroundSettings.h"
#include "services/Strings.h"
#include "ui/BackgroundTrayMenu.h"
#include "ui/Icons.h"

namespace quillane {

namespace {
constexpr int kTrayAttempts = 30;
constexpr int kTrayRetryMs = 10 * 1000;
}  // namespace

DesktopSession::DesktopSession(bool canShowWindow) : canShowWindow_(canShowWindow) {
  quietTimer_.setSingleShot(true);
  connect(&quietTimer_, &QTimer::timeout, this, [this] {
    if (window_) return;
    if (busy_ && busy_())
      quietTimer_.start();
    else
      QCoreApplication::quit();
  });
}

DesktopSession::~DesktopSession() {
  tray_.reset();
  trayMenu_.reset();
  window_.reset();
  app_.reset();
}

QuillaneApp& DesktopSession::app() {
  if (!app_) {
    app_ = std::make_unique<QuillaneApp>();
    if (auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
      // Closing the last window is decided here: it quits unless the process stays in the
      // background.
      QGuiApplication::setQuitOnLastWindowClosed(false);
      connect(gui, &QGuiApplication::lastWindowClosed, this, &DesktopSession::windowClosed);
    }
  }
  return *app_;
}

void DesktopSession::showWindow() {
  if (!canShowWindow_) return;
  quietTimer_.stop();
  if (!window_) window_ = app().createMainWindow();
  window_->show();
  window_->setWindowState((window_->windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
  window_->raise();
  window_->activateWindow();
  // Start-up measurements and the check of an installed copy: quit once the window has been
  // shown and painted (its paint is posted ahead of this call).
  if (qEnvironmentVariableIsSet("QUILLANE_QUIT_WHEN_SHOWN"))
    QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
}

void DesktopSession::startInBackground() {
  startedInBackground_ = true;
  app().startHotFolders();
  showTray();
}

void DesktopSession::stopForQuit() {
  tray_.reset();
  trayMenu_.reset();
  window_.reset();
  if (app_) app_->stopServices();
}

void DesktopSession::open(const QList<QUrl>& files) {
  showWindow();
  if (!app_ || files.isEmpty()) return;
  app_->viewModel().importFiles(files);
}

void DesktopSession::quitWhenQuiet(int quietMs, std::function<bool()> busy) {
  busy_ = std::move(busy);
  quietTimer_.setInterval(quietMs);
  quietTimer_.start();
}

void DesktopSession::idleActivity() {
  if (!window_ && quietTimer_.interval() > 0) quietTimer_.start();
}

bool DesktopSession::staysInBackground() const {
  if (startedInBackground_) return true;
  const HotFoldersManager* manager = app_ ? app_->hotFoldersManager() : nullptr;
  return manager && manager->hasEnabledFolder() && BackgroundSettings::keepsWatching();
}

void DesktopSession::windowClosed() {
  if (window_ && window_->isVisible()) return;
  if (!staysInBackground()) {
    QCoreApplication::quit();
    return;
  }
  showTray();
  if (BackgroundSettings::takeFirstBackgroundNotice()) {
    const QString title = Strings::text("background.notice.title");
    const QString body = Strings::text("background.notice.body");
    if (!DesktopNotification::show(QDBusConnection::sessionBus(), title, body) && tray_)
      tray_->showMessage(title, body, ui::Icons::applicationIcon());
  }
}

void DesktopSession::showTray() {
  if (tray_ || !canShowWindow_) return;
  if (!QSystemTrayIcon::isSystemTrayAvailable()) {
    // Started at login, the process may come before the desktop's tray: look again for a while.
    if (trayAttempts_++ < kTrayAttempts) QTimer::singleShot(kTrayRetryMs, this, &DesktopSession::showTray);
    return;
  }
  HotFoldersManager* manager = app().hotFoldersManager();
  if (!manager) return;
  trayMenu_ = std::make_unique<ui::BackgroundTrayMenu>(
      *manager, [this] { showWindow(); }, [] { QCoreApplication::quit(); });
  ui::BackgroundTrayMenu* menu = trayMenu_.get();
  tray_ = std::make_unique<QSystemTrayIcon>(ui::Icons::applicationIcon());
  tray_->setContextMenu(menu);
  tray_->setToolTip(menu->toolTipText());
  connect(menu, &ui::BackgroundTrayMenu::toolTipChanged, tray_.get(),
          [tray = tray_.get(), menu] { tray->setToolTip(menu->toolTipText()); });
  connect(tray_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) showWindow();
  });
  tray_->show();
}

}  // namespace quillane
