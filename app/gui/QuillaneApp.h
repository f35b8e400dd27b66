#pragma once
// QuillaneApp: the application's composition. It builds the few long-lived objects once,
// in a fixed order, owns them for the life of the process, and hands them to the window and
// the settings panes as shared references. It holds no logic of its own.
//
// Built on the GUI thread after the QApplication, destroyed before it. GUI thread only.

#include <QObject>
#include <QString>
#include <QUrl>
#include <memory>

class QWidget;

namespace quillane {

class BatchViewModel;
class HotFoldersManager;
class LocalAPIController;
class UpdateChecker;

class QuillaneApp : public QObject {
  Q_OBJECT

 public:
  // The application's name as shown in menus ("Quillane").
  static QString appName();
  // The maker's public web site, opened by the help command.
  static QUrl websiteURL();
  // Sets the application's name, organisation and version on the QApplication.
  static void describeApplication();

  // Start-up, in this order: closing the last window quits; (hot folders are built lazily
  // when the window is installed); the language manager; the batch model, which starts
  // restoring the session; the local API controller, which starts the server when enabled;
  // the update checker, and a check at launch when "updateCheckEnabled" is set.
  QuillaneApp();
  ~QuillaneApp() override;

  BatchViewModel& viewModel() { return *viewModel_; }
  LocalAPIController& apiController() { return *apiController_; }
  // Stops the local API server, finishes the batch's exports and pending settings save, and stops
  // the hot folders (waiting for the files they are writing), so that the process may end at once:
  // the batch's own encodes write nothing.
  void stopServices();
  // Null until the first createMainWindow().
  HotFoldersManager* hotFoldersManager() { return hotFoldersManager_.get(); }
  UpdateChecker& updateChecker() { return *updateChecker_; }

  // Builds the hot folders manager, which starts the enabled hot folders; once.
  HotFoldersManager& startHotFolders();

  // Makes the main window, showing the one batch. The caller owns it. The first call also
  // builds the hot folders manager, which starts the enabled hot folders.
  std::unique_ptr<QWidget> createMainWindow();

 private:
  std::unique_ptr<BatchViewModel> viewModel_;
  std::unique_ptr<LocalAPIController> apiController_;
  std::unique_ptr<HotFoldersManager> hotFoldersManager_;  // built on first installation of the window
  std::unique_ptr<UpdateChecker> updateChecker_;
};

}  // namespace quillane
