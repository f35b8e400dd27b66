// HotFolderWatcher with real inotify and real compressions: when scans run (debounce, start, stop,
// polling), which files they take (stability, memory), and what they write and report.

#include <sys/mount.h>
#include <unistd.h>

#include <QFileInfo>
#include <future>
#include <thread>

#include "engine/ImageFormat.h"
#include "engine/ImageService.h"
#include "records/ExportProfile.h"
#include "tests/hotfolders/hot_folder_test_support.h"
#include "tests/support/ManualClock.h"

namespace quillane::testing {
namespace {

using namespace std::chrono_literals;
using State = HotFolderWatcher::State;

class HotFolderWatcherTest : public HotFolderSandbox {
 protected:
  void TearDown() override {
    watchers_.clear();
    HotFolderSandbox::TearDown();
  }
  // A watcher of `folder` that reports to the test's log.
  HotFolderWatcher* watch(const HotFolder& folder, const HotFolderWatcher::Timing& timing = {}) {
    auto& watcher = watchers_.emplace_back(std::make_unique<HotFolderWatcher>(folder, timing));
    reports_.attach(*watcher);
    return watcher.get();
  }
  // A watcher of `folder` after `scans` scans.
  HotFolderWatcher* scanned(const HotFolder& folder, int scans = 1) {
    HotFolderWatcher* watcher = watch(folder);
    for (int i = 0; i < scans; ++i) watcher->scanOnce();
    return watcher;
  }
  Reports reports_;    // outlives every watcher that reports to it
  ManualClock clock_;  // and every watcher that times its debounce on it
  std::vector<std::unique_ptr<HotFolderWatcher>> watchers_;
};

TEST_F(HotFolderWatcherTest, FirstScanTakesWhatIsThereAndABurstOfEntriesGivesOneScan) {
  for (int i = 0; i < 5; ++i) putImage(QStringLiteral("old%1.jpg").arg(i), i);
  watch(folder(), {.longestDelay = 60s})->start();
  ASSERT_TRUE(reports_.waitForLines(5));
  EXPECT_EQ(reports_.scanTotals(), std::vector<int>{5});

  // Fifty entries well within the debounce of one another: a single scan takes them all.
  const std::vector<uint8_t> bytes = jpegBytes(100);
  for (int i = 0; i < 50; ++i) writeBytes(pathOf(QStringLiteral("burst%1.jpg").arg(i)), bytes);
  ASSERT_TRUE(reports_.waitForLines(55));
  EXPECT_EQ(reports_.scanTotals(), (std::vector<int>{5, 50}));
  for (const HotFolderActivity& line : reports_.lines())
    EXPECT_FALSE(line.error) << line.error->toStdString();
  EXPECT_EQ(outputs().size(), 55);
}

// However much time passes on the test's clock, the stopped watcher scans nothing; started again, it does.
TEST_F(HotFolderWatcherTest, StopCancelsThePendingScanAndLaterRequestsQueueNothing) {
  putImage(QStringLiteral("a.jpg"));
  auto watcher = watch(folder(), {.startTimer = clock_.starter()});
  watcher->start();
  watcher->waitUntilIdle();  // watching, its first scan pending
  ASSERT_TRUE(watcher->isWatching());
  watcher->stop();
  watcher->scheduleScan();
  watcher->waitUntilIdle();
  clock_.advance(1h);
  EXPECT_TRUE(reports_.lines().empty());
  watcher->start();
  watcher->waitUntilIdle();
  clock_.advance(1h);
  EXPECT_EQ(reports_.lines().size(), 1u) << "the clock drives the debounce";
}

// Here the volume check throws: it is said once, as a line about the folder.
TEST_F(HotFolderWatcherTest, WhatEscapesTheWatchersThreadIsReportedAndItsLoopGoesOn) {
  HotFolderWatcher watcher(folder(), {}, [](const QString&) -> bool { throw std::bad_alloc(); });
  reports_.attach(watcher);
  watcher.start();
  ASSERT_TRUE(reports_.waitForLines(1));
  watcher.recheck();
  watcher.waitUntilIdle();  // answered by the loop, which still runs
  ASSERT_EQ(reports_.lines().size(), 1u);
  EXPECT_TRUE(reports_.lines()[0].error);
}

TEST_F(HotFolderWatcherTest, StabilityNeedsAnOldDateOrASizeThatHoldsStill) {
  putImage(QStringLiteral("fresh.jpg"), 1, 0);
  const std::string fresh = pathOf("fresh.jpg"), gone = pathOf("gone.jpg");
  const int64_t size = QFileInfo(QFile::decodeName(fresh.c_str())).size();
  const double now = double(::time(nullptr) - 978307200);
  // An old date needs no size at all; a future date counts as recent.
  EXPECT_EQ(HotFolderWatcher::isStableOnDisk(
                {{gone, 1, now - 60}, {fresh, size, now}, {fresh, size - 1, now + 3600}, {gone, 0, now}}),
            (std::vector<bool>{true, true, false, false}));
}

TEST_F(HotFolderWatcherTest, MemoryAcrossRestartsTakesOnlyChangedAndRenamedFilesAndSurvivesAnEmptyListing) {
  for (const char* name : {"keep.jpg", "change.jpg", "rename.jpg"}) putImage(name, 1);
  const HotFolder hotFolder = folder();
  scanned(hotFolder);
  ASSERT_EQ(reports_.lines().size(), 3u);
  // While nothing watches: other bytes of the same length with a new date, and a rename.
  const std::vector<uint8_t> before = readBytes(pathOf("change.jpg"));
  std::vector<uint8_t> after;
  for (uint32_t seed = 2; after.empty() || after.size() > before.size(); ++seed) after = jpegBytes(seed);
  after.resize(before.size(), 0);  // zeros after the end marker, which decoders ignore
  writeBytes(pathOf("change.jpg"), after);
  backdate("change.jpg", 30);
  ASSERT_EQ(::rename(pathOf("rename.jpg").c_str(), pathOf("renamed.jpg").c_str()), 0);

  auto watcher = watch(hotFolder);
  watcher->start();
  ASSERT_TRUE(reports_.waitForLines(5));
  QStringList taken;
  const std::vector<HotFolderActivity> lines = reports_.lines();
  for (auto line = lines.begin() + 3; line < lines.end(); ++line) taken << line->sourceFileName;
  taken.sort();
  EXPECT_EQ(taken, (QStringList{"change.jpg", "renamed.jpg"}));
  EXPECT_EQ(memory(hotFolder).keys(), (QStringList{"change.jpg", "keep.jpg", "renamed.jpg"}));

  // An empty listing (an unmounted volume's mount point) keeps the memory, or every file would
  // be compressed again once the volume is back; a listing with files prunes it.
  watcher->stop();
  watcher->waitUntilIdle();
  const QString away = temp_.path() + QStringLiteral("/away");
  ASSERT_TRUE(QDir().rename(source_, away));
  ASSERT_TRUE(QDir().mkpath(source_));
  watcher->scanOnce();
  EXPECT_EQ(memory(hotFolder).size(), 3);
  ASSERT_TRUE(QDir(source_).removeRecursively());
  ASSERT_TRUE(QDir().rename(away, source_));
  ASSERT_EQ(::unlink(pathOf("keep.jpg").c_str()), 0);
  watcher->scanOnce();
  EXPECT_EQ(reports_.lines().size(), 5u) << "nothing taken again";
  EXPECT_EQ(memory(hotFolder).keys(), (QStringList{"change.jpg", "renamed.jpg"}));
}

// Outputs are named in sorted order, each success is on disk by the time its line is reported
// (a crash later in the scan does not compress it again), and a name that is no UTF-8 keeps
// its bytes. Two names that differ only in such bytes (and so decode alike) are two files:
// each is compressed once, and a changed one replaces its own output.
TEST_F(HotFolderWatcherTest, ScanNamesOutputsInSortedOrderStoresEachBeforeItsLineAndIgnoresWhatIsNoImage) {
  const std::string source = QFile::encodeName(source_).toStdString() + "/caf";
  const std::string destination = QFile::encodeName(destination_).toStdString() + "/caf";
  const UnlinkAtExit oddNames{
      {source + "\xE9.png", source + "\xE8.png", destination + "\xE9.jpg", destination + "\xE8.jpg"}};
  for (const char* name : {"a.webp", "a.png", "a.jpeg"}) putImage(name);  // JPEG bytes whatever the name
  writeBytes(source + "\xE9.png", jpegBytes(2));
  writeBytes(source + "\xE8.png", jpegBytes(5));
  writeBytes(pathOf("notes.jpg"), {'h', 'e', 'l', 'l', 'o'});
  writeBytes(pathOf(".hidden.jpg"), jpegBytes(3));
  ASSERT_TRUE(QDir(source_).mkdir("sub"));
  writeBytes(pathOf("sub/inner.jpg"), jpegBytes(4));
  // "a.jpg" in the destination is a hard link to a source of this scan: it is passed over.
  ASSERT_TRUE(QDir().mkpath(destination_));
  const std::string linked = pathOf("a.jpg", destination_);
  ASSERT_EQ(::link(pathOf("a.jpeg").c_str(), linked.c_str()), 0);
  const HotFolder hotFolder = folder();
  auto watcher = watch(hotFolder);
  QStringList notYetStored;
  watcher->onActivity = [&, report = watcher->onActivity](const HotFolderActivity& line) {
    if (memory(hotFolder).size() <= qsizetype(reports_.lines().size())) notYetStored << line.sourceFileName;
    report(line);
  };
  watcher->scanOnce();
  QStringList written;  // each source, then its output
  for (const HotFolderActivity& line : reports_.lines()) {
    ASSERT_TRUE(line.destinationURL) << line.sourceFileName.toStdString();
    written << line.sourceFileName + ' ' + QFileInfo(*line.destinationURL).fileName();
  }
  written.sort();
  const QString odd = QFile::decodeName("caf\xE9.png caf\xE9.jpg");
  EXPECT_EQ(written, (QStringList{"a.jpeg a-2.jpg", "a.png a-3.jpg", "a.webp a-4.jpg", odd, odd}));
  for (const char* byte : {"\xE9", "\xE8"})
    EXPECT_EQ(::access((destination + byte + ".jpg").c_str(), F_OK), 0);
  EXPECT_EQ(readBytes(linked), jpegBytes(1));
  EXPECT_EQ(reports_.progress(),
            (std::vector<HotFolderProgress>{{0, 5}, {1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}}));
  EXPECT_TRUE(notYetStored.isEmpty()) << notYetStored.join(' ').toStdString();

  writeBytes(source + "\xE9.png", jpegBytes(6));
  watcher->scanOnce();
  ASSERT_EQ(reports_.lines().size(), 6u) << "only the changed one is taken again";
  EXPECT_FALSE(reports_.lines()[5].error);
  EXPECT_NE(::access((destination + "\xE9-2.jpg").c_str(), F_OK), 0) << "its own output is replaced";
}

TEST_F(HotFolderWatcherTest, DestinationThatCannotBeMadeFailsEachFileAndEachScanTriesAgainSilently) {
  putImage(QStringLiteral("a.jpg"));
  putImage(QStringLiteral("b.jpg"), 2);
  writeBytes(QFile::encodeName(temp_.path() + "/file").toStdString(), {'x'});
  const HotFolder hotFolder = folder({}, temp_.path() + "/file/out");
  scanned(hotFolder, 2);
  // Each file's error is said once; the second scan tried both again.
  EXPECT_EQ(reports_.scanTotals(), (std::vector<int>{2, 2}));
  ASSERT_EQ(reports_.lines().size(), 2u);
  for (const HotFolderActivity& line : reports_.lines())
    EXPECT_TRUE(line.error && !line.error->isEmpty() && !line.destinationURL)
        << line.sourceFileName.toStdString();
  EXPECT_TRUE(memory(hotFolder).isEmpty());
  EXPECT_EQ(QDir(source_).entryList(QDir::Files), (QStringList{"a.jpg", "b.jpg"}));  // sources untouched
}

// A destination on a full volume (a tmpfs of three inodes, all taken) fails the file with the
// folder and the system's reason, not with the folder it could not make, leaves nothing there, and
// the file is taken once there is room again, with no new file to start a scan. Needs the right
// to mount: skipped elsewhere.
TEST_F(HotFolderWatcherTest, FullDestinationIsTriedAgainUntilThereIsRoom) {
  const QString volume = temp_.path() + QStringLiteral("/volume");
  ASSERT_TRUE(QDir().mkpath(volume));
  const QByteArray mountPoint = QFile::encodeName(volume);
  if (::mount("tmpfs", mountPoint.constData(), "tmpfs", MS_NOSUID | MS_NODEV, "nr_inodes=3") != 0)
    GTEST_SKIP() << "no right to mount here";
  const std::unique_ptr<const QByteArray, void (*)(const QByteArray*)> unmount(
      &mountPoint, [](const QByteArray* path) { ::umount2(path->constData(), MNT_DETACH); });
  for (const char* pad : {"pad1", "pad2"}) writeBytes(pathOf(pad, volume), {'x'});
  destination_ = volume + QStringLiteral("/out");
  putImage(QStringLiteral("a.jpg"));
  watch(folder(), {.rewriteInterval = 100ms})->start();
  ASSERT_TRUE(reports_.waitForLines(1));
  EXPECT_EQ(reports_.lines()[0].error.value_or(""), destination_ + ": No space left on device");
  EXPECT_EQ(QDir(volume).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
            (QStringList{"pad1", "pad2"}));

  for (const char* pad : {"pad1", "pad2"}) ASSERT_EQ(::unlink(pathOf(pad, volume).c_str()), 0);
  ASSERT_TRUE(reports_.waitForLines(2)) << "said once however often it was tried";
  EXPECT_FALSE(reports_.lines()[1].error);
  EXPECT_EQ(outputs(), QStringList{"a.jpg"});
}

// A data folder that can't be written (a full or read-only disk; here a plain file in its place)
// loses nothing of this run: a file compressed once is not compressed again into a second output.
TEST_F(HotFolderWatcherTest, MemoryThatCannotBeSavedStillHoldsForTheRun) {
  ASSERT_TRUE(QDir().mkpath(temp_.path() + QStringLiteral("/support")));
  ASSERT_TRUE(QFile(folder_).open(QIODevice::WriteOnly));
  putImage(QStringLiteral("a.jpg"));
  auto watcher = scanned(folder());
  putImage(QStringLiteral("b.jpg"), 2);
  watcher->scanOnce();
  EXPECT_EQ(reports_.lines().size(), 2u);
  EXPECT_EQ(outputs(), (QStringList{"a.jpg", "b.jpg"}));
}

// A missing profile is said once for the folder, and nothing is compressed until it is back; a
// result not smaller than its source writes nothing, its line says the original was kept, and
// the file is not taken again at the next scan.
TEST_F(HotFolderWatcherTest, MissingProfileReportsTheFolderOnceAndAKeptOriginalWritesNothing) {
  putImage(QStringLiteral("a.jpg"));
  HotFolder hotFolder = folder();
  hotFolder.profileName = QStringLiteral("Gone");
  scanned(hotFolder, 2);  // not said again
  ASSERT_EQ(reports_.lines().size(), 1u);
  EXPECT_TRUE(reports_.lines()[0].sourceFileName.isEmpty());
  EXPECT_TRUE(reports_.lines()[0].error && reports_.lines()[0].error->contains("Gone"));
  EXPECT_FALSE(QDir(destination_).exists());
  EXPECT_TRUE(memory(hotFolder).isEmpty());

  // Recreating the profile resumes the folder; its format, quality and fit apply, under the
  // folder's own fit where it sets one.
  const ExportProfile gone{QUuid::createUuid(), "gone", ImageFormat::webp, 50, std::nullopt, false, {40, 40}};
  ExportProfiles::save({gone});
  hotFolder.format.reset();
  hotFolder.sizing.maxHeight = 12;
  scanned(hotFolder);
  ASSERT_EQ(reports_.lines().size(), 2u);
  EXPECT_EQ(outputs(), QStringList{"a.webp"});
  const auto header = ImageService::properties(readBytes(pathOf("a.webp", destination_)));
  ASSERT_TRUE(header);
  EXPECT_EQ(std::pair(header->width, header->height), std::pair(12, 12));

  HotFolder kept = folder();  // a folder of its own over the same files
  kept.format = ImageFormat::png;
  kept.quality = 100;
  kept.sizing.skipLarger = true;
  scanned(kept, 2);
  ASSERT_EQ(reports_.lines().size(), 3u);
  const HotFolderActivity line = reports_.lines()[2];
  EXPECT_TRUE(!line.isError() && !line.destinationURL && line.note && !line.note->isEmpty());
}

TEST_F(HotFolderWatcherTest, NonLocalFolderIsPolledForChangesInotifyDoesNotReport) {
  putImage(QStringLiteral("a.jpg"));
  watch(folder(), {.pollInterval = 300ms})->start();
  ASSERT_TRUE(reports_.waitForLines(1));
  // A new date alone raises no entry event: only the timer's scan sees it.
  backdate("a.jpg", 120);
  ASSERT_TRUE(reports_.waitForLines(2));
  EXPECT_TRUE(HotFolderWatcher::isOnLocalVolume(source_));
  EXPECT_FALSE(HotFolderWatcher::isOnLocalVolume(source_ + "/missing"));
}

// The inotify path alone: with retries an hour apart, only the folder's own events can
// end the watch; a recheck (as a mount change asks) finds the folder back and scans it.
TEST_F(HotFolderWatcherTest, FolderThatGoesAwayIsWaitedForAndWatchedAgainWhenItComesBack) {
  auto watcher = watch(folder(), {.retryInterval = 3600s});
  watcher->start();
  ASSERT_TRUE(reports_.waitForState(State::watching));
  ASSERT_TRUE(QDir(source_).removeRecursively());
  ASSERT_TRUE(reports_.waitForState(State::waitingForFolder));
  watcher->scanOnce();  // the folder unreadable: nothing reported, nothing stored
  EXPECT_TRUE(reports_.lines().empty());

  ASSERT_TRUE(QDir().mkpath(source_));
  putImage(QStringLiteral("back.jpg"));
  watcher->recheck();
  ASSERT_TRUE(reports_.waitForLines(1));
  EXPECT_EQ(reports_.lines()[0].sourceFileName, QStringLiteral("back.jpg"));
  EXPECT_EQ(reports_.states(),
            (std::vector<State>{State::watching, State::waitingForFolder, State::watching}));
}

// Files every 20 ms would hold back a 10 s debounce for ever; the longest delay lets a scan through.
TEST_F(HotFolderWatcherTest, SteadyStreamIsScannedWhileItLasts) {
  watch(folder(), {.debounce = 10s, .longestDelay = 300ms})->start();
  ASSERT_TRUE(reports_.waitForState(State::watching));
  const std::vector<uint8_t> bytes = jpegBytes(5);
  int written = 0;
  for (; written < 500 && reports_.lines().empty(); ++written) {
    writeBytes(pathOf(QStringLiteral("s%1.jpg").arg(written)), bytes);
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_LT(written, 500) << "no scan while the stream lasted";
}

// Someone else's file in the destination is never replaced, a source's own earlier output is
// (while it is still the one written), and an output moved into a watched folder is never taken back.
TEST_F(HotFolderWatcherTest, OnlyTheFoldersOwnOutputsAreReplacedAndNoneIsTakenBack) {
  ASSERT_TRUE(QDir().mkpath(destination_));
  const std::string theirs = pathOf("userfile.jpg", destination_);
  writeBytes(theirs, {'m', 'i', 'n', 'e'});
  putImage(QStringLiteral("userfile.png"));  // JPEG bytes whatever the name
  const HotFolder hotFolder = folder();
  auto watcher = scanned(hotFolder);
  EXPECT_EQ(readBytes(theirs), (std::vector<uint8_t>{'m', 'i', 'n', 'e'}));
  EXPECT_EQ(outputs(), (QStringList{"userfile-2.jpg", "userfile.jpg"}));

  putImage(QStringLiteral("userfile.png"), 2, 30);  // changed: its own output is replaced
  watcher->scanOnce();
  ASSERT_EQ(reports_.lines().size(), 2u);
  EXPECT_EQ(outputs(), (QStringList{"userfile-2.jpg", "userfile.jpg"}));
  // Until someone else's file takes its place: that one is theirs.
  const std::string taken = pathOf("userfile-2.jpg", destination_);
  writeBytes(taken, {'m', 'i', 'n', 'e'});
  putImage(QStringLiteral("userfile.png"), 3, 20);
  watcher->scanOnce();
  EXPECT_EQ(readBytes(taken), (std::vector<uint8_t>{'m', 'i', 'n', 'e'}));
  EXPECT_EQ(outputs(), (QStringList{"userfile-2.jpg", "userfile-3.jpg", "userfile.jpg"}));

  ASSERT_TRUE(QFile::rename(destination_ + "/userfile-3.jpg", source_ + "/moved.jpg"));
  watcher->scanOnce();
  EXPECT_EQ(reports_.lines().size(), 3u);

  // Nor once its source is deleted first and forgotten (the folder still lists a file).
  ASSERT_TRUE(QFile::rename(source_ + "/moved.jpg", destination_ + "/userfile-3.jpg"));
  ASSERT_TRUE(QFile::remove(source_ + "/userfile.png"));
  writeBytes(pathOf("notes.txt"), {'h', 'i'});
  watcher->scanOnce();
  ASSERT_TRUE(memory(hotFolder).isEmpty());
  ASSERT_EQ(::link(pathOf("userfile-3.jpg", destination_).c_str(), pathOf("linked.jpg").c_str()), 0);
  watcher->scanOnce();
  EXPECT_EQ(reports_.lines().size(), 3u);

  // Nor one that arrives while the scan runs, under a name given out and not yet written: at
  // the first line, the last file has not started.
  const int count = HotFolderWatcher::concurrencyLimit() + 1;
  for (int i = 0; i < count; ++i) putImage(QStringLiteral("late%1.png").arg(i), i);
  const std::string late = pathOf(QStringLiteral("late%1.jpg").arg(count - 1), destination_);
  watcher->onActivity = [&, report = watcher->onActivity](const HotFolderActivity& line) {
    if (::access(late.c_str(), F_OK) != 0) writeBytes(late, {'m', 'i', 'n', 'e'});
    report(line);
  };
  watcher->scanOnce();
  EXPECT_EQ(readBytes(late), (std::vector<uint8_t>{'m', 'i', 'n', 'e'}));
  const QString written = QStringLiteral("late%1-2.jpg").arg(count - 1);
  EXPECT_TRUE(QFileInfo::exists(destination_ + '/' + written));
  EXPECT_EQ(memory(hotFolder)
                .value(QStringLiteral("late%1.png").arg(count - 1))
                .output.value_or(HotFolderProcessedEntry::Output{})
                .name,
            written);
}

// A writer that pauses with its file open, or a file cut short before the watch began, is not
// taken for a whole picture; each is taken once whole, and remembered at its full size (a
// partial copy would have been compressed again).
TEST_F(HotFolderWatcherTest, AFileStillOpenOrCutShortIsTakenOnlyWhole) {
  const std::vector<uint8_t> jpeg = jpegBytes(3, 96);
  const std::vector<uint8_t> png = fixtures::png(makeImage(64, 64, Pattern::photo, 4));
  writeBytes(pathOf("cut.jpg"), {jpeg.begin(), jpeg.begin() + std::ptrdiff_t(jpeg.size() / 2)});
  writeBytes(pathOf("cut.png"), {png.begin(), png.begin() + std::ptrdiff_t(png.size() - 20)});
  for (const char* name : {"cut.jpg", "cut.png"}) backdate(name, 60);
  auto watcher = watch(folder());
  watcher->start();
  ASSERT_TRUE(reports_.waitForState(State::watching));

  // Half written, then an old date, as a pause of minutes would leave it; still open. A WebP,
  // whose structure is not looked at: only inotify can tell.
  const std::vector<uint8_t> webp = fixtures::webp(makeImage(96, 96, Pattern::photo, 5));
  const size_t half = webp.size() / 2;
  const int fd = ::open(pathOf("open.webp").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, webp.data(), half), ssize_t(half));
  backdate("open.webp", 60);
  putImage(QStringLiteral("whole.jpg"));  // its scan sees the three others and takes none
  ASSERT_TRUE(reports_.waitForLines(1));
  EXPECT_EQ(reports_.lines()[0].sourceFileName, QStringLiteral("whole.jpg"));

  ASSERT_EQ(::write(fd, webp.data() + half, webp.size() - half), ssize_t(webp.size() - half));
  ::close(fd);
  ASSERT_TRUE(reports_.waitForLines(2));
  EXPECT_EQ(reports_.lines()[1].sourceFileName, QStringLiteral("open.webp")) << "its close starts a scan";
  writeBytes(pathOf("cut.jpg"), jpeg);
  writeBytes(pathOf("cut.png"), png);
  ASSERT_TRUE(reports_.waitForLines(4));
  const HotFolderProcessedMap stored = memory(watcher->hotFolder());
  EXPECT_EQ(stored.value("open.webp").sizeBytes, int64_t(webp.size()));
  EXPECT_EQ(stored.value("cut.jpg").sizeBytes, int64_t(jpeg.size()));
  EXPECT_EQ(stored.value("cut.png").sizeBytes, int64_t(png.size()));
  for (const HotFolderActivity& line : reports_.lines())
    EXPECT_FALSE(line.error) << line.error->toStdString();
}

// Events that a full queue dropped (the watcher's thread busy while a large import comes in)
// may include the close of a file it saw being written: that file is still taken.
TEST_F(HotFolderWatcherTest, AFileClosedWhileEventsWereLostIsStillTaken) {
  QFile limit("/proc/sys/fs/inotify/max_queued_events");
  const int queued = limit.open(QIODevice::ReadOnly) ? limit.readAll().trimmed().toInt() : 0;
  if (queued <= 0 || queued > 1'000'000) GTEST_SKIP() << "queue size " << queued;
  auto watcher = watch(folder());
  std::promise<void> flooded;  // until then the watcher's thread waits, and reads no event
  watcher->onState = [report = watcher->onState, done = flooded.get_future().share()](State state) {
    report(state);
    done.wait();
  };
  std::unique_ptr<std::promise<void>, void (*)(std::promise<void>*)> release(
      &flooded, [](std::promise<void>* promise) { promise->set_value(); });
  watcher->start();
  ASSERT_TRUE(reports_.waitForState(State::watching));
  const std::vector<uint8_t> jpeg = jpegBytes(1);
  const int image = ::open(pathOf("late.jpg").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int a = ::open(pathOf("a.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int b = ::open(pathOf("b.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_EQ(::write(image, jpeg.data(), jpeg.size()), ssize_t(jpeg.size()));
  for (int i = 0; i <= queued; ++i) ASSERT_EQ(::write(i % 2 ? a : b, "x", 1), 1);  // alternate: not merged
  for (int fd : {image, a, b}) ::close(fd);
  release.reset();
  ASSERT_TRUE(reports_.waitForLines(1));
  EXPECT_EQ(reports_.lines()[0].sourceFileName, QStringLiteral("late.jpg"));
}

}  // namespace
}  // namespace quillane::testing
