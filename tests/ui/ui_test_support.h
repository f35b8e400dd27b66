#pragma once
// Fixtures for the window tests: the batch fixture's model, fakes and sandbox; the inspector
// makes thumbnails, and a sized encode scales the file's box into the options' one.

#include "hotfolders/HotFolder.h"
#include "records/ExportProfile.h"
#include "tests/batch/batch_test_support.h"
#include "ui/MainWindow.h"

namespace quillane::uitest {

using testing::FakeFile;

class UiFixture : public testing::BatchFixture {
 protected:
  BatchViewModel::Options options();
  BatchViewModel& makeModel() { return BatchFixture::makeModel(options()); }

  // Writes a source file of `bytes` bytes described by `file`, and gives its URL.
  QUrl source(const QString& name, int64_t bytes = 100000, FakeFile file = {});
  // Imports, and waits until every encode has finished.
  bool settle(const QList<QUrl>& urls, int timeoutMs = 5000) {
    import(urls);
    return waitIdle(timeoutMs);
  }
  void closeGate() {
    std::lock_guard lock(mutex_);
    gateOpen_ = false;
  }
};

// The main window over the fixture's model (made if there is none yet), shown at first use.
class WindowFixture : public UiFixture {
 protected:
  void TearDown() override;
  ui::MainWindow& window();
  std::unique_ptr<ui::MainWindow> window_;
};

// A left-button mouse event of `type` at `pos` in `target`.
void sendMouse(QWidget* target, QEvent::Type type, QPointF pos);

// A profile with no folder of its own, not the default, unless given.
ExportProfile profile(const QString& name, ImageFormat format, double quality,
                      std::optional<QString> folder = std::nullopt, bool isDefault = false);

// An enabled hot folder with explicit settings, or a profile's when `format` is not given.
HotFolder hotFolder(const QString& name, const QString& source, const QString& destination,
                    std::optional<ImageFormat> format, double quality = 75,
                    std::optional<QString> profile = {});

// Installs the string table of a language (raw value such as "de"); empty for French defaults.
void useLanguage(const QString& rawValue);

}  // namespace quillane::uitest
