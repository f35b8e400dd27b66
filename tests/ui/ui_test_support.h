#pragma once
// Fixtures for the window tests: the batch fixture's model and sandbox, with other fakes at its
// engine seams. The fake inspector gives every file a generated thumbnail and the size the
// test asks for; the fake encoder answers with as many bytes as the test set for that file
// (quality x 10 by default), and files whose name starts with "slow" wait for the gate.

#include "hotfolders/HotFolder.h"
#include "records/ExportProfile.h"
#include "tests/batch/batch_test_support.h"
#include "ui/MainWindow.h"

namespace quillane::uitest {

struct FakeFile {
  int width = 640;
  int height = 480;
  ImageFormat format = ImageFormat::png;
  int frameCount = 1;
  int64_t encodedSize = -1;  // -1: quality x 10
  bool failEncode = false;
  bool transparent = false;  // the thumbnail has a clear corner
};

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

 private:
  ImageDecoder::LightDecodedImage inspect(const std::string& path);
  std::vector<uint8_t> encode(const std::string& name, double quality);

  std::map<std::string, FakeFile> files_;  // by name (a source's first line is its name)
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

// Widgets in `root` whose text does not fit: labels and buttons narrower than their text
// needs (word-wrapping and elided labels excepted). Names them for the failure message.
QStringList clippedTexts(QWidget* root);

// Installs the string table of a language (raw value such as "de"); empty for French defaults.
void useLanguage(const QString& rawValue);

}  // namespace quillane::uitest
