// HotFoldersManager with real watchers: which folders run, what is said once, the activity cap,
// progress only while a scan runs, and a clean end in the middle of a scan.

#include <sys/mount.h>
#include <unistd.h>

#include <QTest>
#include <algorithm>
#include <memory>

#include "budget/CompressionBudget.h"
#include "engine/ImageFormat.h"
#include "hotfolders/HotFoldersManager.h"
#include "tests/hotfolders/hot_folder_test_support.h"

namespace quillane::testing {
namespace {

using HotFoldersManagerTest = HotFolderSandbox;

int errorLines(const HotFoldersManager& manager) {
  return int(std::ranges::count_if(manager.recentActivity(), &HotFolderActivity::isError));
}
int doneLines(const HotFoldersManager& manager) {
  return int(manager.recentActivity().size()) - errorLines(manager);
}

using State = HotFoldersManager::Status::State;

// Waits until every check and watcher start asked for so far has reported back.
void settle(HotFoldersManager& manager, const QUuid& id, State state) {
  ASSERT_TRUE(QTest::qWaitFor([&] { return manager.status(id).state == state; }, 10000))
      << int(manager.status(id).state);
}

// A bind mount stands in for a volume that arrives later; it is unmounted when it goes. It
// needs the right to mount (root in a container, say): null elsewhere, and the test is skipped.
using BindMount = std::unique_ptr<QByteArray, void (*)(QByteArray*)>;
BindMount bindMount(const QString& from, const QString& onto) {
  auto target = std::make_unique<QByteArray>(QFile::encodeName(onto));
  const bool mounted =
      ::mount(QFile::encodeName(from).constData(), target->constData(), nullptr, MS_BIND, nullptr) == 0;
  return BindMount(mounted ? target.release() : nullptr, [](QByteArray* mountPoint) {
    ::umount2(mountPoint->constData(), MNT_DETACH);
    delete mountPoint;
  });
}

TEST_F(HotFoldersManagerTest, VolumeMountedOnTheFolderIsFollowedAndItsUnmountDropsNoMemory) {
  const QString mountPoint = temp_.path() + "/volume", device = temp_.path() + "/device";
  ASSERT_TRUE(QDir().mkpath(mountPoint) && QDir().mkpath(device));
  const HotFolder hotFolder = folder(mountPoint);
  HotFolders::save({hotFolder});
  HotFoldersManager manager;  // watches the empty mount point
  source_ = device;
  putImage("a.jpg");

  BindMount mount = bindMount(device, mountPoint);
  if (!mount) GTEST_SKIP() << "no right to mount here";
  // The scan's last step is its one write of the store: wait for it, not only for the line.
  ASSERT_TRUE(
      QTest::qWaitFor([&] { return doneLines(manager) == 1 && memory(hotFolder).size() == 1; }, 60000));

  // Unmounted: the empty mount point is not watched, so its scan can't forget a.jpg.
  mount.reset();
  ASSERT_TRUE(QTest::qWaitFor([&] { return errorLines(manager) == 1; }, 10000));
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  EXPECT_EQ(memory(hotFolder).keys(), QStringList{"a.jpg"});

  // Mounted again: it runs, and only the new file is compressed.
  putImage("b.jpg", 2);
  BindMount again = bindMount(device, mountPoint);
  ASSERT_TRUE(again);
  ASSERT_TRUE(QTest::qWaitFor([&] { return doneLines(manager) == 2; }, 60000));
  EXPECT_EQ(manager.recentActivity().front().sourceFileName, "b.jpg");
  EXPECT_EQ(errorLines(manager), 1);
}

// A missing source is reported once however often it is retried or rechecked (as a mount of
// any volume asks), and starts when it appears. A scan reports progress only while it runs; a
// pause stops the folders; removing one drops its memory, not its files.
TEST_F(HotFoldersManagerTest, ActivityKeepsTheNewestHundredSuccessesAndTheErrorsApart) {
  for (int i = 0; i < 101; ++i) putImage(QStringLiteral("p%1.jpg").arg(i), i, 60, 8);
  HotFolder gone = folder(temp_.path() + "/missing");
  gone.name = "Gone";
  HotFoldersManager manager({.retryInterval = std::chrono::milliseconds(50)});
  manager.upsert(gone);
  settle(manager, gone.id, State::waitingForFolder);
  manager.applyWatchers();
  settle(manager, gone.id, State::waitingForFolder);
  const HotFolder hotFolder = folder();
  bool sawProgress = false;
  QObject::connect(&manager, &HotFoldersManager::progressChanged,
                   [&] { sawProgress = sawProgress || manager.progress(hotFolder.id).has_value(); });
  manager.upsert(hotFolder);
  // The scan's last step is its one write of the store.
  ASSERT_TRUE(QTest::qWaitFor(
      [&] { return memory(hotFolder).size() == 101 && !manager.progress(hotFolder.id); }, 60000));
  ASSERT_TRUE(QTest::qWaitFor([&] { return doneLines(manager) == 100; }, 10000));
  EXPECT_TRUE(sawProgress);
  EXPECT_EQ(errorLines(manager), 1);
  EXPECT_EQ(manager.recentActivity().back().hotFolderName, QStringLiteral("Gone"));
  ASSERT_TRUE(QDir().mkpath(gone.sourceFolder));
  settle(manager, gone.id, State::watching);
  EXPECT_EQ(errorLines(manager), 1);

  // A pause stops it, a mount change does not undo the pause, and the setting stays on.
  manager.setPaused(true);
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  ASSERT_TRUE(QTest::qWaitFor([check = manager.applyWatchers()] { return check.isFinished(); }, 10000));
  EXPECT_EQ(manager.status(hotFolder.id).state, State::disabled);
  EXPECT_TRUE(HotFolders::load().at(1).isEnabled);
  manager.setPaused(false);
  settle(manager, hotFolder.id, State::watching);

  // Saving it unchanged keeps the same watcher; removing it drops its memory, not its files.
  manager.upsert(hotFolder);
  EXPECT_TRUE(manager.isRunning(hotFolder.id));
  manager.remove(hotFolder);
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  EXPECT_TRUE(memory(hotFolder).isEmpty());
  EXPECT_EQ(outputs().size(), 101);
  EXPECT_EQ(HotFolders::load(), HotFolderList{gone});
}

// A source linked to its own destination, or a destination in another folder's source
// through a link here, would feed a folder outputs for ever: each is refused and says why,
// once per enabling however often the folders are rechecked; an unrelated folder runs.
TEST_F(HotFoldersManagerTest, FoldersThatFeedThemselvesOrEachOtherAreRefusedEvenThroughALink) {
  const QString a = temp_.path() + "/a", b = temp_.path() + "/b", link = temp_.path() + "/link";
  const QString selfOut = temp_.path() + "/self-out", selfIn = temp_.path() + "/self-in";
  ASSERT_TRUE(QDir().mkpath(a) && QDir().mkpath(b + "/sub") && QDir().mkpath(selfOut));
  for (const auto& [target, name] : {std::pair(b, link), std::pair(selfOut, selfIn)})
    ASSERT_EQ(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(name).constData()), 0);
  // First writes inside b, Second's source, through the link, to a folder not made yet.
  HotFolder first = folder(a, link + "/sub/new"), second = folder(b, temp_.path() + "/elsewhere");
  HotFolder alone = folder(), self = folder(selfIn, selfOut);
  first.name = "First";
  second.name = "Second";
  HotFolders::save({first, second, alone, self});
  HotFoldersManager manager;
  settle(manager, alone.id, State::watching);
  for (const HotFolder& refused : {first, second, self}) settle(manager, refused.id, State::refused);
  // Checked again, as at any mount of a volume: nothing is said again.
  ASSERT_TRUE(QTest::qWaitFor([check = manager.applyWatchers()] { return check.isFinished(); }, 10000));
  EXPECT_TRUE(manager.status(first.id).message.contains("Second"));
  EXPECT_TRUE(manager.status(second.id).message.contains("First"));
  EXPECT_FALSE(manager.status(self.id).message.isEmpty());
  EXPECT_FALSE(manager.isRunning(self.id));
  EXPECT_EQ(errorLines(manager), 3);
  QStringList lines;  // each names its folder and no file
  for (const HotFolderActivity& line : manager.recentActivity())
    lines << line.hotFolderName + line.sourceFileName;
  lines.sort();
  EXPECT_EQ(lines, (QStringList{"First", "Second", "Shots"}));

  self.isEnabled = false;
  manager.upsert(self);
  EXPECT_EQ(manager.status(self.id).state, State::disabled);
  self.isEnabled = true;
  manager.upsert(self);
  ASSERT_TRUE(QTest::qWaitFor([&] { return errorLines(manager) == 4; }, 10000));
  first.destinationFolder = temp_.path() + "/out-a";  // the loop undone: both run
  manager.upsert(first);
  settle(manager, first.id, State::watching);
  settle(manager, second.id, State::watching);
}

// The same when the folders appear after the check: the one that appears is checked again.
TEST_F(HotFoldersManagerTest, FoldersThatComeToFeedEachOtherAreRefusedWhenOneAppears) {
  const QString x = temp_.path() + "/x", y = temp_.path() + "/y";
  const HotFolder first = folder(x, y + "/out"), second = folder(y, x);
  HotFolders::save({first, second});
  HotFoldersManager manager({.retryInterval = std::chrono::milliseconds(50)});
  settle(manager, first.id, State::waitingForFolder);
  ASSERT_TRUE(QDir().mkpath(x));
  settle(manager, first.id, State::refused);
  settle(manager, second.id, State::refused);
}

// The scan of a folder edited meanwhile ends with the files it had begun; what it says of its
// progress is not the new watcher's, whose folder has nothing to do.
TEST_F(HotFoldersManagerTest, AnEditDuringAScanLeavesNoProgressOfTheOldScanBehind) {
  const int busy = HotFolderWatcher::concurrencyLimit();
  const std::vector<uint8_t> big = jpegBytes(1, 3000);
  for (int i = 0; i < busy; ++i) writeBytes(pathOf(QStringLiteral("a%1.jpg").arg(i)), big);
  putImage("b.jpg");  // not begun by the time of the edit
  HotFolder hotFolder = folder();
  HotFolders::save({hotFolder});
  HotFoldersManager manager;
  // A file begun (its claim on the budget held) is finished after the edit, and says so.
  const CompressionBudget& budget = CompressionBudget::process();
  ASSERT_TRUE(QTest::qWaitFor([&] { return budget.availablePermits() < budget.limit(); }, 60000));
  hotFolder.sourceFolder = temp_.path() + "/elsewhere";
  ASSERT_TRUE(QDir().mkpath(hotFolder.sourceFolder));
  manager.upsert(hotFolder);
  settle(manager, hotFolder.id, State::watching);
  ASSERT_TRUE(QTest::qWaitFor([&] { return doneLines(manager) >= 1; }, 60000));
  EXPECT_FALSE(manager.progress(hotFolder.id));
}

TEST_F(HotFoldersManagerTest, EndingDuringAScanLeavesOnlyWholeFiles) {
  for (int i = 0; i < 20; ++i) putImage(QStringLiteral("e%1.jpg").arg(i), i, 60, 600);
  const HotFolder hotFolder = folder();
  HotFolders::save({hotFolder});
  {
    HotFoldersManager manager;
    ASSERT_TRUE(QTest::qWaitFor([&] { return !manager.recentActivity().empty(); }, 60000));
  }
  // The destructor has waited for the scan: what is there now stays, and every file is whole.
  const QStringList written = outputs();
  EXPECT_GE(written.size(), 1);
  EXPECT_LT(written.size(), 20 + 1);
  for (const QString& name : written) {
    EXPECT_FALSE(name.startsWith('.')) << name.toStdString();
    EXPECT_EQ(ImageFormats::detect(pathOf(name, destination_)), ImageFormat::jpeg);
  }
  // A stop in mid-scan still records the files that finished.
  EXPECT_EQ(memory(hotFolder).size(), written.size());
}

}  // namespace
}  // namespace quillane::testing
