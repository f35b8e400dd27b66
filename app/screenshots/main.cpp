// quillane-screenshots: renders the window (empty, light, dark, with an export's summary, right
// to left, with the size control open), the history, the comparison of a real encoding at fit
// and at 200 %, the tray menu, and in every language the window, its menus, About box, alert and
// popups, the comparison and every page of each settings tab, as PNG files for a person to look
// at (make screenshots, the software centre's pictures).
//
//   quillane-screenshots FOLDER
//
// The batch is staged: stand-ins at the view model's engine seams give each row the size,
// state or failure it shows, so that every kind of row appears; the comparison alone runs the
// real engine. Settings and state files live in a temporary folder of the run.
#include <QtCore/qtestsupport_core.h>

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QStyle>
#include <QStyleFactory>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTimer>
#include <QUuid>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>

#include "QuillaneVersion.h"
#include "api/LocalAPIController.h"
#include "api/LocalAPISettings.h"
#include "batch/BatchViewModel.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/Localization.h"
#include "hotfolders/HotFoldersManager.h"
#include "records/ExportProfile.h"
#include "records/JSONFileStore.h"
#include "services/AppLanguage.h"
#include "services/LanguageManager.h"
#include "services/Strings.h"
#include "services/UpdateChecker.h"
#include "ui/BackgroundTrayMenu.h"
#include "ui/ComparisonView.h"
#include "ui/ControlsBar.h"
#include "ui/ExportHistoryView.h"
#include "ui/ExportSummaryView.h"
#include "ui/HotFoldersSettingsView.h"
#include "ui/ImageListModel.h"
#include "ui/ImageListView.h"
#include "ui/MainWindow.h"
#include "ui/ProfileMenuView.h"
#include "ui/QualityControls.h"
#include "ui/SettingsWindow.h"
#include "ui/SizeControls.h"
#include "ui/SmallSettingsViews.h"
#include "ui/SplitCompareWidget.h"

namespace quillane {
namespace {

QString outputFolder;
int failures = 0;

void fail(const QString& what) {
  std::fprintf(stderr, "quillane-screenshots: %s\n", qPrintable(what));
  ++failures;
}

bool waitFor(const std::function<bool()>& done, int ms = 10000) {
  if (QTest::qWaitFor(done, ms)) return true;
  fail(QStringLiteral("timed out"));
  return false;
}

void save(const QImage& image, const QString& name) {
  if (image.isNull() || !image.save(QDir(outputFolder).filePath(name + ".png")))
    fail("could not write " + name);
}

void save(QWidget* widget, const QString& name) {
  QCoreApplication::processEvents();
  save(widget->grab().toImage(), name);
}

// `menu` as it shows when opened at `at`, on the screen; closed again.
QImage opened(QMenu* menu, QPoint at) {
  menu->popup(at);
  QCoreApplication::processEvents();
  QImage image = menu->grab().toImage();
  menu->hide();
  return image;
}

// As the application does at launch: the language's table, its locale for numbers and sizes,
// and Qt's own texts in it.
void useLanguage(const QString& rawValue) {
  LanguageManager({{rawValue}, [](const QString&) { return false; }, [] {}}).installLookup();
}

QPalette lightPalette() { return QApplication::style()->standardPalette(); }

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

// A smooth, photo-like picture: soft waves of colour that differ by `seed`.
DecodedImage photo(int width, int height, uint32_t seed) {
  DecodedImage image;
  image.width = width, image.height = height;
  image.pixels8.assign(size_t(width) * size_t(height) * 4, 255);
  const auto clamp8 = [](double v) { return uint8_t(std::clamp(v, 0.0, 255.0)); };
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &image.pixels8[(size_t(y) * size_t(width) + size_t(x)) * 4];
      const double fx = double(x) / std::max(1, width - 1), fy = double(y) / std::max(1, height - 1);
      const double base = 110 + 60 * std::sin(fx * 7.0 + seed) * std::cos(fy * 5.0);
      const double grain = 6 * std::sin(x * 1.7 + y * 2.3 + seed);
      p[0] = clamp8(base + 40 * fx + grain);
      p[1] = clamp8(base * 0.8 + 50 * fy + grain);
      p[2] = clamp8(200 - base * 0.5 + grain);
    }
  }
  return image;
}

// What the stand-ins say of a staged file.
struct StagedFile {
  int width = 640;
  int height = 480;
  ImageFormat format = ImageFormat::png;
  int frameCount = 1;
  int64_t encodedSize = -1;  // -1: quality x 10 bytes
  bool failEncode = false;
};

// A batch of staged files in a folder of its own (its state files too). A source's first line
// is its name; the stand-in encoder answers with the bytes its file asks for, and holds files
// whose name starts with "slow" until the gate opens.
class Stage {
 public:
  Stage() { JSONFileStore::setFolderForTesting(dir_.filePath("state")); }
  ~Stage() {
    openGate();
    model_.reset();
    JSONFileStore::setFolderForTesting({});
  }

  BatchViewModel& model() {
    if (!model_) model_ = std::make_unique<BatchViewModel>(options());
    return *model_;
  }
  QString path(const QString& name) const { return dir_.filePath(name); }

  QUrl source(const QString& name, int64_t bytes, StagedFile file = {}) {
    QByteArray content = name.toUtf8() + '\n';
    content.append(QByteArray(std::max<int64_t>(0, bytes - content.size()), 'p'));
    QFile out(path(name));
    if (!out.open(QIODevice::WriteOnly) || out.write(content) != content.size())
      fail("could not write " + name);
    std::lock_guard lock(mutex_);
    files_[name.toStdString()] = file;
    return QUrl::fromLocalFile(path(name));
  }
  void import(const QList<QUrl>& urls) {
    QFuture<void> done = model().importFiles(urls);
    waitFor([&] { return done.isFinished(); });
  }
  void settle() {
    waitFor([&] { return !model().isEncoding() && !model().hasPendingRecompute(); }, 20000);
  }
  void openGate() {
    std::lock_guard lock(mutex_);
    gateOpen_ = true;
    gate_.notify_all();
  }
  template <class T>
  T await(QFuture<T> future) {
    waitFor([&] { return future.isFinished(); });
    return future.result();
  }

  // Every kind of row: reduced, grown, passed through, failed, still encoding, a failed export,
  // a failed import; two profiles and a record in the history.
  void showcase() {
    import({source("mountain-lake-at-dawn.jpg", 2'400'000, {4032, 3024, ImageFormat::jpeg, 1, 640'000}),
            source("logo.png", 18'000, {512, 512, ImageFormat::png, 1, 21'500}),
            source("spinner.webp", 80'000, {240, 240, ImageFormat::jpeg, 12, 80'000}),
            source("scan-of-an-old-receipt-with-a-very-long-name.heic", 1'200'000,
                   {1200, 1800, ImageFormat::heic}),
            source("broken.avif", 50'000, {800, 600, ImageFormat::avif, 1, -1, true}),
            QUrl::fromLocalFile(path("notes.txt"))});
    settle();
    import({source("slow-panorama.png", 5'000'000, {8000, 1500})});
    if (await(
            model().exportSingle(model().images()[1], QUrl::fromLocalFile(path("missing-folder/logo.jpg")))))
      fail("the export into a missing folder succeeded");
    QDir(dir_.path()).mkpath("out");
    await(model().exportSingle(model().images()[0],
                               QUrl::fromLocalFile(path("out/mountain-lake-at-dawn.jpg"))));
    model().upsertExportProfile({QUuid::createUuid(), "Web", ImageFormat::webp, 80.5, path("out"), true, {}});
    model().upsertExportProfile(
        {QUuid::createUuid(), "Archive", ImageFormat::jxl, 95, std::nullopt, false, {}});
  }

 private:
  static std::string nameOf(std::span<const uint8_t> data) {
    const std::string content(data.begin(), data.end());
    return content.substr(0, content.find('\n'));
  }
  StagedFile file(const std::string& name) {
    std::lock_guard lock(mutex_);
    return files_[name];
  }
  std::vector<uint8_t> encode(const std::string& name, double quality) {
    const StagedFile staged = file(name);
    if (name.starts_with("slow")) {
      std::unique_lock lock(mutex_);
      gate_.wait_for(lock, std::chrono::seconds(60), [this] { return gateOpen_; });
    }
    if (staged.failEncode) throw ImageProcessingError::encodingFailed("WebP");
    return std::vector<uint8_t>(size_t(staged.encodedSize >= 0 ? staged.encodedSize : int64_t(quality * 10)),
                                'x');
  }
  BatchViewModel::Options options() {
    BatchViewModel::Options o;
    o.restoreSession = false;
    o.measureResults = false;
    o.reader = [](const std::string& p) { return FileIO::readFile(p); };
    o.encoder = [this](std::span<const uint8_t> data, ImageFormat, double quality) {
      return encode(nameOf(data), quality);
    };
    // Under a fit or a budget: the file's box scaled into the options' one, quality 62 under a budget.
    o.sizedEncoder = [this](std::span<const uint8_t> data, ImageFormat, double quality,
                            const CompressionOptions& sizing) {
      const StagedFile staged = file(nameOf(data));
      double scale = 1;
      if (sizing.maxWidth > 0) scale = std::min(scale, double(sizing.maxWidth) / staged.width);
      if (sizing.maxHeight > 0) scale = std::min(scale, double(sizing.maxHeight) / staged.height);
      ImageCompressor::Encoded encoded;
      encoded.quality = sizing.maxBytes > 0 ? std::min(quality, 62.0) : quality;
      encoded.width = std::max(1, int(staged.width * scale));
      encoded.height = std::max(1, int(staged.height * scale));
      encoded.fitted = scale < 1;
      encoded.bytes = encode(nameOf(data), encoded.quality);
      encoded.encodes = 1;
      return encoded;
    };
    o.inspector = [this](const std::string& p) {
      const QString name = QFileInfo(QString::fromStdString(p)).fileName();
      StagedFile staged;
      {
        std::lock_guard lock(mutex_);
        auto it = files_.find(name.toStdString());
        if (it == files_.end()) throw ImageProcessingError::decodingFailed("not an image");
        staged = it->second;
      }
      const int side = std::max({1, staged.width, staged.height});
      return ImageDecoder::LightDecodedImage{
          staged.format,
          staged.width,
          staged.height,
          QFileInfo(QString::fromStdString(p)).size(),
          staged.frameCount,
          photo(std::max(1, 64 * staged.width / side), std::max(1, 64 * staged.height / side), qHash(name))};
    };
    return o;
  }

  QTemporaryDir dir_;
  std::unique_ptr<BatchViewModel> model_;
  std::mutex mutex_;
  std::condition_variable gate_;
  bool gateOpen_ = false;
  std::map<std::string, StagedFile> files_;
};

// The window's menus opened one after another, side by side in one picture.
void saveMenus(QMainWindow* window, const QString& name) {
  QList<QImage> menus;
  for (QAction* action : window->menuBar()->actions()) {
    if (QMenu* menu = action->menu()) menus << opened(menu, window->mapToGlobal(QPoint(0, 0)));
  }
  int width = 0, height = 0;
  for (const QImage& menu : menus) width += menu.width() + 8, height = std::max(height, menu.height());
  QImage image(std::max(1, width), std::max(1, height), QImage::Format_ARGB32);
  image.fill(window->palette().color(QPalette::Window));
  QPainter painter(&image);
  int x = 0;
  for (const QImage& menu : menus) painter.drawImage(x, 0, menu), x += menu.width() + 8;
  painter.end();
  save(image, name);
}

// The button of `root` that reads `text`.
QAbstractButton* control(QWidget* root, const QString& text) {
  for (QAbstractButton* button : root->findChildren<QAbstractButton*>())
    if (button->text() == text) return button;
  return nullptr;
}

// The modal box that `open` brings up, saved and closed.
void saveModal(const std::function<void()>& open, const QString& name) {
  QTimer::singleShot(0, [name] {
    if (QWidget* box = QApplication::activeModalWidget()) {
      save(box->window(), name);
      box->close();
    } else {
      fail("no box for " + name);
    }
  });
  open();
}

// The comparison of the batch's first image over `window`, once both sides show, the divider a
// little left of the middle.
ui::ImageComparisonView* openComparison(BatchViewModel& model, QWidget* window, QSize size) {
  auto* sheet = new ui::ImageComparisonView(model, model.images()[0], window);
  sheet->resize(size);
  sheet->show();
  waitFor([&] { return sheet->area()->hasOriginalPreview() && sheet->area()->hasCompressedPreview(); });
  sheet->area()->setSliderFraction(0.45);
  return sheet;
}

std::unique_ptr<ui::MainWindow> showWindow(BatchViewModel& model, QSize size) {
  auto window = std::make_unique<ui::MainWindow>(model);
  window->resize(size);
  window->show();
  QCoreApplication::processEvents();
  return window;
}

void mainWindowAndHistory() {
  Stage stage;
  save(showWindow(stage.model(), {960, 640}).get(), "main-empty");
  stage.showcase();
  save(showWindow(stage.model(), {960, 640}).get(), "main-light");
  ui::ExportHistoryView history(stage.model(), false);
  history.show();
  save(&history, "history");
  QApplication::setPalette(darkPalette());
  save(showWindow(stage.model(), {960, 640}).get(), "main-dark");
  QApplication::setPalette(lightPalette());
  stage.openGate();
  stage.settle();

  // The size control open, and the rows saying what it did.
  stage.model().setCompressionOptions({.maxWidth = 1600, .maxHeight = 1200, .maxBytes = 500'000});
  stage.settle();
  auto sized = showWindow(stage.model(), {960, 640});
  sized->controlsBar()->findChild<ui::SizeButtonView*>()->showPopup();
  QCoreApplication::processEvents();
  save(sized->controlsBar()->findChild<ui::SizeOptionsEditor*>()->window(), "size-control");
  save(sized.get(), "main-size");
}

// The summary of an export over the list, and the window laid out right to left, at 1280 x 800.
void exportSummaryAndRightToLeft() {
  Stage stage;
  stage.showcase();
  for (const bool dark : {false, true}) {
    QApplication::setPalette(dark ? darkPalette() : lightPalette());
    auto window = showWindow(stage.model(), {1280, 800});
    stage.await(stage.model().exportAll(QUrl::fromLocalFile(stage.path("out"))));
    save(window.get(), dark ? "summary-dark" : "summary-light");
  }
  QGuiApplication::setLayoutDirection(Qt::RightToLeft);
  for (const bool dark : {false, true}) {
    QApplication::setPalette(dark ? darkPalette() : lightPalette());
    save(showWindow(stage.model(), {1280, 800}).get(), dark ? "rtl-dark" : "rtl-light");
  }
  QGuiApplication::setLayoutDirection(Qt::LeftToRight);
  QApplication::setPalette(lightPalette());
}

// A picture through the real engine, at a quality low enough for its artefacts to show.
void comparison() {
  Stage stage;
  BatchViewModel::Options o;
  o.restoreSession = false;
  BatchViewModel model(o);
  const QString path = stage.path("harbour.png");
  if (!ui::toQImage(photo(2400, 1600, 7)).save(path)) fail("could not write harbour.png");
  model.setOutputFormat(ImageFormat::jpeg);
  model.setQuality(30);
  QFuture<void> imported = model.importFiles({QUrl::fromLocalFile(path)});
  if (!waitFor([&] { return imported.isFinished() && !model.images().empty(); }) ||
      !waitFor([&] { return model.images()[0]->butteraugli().has_value(); }, 30000))
    return;
  auto window = showWindow(model, {960, 640});
  for (const bool dark : {false, true}) {
    QApplication::setPalette(dark ? darkPalette() : lightPalette());
    ui::ImageComparisonView* sheet = openComparison(model, window.get(), {1280, 800});
    const QString theme = dark ? "dark" : "light";
    save(sheet, "comparison-fit-" + theme);
    if (!dark) save(sheet, "comparison");
    sheet->area()->setZoom(2.0);
    waitFor([&] { return sheet->area()->hasFullResolution(); });
    save(sheet, "comparison-200-" + theme);
    sheet->close();
  }
  QApplication::setPalette(lightPalette());
  // In every language, at fit in a smaller window.
  for (AppLanguage language : AppLanguages::allCases()) {
    const QString code = AppLanguages::rawValue(language);
    useLanguage(code);
    ui::ImageComparisonView* sheet = openComparison(model, window.get(), {960, 640});
    save(sheet, "lang-" + code + "-comparison");
    sheet->close();
  }
  useLanguage(QStringLiteral("en-US"));
}

// The settings window with every pane, over a showcase batch and two hot folders, one of whose
// sources is missing so that the error log has a line.
struct Settings {
  explicit Settings(Stage& stage) : controller(stage.model()) {
    QDir().mkpath(stage.path("camera"));
    const auto folder = [&](const QString& name, const QString& source, std::optional<ImageFormat> format,
                            const std::optional<QString>& profile) {
      return HotFolder{QUuid::createUuid(),
                       name,
                       stage.path(source),
                       stage.path(source + "-small"),
                       profile,
                       format,
                       format ? std::optional(80.0) : std::nullopt,
                       true,
                       {}};
    };
    HotFolders::save(
        {folder("Camera", "camera", std::nullopt, "Web"), folder("Scans", "scans", ImageFormat::jxl, {})});
    hotFolders = std::make_unique<HotFoldersManager>();
  }
  std::unique_ptr<ui::SettingsWindow> window(BatchViewModel& model) {
    auto settings = std::make_unique<ui::SettingsWindow>(
        ui::SettingsWindow::Services{model, controller, checker, languages, nullptr});
    settings->setAttribute(Qt::WA_DeleteOnClose, false);
    settings->insertHotFoldersPane(new ui::HotFoldersSettingsView(*hotFolders, model, {}));
    return settings;
  }

  LocalAPIController controller;
  UpdateChecker checker{QUrl("http://127.0.0.1:9"), "1.0"};
  LanguageManager languages{LanguageManager::Platform{{"fr-FR"}, [](const QString&) { return true; }, [] {}}};
  std::unique_ptr<HotFoldersManager> hotFolders;
};

// The tray icon's menu of a background instance, running and paused.
void trayMenu() {
  Stage stage;
  stage.showcase();
  Settings settings(stage);
  ui::BackgroundTrayMenu menu(
      *settings.hotFolders, [] {}, [] {});
  menu.popup({0, 0});
  save(&menu, "tray-menu");
  menu.findChild<QAction*>("trayPause")->trigger();
  save(&menu, "tray-menu-paused");
  menu.findChild<QAction*>("trayPause")->trigger();
}

// Each settings tab in the dark palette, in English.
void settingsDark() {
  Stage stage;
  stage.showcase();
  Settings services(stage);
  QApplication::setPalette(darkPalette());
  auto settings = services.window(stage.model());
  settings->resize(680, 560);
  settings->show();
  for (int i = 0; i < settings->tabs()->count(); ++i) {
    settings->tabs()->setCurrentIndex(i);
    save(settings.get(), QStringLiteral("settings-dark-%1").arg(i));
  }
  QApplication::setPalette(lightPalette());
}

// In every language: the window at its minimum size and at 960 x 640, and each settings tab at
// the settings window's minimum size (and each further page when it scrolls).
void everyLanguage() {
  Stage stage;
  stage.showcase();
  for (AppLanguage language : AppLanguages::allCases()) {
    const QString code = AppLanguages::rawValue(language);
    useLanguage(code);
    // The failed import again, so that its row speaks this language too.
    stage.model().retryImport(stage.model().importFailures().at(0));
    waitFor([&] { return stage.model().importFailures().size() == 1; });
    {
      auto window = showWindow(stage.model(), {ui::MainWindow::minimumWidth, ui::MainWindow::minimumHeight});
      save(window.get(), "lang-" + code + "-main");
      window->resize(960, 640);
      save(window.get(), "lang-" + code + "-960");
      saveMenus(window.get(), "lang-" + code + "-menus");
      QAction* about = window->menuBar()->actions().last()->menu()->actions().last();
      saveModal([about] { about->trigger(); }, "lang-" + code + "-about");
      stage.model().setExportError(Strings::text("export.errorTitle"));
      QCoreApplication::processEvents();
      if (QWidget* alert = QApplication::activeModalWidget()) {
        save(alert, "lang-" + code + "-alert");
        alert->close();
      }
      // The bar's profile menu and size control, the banner of an export and the history.
      auto* profiles = window->controlsBar()->findChild<ui::ExportProfileMenuView*>()->findChild<QMenu*>();
      save(opened(profiles, window->mapToGlobal(QPoint(0, 0))), "lang-" + code + "-profile-menu");
      window->controlsBar()->findChild<ui::SizeButtonView*>()->showPopup();
      QCoreApplication::processEvents();
      QWidget* sizePopup = window->controlsBar()->findChild<ui::SizeOptionsEditor*>()->window();
      save(sizePopup, "lang-" + code + "-size-control");
      sizePopup->close();
      // A row's own quality and its menu (the first image's row, after the failed import's).
      ui::ImageListView* list = window->findChild<ui::ImageListView*>();
      const auto image = stage.model().images().front();
      window->showQualityOverride(image, *list->qualityAnchor(image));
      QCoreApplication::processEvents();
      if (auto* popup = window->findChild<ui::QualityOverridePopup*>()) {
        save(popup, "lang-" + code + "-row-quality");
        popup->close();
      }
      std::unique_ptr<QMenu> rowMenu(list->rowMenu(list->listModel().index(2)));
      save(opened(rowMenu.get(), window->mapToGlobal(QPoint(0, 0))), "lang-" + code + "-row-menu");
    }
    {
      BatchViewModel::Options options;
      options.restoreSession = false;
      BatchViewModel empty(options);
      save(showWindow(empty, {ui::MainWindow::minimumWidth, ui::MainWindow::minimumHeight}).get(),
           "lang-" + code + "-empty");
    }
    ui::ExportSummaryView summary([](const QList<QUrl>&) {});
    ExportSummary staged;
    staged.writtenCount = 4, staged.bytesSaved = 3'000'000, staged.keptOriginalCount = 1,
    staged.failureCount = 2;
    staged.replacedNames = {"mountain-lake-at-dawn.jpg"};
    staged.written = {QUrl::fromLocalFile(stage.path("out/a.jpg"))};
    summary.present(staged, false);
    summary.resize(780, summary.heightForWidth(780));
    summary.show();
    save(&summary, "lang-" + code + "-summary");
    ui::ExportHistoryView history(stage.model(), false);
    history.show();
    save(&history, "lang-" + code + "-history");
    // Made anew, so that the missing folder's error is told in this language too.
    Settings services(stage);
    ui::BackgroundTrayMenu tray(
        *services.hotFolders, [] {}, [] {});
    save(opened(&tray, {0, 0}), "lang-" + code + "-tray-menu");
    auto settings = services.window(stage.model());
    settings->resize(settings->minimumSize());
    settings->show();
    for (int i = 0; i < settings->tabs()->count(); ++i) {
      settings->tabs()->setCurrentIndex(i);
      // Each page of the pane, a page further down each time when it scrolls, to its end.
      const auto savePages = [&](const QString& name) {
        save(settings.get(), name);
        auto* scroll = qobject_cast<QScrollArea*>(settings->tabs()->currentWidget());
        if (!scroll) return;
        QScrollBar* bar = scroll->verticalScrollBar();
        for (int page = 2; bar->value() < bar->maximum(); ++page) {
          bar->setValue(bar->value() + bar->pageStep());
          save(settings.get(), name + QStringLiteral("-page%1").arg(page));
        }
        bar->setValue(0);
      };
      const QString name = QStringLiteral("lang-%1-settings-%2").arg(code).arg(i);
      savePages(name);
      // Another language chosen, before the restart; the update check's answer.
      if (auto* pane = settings->tabs()->currentWidget()->findChild<ui::LanguageSettingsView*>()) {
        auto* picker = pane->findChild<QComboBox*>();
        picker->setCurrentIndex(2);
        emit picker->activated(2);
        savePages(name + "-pending");
      }
      if (auto* check =
              control(settings->tabs()->currentWidget(), Strings::text("settings.updates.checkNow"))) {
        check->click();
        waitFor([&] { return services.checker.state().kind == UpdateChecker::State::Kind::failed; });
        savePages(name + "-checked");
      }
      // A profile or a hot folder being edited.
      if (auto* edit = settings->tabs()->currentWidget()->findChild<QAbstractButton*>("editButton")) {
        edit->click();
        QCoreApplication::processEvents();
        savePages(name + "-editing");
      }
    }
  }
}

}  // namespace
}  // namespace quillane

int main(int argc, char** argv) {
  using namespace quillane;
  if (argc != 2) {
    std::fprintf(stderr, "usage: quillane-screenshots FOLDER\n");
    return 2;
  }
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  // Settings and state in a folder of the run; the language manager writes nothing.
  QTemporaryDir home;
  for (const char* name : {"CONFIG", "DATA", "CACHE", "RUNTIME"}) {
    const QString folder = QDir(home.path()).filePath(QString(name).toLower());
    QDir().mkpath(folder);
    QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv(QByteArray("XDG_") + name + (name[1] == 'U' ? "_DIR" : "_HOME"), folder.toUtf8());
  }
  qputenv("XCTestConfigurationFilePath", "quillane-screenshots");
  QApplication app(argc, argv);
  // Named as the application is, for its menus and About box.
  QCoreApplication::setApplicationName(QStringLiteral("Quillane"));
  QCoreApplication::setApplicationVersion(QString::fromLatin1(kAppVersion));
  outputFolder = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
  if (!QDir().mkpath(outputFolder)) {
    std::fprintf(stderr, "quillane-screenshots: cannot make %s\n", argv[1]);
    return 1;
  }
  QApplication::setStyle(QStyleFactory::create("Fusion"));
  QApplication::setPalette(lightPalette());
  LocalAPISettings::setEnabled(true);
  LocalAPISettings::setPort(0);
  // In English, as the software centre shows them, but for the languages' own renders.
  useLanguage(QStringLiteral("en-US"));
  mainWindowAndHistory();
  exportSummaryAndRightToLeft();
  comparison();
  trayMenu();
  settingsDark();
  everyLanguage();
  return failures == 0 ? 0 : 1;
}
