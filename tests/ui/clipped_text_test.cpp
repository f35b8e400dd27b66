// In every language no text of the bar, a failed row's Retry, the quality popup, a settings tab or its title
// is cut at the windows' minimum sizes (labelled `slow` in CTest); the tray menu's entries do what they say.

#include "api/LocalAPIController.h"
#include "api/LocalAPISettings.h"
#include "hotfolders/HotFoldersManager.h"
#include "services/LanguageManager.h"
#include "services/UpdateChecker.h"
#include "tests/ui/ui_test_support.h"
#include "ui/BackgroundTrayMenu.h"
#include "ui/ControlsBar.h"
#include "ui/HotFoldersSettingsView.h"
#include "ui/ImageRowDelegate.h"
#include "ui/QualityControls.h"
#include "ui/SettingsWindow.h"

namespace quillane::uitest {
namespace {

// The labels (not wrapping or elided ones), buttons and combo boxes in `root` narrower than their text needs.
QStringList clippedTexts(QWidget* root) {
  QStringList clipped;
  const auto check = [&](QWidget* w, const QString& text) {
    if (!w->isVisibleTo(root) || text.isEmpty()) return;
    const int needed = w->minimumSizeHint().width();
    if (w->width() + 1 < needed)
      clipped << QStringLiteral("%1 \"%2\" (%3 < %4)")
                     .arg(w->metaObject()->className(), text)
                     .arg(w->width())
                     .arg(needed);
  };
  for (QLabel* label : root->findChildren<QLabel*>())  // an Ignored width: elided on purpose
    if (!label->wordWrap() && label->sizePolicy().horizontalPolicy() != QSizePolicy::Ignored)
      check(label, label->text());
  for (QAbstractButton* button : root->findChildren<QAbstractButton*>()) check(button, button->text());
  for (QComboBox* combo : root->findChildren<QComboBox*>()) check(combo, combo->currentText());
  return clipped;
}

// Two hot folders, one whose source is missing so that the error log has a line.
std::unique_ptr<HotFoldersManager> hotFolders(const QDir& dir) {
  dir.mkpath("camera");
  HotFolders::save(
      {hotFolder("Camera", dir.filePath("camera"), dir.filePath("camera-small"), std::nullopt, 75, "Web"),
       hotFolder("Scans", dir.filePath("scans"), dir.filePath("scans-small"), ImageFormat::jxl, 80)});
  return std::make_unique<HotFoldersManager>();
}

using ClippedText = UiFixture;
using TrayMenu = UiFixture;

// The bar with all it can show (a count, a history, a profile menu, progress) and every
// settings tab with content, the local API's running.
TEST_F(ClippedText, NoTextOfTheBarOrATabIsCutInAnyLanguageAtMinimumSize) {
  makeModel();
  ASSERT_TRUE(settle({source("mountain-lake-at-dawn.jpg", 2'400'000), source("logo.png", 18'000),
                      source("broken.avif", 50'000, {.failEncode = true}), url("notes.txt")}));
  import({source("slow-panorama.png", 5'000'000)});
  EXPECT_TRUE(await(model_->exportSingle(model_->images()[0], QUrl::fromLocalFile(outFolder() + "/a.jpg"))));
  model_->upsertExportProfile(profile("Web", ImageFormat::webp, 80.5, outFolder(), true));
  model_->upsertExportProfile(profile("Archive", ImageFormat::jxl, 95));
  LocalAPISettings::setEnabled(true);
  LocalAPISettings::setPort(0);
  const auto restore = qScopeGuard([] { LocalAPISettings::setEnabled(false); });
  LocalAPIController controller(*model_);
  UpdateChecker checker(QUrl("http://127.0.0.1:9"), "1.0");
  LanguageManager languages(LanguageManager::Platform{{"fr-FR"}, [](const QString&) { return true; }, [] {}});
  auto manager = hotFolders(QDir(dir_.path()));
  for (AppLanguage language : AppLanguages::allCases()) {
    SCOPED_TRACE(AppLanguages::rawValue(language).toStdString());
    useLanguage(AppLanguages::rawValue(language));
    ui::MainWindow window(*model_);
    window.resize(ui::MainWindow::minimumWidth, ui::MainWindow::minimumHeight);
    window.show();
    QCoreApplication::processEvents();
    EXPECT_EQ(clippedTexts(window.controlsBar()), QStringList());
    window.showQualityOverride(model_->images()[0], QRect(window.mapToGlobal(QPoint(700, 80)), QSize(1, 1)));
    EXPECT_EQ(clippedTexts(window.findChild<ui::QualityOverridePopup*>()), QStringList()) << "quality popup";
    const ui::ImageListView& list = *window.findChild<ui::ImageListView*>();
    const QModelIndex failed = list.listModel().index(list.listModel().rowOfImage(2));  // broken.avif
    EXPECT_GE(
        delegate(list).partRect(list.visualRect(failed), failed, ui::RowHit::summaryRetry).width(),
        QFontMetricsF(ui::smallFont(QApplication::font())).horizontalAdvance(Strings::text("common.retry")));
    ui::SettingsWindow settings({*model_, controller, checker, languages, nullptr});
    settings.setAttribute(Qt::WA_DeleteOnClose, false);
    settings.insertHotFoldersPane(new ui::HotFoldersSettingsView(*manager, *model_, {}));
    settings.resize(settings.minimumSize());
    settings.show();
    EXPECT_LE(settings.tabs()->tabBar()->sizeHint().width(), settings.tabs()->width());
    for (int i = 0; i < settings.tabs()->count(); ++i) {
      settings.tabs()->setCurrentIndex(i);
      QCoreApplication::processEvents();
      EXPECT_EQ(clippedTexts(settings.tabs()->currentWidget()), QStringList()) << "tab " << i;
    }
  }
  // A line wider than two thirds of the screen still fits in the popup.
  const auto letters = size_t(620 / QFontMetrics(QApplication::font()).horizontalAdvance('M'));
  Localization::setLookup([letters](const std::string& key) {
    return key == "size.skipLargerToggle" ? std::string(letters, 'M') : key;
  });
  ui::MainWindow window(*model_);
  window.show();
  window.showQualityOverride(model_->images()[0], QRect(window.mapToGlobal(QPoint(100, 80)), QSize(1, 1)));
  EXPECT_EQ(clippedTexts(window.findChild<ui::QualityOverridePopup*>()).size(), 0);
  useLanguage({});
  openGate();
}

TEST_F(TrayMenu, PausesAndResumesTheFoldersAndOpensTheWindow) {
  auto manager = hotFolders(QDir(dir_.path()));
  int opened = 0;
  ui::BackgroundTrayMenu menu(
      *manager, [&] { ++opened; }, [] {});
  menu.findChild<QAction*>("trayPause")->trigger();
  EXPECT_TRUE(manager->isPaused() && !menu.toolTipText().isEmpty());
  menu.findChild<QAction*>("trayPause")->trigger();
  EXPECT_FALSE(manager->isPaused());
  menu.findChild<QAction*>("trayOpen")->trigger();
  EXPECT_EQ(opened, 1);
}

}  // namespace
}  // namespace quillane::uitest
