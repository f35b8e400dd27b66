#pragma once
// Fakes at the engine seams of BatchViewModel and a sandboxed fixture. The fake encoder answers
// with (quality x 10) bytes, so a result's size tells its quality; sources whose content begins
// with "slow" wait for the gate to open, "spin" ones until their work is cancelled, and "bad" ones
// throw. The fake inspector answers from a table by file name (by default a 100 x 100 PNG if the
// file exists, a decoding failure otherwise); a source whose first line names an entry of the
// table is encoded as that entry says.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>

#include "batch/BatchViewModel.h"
#include "engine/Cancellation.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "records/JSONFileStore.h"
#include "tests/support/ManualClock.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {

// A file's bytes; none if it can't be read.
inline QByteArray contentOf(const QString& path) {
  QFile file(path);
  return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct FakeFile {
  int width = 100;
  int height = 100;
  ImageFormat format = ImageFormat::png;
  int frameCount = 1;
  int64_t encodedSize = -1;  // -1: quality x 10
  bool failEncode = false;
  bool transparent = false;  // the thumbnail, where there is one, has a clear corner
  bool fail = false;         // the inspection fails
  bool gated = false;        // the inspection waits for the gate to open
};

class BatchFixture : public ::testing::Test {
 protected:
  struct Call {
    ImageFormat format;
    double quality;
  };

  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    JSONFileStore::setFolderForTesting(dir_.filePath("support"));
  }
  void TearDown() override {
    openGate();  // let abandoned work finish before the model waits for its pool
    model_.reset();
    JSONFileStore::setFolderForTesting({});
  }

  BatchViewModel::Options options() {
    BatchViewModel::Options o;
    o.reader = [](const std::string& path) { return FileIO::readFile(path); };  // the sources are not images
    o.encoder = [this](std::span<const uint8_t> data, ImageFormat format, double quality) {
      return encode(data, format, quality);
    };
    o.inspector = [this](const std::string& path) {
      const QString file = QString::fromStdString(path);
      const std::string name = QFileInfo(file).fileName().toStdString();
      std::unique_lock lock(mutex_);
      const FakeFile entry = files_.count(name) ? files_[name] : FakeFile{};
      if (entry.gated) gate_.wait_for(lock, std::chrono::seconds(10), [this] { return gateOpen_; });
      lock.unlock();
      const auto counted = qScopeGuard([this] { ++inspected_; });
      if (entry.fail || !QFile::exists(file)) throw ImageProcessingError::decodingFailed("fake: " + path);
      ImageDecoder::LightDecodedImage decoded{entry.format,       entry.width,      entry.height,
                                              QFile(file).size(), entry.frameCount, {}};
      if (thumbnails_) {
        const int side = std::max({1, entry.width, entry.height});
        decoded.thumbnail =
            makeImage(std::max(1, 64 * entry.width / side), std::max(1, 64 * entry.height / side),
                      Pattern::photo, uint32_t(qHash(QString::fromStdString(name))));
        if (entry.transparent) {
          decoded.thumbnail.alpha = AlphaInfo::straight;
          decoded.thumbnail.pixels8[3] = 0;
        }
      }
      return decoded;
    };
    o.processorCount = 2;
    o.memoryBudgetMB = 2048;
    o.restoreSession = false;
    o.measureResults = false;  // the fake results are no pictures
    return o;
  }
  BatchViewModel& makeModel(BatchViewModel::Options o) {
    model_ = std::make_unique<BatchViewModel>(std::move(o));
    return *model_;
  }
  BatchViewModel& makeModel() { return makeModel(options()); }

  void inspectAs(const QString& name, FakeFile entry) {
    std::lock_guard lock(mutex_);
    files_[name.toStdString()] = entry;
  }
  // The entry of the file a source names on its first line (the defaults for any other).
  FakeFile fakeFor(std::span<const uint8_t> data) {
    const std::string content(data.begin(), data.end());
    std::lock_guard lock(mutex_);
    const auto it = files_.find(content.substr(0, content.find('\n')));
    return it == files_.end() ? FakeFile{} : it->second;
  }
  std::vector<uint8_t> encode(std::span<const uint8_t> data, ImageFormat format, double quality) {
    const FakeFile file = fakeFor(data);
    std::unique_lock lock(mutex_);
    const std::string source(data.begin(), data.end());
    calls_.push_back({format, quality});
    ++encoding_;
    // Bounded, so that a broken test cannot hang the run.
    if (source.starts_with("slow"))
      gate_.wait_for(lock, std::chrono::seconds(10), [this] { return gateOpen_; });
    for (int i = 0; source.starts_with("spin") && i < 1000 && !Cancellation::requested(); ++i)
      gate_.wait_for(lock, std::chrono::milliseconds(10));
    if (source.starts_with("spin")) sawCancellation_ = Cancellation::requested();
    --encoding_;
    if (source.starts_with("bad")) throw ImageProcessingError::decodingFailed("fake");
    if (file.failEncode) throw ImageProcessingError::encodingFailed("WebP");
    return std::vector<uint8_t>(size_t(file.encodedSize >= 0 ? file.encodedSize : int64_t(quality * 10)),
                                'x');
  }
  void openGate() {
    std::lock_guard lock(mutex_);
    gateOpen_ = true;
    gate_.notify_all();
  }
  std::vector<Call> calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

  // Writes a source file whose content is `content` and gives its URL.
  QUrl source(const QString& name, const QByteArray& content = "source") {
    QFile file(dir_.filePath(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    return QUrl::fromLocalFile(dir_.filePath(name));
  }
  std::string path(const QString& name) const { return dir_.filePath(name).toStdString(); }
  QString outFolder() {
    QDir(dir_.path()).mkpath("out");
    return dir_.filePath("out");
  }

  // Imports and waits until the import has delivered every URL.
  void import(const QList<QUrl>& urls) {
    QFuture<void> done = model_->importFiles(urls);
    ASSERT_TRUE(QTest::qWaitFor([&] { return done.isFinished(); }, 5000));
  }
  // A model holding `names`, each encoded ("bad..." ones fail).
  BatchViewModel& readyModel(const QStringList& names) {
    auto& model = makeModel();
    QList<QUrl> urls;
    for (const QString& name : names) urls << source(name, name.startsWith("bad") ? "bad" : "source");
    import(urls);
    EXPECT_TRUE(waitIdle());
    return model;
  }
  // A new model with `o`, once it has restored the saved session.
  BatchViewModel& restart(BatchViewModel::Options o) {
    o.restoreSession = true;
    auto& model = makeModel(std::move(o));
    QSignalSpy restored(&model, &BatchViewModel::sessionRestored);
    EXPECT_TRUE(model.images().empty()) << "restoring is queued after construction";
    EXPECT_TRUE(restored.wait(5000));
    return model;
  }
  // The result of an export, once it is back on this thread.
  template <class T>
  T await(QFuture<T> future) {
    EXPECT_TRUE(QTest::qWaitFor([&] { return future.isFinished(); }, 5000));
    return future.result();
  }
  bool waitIdle(int timeoutMs = 5000) {
    return QTest::qWaitFor([&] { return !model_->isEncoding() && !model_->hasPendingRecompute(); },
                           timeoutMs);
  }
  // Every encode the model started has returned, and its result has been applied or dropped
  // on this thread: what a late result would change has changed by now.
  void drainEncodes() {
    model_->findChild<QThreadPool*>(QStringLiteral("encodePool"))->waitForDone();
    QCoreApplication::sendPostedEvents();
  }
  bool waitForCalls(size_t count) {
    return QTest::qWaitFor([&] { return calls().size() == count; }, 2000);
  }
  QStringList names() const {
    QStringList out;
    for (const auto& image : model_->images()) out << image->fileName();
    return out;
  }

  QTemporaryDir dir_;
  ManualClock clock_;  // the model's timers where a test installs clock_.starter()
  std::unique_ptr<BatchViewModel> model_;
  std::mutex mutex_;
  std::condition_variable gate_;
  bool gateOpen_ = false;
  std::vector<Call> calls_;
  std::map<std::string, FakeFile> files_;  // by file name
  bool thumbnails_ = false;                // the inspector makes a thumbnail
  std::atomic<int> encoding_ = 0;          // encodes under way
  std::atomic<int> inspected_ = 0;         // inspections that have returned or thrown
  bool sawCancellation_ = false;
};

}  // namespace quillane::testing
