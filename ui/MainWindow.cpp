#include "ui/MainWindow.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QFrame>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QScrollBar>
#include <QStackedWidget>
#include <QTimer>
#include <QUndoStack>
#include <QUrl>
#include <QVBoxLayout>
#include <utility>

#include "batch/BatchViewModel.h"
#include "services/UserDefaults.h"
#include "ui/ComparisonView.h"
#include "ui/ControlsBar.h"
#include "ui/DesktopPanels.h"
#include "ui/DropTargetView.h"
#include "ui/Icons.h"
#include "ui/ImageListModel.h"
#include "ui/ImageListView.h"
#include "ui/QualityControls.h"
#include "ui/RowRules.h"
#include "ui/UiText.h"

namespace quillane::ui {

namespace {
const QString kGeometryKey = QStringLiteral("window/geometry");

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
    : QMainWindow(parent), viewModel_(viewModel), panels_(std::make_unique<DesktopPanels>(this)) {
  setWindowTitle(appName());
  setWindowIcon(Icons::applicationIcon());
  setMinimumSize(minimumWidth, minimumHeight);
  resize(960, 640);
  // The size and place of the last session; restoreGeometry keeps the window on a screen.
  if (const QByteArray geometry = UserDefaults::store()->value(kGeometryKey).toByteArray();
      !geometry.isEmpty())
    restoreGeometry(geometry);
  viewModel_.setPanels(panels_.get());

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
  if (viewModel_.panels() == panels_.get()) viewModel_.setPanels(nullptr);
}

QString MainWindow::appName() {
  const QString name = QCoreApplication::applicationName();
  return name.isEmpty() ? QStringLiteral("Quillane") : name;
}

QUrl MainWindow::websiteURL() {
  static const QUrl url(QStringLiteral("https://quillane.app"));
  return url;
}

void MainWindow::setPanels(std::unique_ptr<DesktopPanels> panels) {
  if (viewModel_.panels() == panels_.get()) viewModel_.setPanels(panels.get());
  panels_ = std::move(panels);
}

bool MainWindow::showsList() const { return stack_->currentWidget() == list_; }

void MainWindow::buildMenus() {
  QMenu* file = menuBar()->addMenu(text("menu.file", "Fichier"));
  importAction_ =
      file->addAction(text("menu.import", "Importer…"), this, [this] { viewModel_.promptImport(); });
  importAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_O));
  exportAction_ = file->addAction(text("menu.exportAll", "Tout exporter…"), this,
                                  [this] { viewModel_.promptExportAll(); });
  exportAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
  file->addSeparator();
  QAction* settings = file->addAction(text("menu.settings", "Réglages…"), this, [this] {
    if (openSettings_) openSettings_();
  });
  settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
  settings->setMenuRole(QAction::PreferencesRole);
  file->addSeparator();
  quitAction_ = file->addAction(text("menu.quit", "Quitter"), qApp, &QCoreApplication::quit);
  quitAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
  quitAction_->setMenuRole(QAction::QuitRole);

  QMenu* edit = menuBar()->addMenu(text("menu.edit", "Édition"));
  QAction* undo = undoStack_->createUndoAction(this, text("menu.undo", "Annuler"));
  undo->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Z));
  edit->addAction(undo);
  QAction* redo = undoStack_->createRedoAction(this, text("menu.redo", "Rétablir"));
  redo->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z));
  edit->addAction(redo);

  QMenu* quality = menuBar()->addMenu(text("quality.label", "Qualité"));
  increaseAction_ = quality->addAction(text("menu.increaseQuality", "Augmenter la qualité"), this, [this] {
    viewModel_.setQuality(std::min(viewModel_.quality() + 5, 100.0));
  });
  // Ctrl+= as well: on most layouts "+" needs Shift.
  increaseAction_->setShortcuts(
      {QKeySequence(Qt::CTRL | Qt::Key_Plus), QKeySequence(Qt::CTRL | Qt::Key_Equal)});
  decreaseAction_ = quality->addAction(text("menu.decreaseQuality", "Diminuer la qualité"), this, [this] {
    viewModel_.setQuality(std::max(viewModel_.quality() - 5, 1.0));
  });
  decreaseAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Minus));

  QMenu* help = menuBar()->addMenu(text("menu.help", "Aide"));
  help->addAction(format("menu.helpFormat", "Aide de %@", {appName()}), this,
                  [] { QDesktopServices::openUrl(websiteURL()); });
  QAction* about = help->addAction(format("menu.aboutFormat", "À propos de %@", {appName()}), this,
                                   &MainWindow::showAbout);
  about->setMenuRole(QAction::AboutRole);
}

void MainWindow::refresh() {
  const bool empty = viewModel_.images().empty() && viewModel_.importFailures().empty();
  stack_->setCurrentWidget(empty ? static_cast<QWidget*>(drop_) : static_cast<QWidget*>(list_));
  exportAction_->setEnabled(RowRules::canExportAll(viewModel_.isEncoding(), viewModel_.hasPendingRecompute(),
                                                   !viewModel_.images().empty()));
  refreshTotal();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  auto settings = UserDefaults::store();
  settings->setValue(kGeometryKey, saveGeometry());
  UserDefaults::save(*settings);
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
    alert_ = new QMessageBox(QMessageBox::Warning, text("export.errorTitle", "Erreur d'exportation"),
                             QString(), QMessageBox::Ok, this);
    alert_->button(QMessageBox::Ok)->setText(text("common.ok", "OK"));
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
  if (qualityPopover_) qualityPopover_->close();
  auto* popover = new QualityOverridePopup(viewModel_, image, this);
  qualityPopover_ = popover;
  popover->popUp(anchor);
  // The popover stays under its own row's button when the rows move (another row removed,
  // scrolling, the window resized) and goes with its row.
  const auto follow = [this, popover, image] {
    if (qualityPopover_ != popover) return;
    if (const auto moved = list_->qualityAnchor(image))
      popover->popUp(*moved);
    else
      popover->close();
  };
  const auto later = [follow] { QTimer::singleShot(0, follow); };
  connect(&list_->listModel(), &QAbstractItemModel::rowsRemoved, popover, later);
  connect(&list_->listModel(), &QAbstractItemModel::rowsInserted, popover, later);
  connect(&list_->listModel(), &QAbstractItemModel::rowsMoved, popover, later);
  connect(&list_->listModel(), &QAbstractItemModel::modelReset, popover, later);
  connect(list_->verticalScrollBar(), &QScrollBar::valueChanged, popover, later);
}

void MainWindow::exportSingle(const std::shared_ptr<ImportedImage>& image) {
  const ImageFormat format = viewModel_.outputFormat();
  const auto url = panels_->chooseSaveFile(RowRules::suggestedExportName(*image, format), format);
  // A cancelled dialog changes nothing.
  if (url) viewModel_.exportSingle(image, *url);
}

void MainWindow::showAbout() {
  QMessageBox box(this);
  box.setWindowTitle(format("menu.aboutFormat", "À propos de %@", {appName()}));
  box.setIconPixmap(Icons::applicationIcon().pixmap(64, 64));
  box.setTextFormat(Qt::RichText);
  box.setText(QStringLiteral("<h3>%1</h3><p>%2</p><p><a href=\"%3\">%3</a></p>")
                  .arg(appName().toHtmlEscaped(), QCoreApplication::applicationVersion().toHtmlEscaped(),
                       websiteURL().toString()));
  box.setStandardButtons(QMessageBox::Ok);
  box.exec();
}

}  // namespace quillane::ui
