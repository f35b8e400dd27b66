#include "ui/MainWindow.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QFrame>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QScreen>
#include <QScrollBar>
#include <QShortcut>
#include <QStackedWidget>
#include <QTimer>
#include <QUndoStack>
#include <QUrl>
#include <QVBoxLayout>
#include <utility>

#include "batch/BatchViewModel.h"
#include "services/SettingsFile.h"
#include "services/Strings.h"
#include "ui/ComparisonView.h"
#include "ui/ControlsBar.h"
#include "ui/DesktopFileDialogs.h"
#include "ui/DropTargetView.h"
#include "ui/ExportSummaryView.h"
#include "ui/Icons.h"
#include "ui/ImageListModel.h"
#include "ui/ImageListView.h"
#include "ui/Mnemonics.h"
#include "ui/QualityControls.h"
#include "ui/RowRules.h"

namespace quillane::ui {

namespace {
const QString kGeometryKey = QStringLiteral("window/geometry");
// Room for the window manager's title bar and borders, which are not known before the window
// is shown.
const QMargins kFrame(8, 40, 8, 8);

// One change the model announced, already done when pushed: the stack's first redo is skipped.
// Quality changes of one image in a row (a slider drag) merge into one step.
class ModelChangeCommand : public QUndoCommand {
 public:
  ModelChangeCommand(const QString& label, QString mergeKey, std::function<void()> undo,
                     std::function<void()> redo)
      : QUndoCommand(label), mergeKey_(std::move(mergeKey)), undo_(std::move(undo)), redo_(std::move(redo)) {}
  void undo() override { undo_(); }
  void redo() override {
    if (std::exchange(pushed_, false)) return;
    redo_();
  }
  int id() const override { return mergeKey_.isEmpty() ? -1 : 1; }
  bool mergeWith(const QUndoCommand* other) override {
    const auto* next = static_cast<const ModelChangeCommand*>(other);
    if (next->mergeKey_ != mergeKey_) return false;
    redo_ = next->redo_;
    return true;
  }

 private:
  QString mergeKey_;
  std::function<void()> undo_, redo_;
  bool pushed_ = true;
};
}  // namespace

MainWindow::MainWindow(BatchViewModel& viewModel, QWidget* parent)
    : QMainWindow(parent), viewModel_(viewModel), fileDialogs_(std::make_unique<DesktopFileDialogs>(this)) {
  setWindowTitle(appName());
  setWindowIcon(Icons::applicationIcon());
  setMinimumSize(minimumWidth, minimumHeight);
  resize(960, 640);
  // The size and place of the last session; restoreGeometry keeps the window on a screen.
  const QByteArray geometry = SettingsFile::store()->value(kGeometryKey).toByteArray();
  fitToScreen(!geometry.isEmpty() && restoreGeometry(geometry));
  viewModel_.setFileDialogs(fileDialogs_.get());

  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  bar_ = new ControlsBar(viewModel_, central);
  layout->addWidget(bar_);
  auto* divider = new QFrame(central);
  divider->setFrameShape(QFrame::HLine);
  divider->setFrameShadow(QFrame::Sunken);
  layout->addWidget(divider);
  summary_ = new ExportSummaryView(
      [this](const QList<QUrl>& files) { fileDialogs_->showFilesInFileManager(files); }, central);
  layout->addWidget(summary_);
  // What an export did; a desktop notification as well when the user is elsewhere: none of the
  // program's windows (this one, the comparison, the settings) is in front.
  connect(&viewModel_, &BatchViewModel::exportFinished, this, [this](const ExportSummary& summary) {
    summary_->present(summary, !QApplication::activeWindow());
  });

  stack_ = new QStackedWidget(central);
  drop_ = new DropTargetView(
      viewModel_, [this] { viewModel_.promptImport(); }, stack_);
  list_ = new ImageListView(viewModel_, stack_);
  stack_->addWidget(drop_);
  stack_->addWidget(list_);
  layout->addWidget(stack_, 1);
  total_ = new QLabel(central);
  total_->setObjectName(QStringLiteral("batchTotal"));
  total_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  total_->setContentsMargins(12, 4, 12, 6);
  layout->addWidget(total_);
  setCentralWidget(central);
  // Any row's change may change the total: the list model announces them all.
  const QAbstractItemModel* rows = &list_->listModel();
  connect(rows, &QAbstractItemModel::dataChanged, this, &MainWindow::refreshTotal);
  connect(rows, &QAbstractItemModel::rowsInserted, this, &MainWindow::refreshTotal);
  connect(rows, &QAbstractItemModel::rowsRemoved, this, &MainWindow::refreshTotal);
  connect(rows, &QAbstractItemModel::modelReset, this, &MainWindow::refreshTotal);

  connect(list_, &ImageListView::comparisonRequested, this, &MainWindow::showComparison);
  connect(list_, &ImageListView::qualityOverrideRequested, this, &MainWindow::showQualityOverride);
  connect(list_, &ImageListView::exportSingleRequested, this, &MainWindow::exportSingle);

  undoStack_ = new QUndoStack(this);
  connect(&viewModel_, &BatchViewModel::undoableChange, this,
          [this](const QString& label, const QString& mergeKey, std::function<void()> undo,
                 std::function<void()> redo) {
            undoStack_->push(new ModelChangeCommand(label, mergeKey, std::move(undo), std::move(redo)));
          });
  buildMenus();
  connect(&viewModel_, &BatchViewModel::imagesChanged, this, &MainWindow::refresh);
  connect(&viewModel_, &BatchViewModel::importFailuresChanged, this, &MainWindow::refresh);
  connect(&viewModel_, &BatchViewModel::isEncodingChanged, this, &MainWindow::refresh);
  connect(&viewModel_, &BatchViewModel::hasPendingRecomputeChanged, this, &MainWindow::refresh);
  connect(&viewModel_, &BatchViewModel::exportErrorChanged, this, &MainWindow::refreshExportError);
  refresh();
  refreshExportError();
}

MainWindow::~MainWindow() {
  if (viewModel_.fileDialogs() == fileDialogs_.get()) viewModel_.setFileDialogs(nullptr);
}

QString MainWindow::appName() {
  const QString name = QCoreApplication::applicationName();
  return name.isEmpty() ? QStringLiteral("Quillane") : name;
}

QUrl MainWindow::websiteURL() {
  static const QUrl url(QStringLiteral("https://quillane.app"));
  return url;
}

void MainWindow::setFileDialogs(std::unique_ptr<DesktopFileDialogs> dialogs) {
  if (viewModel_.fileDialogs() == fileDialogs_.get()) viewModel_.setFileDialogs(dialogs.get());
  fileDialogs_ = std::move(dialogs);
}

void MainWindow::fitToScreen(bool placed) {
  const QScreen* screen = this->screen() ? this->screen() : QGuiApplication::primaryScreen();
  if (!screen) return;
  const QRect area = screen->availableGeometry().marginsRemoved(kFrame);
  // A small screen, or a large scale factor, gets a window smaller than its usual minimum
  // rather than one that runs off the screen.
  setMinimumSize(QSize(minimumWidth, minimumHeight).boundedTo(area.size()));
  QRect frame = geometry();
  frame.setSize(frame.size().boundedTo(area.size()));
  if (!placed) {
    resize(frame.size());  // the window manager places a new window
    return;
  }
  frame.moveLeft(std::clamp(frame.left(), area.left(), area.right() + 1 - frame.width()));
  frame.moveTop(std::clamp(frame.top(), area.top(), area.bottom() + 1 - frame.height()));
  setGeometry(frame);
}

bool MainWindow::showsList() const { return stack_->currentWidget() == list_; }

void MainWindow::buildMenus() {
  QMenu* file = menuBar()->addMenu(Strings::text("menu.file"));
  importAction_ = file->addAction(Strings::text("menu.import"), this, [this] { viewModel_.promptImport(); });
  importAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_O));
  exportAction_ =
      file->addAction(Strings::text("menu.exportAll"), this, [this] { viewModel_.promptExportAll(); });
  exportAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
  file->addSeparator();
  QAction* settings = file->addAction(Strings::text("menu.settings"), this, [this] {
    if (openSettings_) openSettings_();
  });
  settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
  settings->setMenuRole(QAction::PreferencesRole);
  file->addSeparator();
  quitAction_ = file->addAction(Strings::text("menu.quit"), qApp, &QCoreApplication::quit);
  quitAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
  quitAction_->setMenuRole(QAction::QuitRole);

  QMenu* edit = menuBar()->addMenu(Strings::text("menu.edit"));
  QAction* undo = undoStack_->createUndoAction(this, Strings::text("menu.undo"));
  undo->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Z));
  edit->addAction(undo);
  QAction* redo = undoStack_->createRedoAction(this, Strings::text("menu.redo"));
  redo->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z));
  edit->addAction(redo);
  edit->addSeparator();
  // The bar's button, where the keyboard finds it among the commands; undone as it is.
  clearAllAction_ =
      edit->addAction(Strings::text("common.clearAll"), this, [this] { viewModel_.clearAll(); });

  QMenu* quality = menuBar()->addMenu(Strings::text("quality.label"));
  increaseAction_ = quality->addAction(Strings::text("menu.increaseQuality"), this, [this] {
    viewModel_.setQuality(std::min(viewModel_.quality() + 5, 100.0));
  });
  // Ctrl+= as well: on most layouts "+" needs Shift.
  increaseAction_->setShortcuts(
      {QKeySequence(Qt::CTRL | Qt::Key_Plus), QKeySequence(Qt::CTRL | Qt::Key_Equal)});
  decreaseAction_ = quality->addAction(Strings::text("menu.decreaseQuality"), this, [this] {
    viewModel_.setQuality(std::max(viewModel_.quality() - 5, 1.0));
  });
  decreaseAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Minus));

  QMenu* help = menuBar()->addMenu(Strings::text("menu.help"));
  help->addAction(Strings::format("menu.helpFormat", appName()), this,
                  [] { QDesktopServices::openUrl(websiteURL()); });
  QAction* about =
      help->addAction(Strings::format("menu.aboutFormat", appName()), this, &MainWindow::showAbout);
  about->setMenuRole(QAction::AboutRole);

  Mnemonics::assign(menuBar());
  for (QMenu* menu : {file, edit, quality, help}) Mnemonics::keep(menu);
  // F10 opens the first menu, as the desktop's menu bars do (Shift+F10 stays a row's menu).
  auto* openMenus = new QShortcut(QKeySequence(Qt::Key_F10), this);
  connect(openMenus, &QShortcut::activated, this,
          [this, file] { menuBar()->setActiveAction(file->menuAction()); });
}

void MainWindow::refresh() {
  const bool empty = viewModel_.images().empty() && viewModel_.importFailures().empty();
  clearAllAction_->setEnabled(!empty);
  stack_->setCurrentWidget(empty ? static_cast<QWidget*>(drop_) : static_cast<QWidget*>(list_));
  exportAction_->setEnabled(RowRules::canExportAll(viewModel_.isEncoding(), viewModel_.hasPendingRecompute(),
                                                   !viewModel_.images().empty()));
  refreshTotal();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  auto settings = SettingsFile::store();
  settings->setValue(kGeometryKey, saveGeometry());
  SettingsFile::save(*settings);
  QMainWindow::closeEvent(event);
}

void MainWindow::refreshTotal() {
  const QString total = RowRules::batchTotalText(viewModel_.images());
  total_->setText(total);
  total_->setAccessibleName(total);
  total_->setVisible(!total.isEmpty() && showsList());
}

void MainWindow::refreshExportError() {
  const auto& error = viewModel_.exportError();
  if (!error) {
    if (alert_ && alert_->isVisible()) alert_->hide();
    return;
  }
  if (!alert_) {
    alert_ = new QMessageBox(QMessageBox::Warning, Strings::text("export.errorTitle"), QString(),
                             QMessageBox::Ok, this);
    alert_->button(QMessageBox::Ok)->setText(Strings::text("common.ok"));
    alert_->setWindowModality(Qt::WindowModal);
    // Any way of closing the alert clears the error, so that it does not come back.
    connect(alert_, &QMessageBox::finished, this, [this] {
      if (viewModel_.exportError()) viewModel_.setExportError(std::nullopt);
    });
  }
  alert_->setText(*error);
  if (!alert_->isVisible()) alert_->open();
}

void MainWindow::showComparison(const std::shared_ptr<ImportedImage>& image) {
  ImageComparisonView* view = nullptr;
  for (auto* open : findChildren<ImageComparisonView*>(QString(), Qt::FindDirectChildrenOnly))
    if (open->image() == image) view = open;
  if (!view) {
    view = new ImageComparisonView(viewModel_, image, this);
    // The window's commands keep their shortcuts while the comparison has the focus.
    view->addActions({increaseAction_, decreaseAction_, importAction_, exportAction_, quitAction_});
  }
  view->show();
  view->raise();
  view->activateWindow();
}

void MainWindow::showQualityOverride(const std::shared_ptr<ImportedImage>& image, const QRect& anchor) {
  if (qualityPopup_) qualityPopup_->close();
  auto* popup = new QualityOverridePopup(viewModel_, image, this);
  qualityPopup_ = popup;
  popup->popUp(anchor);
  // The popup stays under its own row's button when the rows move (another row removed,
  // scrolling, the window resized) and goes with its row.
  const auto follow = [this, popup, image] {
    if (qualityPopup_ != popup) return;
    if (const auto moved = list_->qualityAnchor(image))
      popup->popUp(*moved);
    else
      popup->close();
  };
  const auto later = [follow] { QTimer::singleShot(0, follow); };
  connect(&list_->listModel(), &QAbstractItemModel::rowsRemoved, popup, later);
  connect(&list_->listModel(), &QAbstractItemModel::rowsInserted, popup, later);
  connect(&list_->listModel(), &QAbstractItemModel::rowsMoved, popup, later);
  connect(&list_->listModel(), &QAbstractItemModel::modelReset, popup, later);
  connect(list_->verticalScrollBar(), &QScrollBar::valueChanged, popup, later);
}

void MainWindow::exportSingle(const std::shared_ptr<ImportedImage>& image) {
  const ImageFormat format = viewModel_.outputFormat();
  const auto url = fileDialogs_->chooseSaveFile(RowRules::suggestedExportName(*image, format), format);
  // A cancelled dialog changes nothing.
  if (url) viewModel_.exportSingle(image, *url);
}

void MainWindow::showAbout() {
  QMessageBox box(this);
  box.setWindowTitle(Strings::format("menu.aboutFormat", appName()));
  box.setIconPixmap(Icons::applicationIcon().pixmap(64, 64));
  box.setTextFormat(Qt::RichText);
  box.setText(QStringLiteral("<h3>%1</h3><p>%2</p><p><a href=\"%3\">%3</a></p>")
                  .arg(appName().toHtmlEscaped(), QCoreApplication::applicationVersion().toHtmlEscaped(),
                       websiteURL().toString()));
  box.setStandardButtons(QMessageBox::Ok);
  // In the application's language even where Qt has no catalogue of its own (Hindi, European
  // Portuguese), as the export alert's button is.
  box.button(QMessageBox::Ok)->setText(Strings::text("common.ok"));
  box.exec();
}

}  // namespace quillane::ui
