#pragma once
// A sandbox for hot-folder tests: the records tests' store folder, source and destination folders
// beside it, small real JPEGs, and a thread-safe log of what a watcher reports, with bounded waits.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "hotfolders/HotFolder.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "hotfolders/HotFolderWatcher.h"
#include "tests/records/records_test_support.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace quillane::testing {

// Everything a watcher reported, in the order of its calls.
class Reports {
 public:
  void attach(HotFolderWatcher& watcher) {
    watcher.onActivity = [this](const HotFolderActivity& line) { add(lines_, line); };
    watcher.onProgress = [this](int completed, int total) { add(progress_, {completed, total}); };
    watcher.onState = [this](HotFolderWatcher::State state) { add(states_, state); };
  }
  // Waits for the watcher to report `state` as its latest.
  bool waitForState(HotFolderWatcher::State state) {
    return waitUntil([&] { return !states_.empty() && states_.back() == state; });
  }
  // Waits for `count` lines and for the progress report that follows the last of them.
  bool waitForLines(size_t count) {
    return waitUntil([&] {
      return lines_.size() >= count &&
             (progress_.empty() || progress_.back().completed == progress_.back().total);
    });
  }
  std::vector<HotFolderWatcher::State> states() { return copy(states_); }
  std::vector<HotFolderActivity> lines() { return copy(lines_); }
  std::vector<HotFolderProgress> progress() { return copy(progress_); }
  // The totals of the scans that had work: one (0, n) each.
  std::vector<int> scanTotals() {
    std::vector<int> totals;
    for (const HotFolderProgress& step : progress())
      if (step.completed == 0) totals.push_back(step.total);
    return totals;
  }

 private:
  template <class T>
  void add(std::vector<T>& log, const T& entry) {
    std::lock_guard lock(mutex_);
    log.push_back(entry);
    changed_.notify_all();
  }
  template <class T>
  std::vector<T> copy(const std::vector<T>& log) {
    std::lock_guard lock(mutex_);
    return log;
  }
  template <class Predicate>
  bool waitUntil(Predicate done) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), done);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<HotFolderActivity> lines_;
  std::vector<HotFolderProgress> progress_;
  std::vector<HotFolderWatcher::State> states_;
};

class HotFolderSandbox : public StoreFolderTest {
 protected:
  void SetUp() override {
    StoreFolderTest::SetUp();
    ASSERT_TRUE(QDir().mkpath(source_));
  }

  // A folder "Shots" of the sandbox's source and destination, or of those given.
  HotFolder folder(const QString& source = {}, const QString& destination = {}) const {
    const QString in = source.isEmpty() ? source_ : source;
    const QString out = destination.isEmpty() ? destination_ : destination;
    return {QUuid::createUuid(), "Shots", in, out, std::nullopt, ImageFormat::jpeg, 70, true, {}};
  }
  static HotFolderProcessedMap memory(const HotFolder& folder) {
    return HotFolderProcessedStore::folderState(folder.idText());
  }
  // A small JPEG named `name`, dated `age` seconds ago: by default a minute, as a copy that keeps
  // dates leaves it, so that it needs no stability wait.
  void putImage(const QString& name, uint32_t seed = 1, int age = 60, int side = 48) const {
    writeBytes(pathOf(name), jpegBytes(seed, side));
    if (age) backdate(name, age);
  }
  void backdate(const QString& name, int seconds) const {
    struct stat st {};
    ::stat(pathOf(name).c_str(), &st);
    timespec times[2] = {st.st_atim, st.st_mtim};
    times[1].tv_sec = ::time(nullptr) - seconds;
    ::utimensat(AT_FDCWD, pathOf(name).c_str(), times, 0);
  }
  static std::vector<uint8_t> jpegBytes(uint32_t seed, int side = 48) {
    return fixtures::jpeg(makeImage(side, side, Pattern::photo, seed), {.quality = 90});
  }
  // The path of `name` in the source folder, or in `folder`.
  std::string pathOf(const QString& name, const QString& folder = {}) const {
    return QFile::encodeName((folder.isEmpty() ? source_ : folder) + '/' + name).toStdString();
  }
  QStringList outputs() const { return QDir(destination_).entryList(QDir::Files | QDir::Hidden, QDir::Name); }

  QString source_ = temp_.path() + QStringLiteral("/in");
  QString destination_ = temp_.path() + QStringLiteral("/out");
};

}  // namespace quillane::testing
