// The main window against a real model: the bar, export and its summary, drops, the rows by mouse and keys,
// the comparison window, the file dialogs, and a name and an access key for every control.
#include <QDBusConnection>
#include <QDBusMessage>

#include "api/LocalAPIController.h"
#include "hotfolders/HotFoldersManager.h"
#include "services/LanguageManager.h"
#include "services/UpdateChecker.h"
#include "tests/support/BusStandIn.h"
#include "tests/ui/ui_test_support.h"
#include "ui/ComparisonView.h"
#include "ui/ControlsBar.h"
#include "ui/DesktopFileDialogs.h"
#include "ui/DropTargetView.h"
#include "ui/ExportProfilesSettingsView.h"
#include "ui/ExportSummaryView.h"
#include "ui/HotFoldersSettingsView.h"
#include "ui/ProfileMenuView.h"
#include "ui/QualityControls.h"
#include "ui/RowRules.h"
#include "ui/SettingsWindow.h"
#include "ui/SizeControls.h"
#include "ui/UiText.h"

namespace quillane::uitest {
namespace {

using ui::DesktopFileDialogs;
using Kind = DesktopFileDialogs::FolderKind;

// Records the files shown in the file manager and the parents of the folder chooser, which chooses nothing.
class RecordingFileDialogs : public DesktopFileDialogs {
 public:
  void showFilesInFileManager(const QList<QUrl>& files) override { shown << files; }
  std::optional<QUrl> chooseFolder(const std::optional<QUrl>&, QWidget* parent) override {
    parents.push_back(parent);
    return std::nullopt;
  }
  QList<QList<QUrl>> shown;
  std::vector<QWidget*> parents;
};

// The desktop's `service` at `path`, stood in for on a connection of its own to the session bus, which goes
// with it; none without a session bus.
std::shared_ptr<testing::BusStandIn> desktopService(const QString& service, const QString& path) {
  const QDBusConnection connection = QDBusConnection::connectToBus(QDBusConnection::SessionBus, service);
  if (!connection.isConnected()) return nullptr;
  return {new testing::BusStandIn(connection, service, path), [service](testing::BusStandIn* standIn) {
            delete standIn;
            QDBusConnection::disconnectFromBus(service);
          }};
}

class MainWindowTest : public WindowFixture {
 protected:
  ui::ControlsBar& bar() { return *window().controlsBar(); }
  QAction* exportAction() { return window().menuBar()->actions()[0]->menu()->actions()[1]; }  // File > Export
  QPushButton* exportButton() { return control<QPushButton>(&bar(), "menu.exportAll"); }
  bool exportEnabled() { return exportButton()->isEnabled() && exportAction()->isEnabled(); }
  bool activated() { return window().activateWindow(), QTest::qWaitForWindowActive(&window()); }
};
using WindowEdgesTest = MainWindowTest;

// Export waits for the pending recompute and for encoding, and the slider for its release.
TEST_F(MainWindowTest, WhatTheBarShowsAndExportFollowTheBatchAndItsProfiles) {
  window();
  const auto shown = [&] {
    const QString count = ui::RowRules::importedCountText(int(model_->images().size()));
    return std::vector<bool>{imageList()->isVisible(), control<QLabel>(&bar(), count)->isVisible(),
                             control<QPushButton>(&bar(), "common.clearAll")->isVisible(),
                             exportButton()->isVisible()};
  };
  EXPECT_EQ(shown(), (std::vector<bool>{false, false, false, false})) << "empty: the drop area";
  QPushButton* profiles = control<QPushButton>(control<ui::ExportProfileMenuView>(&bar()));
  QProgressBar* progress = control<QProgressBar>(&bar());
  QSlider* slider = control<QSlider>(&bar(), "quality.label");
  EXPECT_TRUE(control<QPushButton>(&bar(), "controls.importLabel")->isVisible() && slider->isVisible());
  EXPECT_FALSE(control<QToolButton>(&bar(), "history.title")->isVisible() || profiles->isVisible() ||
               progress->isVisible() || exportAction()->isEnabled());

  import({url("missing.png")});
  EXPECT_EQ(shown(), (std::vector<bool>{true, false, false, false})) << "a failed import alone";

  ASSERT_TRUE(settle({source("one.png")}));
  EXPECT_EQ(shown(), (std::vector<bool>{true, true, true, true}));

  // During the debounce nothing encodes yet, and export is already off.
  model_->setQuality(40);
  EXPECT_FALSE(exportEnabled());
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(exportEnabled());
  // Settings changed while its folder dialog is up (by the local API) are the ones exported.
  struct ChangedMeanwhile : DesktopFileDialogs {
    std::function<void()> change;
    QString folder;
    std::optional<QUrl> chooseExportFolder(const std::optional<QUrl>&, const QString&,
                                           const QString&) override {
      change();
      return QUrl::fromLocalFile(folder);
    }
  };
  auto* dialogs = new ChangedMeanwhile;
  dialogs->folder = outFolder();
  dialogs->change = [&] { model_->setOutputFormat(ImageFormat::webp), model_->setQuality(50); };
  window().setFileDialogs(std::unique_ptr<DesktopFileDialogs>(dialogs));
  exportAction()->trigger();
  EXPECT_TRUE(QTest::qWaitFor([&] { return QFileInfo(outFolder() + "/one.webp").size() == 500; }));

  // While the slider is held its value applies; the batch holds its encodes until the release.
  slider->setSliderDown(true);
  slider->setValue(30);
  EXPECT_TRUE(model_->quality() == 30 && model_->isQualitySliderEditing());
  slider->setSliderDown(false);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(model_->images()[0]->encodeState().sizeBytes, 300);

  // Progress counts the finished images against the whole batch.
  import({source("b.png"), source("slow1.png"), source("slow2.png")});
  ASSERT_TRUE(QTest::qWaitFor([&] { return model_->encodingCompletedCount() == 2; }, 3000));
  EXPECT_FALSE(exportEnabled());
  EXPECT_EQ(std::pair(progress->value(), progress->maximum()), std::pair(2, 4));
  openGate();
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(exportEnabled() && !progress->isVisible());

  // The profile menu comes with a profile; choosing none after one keeps the profile's settings.
  model_->upsertExportProfile(profile("Web", ImageFormat::webp, 60));
  EXPECT_TRUE(profiles->isVisible());
  QList<QAction*> entries = profiles->menu()->actions();
  ASSERT_EQ(entries.size(), 3);  // none, divider, Web
  entries[2]->trigger();
  EXPECT_EQ(profiles->text(), "Web");  // the title follows a choice made once the bar is up
  profiles->menu()->actions()[0]->trigger();
  EXPECT_FALSE(model_->appliedProfileName().has_value());
  EXPECT_EQ(std::pair(model_->quality(), model_->outputFormat()), std::pair(60.0, ImageFormat::webp));

  // Turning dark with the window open: the bar's dimmed texts turn light and Export takes the dark accent.
  const QPalette light = QApplication::palette();
  QPalette dark(QColor(0x3a, 0x3a, 0x3e), QColor(0x2b, 0x2b, 0x2e));
  dark.setColor(QPalette::WindowText, Qt::white);
  dark.setColor(QPalette::Highlight, QColor(0x0a, 0x84, 0xff));
  QApplication::setPalette(dark);
  EXPECT_TRUE(QTest::qWaitFor([&] {
    return std::ranges::all_of(
               bar().findChildren<QLabel*>(),
               [](QLabel* l) { return l->palette().color(QPalette::WindowText).rgb() == 0xffffffff; }) &&
           exportButton()->palette().color(QPalette::Button) == dark.color(QPalette::Highlight);
  }));
  QApplication::setPalette(light);
}

TEST_F(MainWindowTest, TheSizeControlSetsTheOptionsTheRowsSayWhatTheyDidAndARestartKeepsThem) {
  useLanguage("en-US");
  window();
  ASSERT_TRUE(settle({source("wide.png", 100000, {4000, 3000, ImageFormat::png, 1, -1})}));
  QToolButton* size = control<QToolButton>(&bar(), "size.label");
  EXPECT_FALSE(size->isChecked()) << "off by default";
  EXPECT_EQ(size->focusPolicy() & Qt::TabFocus, Qt::TabFocus);
  size->click();
  EXPECT_FALSE(size->isChecked()) << "opening the options turns nothing on";
  auto* editor = control<ui::SizeOptionsEditor>(&bar());
  ASSERT_TRUE(editor->isVisible());
  control<QSpinBox>(editor, "size.widthField")->setValue(1600);
  control<QSpinBox>(editor, "size.heightField")->setValue(1600);
  EXPECT_EQ(model_->compressionOptions(), CompressionOptions{}) << "an unchecked part stays off";
  control<QCheckBox>(editor, "size.fitToggle")->setChecked(true);
  control<QCheckBox>(editor, "size.budgetToggle")->setChecked(true);
  auto* amount = control<QDoubleSpinBox>(editor, "size.budgetField");
  amount->selectAll();
  QTest::keyClicks(amount, "0,5");
  EXPECT_EQ(amount->value(), 0.5) << "a comma is a decimal point too, not a group";
  amount->setValue(500);
  const CompressionOptions chosen{.maxWidth = 1600, .maxHeight = 1600, .maxBytes = 500000};
  EXPECT_EQ(model_->compressionOptions(), chosen);
  EXPECT_TRUE(size->isChecked());
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(ui::RowRules::shapeText(*model_->images()[0]),
            "fitted to 1600 × 1200 · at quality 62 to fit 500 kB");
  EXPECT_TRUE(spoken(*imageList(), 0).contains("fitted to 1600 × 1200"));

  // Kept with the format and quality, and shown again by the control after a restart.
  window_.reset();
  model_->persistSettings();
  restart(options());
  control<QToolButton>(&bar(), "size.label")->click();
  EXPECT_EQ(control<ui::SizeOptionsEditor>(&bar())->options(), chosen);

  // A budget finer than the field's tenth (the local API's "1.25M") stays as it is through another edit.
  model_->setCompressionOptions({.maxBytes = 1'250'000});
  control<QCheckBox>(&bar(), "size.skipLargerToggle")->setChecked(true);
  EXPECT_EQ(model_->compressionOptions(), (CompressionOptions{.maxBytes = 1'250'000, .skipLarger = true}));
  useLanguage({});
}

// Dropped files come in the drag's order; a row dropped on the lower half of another lands after it.
TEST_F(MainWindowTest, DropsImportFilesInDragOrderAndMoveRows) {
  window();
  const QUrl b = source("b.png"), a = source("a.png");
  QMimeData files;
  files.setUrls({b, QUrl("https://x.test/c.png"), a});
  auto* area = control<ui::DropTargetView>(&window());
  const auto drop = [&](QWidget* target, QPoint at, QMimeData& mime, Qt::DropAction action) {
    // Drops go to the widget that accepted the drag's entry; the drop area shows it is one.
    const QImage before = target->grab().toImage();
    QDragEnterEvent enter(at, action, &mime, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &enter);
    EXPECT_TRUE(target != area || target->grab().toImage() != before);
    QDropEvent event(at, action, &mime, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &event);
    return event.isAccepted();
  };
  EXPECT_TRUE(drop(area, {10, 10}, files, Qt::CopyAction));
  ASSERT_TRUE(QTest::qWaitFor([&] { return model_->images().size() == 2; }, 3000));
  EXPECT_EQ(names(), (QStringList{"b.png", "a.png"}));
  ASSERT_TRUE(settle({source("c.png")}));

  ui::ImageListView* list = imageList();
  list->resize(600, 400);
  QCoreApplication::processEvents();
  const QRect rowC = list->visualRect(list->listModel().index(2));
  QMimeData row;
  row.setData(ui::ImageListView::rowMimeType, model_->images()[0]->id().toByteArray());
  list->setCurrentIndex(list->listModel().index(0));  // as the press that starts the drag does
  drop(list->viewport(), {rowC.center().x(), rowC.bottom() - 3}, row, Qt::MoveAction);
  EXPECT_EQ(names(), (QStringList{"a.png", "c.png", "b.png"}));
  EXPECT_EQ(list->currentIndex().row(), 2) << "the moved row stays the current one";
}

TEST_F(MainWindowTest, ARightToLeftLayoutMirrorsTheBarAndTheRowsAndKeepsNumbersWithTheirUnits) {
  QGuiApplication::setLayoutDirection(Qt::RightToLeft);
  const auto restore = qScopeGuard([] { QGuiApplication::setLayoutDirection(Qt::LeftToRight); });
  window();
  ASSERT_TRUE(settle({source("a.png", 199000)}));
  QCoreApplication::processEvents();
  const auto x = [&](QWidget* w) { return w->mapTo(&window(), QPoint(0, 0)).x(); };
  EXPECT_GT(x(control<QPushButton>(&bar(), "controls.importLabel")), x(exportButton()));
  ui::ImageListView* list = imageList();
  const QModelIndex row = list->listModel().index(0);
  const auto part = [&](ui::RowHit hit) { return delegate(*list).partRect(list->visualRect(row), row, hit); };
  EXPECT_LT(part(ui::RowHit::remove).right(), part(ui::RowHit::quality).left());
  EXPECT_LT(part(ui::RowHit::quality).right(), part(ui::RowHit::thumbnail).left());
  EXPECT_EQ(ui::formatByteCount(199000), QString(QChar(0x2066)) + "199 kB" + QChar(0x2069));
}

// Counts the times its object is shown.
struct ShowCounter : QObject {
  bool eventFilter(QObject*, QEvent* event) override { return (count += event->type() == QEvent::Show) < 0; }
  int count = 0;
};

TEST_F(MainWindowTest, AnExportEndsWithASummaryAndANotificationWhileTheWindowIsBehind) {
  auto* shown = new RecordingFileDialogs;
  window().setFileDialogs(std::unique_ptr<DesktopFileDialogs>(shown));
  ASSERT_TRUE(
      settle({source("a.png", 5750), source("b.png", 5750), source("c.png", 5750, {.failEncode = true})}));
  ASSERT_TRUE(QFile::copy(dir_.filePath("a.png"), outFolder() + "/a.jpg"));

  auto sink = desktopService("org.freedesktop.Notifications", "/org/freedesktop/Notifications");
  if (!sink) GTEST_SKIP() << "no session bus";
  ASSERT_TRUE(sink->registered());

  // Another of the program's windows in front is the user here: no notification. Then elsewhere.
  QWidget front;
  front.show();
  front.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&front));
  await(model_->exportAll(QUrl::fromLocalFile(dir_.path())));
  auto* summary = control<ui::ExportSummaryView>(&window());
  const QString unnotified = summary->accessibleDescription();
  front.hide();
  ASSERT_TRUE(QTest::qWaitFor([] { return !QApplication::activeWindow(); }));
  await(model_->exportAll(url("out")));
  // Two written at quality 75 (750 bytes each) from 5750-byte sources; the failure counted, with
  // its reason where it is the only one.
  const QString text =
      "Fichiers exportés : 2 · espace gagné : 10 kB\nRemplacés : a.jpg\nÉchecs : 1 · Échec de "
      "l'encodage au format WebP.";
  ASSERT_TRUE(control<QLabel>(summary, text)->isVisible());
  const QList<QUrl> written{url("out/a.jpg"), url("out/b.jpg")};
  control<QPushButton>(summary, "intents.notification.showInFolder")->click();
  EXPECT_EQ(shown->shown, QList<QList<QUrl>>{written});

  // The window is behind: the notification offers the same. Other tests' windows on the session
  // bus may notify too: ours has the summary's text, and its number is its place.
  qsizetype ours = 0;
  ASSERT_TRUE(QTest::qWaitFor(
      [&] {
        const QList<QVariantList> notes = sink->calls("Notify");
        ours = std::ranges::find(notes, QVariant(text), [](auto& n) { return n.value(4); }) - notes.begin();
        return ours < notes.size();
      },
      5000));
  EXPECT_FALSE(
      std::ranges::count(sink->calls("Notify"), QVariant(unnotified), [](auto& n) { return n.value(4); }));
  const QStringList actions = sink->calls("Notify")[ours].value(5).toStringList();
  EXPECT_TRUE(actions.value(0) == "show-in-folder" && actions.contains("default"))
      << actions.join(' ').toStdString();
  const auto invoke = [&](const char* action) {
    QDBusMessage message = QDBusMessage::createSignal("/org/freedesktop/Notifications",
                                                      "org.freedesktop.Notifications", "ActionInvoked");
    return QDBusConnection("org.freedesktop.Notifications")
        .send(message << uint(ours + 1) << QString(action));
  };
  // The click may reach the window before the reply that gave the notification its number (they
  // come on two connections), and is then not yet ours: click until it is.
  EXPECT_TRUE(QTest::qWaitFor([&] { return shown->shown.size() >= 2 || !invoke("show-in-folder"); }, 10000));
  ASSERT_GE(shown->shown.size(), 2);
  EXPECT_EQ(shown->shown.back(), written);
  ASSERT_TRUE(invoke("default"));  // a click on the notification itself brings the window forward
  EXPECT_TRUE(QTest::qWaitForWindowActive(&window()));
  sink.reset();

  // A notification for screen readers, which speak it as it shows: anew for each export, the focus kept.
  EXPECT_EQ(QAccessible::queryAccessibleInterface(summary)->role(), QAccessible::Notification);
  ASSERT_TRUE(activated());
  QToolButton* close = control<QToolButton>(summary, "common.close");
  close->setFocus();
  ShowCounter shows;
  summary->installEventFilter(&shows);
  await(model_->exportAll(url("out")));
  EXPECT_EQ(shows.count, 1);
  EXPECT_EQ(QApplication::focusWidget(), close);
  QTest::keyClick(close, Qt::Key_Escape);
  EXPECT_FALSE(summary->isVisible());
}

// Ctrl+Z takes a removal back through the Edit menu's action, named after that step; Alt and an arrow move a
// row; a double click on a row's remove button removes one row; an open quality popup moves with its row.
TEST_F(WindowEdgesTest, EveryRowActionIsReachableFromTheKeyboardNamedForScreenReadersAndDoneOnce) {
  window();
  ASSERT_TRUE(settle({url("missing.png"), source("a.png"), source("b.png"), source("c.png"), source("d.png"),
                      source("e.png")}));
  ASSERT_TRUE(activated());
  ui::ImageListView& list = *imageList();
  EXPECT_TRUE(list.focusPolicy() & Qt::TabFocus);
  std::vector<std::shared_ptr<ImportedImage>> compared;
  QObject::connect(&list, &ui::ImageListView::comparisonRequested,
                   [&](const std::shared_ptr<ImportedImage>& image) { compared.push_back(image); });
  list.setFocus();
  list.setCurrentIndex(list.listModel().index(1));  // the failure row
  QTest::keyClick(&list, Qt::Key_Down);
  QTest::keyClick(&list, Qt::Key_Down);
  QTest::keyClick(&list, Qt::Key_Return);
  ASSERT_EQ(compared, std::vector{model_->images()[1]});
  QTest::keyClick(&list, Qt::Key_Delete);
  ASSERT_EQ(names(), (QStringList{"a.png", "c.png", "d.png", "e.png"}));
  const QList<QAction*> edit = window().menuBar()->actions()[1]->menu()->actions();
  EXPECT_TRUE(edit[0]->text().contains("Retrait de l'image")) << edit[0]->text().toStdString();
  QTest::keyClick(&list, Qt::Key_Z, Qt::ControlModifier);
  ASSERT_EQ(names(), (QStringList{"a.png", "b.png", "c.png", "d.png", "e.png"}));
  EXPECT_TRUE(list.listModel().imageAt(list.currentIndex().row()) == model_->images()[2]) << "still on c";
  QTest::keyClick(&list, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
  ASSERT_EQ(names(), (QStringList{"a.png", "c.png", "d.png", "e.png"}));
  // Alt+Down and Alt+Up move the current row as a drag does, the keys staying on it.
  list.setCurrentIndex(list.listModel().index(list.listModel().rowOfImage(0)));
  QTest::keyClick(&list, Qt::Key_Down, Qt::AltModifier);
  EXPECT_EQ(names(), (QStringList{"c.png", "a.png", "d.png", "e.png"}));
  QTest::keyClick(&list, Qt::Key_Up, Qt::AltModifier);
  QTest::keyClick(&list, Qt::Key_Up, Qt::AltModifier);  // at the top: no further
  ASSERT_EQ(names(), (QStringList{"a.png", "c.png", "d.png", "e.png"}));
  QTest::keyClick(&list, Qt::Key_F10);  // the menu bar's first menu
  EXPECT_TRUE(window().menuBar()->actions()[0]->menu()->isVisible());
  window().menuBar()->actions()[0]->menu()->close();
  edit.last()->trigger();  // Edit > Clear All, which Ctrl+Z takes back too
  ASSERT_TRUE(model_->images().empty() && !edit.last()->isEnabled());
  QTest::keyClick(&window(), Qt::Key_Z, Qt::ControlModifier);
  ASSERT_EQ(names(), (QStringList{"a.png", "c.png", "d.png", "e.png"}));
  ASSERT_TRUE(waitIdle());  // back, each is encoded again

  const QModelIndex row = list.listModel().index(list.listModel().rowOfImage(0));
  const QString a = spoken(list, row.row());
  EXPECT_TRUE(a.startsWith("a.png, ") && a.contains(ui::formatByteCount(750))) << a.toStdString();
  EXPECT_TRUE(spoken(list, 1).startsWith("missing.png"));

  std::unique_ptr<QMenu> menu(list.rowMenu(row));
  QStringList labels;
  for (QAction* action : menu->actions())
    if (!action->isSeparator()) labels << action->text();
  // compare, quality, export, move up and down, remove
  EXPECT_EQ(labels.size(), 6) << labels.join('|').toStdString();
  menu->actions().last()->trigger();
  EXPECT_EQ(names(), (QStringList{"c.png", "d.png", "e.png"}));
  std::unique_ptr<QMenu> failureMenu(list.rowMenu(list.listModel().index(1)));
  failureMenu->actions().last()->trigger();  // dismiss
  EXPECT_TRUE(model_->importFailures().empty());

  const QModelIndex first = list.listModel().index(0);
  const QPoint remove = delegate(list).partRect(list.visualRect(first), first, ui::RowHit::remove).center();
  // What the window system delivers for a double click: press, release, double click, release.
  for (QEvent::Type type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease, QEvent::MouseButtonDblClick,
                            QEvent::MouseButtonRelease})
    sendMouse(list.viewport(), type, remove);
  ASSERT_EQ(names(), (QStringList{"d.png", "e.png"}));

  // The comparison window opened and closed above: its queued deactivation would close the popup.
  QCoreApplication::processEvents();
  ASSERT_TRUE(activated());
  auto e = model_->images()[1];
  list.activate(list.listModel().index(list.listModel().rowOfImage(1)), ui::RowHit::quality);
  const QPointer popup = control<ui::QualityOverridePopup>(&window());
  ASSERT_TRUE(popup->isVisible());
  const QRect before = *list.qualityAnchor(e);
  const int top = popup->y();
  model_->removeImage(model_->images()[0]);  // as the local API may do meanwhile
  const QRect after = *list.qualityAnchor(e);
  ASSERT_NE(after.y(), before.y());
  // It moves with the row (within the window frame's few pixels).
  EXPECT_TRUE(
      QTest::qWaitFor([&] { return popup && std::abs(popup->y() - top - (after.y() - before.y())) <= 4; }));
  model_->removeImage(e);
  EXPECT_TRUE(QTest::qWaitFor([&] { return !popup; }));
}

// The list's top stays put while encoding starts and ends and a profile comes and goes, at the default and
// the minimum size; at the default size the bar is one line in every language.
TEST_F(WindowEdgesTest, TheListDoesNotMoveWhateverTheBarShows) {
  const QString longName = "Archive quality for the printer downstairs";
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
        return imageList()->mapTo(&window(), QPoint()).y();
      };
      const int settled = top();
      closeGate();
      model_->setQuality(model_->quality() - 1);
      ASSERT_TRUE(QTest::qWaitFor([&] { return model_->isEncoding(); }));
      EXPECT_EQ(top(), settled) << "encoding";
      model_->upsertExportProfile(profile(longName, ImageFormat::webp, 80));
      EXPECT_EQ(top(), settled) << "with a profile";
      // The profile button's label is centred and clears its arrow, whatever profile it names.
      QPushButton* button = control<QPushButton>(control<ui::ExportProfileMenuView>(window().controlsBar()));
      QStyleOptionButton option;
      option.initFrom(button);
      option.features |= QStyleOptionButton::HasMenu;
      const int arrow = button->style()->pixelMetric(QStyle::PM_MenuButtonIndicator, &option, button);
      for (const std::optional<QString>& applied : {std::optional(longName), std::optional<QString>()}) {
        model_->setAppliedProfileName(applied);
        QCoreApplication::processEvents();
        const int textWidth = button->fontMetrics().horizontalAdvance(button->text());
        EXPECT_GE((button->width() - textWidth) / 2, arrow) << applied.value_or("none").toStdString();
      }
      if (size.width() == 960) {
        EXPECT_LT(bar().height(), 2 * exportButton()->sizeHint().height()) << "one line";
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

// In English and French, every entry of the menus (bar, row, profiles) has an access key of its own, and so
// has every settings tab and field label among what one Alt press reaches (a page and the tabs), which
// brings the focus to its field; a profile's "&" shows as itself.
TEST_F(WindowEdgesTest, EveryMenuEntryAndFieldLabelHasAnAccessKeyOfItsOwn) {
  makeModel();
  model_->upsertExportProfile(profile("R&D", ImageFormat::webp, 80));
  model_->setAppliedProfileName(QString("R&D"));
  ASSERT_TRUE(settle({source("a.png")}));
  HotFolders::save({hotFolder("Camera", dir_.filePath("in"), dir_.filePath("out"), ImageFormat::jxl),
                    hotFolder("Scans", dir_.filePath("scans"), dir_.filePath("out"), ImageFormat::png)});
  HotFoldersManager hotFolders;
  LocalAPIController controller(*model_);
  UpdateChecker checker(QUrl("http://127.0.0.1:9"), "1.0");
  LanguageManager languages(LanguageManager::Platform{{"fr-FR"}, [](const QString&) { return true; }, [] {}});
  const auto unique = [](QStringList keys) {
    return !keys.contains(QString()) && keys.removeDuplicates() == 0;
  };
  for (const char* language : {"en-US", "fr"}) {
    useLanguage(language);
    window_.reset();
    std::unique_ptr<QMenu> row(imageList()->rowMenu(imageList()->listModel().index(0)));
    QPushButton* profiles = control<QPushButton>(control<ui::ExportProfileMenuView>(window().controlsBar()));
    QList<QList<QAction*>> menus{window().menuBar()->actions(), row->actions(), profiles->menu()->actions()};
    for (QAction* title : window().menuBar()->actions()) menus << title->menu()->actions();
    for (const QList<QAction*>& actions : menus) {
      QStringList keys;
      for (QAction* action : actions)
        if (!action->isSeparator()) keys << QKeySequence::mnemonic(action->text()).toString();
      EXPECT_TRUE(unique(keys)) << language << keys.join(' ').toStdString();
    }
    EXPECT_EQ(QAccessible::queryAccessibleInterface(profiles)->text(QAccessible::Name), "R&D");
    EXPECT_TRUE(profiles->menu()->actions().last()->text().contains("&&")) << "not an access key";
    EXPECT_TRUE(profiles->menu()->actions().last()->isChecked()) << "the applied one, for screen readers too";

    ui::SettingsWindow settings({*model_, controller, checker, languages, nullptr}, &window());
    settings.setAttribute(Qt::WA_DeleteOnClose, false);
    settings.insertHotFoldersPane(new ui::HotFoldersSettingsView(hotFolders, *model_, {}));
    QStringList tabKeys;
    for (int tab = 0; tab < settings.tabs()->count(); ++tab)
      tabKeys << QKeySequence::mnemonic(settings.tabs()->tabText(tab)).toString();
    // Each page new, then with a profile and a hot folder being edited ("Add" reads "Save Changes").
    for (const bool editing : {false, true}) {
      if (editing)
        for (QToolButton* edit : settings.findChildren<QToolButton*>("editButton")) edit->click();
      for (int tab = 0; tab < settings.tabs()->count(); ++tab) {
        const QList<QWidget*> widgets = settings.tabs()->widget(tab)->findChildren<QWidget*>();
        QSet<QWidget*> buddies;  // a label's key reaches them; a format shown is no key
        for (QWidget* w : widgets)
          if (auto* label = qobject_cast<QLabel*>(w)) buddies << label->buddy();
        QStringList keys = tabKeys;
        for (QWidget* w : widgets) {
          const auto* label = qobject_cast<QLabel*>(w);
          const auto* button = qobject_cast<QAbstractButton*>(w);
          if (w->objectName() == "enabledSwitch" || buddies.contains(w)) continue;  // rows: one text
          if ((button && !button->text().isEmpty()) || (label && label->buddy()))
            keys << QKeySequence::mnemonic(button ? button->text() : label->text()).toString();
        }
        EXPECT_TRUE(unique(keys) && keys.size() > tabKeys.size()) << language << keys.join(' ').toStdString();
      }
    }
    EXPECT_TRUE(QKeySequence::mnemonic(settings.findChild<QCheckBox*>("enabledSwitch")->text()).isEmpty());
    settings.show();
    settings.tabs()->setCurrentIndex(2);
    settings.activateWindow();
    ASSERT_TRUE(QTest::qWaitFor([&] { return QApplication::activeWindow() == &settings; }));
    auto* pane = control<ui::ExportProfilesSettingsView>(&settings);
    QTest::keySequence(&settings, QKeySequence::mnemonic(control<QLabel>(pane, "quality.label")->text()));
    EXPECT_EQ(QApplication::focusWidget(), pane->findChild<QSlider*>()) << language;
    QPushButton* cancel = control<QPushButton>(pane, "settings.profiles.cancelEdit");
    QTest::keySequence(&settings, QKeySequence::mnemonic(cancel->text()));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !cancel->isVisible(); })) << "editing ended";  // a click shown
  }
  useLanguage({});
}

TEST_F(WindowEdgesTest, TheComparisonStaysOpenAndFollowsWhileCtrlMinusLowersTheQuality) {
  window();
  ASSERT_TRUE(settle({source("a.png", 100000, {1000, 6000})}));
  auto image = model_->images()[0];
  window().showComparison(image);
  window().showComparison(image);  // the same image: the same window, raised
  ui::ImageComparisonView* view = control<ui::ImageComparisonView>(&window());
  EXPECT_EQ(view->windowModality(), Qt::NonModal);
  ASSERT_TRUE(QTest::qWaitForWindowActive(view));
  QTest::keyClick(view, Qt::Key_Minus, Qt::ControlModifier);
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(view->isVisible());

  // A 1000 x 6000 portrait: both badges keep their whole size line.
  const QString original = view->area()->badgeText(true).detailLines.join('|');
  const QString result = view->area()->badgeText(false).detailLines.join('|');
  EXPECT_TRUE(original.contains("1000") && original.contains("6000") &&
              original.contains(ui::formatByteCount(100000)) && !original.contains(QChar(0x2026)))
      << original.toStdString();
  EXPECT_TRUE(result.startsWith(ui::formatByteCount(700)) && !result.contains(QChar(0x2026)))
      << result.toStdString();

  model_->removeImage(image);  // the comparison goes with its image
  EXPECT_TRUE(QTest::qWaitFor([&] { return window().findChildren<ui::ImageComparisonView*>().isEmpty(); }));
}

TEST_F(WindowEdgesTest, DialogsStartInTheLastFolderOfTheirKindOfferTheSixFormatsAndSaveUnderTheFormatsName) {
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

  // A JPEG saved as "photo.png" is named "photo.jpg"; that one exists, so the dialog shows it again and
  // asks before it is replaced.
  ASSERT_TRUE(QFile::copy(dir_.filePath("picked.png"), dir_.filePath("photo.jpg")));
  QStringList shown;  // the names each dialog and question came up with
  QTimer answer;
  QObject::connect(&answer, &QTimer::timeout, [&] {
    answer.start();  // anew, for it to answer the question its own answer brings up
    if (auto* question = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
      shown << question->text();
      question->button(QMessageBox::Yes)->click();
    } else if (auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget())) {
      shown << dialog->findChild<QLineEdit*>("fileNameEdit")->text();
      if (shown.size() == 1)
        dialog->findChild<QLineEdit*>("fileNameEdit")->setText(dir_.filePath("photo.png"));
      QMetaObject::invokeMethod(dialog, "accept");
    }
  });
  answer.start(10);
  EXPECT_EQ(dialogs.chooseSaveFile("a.jpg", ImageFormat::jpeg), url("photo.jpg"));
  ASSERT_EQ(shown.size(), 3);
  EXPECT_TRUE(shown[1] == "photo.jpg" && shown[2].contains("photo.jpg")) << shown.join('|').toStdString();
  for (const auto& [typed, saved] : {std::pair("/x/a.JPEG", "/x/a.JPEG"), std::pair("/x/a.HEIF", "/x/a.jpg"),
                                     std::pair("/x/a.v2", "/x/a.v2.jpg"), std::pair("/x/a", "/x/a.jpg")})
    EXPECT_EQ(DesktopFileDialogs::withFormatExtension(typed, ImageFormat::jpeg), saved);
}

// A long history makes its rows as they come into view or within reach of Tab; its scroll bar tells the
// whole length from the start.
TEST_F(WindowEdgesTest, ALongHistoryMakesItsRowsAsTheyAreReached) {
  ExportRecordList history;
  for (int i = 0; i < 200; ++i)
    history.push_back({QUuid::createUuid(), QString("%1.png").arg(i), url(QString("out/%1.jpg").arg(i)),
                       ImageFormat::jpeg, 1000, ExportHistory::now() - i, std::nullopt});
  ExportHistory::save(history);
  makeModel();
  const auto made = [](QWidget* view) { return view->findChildren<QWidget*>("undoButton"); };
  ui::ExportHistoryView tabbed(*model_, false);
  tabbed.show();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&tabbed));
  const QList<QWidget*> first = made(&tabbed);
  ASSERT_LT(first.size(), 200);
  first.back()->setFocus();
  QTest::keyClick(first.back(), Qt::Key_Tab);
  EXPECT_EQ(QApplication::focusWidget()->accessibleDescription(), QString("%1.png").arg(first.size()));

  ui::ExportHistoryView scrolled(*model_, false);
  scrolled.show();
  QScrollBar* bar = scrolled.findChild<QScrollArea*>()->verticalScrollBar();
  const int length = bar->maximum();
  bar->setValue(length);
  EXPECT_EQ(made(&scrolled).size(), 200);
  QCoreApplication::processEvents();
  EXPECT_EQ(bar->maximum(), length);
  const QWidget* last = made(&scrolled).back();
  EXPECT_TRUE(last->visibleRegion().boundingRect().height() > 0 &&
              last->accessibleDescription() == "199.png");
}

// Records what the desktop is asked to open, as the handler of file URLs.
class OpenedURLs : public QObject {
  Q_OBJECT
 public:
  OpenedURLs() { QDesktopServices::setUrlHandler("file", this, "open"); }
  ~OpenedURLs() override { QDesktopServices::unsetUrlHandler("file"); }
  QList<QUrl> urls;
 public slots:
  void open(const QUrl& url) { urls << url; }
};

// Show in Folder asks the file manager and goes on: one slow to start neither holds the window nor gets
// the folder opened beside its own window.
TEST_F(WindowEdgesTest, ShowInFolderDoesNotWaitForTheFileManager) {
  auto fileManager = desktopService("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1");
  if (!fileManager) GTEST_SKIP() << "no session bus";
  ASSERT_TRUE(fileManager->registered());
  OpenedURLs opened;
  fileManager->hold();
  const QUrl file = source("a.png");
  DesktopFileDialogs().showFilesInFileManager({file});
  ASSERT_TRUE(QTest::qWaitFor([&] { return !fileManager->calls("ShowItems").isEmpty(); }));
  EXPECT_EQ(fileManager->calls("ShowItems")[0].value(0).toStringList(), QStringList{file.toString()});
  EXPECT_EQ(opened.urls, QList<QUrl>());
  fileManager->release();
}

// The offscreen screen (800 x 800) is narrower than the window's usual size, and at a scale
// factor of 2 (ui.MainWindowAtScale2) smaller than its minimum: it opens inside it all the same.
TEST_F(WindowEdgesTest, TheWindowOpensInsideTheScreen) {
  const QRect area = window().screen()->availableGeometry();
  const QRect frame = window().frameGeometry();
  EXPECT_TRUE(area.contains(frame)) << frame.x() << "," << frame.y() << " " << frame.width() << "x"
                                    << frame.height() << " in " << area.width() << "x" << area.height();
}

// The controls under `root` with no accessible name, no text of their own and no label whose buddy they are.
std::string unnamedControls(QWidget* root) {
  QSet<QWidget*> labelled;
  for (QLabel* label : root->findChildren<QLabel*>())
    if (label->buddy() && !label->text().isEmpty()) labelled.insert(label->buddy());
  QStringList unnamed;
  for (QWidget* w : root->findChildren<QWidget*>()) {
    const bool control = qobject_cast<QAbstractButton*>(w) || qobject_cast<QAbstractSlider*>(w) ||
                         qobject_cast<QComboBox*>(w) || qobject_cast<QLineEdit*>(w) ||
                         qobject_cast<QAbstractSpinBox*>(w) || qobject_cast<QAbstractItemView*>(w) ||
                         qobject_cast<QProgressBar*>(w);
    // Scroll bars, Qt's parts ("qt_menubar_ext_button"), a spin or combo box's editor: named by their owner.
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

// What a screen reader says of each Tab stop of `first`'s window, in the order Tab reaches them.
QStringList tabStops(QWidget* first) {
  QStringList names;
  first->setFocus(Qt::TabFocusReason);
  for (QWidget* w = first; names.size() < 80 && (names.isEmpty() || w != first);
       w = w->window()->focusWidget()) {
    names << QAccessible::queryAccessibleInterface(w)->text(QAccessible::Name);
    QTest::keyClick(w, Qt::Key_Tab);
  }
  return names;
}

// Every control, Tab stop and popup of the window and the settings has a name; the bar's buttons that open a
// popup say so, not checked; the profiles' rows come before their form; Escape closes the settings. Each
// format menu is one choice; choosing the current format again keeps it chosen and still recomputes.
TEST_F(WindowEdgesTest, EveryControlHasANameAndEachFormatMenuIsOneExclusiveChoice) {
  window();
  ASSERT_TRUE(settle({source("a.png")}));
  await(model_->exportAll(QUrl::fromLocalFile(dir_.path())));
  await(model_->exportAll(QUrl::fromLocalFile(dir_.path())));
  bar().showHistory();
  EXPECT_EQ(QApplication::focusWidget()->objectName(), "showButton") << "the newest export's first button";
  // Taken back from the keys, it hands them to the same button of the row in its place.
  QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
  const QPointer<QWidget> undo = QApplication::focusWidget();
  QTest::keyClick(undo, Qt::Key_Space);
  ASSERT_EQ(model_->exportHistory().size(), 1u);
  ASSERT_TRUE(QTest::qWaitFor([&] { return !undo; }));
  EXPECT_TRUE(QApplication::focusWidget() && QApplication::focusWidget()->objectName() == "undoButton");
  window().showQualityOverride(model_->images()[0], QRect(10, 10, 20, 20));
  EXPECT_EQ(unnamedControls(&window()), "");
  for (QWidget* popup : QApplication::topLevelWidgets())
    if (popup->isVisible() && popup != &window()) {
      EXPECT_EQ(unnamedControls(popup), "");
      EXPECT_NE(QAccessible::queryAccessibleInterface(popup)->text(QAccessible::Name), "") << "popup";
    }
  // The bar's buttons that open a popup are such buttons, the size one too while drawn checked.
  model_->setCompressionOptions({.maxWidth = 1600, .maxHeight = 1600});
  for (const char* key : {"size.label", "history.title"}) {
    QAccessibleInterface* button = QAccessible::queryAccessibleInterface(control<QToolButton>(&bar(), key));
    EXPECT_TRUE(button->role() == QAccessible::Button && button->state().hasPopup && !button->state().checked)
        << key;
  }

  RecordingFileDialogs dialogs;
  LocalAPIController controller(*model_);
  UpdateChecker checker(QUrl("http://127.0.0.1:9"), "1.0");
  LanguageManager languages(LanguageManager::Platform{{"fr-FR"}, [](const QString&) { return true; }, [] {}});
  model_->upsertExportProfile(profile("Web", ImageFormat::webp, 80));
  ui::SettingsWindow settings({*model_, controller, checker, languages, &dialogs}, &window());
  settings.setAttribute(Qt::WA_DeleteOnClose, false);
  EXPECT_EQ(unnamedControls(&settings), "");
  settings.show();
  for (int tab = 0; tab < settings.tabs()->count(); ++tab) {
    settings.tabs()->setCurrentIndex(tab);
    const QStringList stops = tabStops(settings.tabs()->tabBar());
    const bool rowsFirst = tab != 2 || stops.indexOf(Strings::text("common.delete")) <
                                           stops.indexOf(Strings::text("settings.profiles.nameField"));
    EXPECT_TRUE(!stops.contains(QString()) && rowsFirst) << stops.join('|').toStdString();
  }
  settings.activateWindow();  // a child window counts as active while its parent is
  ASSERT_TRUE(QTest::qWaitFor([&] { return QApplication::activeWindow() == &settings; }));
  QTest::keyClick(settings.focusWidget(), Qt::Key_Escape);
  EXPECT_FALSE(settings.isVisible());
  EXPECT_FALSE(tabStops(control<QPushButton>(&bar(), "controls.importLabel")).contains(QString()));
  // The profile form's folder chooser stands over the settings window, not the main window.
  auto* pane = control<ui::ExportProfilesSettingsView>(&settings);
  pane->chooseFolder();
  EXPECT_EQ(dialogs.parents, std::vector<QWidget*>{&settings});

  QMenu* formats = control<QPushButton>(control<ui::FormatPickerView>(&bar()))->menu();
  for (QMenu* menu : {formats, pane->findChild<QMenu*>()}) {
    ASSERT_TRUE(menu && menu->actions().size() == 6);
    const QList<QAction*> actions = menu->actions();
    actions[2]->trigger();
    actions[3]->trigger();
    ASSERT_TRUE(waitIdle());
    actions[3]->trigger();
    EXPECT_TRUE(actions[3]->isChecked());
    EXPECT_EQ(std::count_if(actions.begin(), actions.end(), [](QAction* a) { return a->isChecked(); }), 1);
    EXPECT_EQ(model_->hasPendingRecompute(), menu == formats);
  }
  EXPECT_EQ(model_->outputFormat(), ImageFormat::avif);
  ASSERT_TRUE(waitIdle());
}

}  // namespace
}  // namespace quillane::uitest

#include "main_window_test.moc"
