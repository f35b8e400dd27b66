#pragma once
// MainWindow: the application's one main window (the content view): the control bar, then
// either the drop area or the list of images and failed imports, the export alert, and the
// menu bar with its commands. It installs the file dialogs into the model while it lives.
//
// GUI thread only. The model is owned by the application and outlives the window.

#include <QMainWindow>
#include <QPointer>
#include <functional>
#include <memory>

class QAction;
class QMessageBox;
class QLabel;
class QStackedWidget;
class QUndoStack;

namespace quillane {
class BatchViewModel;
class ImportedImage;
}  // namespace quillane

namespace quillane::ui {

class ControlsBar;
class DesktopFileDialogs;
class DropTargetView;
class ExportSummaryView;
class ImageListView;

class MainWindow : public QMainWindow {
  Q_OBJECT
 public:
  static constexpr int minimumWidth = 780;
  static constexpr int minimumHeight = 540;

  explicit MainWindow(BatchViewModel& viewModel, QWidget* parent = nullptr);
  ~MainWindow() override;

  // The name in the About and Help commands: the application name, else "Quillane".
  static QString appName();
  // The maker's web site, opened by the Help command.
  static QUrl websiteURL();

  // Replaces the dialogs (tests). The window keeps ownership.
  void setFileDialogs(std::unique_ptr<DesktopFileDialogs> dialogs);
  DesktopFileDialogs& fileDialogs() const { return *fileDialogs_; }
  // What the Settings command runs (the application opens its settings window).
  void setSettingsOpener(std::function<void()> opener) { openSettings_ = std::move(opener); }

  ControlsBar* controlsBar() const { return bar_; }

  // The row actions that need a window. The comparison is a window of its own, one per image.
  void showComparison(const std::shared_ptr<ImportedImage>& image);
  void showQualityOverride(const std::shared_ptr<ImportedImage>& image, const QRect& anchor);
  void exportSingle(const std::shared_ptr<ImportedImage>& image);
  void showAbout();

 protected:
  // Keeps the window's size and place for the next launch.
  void closeEvent(QCloseEvent* event) override;

 private:
  // Keeps the window's size inside the screen's available area, and its place when `placed`
  // (restored from the last session) rather than left to the window manager.
  void fitToScreen(bool placed);
  bool showsList() const;
  void buildMenus();
  void refresh();
  void refreshExportError();
  void refreshTotal();

  BatchViewModel& viewModel_;
  std::unique_ptr<DesktopFileDialogs> fileDialogs_;
  std::function<void()> openSettings_;
  ControlsBar* bar_;
  QStackedWidget* stack_;
  ExportSummaryView* summary_;
  DropTargetView* drop_;
  ImageListView* list_;
  QLabel* total_;
  // The batch's undoable changes (BatchViewModel::undoableChange), Edit > Undo / Redo.
  QUndoStack* undoStack_;  // the batch's before, after and saving, under the list
  QAction* importAction_ = nullptr;
  QAction* exportAction_ = nullptr;
  QAction* clearAllAction_ = nullptr;
  QAction* increaseAction_ = nullptr;
  QAction* decreaseAction_ = nullptr;
  QAction* quitAction_ = nullptr;
  QMessageBox* alert_ = nullptr;
  QPointer<QWidget> qualityPopup_;
};

}  // namespace quillane::ui
