// The main window against a real model: what the bar shows when, the disabled states of
// export, the menu commands, the export alert, drops and row reordering.
#include <QAction>
#include <QDropEvent>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QToolButton>

#include "records/ExportProfile.h"
#include "tests/ui/ui_test_support.h"
#include "ui/ControlsBar.h"
#include "ui/DropTargetView.h"
#include "ui/ImageListModel.h"
#include "ui/ImageListView.h"
#include "ui/ProfileMenuView.h"
#include "ui/QualityControls.h"

namespace quillane::uitest {
namespace {

using ui::ControlsBar;
using ui::MainWindow;

class MainWindowTest : public WindowFixture {
 protected:
  ControlsBar& bar() { return *window().controlsBar(); }
  bool exportEnabled() { return bar().exportButton()->isEnabled() && window().exportAction()->isEnabled(); }
};

TEST_F(MainWindowTest, WhatTheBarShowsFollowsTheBatch) {
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

  import({source("one.png")});
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(shown(), (std::vector<bool>{true, true, true, true}));
}

TEST_F(MainWindowTest, ExportWaitsForThePendingRecomputeAndForEncoding) {
  window();
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(exportEnabled());

  // During the debounce nothing encodes yet, and export is already off.
  model_->setQuality(40);
  ASSERT_TRUE(model_->hasPendingRecompute());
  ASSERT_FALSE(model_->isEncoding());
  EXPECT_FALSE(exportEnabled());
  ASSERT_TRUE(waitIdle());
  EXPECT_TRUE(exportEnabled());

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

TEST_F(MainWindowTest, TheQualitySliderEncodesOnlyOnceLetGo) {
  window();
  import({source("a.png")});
  ASSERT_TRUE(waitIdle());
  // While the slider is held its value applies, but nothing is encoded until it is released.
  QSlider* slider = bar().qualitySlider()->slider();
  slider->setSliderDown(true);
  slider->setValue(30);
  EXPECT_EQ(model_->quality(), 30);
  bool outlasted = false;  // a timer longer than the debounce fires after it would have
  QTimer::singleShot(120, [&] { outlasted = true; });
  ASSERT_TRUE(QTest::qWaitFor([&] { return outlasted; }));
  EXPECT_TRUE(model_->hasPendingRecompute());
  EXPECT_FALSE(model_->isEncoding());
  slider->setSliderDown(false);
  ASSERT_TRUE(waitIdle());
  EXPECT_EQ(model_->images()[0]->encodeState().sizeBytes, 300);
}

TEST_F(MainWindowTest, TheProfileMenuAppearsWithProfilesAndNoneKeepsTheSettings) {
  window();
  ExportProfile web{QUuid::createUuid(), "Web", ImageFormat::webp, 60, std::nullopt, false, {}};
  model_->upsertExportProfile(web);
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
}

TEST_F(MainWindowTest, FilesDroppedOnTheDropAreaAreImportedInDragOrder) {
  window();
  const QUrl b = source("b.png"), a = source("a.png");
  QMimeData mime;
  mime.setUrls({b, QUrl("https://x.test/c.png"), a});
  // Drops go to the widget that accepted the drag's entry.
  QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(window().dropTarget(), &enter);
  EXPECT_TRUE(window().dropTarget()->isTargeted());
  QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(window().dropTarget(), &drop);
  EXPECT_TRUE(drop.isAccepted());
  ASSERT_TRUE(QTest::qWaitFor([&] { return model_->images().size() == 2; }, 3000));
  EXPECT_EQ(model_->images()[0]->fileName(), "b.png");
  EXPECT_EQ(model_->images()[1]->fileName(), "a.png");
  ASSERT_TRUE(waitIdle());
}

TEST_F(MainWindowTest, DraggingARowMovesItAndTheModelKeepsTheOrder) {
  window();
  import({source("a.png"), source("b.png"), source("c.png")});
  ASSERT_TRUE(waitIdle());
  ui::ImageListView* list = window().imageList();
  list->resize(600, 400);
  QCoreApplication::processEvents();
  const QUuid idA = model_->images()[0]->id();
  // Drop a onto the lower half of c: it lands last.
  const QRect rowC = list->visualRect(list->listModel().index(2));
  QMimeData mime;
  mime.setData(ui::ImageListView::rowMimeType, idA.toByteArray());
  const QPoint target(rowC.center().x(), rowC.bottom() - 3);
  QDragEnterEvent enter(target, Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(list->viewport(), &enter);
  QDropEvent drop(target, Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(list->viewport(), &drop);
  QStringList names;
  for (const auto& image : model_->images()) names << image->fileName();
  EXPECT_EQ(names, (QStringList{"b.png", "c.png", "a.png"}));
}

}  // namespace
}  // namespace quillane::uitest
