// What a user meets in the window's corners: a double click on a row button, the exclusive
// format menus, the profile button's arrow, and the file dialogs' start folders and filter.
#include <QAbstractItemView>
#include <QAbstractSpinBox>
#include <QApplication>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QScreen>
#include <QScrollBar>
#include <QSlider>
#include <QTimer>

#include "api/LocalAPIController.h"
#include "services/AppLanguage.h"
#include "services/LanguageManager.h"
#include "services/UpdateChecker.h"
#include "tests/ui/ui_test_support.h"
#include "ui/ComparisonView.h"
#include "ui/ControlsBar.h"
#include "ui/DesktopFileDialogs.h"
#include "ui/ExportProfilesSettingsView.h"
#include "ui/ImageListModel.h"
#include "ui/ImageListView.h"
#include "ui/QualityControls.h"
#include "ui/SettingsWindow.h"
#include "ui/UiText.h"

namespace quillane::uitest {
namespace {

using ui::DesktopFileDialogs;
using Kind = DesktopFileDialogs::FolderKind;

using WindowEdgesTest = WindowFixture;

// Ctrl+Z takes a removal back through the Edit menu's action, named after the step it takes
// back, and Ctrl+Shift+Z removes again.
TEST_F(WindowEdgesTest, EveryRowActionIsReachableFromTheKeyboardAndNamedForScreenReaders) {
  window();
  ASSERT_TRUE(settle({QUrl::fromLocalFile(dir_.filePath("missing.png")), source("a.png"), source("b.png"),
                      source("c.png")}));
  window().activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&window()));
  ui::ImageListView& list = *window().imageList();
  EXPECT_TRUE(list.focusPolicy() & Qt::TabFocus);
  std::vector<std::shared_ptr<ImportedImage>> compared;
  QObject::connect(&list, &ui::ImageListView::comparisonRequested,
                   [&](const std::shared_ptr<ImportedImage>& image) { compared.push_back(image); });
  list.setFocus();
  list.setCurrentIndex(list.listModel().index(1));  // the failure row
  QTest::keyClick(&list, Qt::Key_Down);
  QTest::keyClick(&list, Qt::Key_Down);
  ASSERT_EQ(list.listModel().imageAt(list.currentIndex().row()), model_->images()[1]);
  QTest::keyClick(&list, Qt::Key_Return);
  ASSERT_EQ(compared, std::vector{model_->images()[1]});
  QTest::keyClick(&list, Qt::Key_Delete);
  ASSERT_EQ(names(), (QStringList{"a.png", "c.png"}));
  const QList<QAction*> edit = window().menuBar()->actions()[1]->menu()->actions();
  EXPECT_EQ(edit[0]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Z));
  EXPECT_TRUE(edit[0]->text().contains("Retrait de l'image")) << edit[0]->text().toStdString();
  QTest::keyClick(&list, Qt::Key_Z, Qt::ControlModifier);
  ASSERT_EQ(names(), (QStringList{"a.png", "b.png", "c.png"}));
  QTest::keyClick(&list, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
  ASSERT_EQ(names(), (QStringList{"a.png", "c.png"}));

  const QModelIndex row = list.listModel().index(list.listModel().rowOfImage(0));
  const QString spoken = list.listModel().data(row, Qt::AccessibleTextRole).toString();
  EXPECT_TRUE(spoken.startsWith("a.png, ") && spoken.contains(ui::formatByteCount(750)))
      << spoken.toStdString();
  EXPECT_TRUE(list.listModel()
                  .data(list.listModel().index(1), Qt::AccessibleTextRole)
                  .toString()
                  .startsWith("missing.png"));

  std::unique_ptr<QMenu> menu(list.rowMenu(row));
  QStringList labels;
  for (QAction* action : menu->actions())
    if (!action->isSeparator()) labels << action->text();
  EXPECT_EQ(labels.size(), 4) << labels.join('|').toStdString();  // compare, quality, export, remove
  menu->actions().last()->trigger();
  EXPECT_EQ(names(), QStringList{"c.png"});
  std::unique_ptr<QMenu> failureMenu(list.rowMenu(list.listModel().index(1)));
  failureMenu->actions().last()->trigger();  // dismiss
  EXPECT_TRUE(model_->importFailures().empty());
}

// The list's top stays where it is while encoding starts and ends and when a profile appears,
// at the default size and the minimum one; at the default size the bar is one line in every
// language.
TEST_F(WindowEdgesTest, TheListDoesNotMoveWhateverTheBarShows) {
  makeModel();
  import({source("a.png"), source("slow-b.png")});
  ASSERT_TRUE(QTest::qWaitFor([&] { return model_->isEncoding(); }));
  openGate();
  ASSERT_TRUE(waitIdle());
  for (AppLanguage each : AppLanguages::allCases()) {
    const QString language = AppLanguages::rawValue(each);
    for (QSize size : {QSize(960, 640), QSize(ui::MainWindow::minimumWidth, ui::MainWindow::minimumHeight)}) {
      SCOPED_TRACE(language.toStdString() + " at " + std::to_string(size.width()));
      useLanguage(language);
      window_.reset();
      window().resize(size);
      const auto top = [&] {
        QCoreApplication::processEvents();
        return window().imageList()->mapTo(&window(), QPoint()).y();
      };
      const int settled = top();
      closeGate();
      model_->setQuality(model_->quality() - 1);
      ASSERT_TRUE(QTest::qWaitFor([&] { return model_->isEncoding(); }));
      EXPECT_EQ(top(), settled) << "encoding";
      model_->upsertExportProfile(profile("Web", ImageFormat::webp, 80));
      EXPECT_EQ(top(), settled) << "with a profile";
      if (size.width() == 960) {
        ui::ControlsBar& bar = *window().controlsBar();
        EXPECT_LT(bar.height(), 2 * bar.exportButton()->sizeHint().height()) << "one line";
      }
      openGate();
      ASSERT_TRUE(waitIdle());
      EXPECT_EQ(top(), settled) << "idle again";
      model_->deleteExportProfile(model_->exportProfiles()[0]);
      EXPECT_EQ(top(), settled) << "without the profile";
    }
  }
  useLanguage({});
}

// A double click on a row's remove button removes only the row under the first press; an
// open quality popup moves with its row when a row above it goes.
TEST_F(WindowEdgesTest, ADoubleClickRemovesOneRowAndAnOpenQualityPopupStaysWithItsRow) {
  window();
  ASSERT_TRUE(settle({source("a.png"), source("b.png"), source("c.png")}));
  ui::ImageListView& list = *window().imageList();
  const QModelIndex first = list.listModel().index(0);
  const QPoint remove =
      list.rowDelegate().partRect(list.visualRect(first), first, ui::RowHit::remove).center();
  // What the window system delivers for a double click: press, release, double click, release.
  for (QEvent::Type type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease, QEvent::MouseButtonDblClick,
                            QEvent::MouseButtonRelease})
    sendMouse(list.viewport(), type, remove);
  ASSERT_EQ(names(), (QStringList{"b.png", "c.png"}));

  auto c = model_->images()[1];
  list.activate(list.listModel().index(list.listModel().rowOfImage(1)), ui::RowHit::quality);
  QWidget* popup = window().qualityPopup();
  ASSERT_TRUE(popup && popup->isVisible());
  const QRect before = *list.qualityAnchor(c);
  const int top = popup->y();
  model_->removeImage(model_->images()[0]);  // as the local API may do meanwhile
  const QRect after = *list.qualityAnchor(c);
  ASSERT_NE(after.y(), before.y());
  // It moves with the row (within the window frame's few pixels).
  EXPECT_TRUE(QTest::qWaitFor([&] { return std::abs(popup->y() - top - (after.y() - before.y())) <= 4; }));
  model_->removeImage(c);
  EXPECT_TRUE(QTest::qWaitFor([&] { return !window().qualityPopup(); }));
}

// The bar's and the profile form's format menus are one choice each; choosing the current
// format again keeps it chosen and still recomputes.
TEST_F(WindowEdgesTest, FormatMenusAreOneExclusiveChoice) {
  window();
  ASSERT_TRUE(settle({source("a.png")}));
  auto pane = ui::ExportProfilesSettingsView(*model_, {});
  QMenu* bar = window().controlsBar()->formatPicker()->menu();
  for (QMenu* menu : {bar, pane.findChild<QMenu*>()}) {
    ASSERT_TRUE(menu && menu->actions().size() == 6);
    const QList<QAction*> actions = menu->actions();
    actions[2]->trigger();
    actions[3]->trigger();
    ASSERT_TRUE(waitIdle());
    actions[3]->trigger();
    EXPECT_TRUE(actions[3]->isChecked());
    EXPECT_EQ(std::count_if(actions.begin(), actions.end(), [](QAction* a) { return a->isChecked(); }), 1);
    EXPECT_EQ(model_->hasPendingRecompute(), menu == bar);
  }
  EXPECT_EQ(model_->outputFormat(), ImageFormat::avif);
  ASSERT_TRUE(waitIdle());
}

TEST_F(WindowEdgesTest, TheComparisonStaysOpenAndFollowsWhileCtrlMinusLowersTheQuality) {
  window();
  ASSERT_TRUE(settle({source("a.png", 100000, {1000, 6000})}));
  auto image = model_->images()[0];
  window().showComparison(image);
  window().showComparison(image);  // the same image: the same window, raised
  auto views = window().findChildren<ui::ImageComparisonView*>();
  ASSERT_EQ(views.size(), 1);
  ui::ImageComparisonView* view = views[0];
  EXPECT_EQ(view->windowModality(), Qt::NonModal);
  ASSERT_TRUE(QTest::qWaitForWindowActive(view));
  QTest::keyClick(view, Qt::Key_Minus, Qt::ControlModifier);
  EXPECT_EQ(model_->quality(), 70.0);
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(view->isVisible());
  EXPECT_TRUE(ui::compressedCaption(*image).text.startsWith(ui::formatByteCount(700)));

  // A 1000 x 6000 portrait: both badges keep their whole size line.
  const QStringList original = view->area()->badgeText(true).detailLines;
  const QStringList result = view->area()->badgeText(false).detailLines;
  EXPECT_TRUE(original.join(' ').contains("1000") && original.join(' ').contains("6000") &&
              original.join(' ').contains(ui::formatByteCount(100000)))
      << original.join('|').toStdString();
  EXPECT_TRUE(result.join(' ').contains(ui::formatByteCount(700))) << result.join('|').toStdString();
  for (const QString& line : original + result)
    EXPECT_FALSE(line.contains(QChar(0x2026))) << line.toStdString();

  model_->removeImage(image);  // the comparison goes with its image
  EXPECT_TRUE(QTest::qWaitFor([&] { return window().findChildren<ui::ImageComparisonView*>().isEmpty(); }));
}

TEST_F(WindowEdgesTest, DialogsStartInTheLastFolderOfTheirKindElseHomeAndOfferTheSixFormats) {
  DesktopFileDialogs dialogs;
  DesktopFileDialogs::rememberFolder(Kind::import, dir_.filePath("no-such-folder"));
  DesktopFileDialogs::rememberFolder(Kind::exportFolder, {});
  const QUrl picked = source("picked.png");
  // Once the dialog is up: where it starts, what it offers, and a file chosen.
  bool seen = false;
  QTimer::singleShot(0, [&] {
    auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
    ASSERT_TRUE(dialog);
    seen = true;
    EXPECT_EQ(dialog->directory().absolutePath(), QDir::homePath());
    const auto* name = dialog->findChild<QLineEdit*>("fileNameEdit");
    EXPECT_TRUE(name && name->text().isEmpty());
    ASSERT_EQ(dialog->nameFilters().size(), 1);
    for (const char* pattern : {"*.png", "*.jpg", "*.heic", "*.avif", "*.webp", "*.jxl"})
      EXPECT_TRUE(dialog->nameFilters()[0].contains(pattern)) << pattern;
    for (const char* pattern : {"*.gif", "*.tif", "*.bmp", "(*)"})
      EXPECT_FALSE(dialog->nameFilters()[0].contains(pattern)) << pattern;
    dialog->selectUrl(picked);
    QMetaObject::invokeMethod(dialog, "accept");
  });
  EXPECT_EQ(dialogs.chooseFilesToImport(), QList<QUrl>{picked});
  EXPECT_TRUE(seen);

  // The next import starts where the last one was; export keeps its own folder.
  EXPECT_EQ(DesktopFileDialogs::startFolder(Kind::import), QDir(dir_.path()).absolutePath());
  EXPECT_EQ(DesktopFileDialogs::startFolder(Kind::exportFolder), QDir::homePath());
}

// Records the windows the folder chooser is asked to stand over.
class RecordingFileDialogs : public DesktopFileDialogs {
 public:
  std::optional<QUrl> chooseFolder(const std::optional<QUrl>&, QWidget* parent) override {
    parents.push_back(parent);
    return std::nullopt;
  }
  std::vector<QWidget*> parents;
};

// The offscreen screen (800 x 800) is narrower than the window's usual size, and at a scale
// factor of 2 (ui.MainWindowAtScale2) smaller than its minimum: it opens inside it all the same.
TEST_F(WindowEdgesTest, TheWindowOpensInsideTheScreen) {
  const QRect area = window().screen()->availableGeometry();
  const QRect frame = window().frameGeometry();
  EXPECT_TRUE(area.contains(frame)) << frame.x() << "," << frame.y() << " " << frame.width() << "x"
                                    << frame.height() << " in " << area.width() << "x" << area.height();
}

// The controls under `root` that a screen reader could only name by guessing: no accessible
// name, no text of their own, and no label that names them as its buddy.
std::string unnamedControls(QWidget* root) {
  QSet<QWidget*> labelled;
  for (QLabel* label : root->findChildren<QLabel*>())
    if (label->buddy() && !label->text().isEmpty()) labelled.insert(label->buddy());
  QStringList unnamed;
  for (QWidget* w : root->findChildren<QWidget*>()) {
    const bool control = qobject_cast<QAbstractButton*>(w) || qobject_cast<QAbstractSlider*>(w) ||
                         qobject_cast<QComboBox*>(w) || qobject_cast<QLineEdit*>(w) ||
                         qobject_cast<QAbstractSpinBox*>(w) || qobject_cast<QAbstractItemView*>(w);
    // Scroll bars, Qt's own parts ("qt_menubar_ext_button"), and the editors inside a spin box
    // or a combo box, are named by their owner.
    if (!control || qobject_cast<QScrollBar*>(w) || w->objectName().startsWith("qt_") ||
        qobject_cast<QAbstractSpinBox*>(w->parentWidget()) || qobject_cast<QComboBox*>(w->parentWidget()) ||
        w->inherits("QComboBoxListView"))
      continue;
    const auto* button = qobject_cast<QAbstractButton*>(w);
    if (!w->accessibleName().isEmpty() || (button && !button->text().isEmpty()) || labelled.contains(w))
      continue;
    QString path = w->metaObject()->className();
    for (QWidget* p = w->parentWidget(); p && p != root; p = p->parentWidget())
      path = QString(p->metaObject()->className()) + "/" + path;
    unnamed << path;
  }
  return unnamed.join("; ").toStdString();
}

TEST_F(WindowEdgesTest, EveryControlOfTheWindowItsPopupsAndTheSettingsHasAName) {
  window();
  ASSERT_TRUE(settle({source("a.png")}));
  await(model_->exportAll(QUrl::fromLocalFile(dir_.path())));
  window().controlsBar()->showHistory();
  window().showQualityOverride(model_->images()[0], QRect(10, 10, 20, 20));
  EXPECT_EQ(unnamedControls(&window()), "");
  for (QWidget* popup : QApplication::topLevelWidgets()) {
    if (popup->isVisible() && popup != &window()) {
      EXPECT_EQ(unnamedControls(popup), "");
    }
  }

  RecordingFileDialogs dialogs;
  LocalAPIController controller(*model_);
  UpdateChecker checker(QUrl("http://127.0.0.1:9"), "1.0");
  LanguageManager languages(LanguageManager::Platform{{"fr-FR"}, [](const QString&) { return true; }, [] {}});
  ui::SettingsWindow settings({*model_, controller, checker, languages, &dialogs}, &window());
  settings.setAttribute(Qt::WA_DeleteOnClose, false);
  EXPECT_EQ(unnamedControls(&settings), "");
  // The profile form's folder chooser stands over the settings window, not the main window.
  auto* pane = settings.findChild<ui::ExportProfilesSettingsView*>();
  ASSERT_TRUE(pane);
  pane->chooseFolder();
  EXPECT_EQ(dialogs.parents, std::vector<QWidget*>{&settings});
}

}  // namespace
}  // namespace quillane::uitest
