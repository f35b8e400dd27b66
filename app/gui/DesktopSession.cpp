#include "app/gui/DesktopSession.h"

#include <QCoreApplication>
#include <QUrl>
#include <QWidget>

#include "app/gui/QuillaneApp.h"
#include "batch/BatchViewModel.h"

namespace quillane {

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
  window_.reset();
  app_.reset();
}

void DesktopSession::showWindow() {
  if (!canShowWindow_) return;
  quietTimer_.stop();
  if (!app_) app_ = std::make_unique<QuillaneApp>();
  if (!window_) window_ = app_->createMainWindow();
  window_->show();
  window_->setWindowState((window_->windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
  window_->raise();
  window_->activateWindow();
}

void DesktopSession::stopForQuit() {
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

}  // namespace quillane
