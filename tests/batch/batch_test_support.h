#pragma once
// Fakes at the two engine seams of BatchViewModel and a sandboxed fixture. The fake encoder
// answers with (quality x 10) bytes, so a result's size tells the quality it was made at;
// sources whose content begins with "slow" wait for the gate to open, and "bad" ones throw.

#include <QFile>
#include <QTest>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "batch/BatchViewModel.h"
#include "engine/Errors.h"
#include "records/JSONFileStore.h"

namespace quillane::testing {

class FakeEncoder {
 public:
  struct Call {
    std::string source;  // the file's content
    ImageFormat format;
    double quality;
  };

  BatchViewModel::Encoder function() {
    return [this](std::span<const uint8_t> data, ImageFormat format, double quality) {
      return encode(std::string(data.begin(), data.end()), format, quality);
    };
  }

  void openGate() {
    std::lock_guard lock(mutex_);
    gateOpen_ = true;
    cv_.notify_all();
  }
  std::vector<Call> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  int callsFor(const std::string& source) const {
    std::lock_guard lock(mutex_);
    return int(std::count_if(calls_.begin(), calls_.end(), [&](const Call& c) { return c.source == source; }));
  }
  int maxRunning() const {
    std::lock_guard lock(mutex_);
    return maxRunning_;
  }
  int running() const {
    std::lock_guard lock(mutex_);
    return running_;
  }

 private:
  std::vector<uint8_t> encode(const std::string& source, ImageFormat format, double quality) {
    std::unique_lock lock(mutex_);
    calls_.push_back({source, format, quality});
    maxRunning_ = std::max(maxRunning_, ++running_);
    if (source.rfind("slow", 0) == 0) {
      // Bounded, so that a broken test cannot hang the run.
      cv_.wait_for(lock, std::chrono::seconds(10), [this] { return gateOpen_; });
    }
    --running_;
    if (source.rfind("bad", 0) == 0) throw ImageProcessingError::decodingFailed("fake");
    return std::vector<uint8_t>(size_t(quality * 10), 'x');
  }

  mutable std::mutex mutex_;
  std::condition_variable cv_;
  bool gateOpen_ = false;
  std::vector<Call> calls_;
  int running_ = 0;
  int maxRunning_ = 0;
};

// Answers from a table by path; a path not in the table is a 100 x 100 PNG if the file
// exists and a decoding failure otherwise.
class FakeInspector {
 public:
  struct Entry {
    int width = 100;
    int height = 100;
    ImageFormat format = ImageFormat::png;
    int frameCount = 1;
    int delayMs = 0;
    bool fail = false;
  };

  void set(const std::string& path, Entry entry) {
    std::lock_guard lock(mutex_);
    entries_[path] = entry;
  }
  int maxRunning() const {
    std::lock_guard lock(mutex_);
    return maxRunning_;
  }

  BatchViewModel::Inspector function() {
    return [this](const std::string& path) { return inspect(path); };
  }

 private:
  ImageDecoder::LightDecodedImage inspect(const std::string& path) {
    Entry entry;
    {
      std::lock_guard lock(mutex_);
      auto it = entries_.find(path);
      if (it != entries_.end()) entry = it->second;
      maxRunning_ = std::max(maxRunning_, ++running_);
    }
    if (entry.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(entry.delayMs));
    {
      std::lock_guard lock(mutex_);
      --running_;
    }
    if (entry.fail || !QFile::exists(QString::fromStdString(path))) {
      throw ImageProcessingError::decodingFailed("fake inspection of " + path);
    }
    ImageDecoder::LightDecodedImage decoded;
    decoded.format = entry.format;
    decoded.pixelWidth = entry.width;
    decoded.pixelHeight = entry.height;
    decoded.frameCount = entry.frameCount;
    decoded.fileSizeBytes = QFile(QString::fromStdString(path)).size();
    return decoded;
  }

  mutable std::mutex mutex_;
  std::map<std::string, Entry> entries_;
  int running_ = 0;
  int maxRunning_ = 0;
};

// A sandbox folder for source files and the state files, and a model wired to the fakes.
class BatchFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    JSONFileStore::setFolderForTesting(dir_.filePath("support"));
  }
  void TearDown() override {
    encoder_.openGate();  // let abandoned work finish before the model waits for its pool
    model_.reset();
    JSONFileStore::setFolderForTesting({});
  }

  BatchViewModel::Options options() {
    BatchViewModel::Options o;
    o.encoder = encoder_.function();
    o.inspector = inspector_.function();
    o.processorCount = 2;
    o.memoryBudgetMB = 2048;
    o.restoreSession = false;
    return o;
  }
  BatchViewModel& makeModel(BatchViewModel::Options o) {
    model_ = std::make_unique<BatchViewModel>(std::move(o));
    return *model_;
  }
  BatchViewModel& makeModel() { return makeModel(options()); }

  // Writes a source file whose content is `content` and gives its URL.
  QUrl source(const QString& name, const QByteArray& content = "source") {
    QFile file(dir_.filePath(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
    return QUrl::fromLocalFile(dir_.filePath(name));
  }
  std::string path(const QString& name) const { return dir_.filePath(name).toStdString(); }

  // Imports and waits until the import has delivered every URL.
  void import(const QList<QUrl>& urls) {
    QFuture<void> done = model_->importFiles(urls);
    ASSERT_TRUE(QTest::qWaitFor([&] { return done.isFinished(); }, 5000));
  }
  bool waitIdle(int timeoutMs = 5000) {
    return QTest::qWaitFor([&] { return !model_->isEncoding() && !model_->hasPendingRecompute(); }, timeoutMs);
  }
  QStringList names() const {
    QStringList out;
    for (const auto& image : model_->images()) out << image->fileName();
    return out;
  }

  QTemporaryDir dir_;
  FakeEncoder encoder_;
  FakeInspector inspector_;
  std::unique_ptr<BatchViewModel> model_;
};

}  // namespace quillane::testing
