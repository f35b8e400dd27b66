#include "app/gui/QuillaneApp.h"

#include <QApplication>
#include <QTimer>
#include <QWidget>

#include "QuillaneVersion.h"
#include "api/LocalAPIController.h"
#include "batch/BatchViewModel.h"
#include "hotfolders/HotFoldersManager.h"
#include "services/LanguageManager.h"
#include "services/UpdateChecker.h"
#include "ui/HotFoldersSettingsView.h"
#include "ui/MainWindow.h"
#include "ui/SettingsWindow.h"

namespace quillane {

QString QuillaneApp::appName() { return QStringLiteral("Quillane"); }

QUrl QuillaneApp::websiteURL() {
  static const QUrl url(QStringLiteral("https://quillane.app"));
  return url;
}

void QuillaneApp::describeApplication() {
  QCoreApplication::setApplicationName(appName());
  QCoreApplication::setOrganizationName(appName());
  QCoreApplication::setApplicationVersion(QString::fromLatin1(kAppVersion));
  // Lets the window manager match windows to the installed launcher entry (and its icon).
  QGuiApplication::setDesktopFileName(QStringLiteral("com.quillane.Quillane"));
}

QuillaneApp::QuillaneApp() {
  // 1. Closing the last window ends the process; there is no shut-down step.
  QApplication::setQuitOnLastWindowClosed(true);

  // 2. HotFoldersManager: built lazily when the window is first installed (createMainWindow).

  // 3. The language manager, ahead of anything that formats text: it installs the tables.
  LanguageManager::shared();

  // 4. The one batch model. It reads history and profiles now and restores the session as
  //    a queued call, so the window may appear before the restored rows.
  viewModel_ = std::make_unique<BatchViewModel>();

  // 5. The local API, which starts listening at once when enabled.
  apiController_ = std::make_unique<LocalAPIController>(*viewModel_);

  // 6. The update checker in its initial state, and 7. the check at launch when asked for.
  updateChecker_ = std::make_unique<UpdateChecker>();
  if (UpdateChecker::isCheckAtLaunchEnabled()) {
    QTimer::singleShot(0, updateChecker_.get(), [checker = updateChecker_.get()] { checker->checkNow(); });
  }
}

QuillaneApp::~QuillaneApp() {
  // Stops the hot folders and waits for what they are compressing: nothing writes after quit.
  hotFoldersManager_.reset();
  // The server goes before the model its router drives.
  apiController_.reset();
  updateChecker_.reset();
  viewModel_.reset();
}

void QuillaneApp::stopServices() {
  // The local API's port goes first, as the bus name does: the export or the hot-folder check waited
  // for next may be stuck on a volume that stopped answering, and a next instance must be able to
  // listen there meanwhile.
  apiController_->stop();
  viewModel_->finishWrites();
  hotFoldersManager_.reset();
}

HotFoldersManager& QuillaneApp::startHotFolders() {
  if (!hotFoldersManager_) hotFoldersManager_ = std::make_unique<HotFoldersManager>();
  return *hotFoldersManager_;
}

std::unique_ptr<QWidget> QuillaneApp::createMainWindow() {
  startHotFolders();
  auto window = std::make_unique<ui::MainWindow>(*viewModel_);
  ui::MainWindow* main = window.get();
  main->setSettingsOpener([this, main] {
    ui::SettingsWindow* settings = ui::SettingsWindow::showFor(
        main,
        {*viewModel_, *apiController_, *updateChecker_, LanguageManager::shared(), &main->fileDialogs()});
    if (!settings->findChild<ui::HotFoldersSettingsView*>()) {
      settings->insertHotFoldersPane(new ui::HotFoldersSettingsView(
          *hotFoldersManager_, *viewModel_, ui::HotFoldersSettingsView::folderChooser(&main->fileDialogs())));
    }
  });
  return window;
}

}  // namespace quillane
