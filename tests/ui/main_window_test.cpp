// The main window against a real model: what the bar shows when, the disabled states of
// export, the menu commands, the export alert, drops and row reordering.
#include <QAction>
#include <QCheckBox>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDoubleSpinBox>
#include <QDropEvent>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QScopeGuard>
#include <QSpinBox>
#include <QStyleOptionButton>
#include <QToolButton>

#include "tests/support/BusStandIn.h"
#include "tests/ui/ui_test_support.h"
#include "ui/ControlsBar.h"
#include "ui/DesktopFileDialogs.h"
#include "ui/DropTargetView.h"
#include "ui/ExportSummaryView.h"
#include "ui/ImageListModel.h"
#include "ui/ImageListView.h"
#include "ui/ProfileMenuView.h"
#include "ui/QualityControls.h"
#include "ui/RowRules.h"
#include "ui/SizeControls.h"
#include "ui/UiText.h"

namespace quillane::uitest {
namespace {

using ui::ControlsBar;
using ui::MainWindow;

class MainWindowTest : public WindowFixture {
 protected:
  ControlsBar& bar() { return *window().controlsBar(); }
  bool exportEnabled() { return bar().exportButton()->isEnabled() && window().exportAction()->isEnabled(); }
};

// Export waits for the pending recompute and for encoding, and the slider for its release.
TEST_F(MainWindowTest, WhatTheBarShowsAndExportFollowTheBatch) {
  window();
  const auto shown = [&] {
    return std::vector<bool>{window().showsList(), bar().countLabel()->isVisible(),
                             bar().clearAllButton()->isVisible(), bar().exportButton()->isVisible()};
  };
  EXPECT_EQ(shown(), (std::vector<bool>{false, false, false, false})) << "empty: the drop area";
  EXPECT_TRUE(bar().importButton()->isVisible() && bar().qualitySlider()->isVisible());
  EXPECT_FALSE(bar().historyButton()->isVisible() || bar().profileMenu()->isVisible() ||
               bar().progressGroup()->isVisible() || window().exportAction()->isEnabled());

  import({QUrl::fromLocalFile(dir_.filePath("missing.png"))});
  EXPECT_EQ(shown(), (std::vector<bool>{true, false, false, false})) << "a failed import alone";
  EXPECT_EQ(window().imageList()->listModel().rowCount(), 2);  // header and failure

  ASSERT_TRUE(settle({source("one.png")}));
  EXPECT_EQ(shown(), (std::vector<bool>{true, true, true, true}));
  EXPECT_TRUE(exportEnabled());

  // During the debounce nothing encodes yet, and export is already off.
  model_->setQuality(40);
  ASSERT_TRUE(model_->hasPendingRecompute());
  ASSERT_FALSE(model_->isEncoding());
  EXPECT_FALSE(exportEnabled());
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(exportEnabled());

  // While the slider is held its value applies, and the batch holds its encodes until the
  // release (the scheduler's test shows how).
  QSlider* slider = bar().qualitySlider()->slider();
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
  EXPECT_EQ(std::pair(bar().progressBar()->value(), bar().progressBar()->maximum()), std::pair(2, 4));
  openGate();
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(exportEnabled());
  EXPECT_FALSE(bar().progressGroup()->isVisible());
}

// The button's label is centred and clears its arrow in every script, whatever profile it names.
TEST_F(MainWindowTest, TheProfileMenuAppearsWithProfilesAndNoneKeepsTheSettings) {
  window();
  model_->upsertExportProfile(profile("Web", ImageFormat::webp, 60));
  EXPECT_TRUE(bar().profileMenu()->isVisible());
  bar().profileMenu()->rebuildMenu();
  QList<QAction*> entries = bar().profileMenu()->menu()->actions();
  ASSERT_EQ(entries.size(), 3);  // none, divider, Web
  entries[2]->trigger();
  EXPECT_EQ(bar().profileMenu()->button()->text(), "Web");
  bar().profileMenu()->menu()->actions()[0]->trigger();
  EXPECT_FALSE(model_->appliedProfileName().has_value());
  EXPECT_EQ(model_->quality(), 60);
  EXPECT_EQ(model_->outputFormat(), ImageFormat::webp);

  const QString longName = "Archive quality for the printer downstairs";
  model_->upsertExportProfile(profile(longName, ImageFormat::jxl, 95));
  QPushButton* button = bar().profileMenu()->button();
  QStyleOptionButton option;
  option.initFrom(button);
  option.features |= QStyleOptionButton::HasMenu;
  const int arrow = button->style()->pixelMetric(QStyle::PM_MenuButtonIndicator, &option, button);
  for (const char* language : {"en-US", "de", "ja"}) {
    useLanguage(language);
    for (const QString& applied : {QString(), QString("Web"), longName}) {
      model_->setAppliedProfileName(applied.isEmpty() ? std::nullopt : std::optional(applied));
      QCoreApplication::processEvents();
      const int textWidth = button->fontMetrics().horizontalAdvance(button->text());
      EXPECT_GE((button->width() - textWidth) / 2, arrow) << language << " " << applied.toStdString();
    }
  }
  useLanguage({});
}

TEST_F(MainWindowTest, TheSizeControlSetsTheOptionsTheRowsSayWhatTheyDidAndARestartKeepsThem) {
  useLanguage("en-US");
  window();
  ASSERT_TRUE(settle({source("wide.png", 100000, {4000, 3000, ImageFormat::png, 1, -1})}));
  ui::SizeButtonView* size = bar().sizeControl();
  EXPECT_FALSE(size->button()->isChecked()) << "off by default";
  EXPECT_EQ(size->button()->focusPolicy() & Qt::TabFocus, Qt::TabFocus);
  size->button()->click();
  ui::SizeOptionsEditor* editor = size->popupEditor();
  ASSERT_TRUE(editor && editor->isVisible());
  EXPECT_FALSE(editor->widthField()->accessibleName().isEmpty());
  editor->widthField()->setValue(1600);
  editor->heightField()->setValue(1600);
  EXPECT_EQ(model_->compressionOptions(), CompressionOptions{}) << "an unchecked part stays off";
  editor->fitToggle()->setChecked(true);
  editor->budgetToggle()->setChecked(true);
  editor->budgetField()->setValue(500);
  const CompressionOptions chosen{.maxWidth = 1600, .maxHeight = 1600, .maxBytes = 500000};
  EXPECT_EQ(model_->compressionOptions(), chosen);
  EXPECT_TRUE(size->button()->isChecked());
  ASSERT_TRUE(waitIdle());
  const auto image = model_->images()[0];
  EXPECT_EQ(ui::RowRules::shapeText(*image), "fitted to 1600 x 1200 · at quality 62 to fit 500 kB");
  EXPECT_TRUE(window()
                  .imageList()
                  ->listModel()
                  .index(0)
                  .data(Qt::AccessibleTextRole)
                  .toString()
                  .contains("fitted to 1600 x 1200"));

  // Kept with the format and quality, and shown again by the control after a restart.
  window_.reset();
  model_->persistSettings();
  auto o = options();
  o.restoreSession = true;
  model_ = std::make_unique<BatchViewModel>(o);
  EXPECT_EQ(model_->compressionOptions(), chosen);
  bar().sizeControl()->showPopup();
  EXPECT_EQ(bar().sizeControl()->popupEditor()->options(), chosen);
  useLanguage({});
}

// Files dropped on the drop area come in the drag's order; a row dropped on the lower half of
// another lands after it, in the model too.
TEST_F(MainWindowTest, DropsImportFilesInDragOrderAndMoveRows) {
  window();
  const QUrl b = source("b.png"), a = source("a.png");
  QMimeData files;
  files.setUrls({b, QUrl("https://x.test/c.png"), a});
  const auto drop = [&](QWidget* target, QPoint at, QMimeData& mime, Qt::DropAction action) {
    // Drops go to the widget that accepted the drag's entry.
    QDragEnterEvent enter(at, action, &mime, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &enter);
    EXPECT_TRUE(target != window().dropTarget() || window().dropTarget()->isTargeted());
    QDropEvent event(at, action, &mime, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &event);
    return event.isAccepted();
  };
  EXPECT_TRUE(drop(window().dropTarget(), {10, 10}, files, Qt::CopyAction));
  ASSERT_TRUE(QTest::qWaitFor([&] { return model_->images().size() == 2; }, 3000));
  EXPECT_EQ(names(), (QStringList{"b.png", "a.png"}));
  ASSERT_TRUE(settle({source("c.png")}));

  ui::ImageListView* list = window().imageList();
  list->resize(600, 400);
  QCoreApplication::processEvents();
  const QRect rowC = list->visualRect(list->listModel().index(2));
  QMimeData row;
  row.setData(ui::ImageListView::rowMimeType, model_->images()[0]->id().toByteArray());
  drop(list->viewport(), {rowC.center().x(), rowC.bottom() - 3}, row, Qt::MoveAction);
  EXPECT_EQ(names(), (QStringList{"a.png", "c.png", "b.png"}));
}

TEST_F(MainWindowTest, ARightToLeftLayoutMirrorsTheBarAndTheRowsAndKeepsNumbersWithTheirUnits) {
  QGuiApplication::setLayoutDirection(Qt::RightToLeft);
  const auto restore = qScopeGuard([] { QGuiApplication::setLayoutDirection(Qt::LeftToRight); });
  window();
  ASSERT_TRUE(settle({source("a.png", 199000)}));
  QCoreApplication::processEvents();
  const auto x = [&](QWidget* w) { return w->mapTo(&window(), QPoint(0, 0)).x(); };
  EXPECT_GT(x(bar().importButton()), x(bar().exportButton()));
  ui::ImageListView* list = window().imageList();
  const QModelIndex row = list->listModel().index(0);
  const auto part = [&](ui::RowHit hit) {
    return list->rowDelegate().partRect(list->visualRect(row), row, hit);
  };
  EXPECT_LT(part(ui::RowHit::remove).right(), part(ui::RowHit::quality).left());
  EXPECT_LT(part(ui::RowHit::quality).right(), part(ui::RowHit::thumbnail).left());
  EXPECT_EQ(ui::formatByteCount(199000), QString(QChar(0x2066)) + "199 kB" + QChar(0x2069));
}

class ShownFiles : public ui::DesktopFileDialogs {
 public:
  void showFilesInFileManager(const QList<QUrl>& files) override { shown << files; }
  QList<QList<QUrl>> shown;
};

TEST_F(MainWindowTest, AnExportEndsWithASummaryAndANotificationWhileTheWindowIsBehind) {
  auto dialogs = std::make_unique<ShownFiles>();
  ShownFiles* shown = dialogs.get();
  window().setFileDialogs(std::move(dialogs));
  ASSERT_TRUE(
      settle({source("a.png", 5750), source("b.png", 5750), source("c.png", 5750, {.failEncode = true})}));
  QDir(dir_.path()).mkdir("out");
  ASSERT_TRUE(QFile::copy(dir_.filePath("a.png"), dir_.filePath("out/a.jpg")));

  // The desktop's notification service, on a connection of its own.
  QDBusConnection service = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "notifications");
  if (!service.isConnected()) GTEST_SKIP() << "no session bus";
  auto sink = std::make_unique<testing::BusStandIn>(service, "org.freedesktop.Notifications",
                                                    "/org/freedesktop/Notifications");
  ASSERT_TRUE(sink->registered());

  // Another window in front.
  QWidget front;
  front.show();
  front.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&front));
  await(model_->exportAll(QUrl::fromLocalFile(dir_.filePath("out"))));
  ui::ExportSummaryView* summary = window().exportSummary();
  ASSERT_TRUE(summary->isVisible());
  // Two written at quality 75 (750 bytes each) from 5750-byte sources; the failure counted.
  EXPECT_EQ(summary->textLabel()->text().split('\n'),
            (QStringList{"Fichiers exportés : 2 · espace gagné : 10 kB", "Remplacés : a.jpg", "Échecs : 1"}));
  const QList<QUrl> written{QUrl::fromLocalFile(dir_.filePath("out/a.jpg")),
                            QUrl::fromLocalFile(dir_.filePath("out/b.jpg"))};
  summary->showInFolderButton()->click();
  EXPECT_EQ(shown->shown, QList<QList<QUrl>>{written});

  // The window is behind: the notification offers the same. Other tests' windows on the session
  // bus may notify too: ours has the summary's text, and its number is its place.
  qsizetype ours = 0;
  ASSERT_TRUE(QTest::qWaitFor(
      [&] {
        const QList<QVariantList> notes = sink->calls("Notify");
        const auto text = [&](const QVariantList& notify) {
          return notify.value(4) == summary->textLabel()->text();
        };
        ours = std::find_if(notes.begin(), notes.end(), text) - notes.begin();
        return ours < notes.size();
      },
      5000));
  EXPECT_EQ(sink->calls("Notify")[ours].value(5).toStringList().value(0), "show-in-folder");
  QDBusMessage chosen = QDBusMessage::createSignal("/org/freedesktop/Notifications",
                                                   "org.freedesktop.Notifications", "ActionInvoked");
  chosen << uint(ours + 1) << QString("show-in-folder");
  // The click may reach the window before the reply that gave the notification its number (they
  // come on two connections), and is then not yet ours: click until it is.
  EXPECT_TRUE(QTest::qWaitFor([&] { return shown->shown.size() >= 2 || !service.send(chosen); }, 10000));
  ASSERT_GE(shown->shown.size(), 2);
  EXPECT_EQ(shown->shown.back(), written);
  sink.reset();
  QDBusConnection::disconnectFromBus("notifications");
  QTest::keyClick(summary->closeButton(), Qt::Key_Escape);
  EXPECT_FALSE(summary->isVisible());
}

}  // namespace
}  // namespace quillane::uitest
