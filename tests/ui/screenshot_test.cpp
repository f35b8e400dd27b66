// Renders the window (also with an export's summary, and right to left), the comparison sheet,
// the history, the tray menu and each settings tab to
// PNG files for a person to look at, when make screenshots asks (the Screenshots suite runs only
// then), and checks in every language that no text of the bar or the panes is cut at the
// window's minimum size (ClippedText, in CTest with the label `slow`).
#include <QApplication>
#include <QDir>
#include <QImage>
#include <QPainter>
#include <QStyleFactory>
#include <QTabWidget>

#include "api/LocalAPIController.h"
#include "api/LocalAPISettings.h"
#include "hotfolders/HotFoldersManager.h"
#include "records/ExportProfile.h"
#include "services/AppLanguage.h"
#include "services/LanguageManager.h"
#include "services/UpdateChecker.h"
#include "tests/support/TestImages.h"
#include "tests/ui/ui_test_support.h"
#include "ui/BackgroundTrayMenu.h"
#include "ui/ComparisonView.h"
#include "ui/ControlsBar.h"
#include "ui/ExportHistoryView.h"
#include "ui/ExportSummaryView.h"
#include "ui/HotFoldersSettingsView.h"
#include "ui/ImageListView.h"
#include "ui/MainWindow.h"
#include "ui/SettingsWindow.h"
#include "ui/SizeControls.h"

namespace quillane::uitest {
namespace {

// Renders go to $QUILLANE_SCREENSHOTS (make screenshots sets it); without it nothing is written.
void save(QWidget* widget, const QString& name) {
  const QString folder = qEnvironmentVariable("QUILLANE_SCREENSHOTS");
  if (folder.isEmpty()) return;
  QCoreApplication::processEvents();
  const QImage image = widget->grab().toImage();
  ASSERT_FALSE(image.isNull());
  ASSERT_TRUE(QDir().mkpath(folder));
  ASSERT_TRUE(image.save(QDir(folder).filePath(name + ".png")));
}

bool previewsShown(ui::ImageComparisonView* sheet) {
  return sheet->area()->hasOriginalPreview() && sheet->area()->hasCompressedPreview();
}

QPalette darkPalette() {
  QPalette p(QColor(0x3a, 0x3a, 0x3e), QColor(0x2b, 0x2b, 0x2e));  // button, window
  for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
    p.setColor(role, QColor(0xe8, 0xe8, 0xea));
  p.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x20));
  p.setColor(QPalette::Highlight, QColor(0x3d, 0x8b, 0xfd));
  // What a desktop's dark theme sets too: readable links and greyed-out disabled text.
  p.setColor(QPalette::Link, QColor(0x8a, 0xb4, 0xf8));
  for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
    p.setColor(QPalette::Disabled, role, QColor(0x7a, 0x7a, 0x80));
  return p;
}

class Screenshots : public UiFixture {
 protected:
  void SetUp() override {
    UiFixture::SetUp();
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    QApplication::setPalette(QApplication::style()->standardPalette());
    useLanguage({});
  }
  void TearDown() override {
    QApplication::setPalette(QApplication::style()->standardPalette());
    useLanguage({});
    UiFixture::TearDown();
  }

  // A batch that shows every kind of row: reduced, grown, pass-through, failed, encoding,
  // an export failure, and a failed import; a profile and a history record.
  void makeShowcaseBatch() {
    makeModel();
    ASSERT_TRUE(
        settle({source("mountain-lake-at-dawn.jpg", 2'400'000, {4032, 3024, ImageFormat::jpeg, 1, 640'000}),
                source("logo.png", 18'000, {512, 512, ImageFormat::png, 1, 21'500}),
                source("spinner.webp", 80'000, {240, 240, ImageFormat::jpeg, 12, 80'000}),
                source("scan-of-an-old-receipt-with-a-very-long-name.heic", 1'200'000,
                       {1200, 1800, ImageFormat::heic}),
                source("broken.avif", 50'000, {800, 600, ImageFormat::avif, 1, -1, true}),
                QUrl::fromLocalFile(dir_.filePath("notes.txt"))}));
    import({source("slow-panorama.png", 5'000'000, {8000, 1500})});
    // A failed export on the logo row, and one successful export for the history.
    EXPECT_FALSE(await(model_->exportSingle(model_->images()[1],
                                            QUrl::fromLocalFile(dir_.filePath("missing-folder/logo.jpg")))));
    QDir(dir_.path()).mkpath("out");
    EXPECT_TRUE(await(model_->exportSingle(
        model_->images()[0], QUrl::fromLocalFile(dir_.filePath("out/mountain-lake-at-dawn.jpg")))));
    model_->upsertExportProfile(profile("Web", ImageFormat::webp, 80.5, dir_.filePath("out"), true));
    model_->upsertExportProfile(profile("Archive", ImageFormat::jxl, 95));
  }

  std::unique_ptr<ui::MainWindow> showWindow(QSize size, BatchViewModel* model = nullptr) {
    auto window = std::make_unique<ui::MainWindow>(model ? *model : *model_);
    window->resize(size);
    window->show();
    QCoreApplication::processEvents();
    return window;
  }
};

TEST_F(Screenshots, MainWindowLightAndDarkAndTheHistory) {
  // In English from the start, so that the rows' messages are too: these renders are the
  // software centre's screenshots.
  useLanguage(QStringLiteral("en-US"));
  makeShowcaseBatch();
  BatchViewModel empty(options());
  save(showWindow({960, 640}, &empty).get(), "main-empty");
  save(showWindow({960, 640}).get(), "main-light");
  ui::ExportHistoryView history(*model_, false);
  history.show();
  save(&history, "history");
  EXPECT_EQ(history.rowCount(), 1);
  QApplication::setPalette(darkPalette());
  save(showWindow({960, 640}).get(), "main-dark");
  openGate();
  ASSERT_TRUE(waitIdle());

  // The size control open, and the rows saying what it did.
  QApplication::setPalette(QApplication::style()->standardPalette());
  model_->setCompressionOptions({.maxWidth = 1600, .maxHeight = 1200, .maxBytes = 500'000});
  ASSERT_TRUE(waitIdle());
  auto sized = showWindow({960, 640});
  sized->controlsBar()->sizeControl()->showPopup();
  QCoreApplication::processEvents();
  save(sized->controlsBar()->sizeControl()->popupEditor()->window(), "size-control");
  save(sized.get(), "main-size");
}

// The summary of an export over the list, and the window laid out right to left, at 1280x800.
TEST_F(Screenshots, ExportSummaryAndRightToLeftLightAndDark) {
  useLanguage(QStringLiteral("en-US"));
  makeShowcaseBatch();
  for (const QString& name : {QStringLiteral("summary-light"), QStringLiteral("summary-dark")}) {
    if (name.endsWith("dark")) QApplication::setPalette(darkPalette());
    auto window = showWindow({1280, 800});
    await(model_->exportAll(QUrl::fromLocalFile(dir_.filePath("out"))));
    EXPECT_TRUE(window->exportSummary()->isVisible());
    save(window.get(), name);
  }
  QApplication::setPalette(QApplication::style()->standardPalette());
  QGuiApplication::setLayoutDirection(Qt::RightToLeft);
  save(showWindow({1280, 800}).get(), "rtl-light");
  QApplication::setPalette(darkPalette());
  save(showWindow({1280, 800}).get(), "rtl-dark");
  QGuiApplication::setLayoutDirection(Qt::LeftToRight);
  openGate();
  ASSERT_TRUE(waitIdle());
}

TEST_F(Screenshots, ComparisonOfARealEncodingAtFitAnd200PercentLightAndDark) {
  // A real picture through the real engine, at a quality low enough for its artefacts to show;
  // in English, as the software centre's other screenshots.
  useLanguage(QStringLiteral("en-US"));
  BatchViewModel::Options o;
  o.restoreSession = false;
  model_ = std::make_unique<BatchViewModel>(o);
  const QString path = dir_.filePath("harbour.png");
  ASSERT_TRUE(ui::toQImage(testing::makeImage(2400, 1600, testing::Pattern::photo, 7)).save(path));
  model_->setOutputFormat(ImageFormat::jpeg);
  model_->setQuality(30);
  ASSERT_TRUE(settle({QUrl::fromLocalFile(path)}, 20000));
  ASSERT_TRUE(model_->images()[0]->encodeState().isReady());
  ASSERT_TRUE(QTest::qWaitFor([&] { return model_->images()[0]->butteraugli().has_value(); }, 20000));

  auto window = showWindow({960, 640});
  for (const bool dark : {false, true}) {
    QApplication::setPalette(dark ? darkPalette() : QApplication::style()->standardPalette());
    auto* sheet = new ui::ImageComparisonView(*model_, model_->images()[0], window.get());
    sheet->resize(1280, 800);
    sheet->show();
    ASSERT_TRUE(QTest::qWaitFor([&] { return previewsShown(sheet); }, 10000));
    sheet->area()->setSliderFraction(0.45);
    const QString theme = dark ? "dark" : "light";
    save(sheet, "comparison-fit-" + theme);
    if (!dark) save(sheet, "comparison");
    sheet->area()->setZoom(2.0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return sheet->area()->hasFullResolution(); }, 10000));
    save(sheet, "comparison-200-" + theme);
    sheet->close();
  }
}

class SettingsScreenshots : public Screenshots {
 protected:
  std::unique_ptr<ui::SettingsWindow> makeSettings() {
    if (!hotFolders_) {
      if (!model_) makeShowcaseBatch();
      LocalAPISettings::setEnabled(true);
      LocalAPISettings::setPort(0);
      controller_ = std::make_unique<LocalAPIController>(*model_);
      checker_ = std::make_unique<UpdateChecker>(QUrl("http://127.0.0.1:9"), "1.0");
      languages_ = std::make_unique<LanguageManager>(
          LanguageManager::Platform{{"fr-FR"}, [](const QString&) { return true; }, [] {}});
      // One working folder, and one whose source is missing, so that the error log has a line.
      QDir(dir_.path()).mkpath("camera");
      HotFolders::save(
          {hotFolder("Camera", dir_.filePath("camera"), dir_.filePath("camera-small"), std::nullopt, 75,
                     "Web"),
           hotFolder("Scans", dir_.filePath("scans"), dir_.filePath("scans-small"), ImageFormat::jxl, 80)});
      hotFolders_ = std::make_unique<HotFoldersManager>();
    }
    auto window = std::make_unique<ui::SettingsWindow>(
        ui::SettingsWindow::Services{*model_, *controller_, *checker_, *languages_, nullptr});
    window->setAttribute(Qt::WA_DeleteOnClose, false);
    window->insertHotFoldersPane(new ui::HotFoldersSettingsView(*hotFolders_, *model_, {}));
    return window;
  }
  void TearDown() override {
    hotFolders_.reset();
    controller_.reset();
    checker_.reset();
    languages_.reset();
    LocalAPISettings::setEnabled(false);
    Screenshots::TearDown();
  }
  std::unique_ptr<HotFoldersManager> hotFolders_;
  std::unique_ptr<LocalAPIController> controller_;
  std::unique_ptr<UpdateChecker> checker_;
  std::unique_ptr<LanguageManager> languages_;
};
class ClippedText : public SettingsScreenshots {};

// The tray icon's menu of a background instance, running and paused; its entries do what they say.
TEST_F(SettingsScreenshots, TrayMenuRunningAndPaused) {
  useLanguage("en-US");  // for the software centre, as the main window's
  makeSettings();
  int opened = 0;
  ui::BackgroundTrayMenu menu(
      *hotFolders_, [&] { ++opened; }, [] {});
  menu.popup({0, 0});
  save(&menu, "tray-menu");
  menu.findChild<QAction*>("trayPause")->trigger();
  EXPECT_TRUE(hotFolders_->isPaused());
  EXPECT_NE(menu.toolTipText(), QString());
  save(&menu, "tray-menu-paused");
  menu.findChild<QAction*>("trayPause")->trigger();
  EXPECT_FALSE(hotFolders_->isPaused());
  menu.findChild<QAction*>("trayOpen")->trigger();
  EXPECT_EQ(opened, 1);
}

// In every language, the main window at its minimum size and each settings tab at the settings
// window's minimum size: no text of a button or a one-line label is cut.
TEST_F(ClippedText, NoTextOfTheBarOrATabIsCutInAnyLanguageAtMinimumSize) {
  makeShowcaseBatch();
  for (AppLanguage language : AppLanguages::allCases()) {
    const QString code = AppLanguages::rawValue(language);
    SCOPED_TRACE(code.toStdString());
    useLanguage(code);
    // The failed import again, so that its row speaks this language too (the program itself
    // restarts on a change of language).
    model_->retryImport(model_->importFailures().at(0));
    ASSERT_TRUE(QTest::qWaitFor([&] { return model_->importFailures().size() == 1; }, 5000));
    {
      auto window = showWindow({ui::MainWindow::minimumWidth, ui::MainWindow::minimumHeight});
      EXPECT_EQ(clippedTexts(window->controlsBar()), QStringList());
      save(window.get(), "lang-" + code + "-main");
      window->resize(960, 640);
      save(window.get(), "lang-" + code + "-960");
    }
    auto settings = makeSettings();
    settings->resize(settings->minimumSize());
    settings->show();
    for (int i = 0; i < settings->tabs()->count(); ++i) {
      settings->tabs()->setCurrentIndex(i);
      QCoreApplication::processEvents();
      EXPECT_EQ(clippedTexts(settings->tabs()->currentWidget()), QStringList()) << "tab " << i;
      save(settings.get(), QStringLiteral("lang-%1-settings-%2").arg(code).arg(i));
    }
  }
  openGate();
}

}  // namespace
}  // namespace quillane::uitest
