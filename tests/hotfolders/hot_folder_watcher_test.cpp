// HotFolderWatcher with real inotify on temporary folders and real compressions: when scans
// run (debounce, start, stop, polling), which files they take (stability, memory), and what
// they write and report.

#include <fcntl.h>
#include <unistd.h>

#include <QFileInfo>
#include <list>
#include <thread>

#include "engine/ImageFormat.h"
#include "engine/ImageService.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "records/ExportProfile.h"
#include "tests/hotfolders/hot_folder_test_support.h"

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
  HotFolderWatcher* watch(const HotFolder& folder, Reports& reports, HotFolderWatcher::Timing timing = {}) {
    auto& watcher = watchers_.emplace_back(std::make_unique<HotFolderWatcher>(folder, timing));
    reports.attach(*watcher);
    return watcher.get();
  }
  // Outlive every watcher that reports to them.
  Reports& newReports() { return reports_.emplace_back(); }
  std::list<Reports> reports_;
  std::vector<std::unique_ptr<HotFolderWatcher>> watchers_;
};

TEST_F(HotFolderWatcherTest, FirstScanTakesWhatIsThereAndABurstOfEntriesGivesOneScan) {
  for (int i = 0; i < 5; ++i) putImage(QStringLiteral("old%1.jpg").arg(i), i);
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports, {.longestDelay = 60s});
  watcher->start();
  ASSERT_TRUE(reports.waitForLines(5));
  EXPECT_EQ(reports.scanTotals(), std::vector<int>{5});

  // Fifty entries well within the debounce of one another: a single scan takes them all.
  std::vector<std::vector<uint8_t>> burst;
  burst.reserve(50);
  for (int i = 0; i < 50; ++i) burst.push_back(jpegBytes(100 + i));
  for (int i = 0; i < 50; ++i) writeBytes(pathOf(QStringLiteral("burst%1.jpg").arg(i)), burst[i]);
  ASSERT_TRUE(reports.waitForLines(55));
  EXPECT_EQ(reports.scanTotals(), (std::vector<int>{5, 50}));
  EXPECT_EQ(reports.progress().back(), (HotFolderProgress{50, 50}));
  watcher->stop();
  watcher->waitUntilIdle();  // the scan has stored what it did
  for (const HotFolderActivity& line : reports.lines()) EXPECT_FALSE(line.error) << line.error->toStdString();
  EXPECT_EQ(outputs().size(), 55);
  EXPECT_EQ(HotFolderProcessedStore::folderState(watcher->hotFolder().idText()).size(), 55);
}

TEST_F(HotFolderWatcherTest, StopCancelsThePendingScanAndLaterRequestsQueueNothing) {
  putImage(QStringLiteral("a.jpg"));
  Reports& stopped = newReports();
  Reports& replacement = newReports();
  const HotFolder hotFolder = folder();
  auto first = watch(hotFolder, stopped, {.debounce = 200ms});
  first->start();
  ASSERT_TRUE(stopped.waitForState(State::watching));
  first->stop();
  first->scheduleScan();
  EXPECT_FALSE(first->isWatching());
  // The replacement's first scan comes due seconds after the cancelled one would have: the
  // stopped watcher reported nothing, and its scan would have left nothing for the replacement.
  auto second = watch(hotFolder, replacement, {.debounce = 3s});
  second->start();
  ASSERT_TRUE(replacement.waitForLines(1));
  EXPECT_TRUE(stopped.lines().empty());
}

TEST_F(HotFolderWatcherTest, AFileStillBeingWrittenIsTakenOnceItsWriterClosesIt) {
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports);
  watcher->start();
  ASSERT_TRUE(reports.waitForState(State::watching));
  // Written in small pieces for about 1.5 s: the scan that its creation triggers finds it
  // growing and skips it; closing it triggers the scan that takes it whole.
  const std::vector<uint8_t> bytes = jpegBytes(7, 160);
  std::thread writer([&] {
    const int fd = ::open(pathOf(QStringLiteral("growing.jpg")).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const size_t piece = bytes.size() / 75 + 1;
    for (size_t at = 0; at < bytes.size(); at += piece) {
      ASSERT_GT(::write(fd, bytes.data() + at, std::min(piece, bytes.size() - at)), 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::close(fd);
  });
  writer.join();
  ASSERT_TRUE(reports.waitForLines(1));
  const HotFolderActivity line = reports.lines().front();
  EXPECT_FALSE(line.error);
  EXPECT_EQ(QFileInfo(*line.destinationURL).fileName(), QStringLiteral("growing.jpg"));
  // Remembered at its full size: a partial copy would have been compressed again.
  EXPECT_EQ(
      HotFolderProcessedStore::folderState(watcher->hotFolder().idText()).value("growing.jpg").sizeBytes,
      int64_t(bytes.size()));
}

TEST_F(HotFolderWatcherTest, StabilityNeedsAnOldDateOrASizeThatHoldsStill) {
  putImage(QStringLiteral("fresh.jpg"), 1, false);
  const std::string fresh = pathOf("fresh.jpg"), gone = pathOf("gone.jpg");
  const int64_t size = QFileInfo(QFile::decodeName(fresh.c_str())).size();
  const double now = double(::time(nullptr) - 978307200);
  // An old date needs no size at all; a future date counts as recent.
  EXPECT_EQ(HotFolderWatcher::isStableOnDisk(
                {{gone, 1, now - 60}, {fresh, size, now}, {fresh, size - 1, now + 3600}, {gone, 0, now}}),
            (std::vector<bool>{true, true, false, false}));
}

TEST_F(HotFolderWatcherTest, MemoryAcrossRestartsTakesOnlyChangedAndRenamedFiles) {
  for (const char* name : {"keep.jpg", "change.jpg", "rename.jpg"}) putImage(name, 1);
  const HotFolder hotFolder = folder();
  {
    Reports& reports = newReports();
    auto watcher = watch(hotFolder, reports);
    watcher->scanOnce();
    ASSERT_EQ(reports.lines().size(), 3u);
  }
  // While nothing watches: other bytes of the same length with a new date, and a rename.
  const std::vector<uint8_t> before = readBytes(pathOf("change.jpg"));
  std::vector<uint8_t> after;
  for (uint32_t seed = 2; after.empty() || after.size() > before.size(); ++seed) after = jpegBytes(seed);
  after.resize(before.size(), 0);  // zeros after the end marker, which decoders ignore
  writeBytes(pathOf("change.jpg"), after);
  backdate("change.jpg", 30);
  ASSERT_EQ(::rename(pathOf("rename.jpg").c_str(), pathOf("renamed.jpg").c_str()), 0);

  Reports& reports = newReports();
  auto watcher = watch(hotFolder, reports);
  watcher->start();
  ASSERT_TRUE(reports.waitForLines(2));
  QStringList taken;
  for (const HotFolderActivity& line : reports.lines()) taken << line.sourceFileName;
  taken.sort();
  EXPECT_EQ(taken, (QStringList{"change.jpg", "renamed.jpg"}));
  EXPECT_EQ(reports.scanTotals(), std::vector<int>{2});
  EXPECT_EQ(HotFolderProcessedStore::folderState(hotFolder.idText()).keys(),
            (QStringList{"change.jpg", "keep.jpg", "renamed.jpg"}));
}

// What an unmounted volume's mount point looks like at start: the folder is there and empty.
// Its memory must survive, or every file would be compressed again once the volume is back.
TEST_F(HotFolderWatcherTest, AnEmptyListingKeepsTheMemoryAndAListingWithFilesPrunesIt) {
  for (const char* name : {"a.jpg", "b.jpg"}) putImage(name);
  const HotFolder hotFolder = folder();
  Reports& reports = newReports();
  auto watcher = watch(hotFolder, reports);
  watcher->scanOnce();
  ASSERT_EQ(reports.lines().size(), 2u);

  const QString away = temp_.path() + QStringLiteral("/away");
  ASSERT_TRUE(QDir().rename(source_, away));
  ASSERT_TRUE(QDir().mkpath(source_));
  watcher->scanOnce();
  EXPECT_EQ(HotFolderProcessedStore::folderState(hotFolder.idText()).keys(), (QStringList{"a.jpg", "b.jpg"}));

  ASSERT_TRUE(QDir(source_).removeRecursively());
  ASSERT_TRUE(QDir().rename(away, source_));
  ASSERT_EQ(::unlink(pathOf("b.jpg").c_str()), 0);
  watcher->scanOnce();
  EXPECT_EQ(reports.lines().size(), 2u);  // nothing taken again
  EXPECT_EQ(HotFolderProcessedStore::folderState(hotFolder.idText()).keys(), QStringList{"a.jpg"});
}

TEST_F(HotFolderWatcherTest, ScanNamesOutputsInSortedOrderAndIgnoresWhatIsNoImage) {
  for (const char* name : {"a.webp", "a.png", "a.jpeg"}) putImage(name);  // JPEG bytes whatever the name
  writeBytes(pathOf("notes.jpg"), {'h', 'e', 'l', 'l', 'o'});
  writeBytes(pathOf(".hidden.jpg"), jpegBytes(3));
  ASSERT_TRUE(QDir(source_).mkdir("sub"));
  writeBytes(pathOf("sub/inner.jpg"), jpegBytes(4));
  // "a.jpg" in the destination is a hard link to a source of this scan: it is passed over.
  ASSERT_TRUE(QDir().mkpath(destination_));
  const QByteArray linked = QFile::encodeName(destination_ + "/a.jpg");
  ASSERT_EQ(::link(pathOf("a.jpeg").c_str(), linked.constData()), 0);
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports);
  watcher->scanOnce();
  std::map<QString, QString> written;
  for (const HotFolderActivity& line : reports.lines()) {
    ASSERT_TRUE(line.destinationURL) << line.sourceFileName.toStdString();
    written[line.sourceFileName] = QFileInfo(*line.destinationURL).fileName();
  }
  EXPECT_EQ(written,
            (std::map<QString, QString>{{"a.jpeg", "a-2.jpg"}, {"a.png", "a-3.jpg"}, {"a.webp", "a-4.jpg"}}));
  EXPECT_EQ(readBytes(linked.toStdString()), jpegBytes(1));
  EXPECT_EQ(reports.progress(), (std::vector<HotFolderProgress>{{0, 3}, {1, 3}, {2, 3}, {3, 3}}));
}

TEST_F(HotFolderWatcherTest, DestinationThatCannotBeMadeFailsEachFileAndEachScanTriesAgainSilently) {
  putImage(QStringLiteral("a.jpg"));
  putImage(QStringLiteral("b.jpg"), 2);
  writeBytes(QFile::encodeName(temp_.path() + "/file").toStdString(), {'x'});
  HotFolder hotFolder = folder();
  hotFolder.destinationFolder = temp_.path() + "/file/out";
  Reports& reports = newReports();
  auto watcher = watch(hotFolder, reports);
  watcher->scanOnce();
  watcher->scanOnce();
  // Each file's error is said once; the second scan tried both again.
  EXPECT_EQ(reports.scanTotals(), (std::vector<int>{2, 2}));
  ASSERT_EQ(reports.lines().size(), 2u);
  for (const HotFolderActivity& line : reports.lines()) {
    EXPECT_TRUE(line.error && !line.error->isEmpty() && !line.destinationURL)
        << line.sourceFileName.toStdString();
  }
  EXPECT_TRUE(HotFolderProcessedStore::folderState(hotFolder.idText()).isEmpty());
  EXPECT_EQ(QDir(source_).entryList(QDir::Files), (QStringList{"a.jpg", "b.jpg"}));  // sources untouched
}

TEST_F(HotFolderWatcherTest, MissingProfileReportsTheFolderOnceAndCompressesNothing) {
  putImage(QStringLiteral("a.jpg"));
  HotFolder hotFolder = folder();
  hotFolder.profileName = QStringLiteral("Gone");
  Reports& reports = newReports();
  auto watcher = watch(hotFolder, reports);
  watcher->scanOnce();
  watcher->scanOnce();  // not said again
  ASSERT_EQ(reports.lines().size(), 1u);
  EXPECT_TRUE(reports.lines()[0].sourceFileName.isEmpty());
  EXPECT_TRUE(reports.lines()[0].error && reports.lines()[0].error->contains("Gone"));
  EXPECT_FALSE(QDir(destination_).exists());
  EXPECT_TRUE(HotFolderProcessedStore::folderState(hotFolder.idText()).isEmpty());

  // Recreating the profile resumes the folder; its format, quality and fit apply, under the
  // folder's own fit where it sets one.
  ExportProfiles::save({ExportProfile{QUuid::createUuid(),
                                      "gone",
                                      ImageFormat::webp,
                                      50,
                                      std::nullopt,
                                      false,
                                      {.maxWidth = 40, .maxHeight = 40}}});
  hotFolder.format.reset();
  hotFolder.sizing.maxHeight = 12;
  auto resumed = watch(hotFolder, reports);
  resumed->scanOnce();
  ASSERT_EQ(reports.lines().size(), 2u);
  EXPECT_EQ(outputs(), QStringList{"a.webp"});
  const auto header =
      ImageService::properties(readBytes(QFile::encodeName(destination_ + "/a.webp").toStdString()));
  ASSERT_TRUE(header);
  EXPECT_EQ(std::pair(header->width, header->height), std::pair(12, 12));
}

// A result not smaller than its source writes nothing; the line says the original was kept,
// and the file is not taken again at the next scan.
TEST_F(HotFolderWatcherTest, AKeptOriginalWritesNothingAndItsLineSaysWhy) {
  putImage(QStringLiteral("a.jpg"));
  HotFolder hotFolder = folder();
  hotFolder.format = ImageFormat::png;
  hotFolder.quality = 100;
  hotFolder.sizing.skipLarger = true;
  Reports& reports = newReports();
  auto watcher = watch(hotFolder, reports);
  watcher->scanOnce();
  watcher->scanOnce();
  ASSERT_EQ(reports.lines().size(), 1u);
  const HotFolderActivity line = reports.lines()[0];
  EXPECT_FALSE(line.isError());
  EXPECT_FALSE(line.destinationURL);
  EXPECT_TRUE(line.note && !line.note->isEmpty());
  EXPECT_TRUE(outputs().isEmpty());
}

TEST_F(HotFolderWatcherTest, NonLocalFolderIsPolledForChangesInotifyDoesNotReport) {
  putImage(QStringLiteral("a.jpg"));
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports, {.pollInterval = 300ms});
  watcher->start();
  ASSERT_TRUE(reports.waitForLines(1));
  // A new date alone raises no entry event: only the timer's scan sees it.
  backdate("a.jpg", 120);
  ASSERT_TRUE(reports.waitForLines(2));
  EXPECT_TRUE(HotFolderWatcher::isOnLocalVolume(source_));
  EXPECT_FALSE(HotFolderWatcher::isOnLocalVolume(source_ + "/missing"));
}

// The inotify path alone: with retries an hour apart, only the folder's own events can
// end the watch; a recheck (as a mount change asks) finds the folder back and scans it.
TEST_F(HotFolderWatcherTest, FolderThatGoesAwayIsWaitedForAndWatchedAgainWhenItComesBack) {
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports, {.retryInterval = 3600s});
  watcher->start();
  ASSERT_TRUE(reports.waitForState(State::watching));
  ASSERT_TRUE(QDir(source_).removeRecursively());
  ASSERT_TRUE(reports.waitForState(State::waitingForFolder));
  EXPECT_FALSE(watcher->isWatching());
  watcher->scanOnce();  // the folder unreadable: nothing reported, nothing stored
  EXPECT_TRUE(reports.lines().empty());

  ASSERT_TRUE(QDir().mkpath(source_));
  putImage(QStringLiteral("back.jpg"));
  watcher->recheck();
  ASSERT_TRUE(reports.waitForLines(1));
  EXPECT_EQ(reports.lines()[0].sourceFileName, QStringLiteral("back.jpg"));
  EXPECT_EQ(reports.states(),
            (std::vector<State>{State::watching, State::waitingForFolder, State::watching}));

  // A folder that does not exist yet is retried on its own.
  Reports& later = newReports();
  HotFolder laterFolder = folder();
  laterFolder.sourceFolder = temp_.path() + "/later";
  watch(laterFolder, later, {.retryInterval = 50ms})->start();
  ASSERT_TRUE(later.waitForState(State::waitingForFolder));
  ASSERT_TRUE(QDir().mkpath(laterFolder.sourceFolder));
  ASSERT_TRUE(later.waitForState(State::watching));
}

// Files every 20 ms hold back a 10 s trailing debounce for ever; the longest delay still lets
// a scan through while they keep coming.
TEST_F(HotFolderWatcherTest, SteadyStreamIsScannedWhileItLasts) {
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports, {.debounce = 10s, .longestDelay = 300ms});
  watcher->start();
  ASSERT_TRUE(reports.waitForState(State::watching));
  const std::vector<uint8_t> bytes = jpegBytes(5);
  int written = 0;
  for (; written < 500 && reports.lines().empty(); ++written) {
    writeBytes(pathOf(QStringLiteral("s%1.jpg").arg(written)), bytes);
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_LT(written, 500) << "no scan while the stream lasted";
}

// What is stored is stored file by file: when a file's line is reported its success is
// already on disk, so that a crash later in the scan does not compress it again.
TEST_F(HotFolderWatcherTest, EachSuccessIsStoredBeforeItIsReported) {
  for (int i = 0; i < 4; ++i) putImage(QStringLiteral("c%1.jpg").arg(i), i);
  const HotFolder hotFolder = folder();
  HotFolderWatcher watcher(hotFolder);
  std::vector<QString> notYetStored;
  watcher.onActivity = [&](const HotFolderActivity& line) {
    if (!HotFolderProcessedStore::folderState(hotFolder.idText()).contains(line.sourceFileName))
      notYetStored.push_back(line.sourceFileName);
  };
  watcher.scanOnce();
  EXPECT_EQ(HotFolderProcessedStore::folderState(hotFolder.idText()).size(), 4);
  EXPECT_TRUE(notYetStored.empty());
}

// Someone else's file in the destination is never replaced, a source's own earlier output is,
// and an output moved into a watched folder is never taken back.
TEST_F(HotFolderWatcherTest, OnlyTheFoldersOwnOutputsAreReplacedAndNoneIsTakenBack) {
  ASSERT_TRUE(QDir().mkpath(destination_));
  const std::string theirs = QFile::encodeName(destination_ + "/userfile.jpg").toStdString();
  writeBytes(theirs, {'m', 'i', 'n', 'e'});
  putImage(QStringLiteral("userfile.png"));  // JPEG bytes whatever the name
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports);
  watcher->scanOnce();
  EXPECT_EQ(readBytes(theirs), (std::vector<uint8_t>{'m', 'i', 'n', 'e'}));
  EXPECT_EQ(outputs(), (QStringList{"userfile-2.jpg", "userfile.jpg"}));

  putImage(QStringLiteral("userfile.png"), 2);  // changed: its own output is replaced
  backdate("userfile.png", 30);
  watcher->scanOnce();
  ASSERT_EQ(reports.lines().size(), 2u);
  EXPECT_EQ(outputs(), (QStringList{"userfile-2.jpg", "userfile.jpg"}));

  ASSERT_TRUE(QFile::rename(destination_ + "/userfile-2.jpg", source_ + "/moved.jpg"));
  watcher->scanOnce();
  EXPECT_EQ(reports.lines().size(), 2u);
}

// A writer that pauses with its file open, or a file cut short before the watch began, is not
// taken for a whole picture; each is taken once whole.
TEST_F(HotFolderWatcherTest, AFileStillOpenOrCutShortIsTakenOnlyWhole) {
  const std::vector<uint8_t> jpeg = jpegBytes(3, 96);
  const std::vector<uint8_t> png = fixtures::png(makeImage(64, 64, Pattern::photo, 4));
  writeBytes(pathOf("cut.jpg"), {jpeg.begin(), jpeg.begin() + std::ptrdiff_t(jpeg.size() / 2)});
  writeBytes(pathOf("cut.png"), {png.begin(), png.begin() + std::ptrdiff_t(png.size() - 20)});
  backdate("cut.jpg", 60);
  backdate("cut.png", 60);
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports);
  watcher->start();
  ASSERT_TRUE(reports.waitForState(State::watching));

  // Half written, then an old date, as a pause of minutes would leave it; still open. A WebP,
  // whose structure is not looked at: only inotify can tell.
  const std::vector<uint8_t> webp = fixtures::webp(makeImage(96, 96, Pattern::photo, 5));
  const size_t half = webp.size() / 2;
  const int fd = ::open(pathOf("open.webp").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, webp.data(), half), ssize_t(half));
  backdate("open.webp", 60);
  putImage(QStringLiteral("whole.jpg"));  // its scan sees the three others and takes none
  ASSERT_TRUE(reports.waitForLines(1));
  EXPECT_EQ(reports.lines()[0].sourceFileName, QStringLiteral("whole.jpg"));

  ASSERT_EQ(::write(fd, webp.data() + half, webp.size() - half), ssize_t(webp.size() - half));
  ::close(fd);
  writeBytes(pathOf("cut.jpg"), jpeg);
  writeBytes(pathOf("cut.png"), png);
  ASSERT_TRUE(reports.waitForLines(4));
  const HotFolderProcessedMap stored = HotFolderProcessedStore::folderState(watcher->hotFolder().idText());
  EXPECT_EQ(stored.value("open.webp").sizeBytes, int64_t(webp.size()));
  EXPECT_EQ(stored.value("cut.jpg").sizeBytes, int64_t(jpeg.size()));
  EXPECT_EQ(stored.value("cut.png").sizeBytes, int64_t(png.size()));
  for (const HotFolderActivity& line : reports.lines()) EXPECT_FALSE(line.error) << line.error->toStdString();
}

// Two names that differ only in bytes that are no UTF-8 (and so decode alike) are two files:
// each is compressed once, and a changed one replaces its own output.
TEST_F(HotFolderWatcherTest, NamesThatAreNoUTF8KeepTheirBytes) {
  const std::string source = QFile::encodeName(source_).toStdString() + "/caf";
  writeBytes(source + "\xE9.png", jpegBytes(1));
  writeBytes(source + "\xE8.png", jpegBytes(2));
  Reports& reports = newReports();
  auto watcher = watch(folder(), reports);
  watcher->scanOnce();
  watcher->scanOnce();
  ASSERT_EQ(reports.lines().size(), 2u);
  for (const HotFolderActivity& line : reports.lines()) EXPECT_FALSE(line.error);

  writeBytes(source + "\xE9.png", jpegBytes(3));
  watcher->scanOnce();
  EXPECT_EQ(reports.lines().size(), 3u);
  const QByteArray destination = QFile::encodeName(destination_) + "/caf";
  for (const char* name : {"\xE9.jpg", "\xE8.jpg"})
    EXPECT_EQ(::access((destination + name).constData(), F_OK), 0);
  EXPECT_NE(::access((destination + "\xE9-2.jpg").constData(), F_OK), 0);
  for (const std::string& path :
       {source + "\xE9.png", source + "\xE8.png", (destination + "\xE9.jpg").toStdString(),
        (destination + "\xE8.jpg").toStdString()})
    ::unlink(path.c_str());  // which the temporary folder's removal would not find
}

}  // namespace
}  // namespace quillane::testing
