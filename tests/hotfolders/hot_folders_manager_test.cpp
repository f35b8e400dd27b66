// HotFoldersManager on the test's event loop with real watchers: the rules of which folders
// run and what is reported once, the activity cap, progress only while a scan runs, and a
// clean end while a scan is under way.

#include <sys/mount.h>
#include <unistd.h>

#include <QTest>

#include "engine/ImageFormat.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "hotfolders/HotFoldersManager.h"
#include "tests/hotfolders/hot_folder_test_support.h"

namespace quillane::testing {
namespace {

using HotFoldersManagerTest = HotFolderSandbox;

int errorLines(const HotFoldersManager& manager) {
  int count = 0;
  for (const HotFolderActivity& line : manager.recentActivity()) count += line.isError() ? 1 : 0;
  return count;
}

using State = HotFoldersManager::Status::State;

// Waits until every check and watcher start asked for so far has reported back.
void settle(HotFoldersManager& manager, const QUuid& id, State state) {
  ASSERT_TRUE(QTest::qWaitFor([&] { return manager.status(id).state == state; }, 10000))
      << int(manager.status(id).state);
}

TEST_F(HotFoldersManagerTest, SourceLinkedToItsDestinationIsRefusedAndReportedOncePerEnabling) {
  ASSERT_TRUE(QDir().mkpath(destination_));
  const QString link = temp_.path() + "/link";
  ASSERT_EQ(::symlink(QFile::encodeName(destination_).constData(), QFile::encodeName(link).constData()), 0);
  HotFoldersManager manager;
  HotFolder hotFolder = folder();
  hotFolder.sourceFolder = link;
  manager.upsert(hotFolder);
  settle(manager, hotFolder.id, State::refused);
  for (int i = 0; i < 2; ++i) {
    manager.applyWatchers();
    settle(manager, hotFolder.id, State::refused);
  }
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  EXPECT_FALSE(manager.status(hotFolder.id).message.isEmpty());
  ASSERT_EQ(manager.recentActivity().size(), 1u);
  EXPECT_EQ(manager.recentActivity()[0].hotFolderName, QStringLiteral("Shots"));
  EXPECT_TRUE(manager.recentActivity()[0].sourceFileName.isEmpty());

  hotFolder.isEnabled = false;
  manager.upsert(hotFolder);
  EXPECT_EQ(manager.status(hotFolder.id).state, State::disabled);
  hotFolder.isEnabled = true;
  manager.upsert(hotFolder);
  ASSERT_TRUE(QTest::qWaitFor([&] { return errorLines(manager) == 2; }, 10000));
}

TEST_F(HotFoldersManagerTest, MissingSourceIsReportedOnceAndStartsWhenItAppears) {
  HotFolder hotFolder = folder();
  hotFolder.sourceFolder = temp_.path() + "/later";
  HotFolders::save({hotFolder});
  HotFoldersManager manager({.retryInterval = std::chrono::milliseconds(50)});
  settle(manager, hotFolder.id, State::waitingForFolder);
  manager.applyWatchers();  // as a mount of any volume does
  settle(manager, hotFolder.id, State::waitingForFolder);
  ASSERT_EQ(manager.recentActivity().size(), 1u);
  ASSERT_TRUE(QDir().mkpath(hotFolder.sourceFolder));
  settle(manager, hotFolder.id, State::watching);
  EXPECT_TRUE(manager.isRunning(hotFolder.id));
  EXPECT_EQ(manager.recentActivity().size(), 1u);
}

TEST_F(HotFoldersManagerTest, PauseStopsEveryFolderUntilResumedAndKeepsTheirSettings) {
  const HotFolder hotFolder = folder();
  HotFolders::save({hotFolder});
  HotFoldersManager manager;
  settle(manager, hotFolder.id, State::watching);
  manager.setPaused(true);
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  manager.applyWatchers();  // a mount change does not undo the pause
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  EXPECT_TRUE(HotFolders::load().at(0).isEnabled);
  manager.setPaused(false);
  settle(manager, hotFolder.id, State::watching);
}

// A bind mount stands in for a volume that arrives later. It needs the right to mount (root
// in a container, say); elsewhere the test is skipped.
class BindMount {
 public:
  BindMount(const QString& from, const QString& onto) : onto_(QFile::encodeName(onto)) {
    mounted_ =
        ::mount(QFile::encodeName(from).constData(), onto_.constData(), nullptr, MS_BIND, nullptr) == 0;
  }
  ~BindMount() { unmount(); }
  void unmount() {
    if (mounted_) ::umount2(onto_.constData(), MNT_DETACH);
    mounted_ = false;
  }
  bool mounted() const { return mounted_; }

 private:
  QByteArray onto_;
  bool mounted_ = false;
};

int doneLines(const HotFoldersManager& manager) {
  return int(manager.recentActivity().size()) - errorLines(manager);
}

TEST_F(HotFoldersManagerTest, VolumeMountedOnTheFolderIsFollowedAndItsUnmountDropsNoMemory) {
  const QString mountPoint = temp_.path() + "/volume", device = temp_.path() + "/device";
  ASSERT_TRUE(QDir().mkpath(mountPoint) && QDir().mkpath(device));
  HotFolder hotFolder = folder();
  hotFolder.sourceFolder = mountPoint;
  HotFolders::save({hotFolder});
  HotFoldersManager manager;  // watches the empty mount point
  source_ = device;
  putImage("a.jpg");

  BindMount mount(device, mountPoint);
  if (!mount.mounted()) GTEST_SKIP() << "no right to mount here";
  // The scan's last step is its one write of the store: wait for it, not only for the line.
  ASSERT_TRUE(QTest::qWaitFor(
      [&] {
        return doneLines(manager) == 1 &&
               HotFolderProcessedStore::folderState(hotFolder.idText()).size() == 1;
      },
      60000));

  // Unmounted: the empty mount point is not watched, so its scan can't forget a.jpg.
  mount.unmount();
  ASSERT_TRUE(QTest::qWaitFor([&] { return errorLines(manager) == 1; }, 10000));
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  EXPECT_EQ(HotFolderProcessedStore::folderState(hotFolder.idText()).keys(), QStringList{"a.jpg"});

  // Mounted again: it runs, and only the new file is compressed.
  putImage("b.jpg", 2);
  BindMount again(device, mountPoint);
  ASSERT_TRUE(again.mounted());
  ASSERT_TRUE(QTest::qWaitFor([&] { return doneLines(manager) == 2; }, 60000));
  EXPECT_EQ(manager.recentActivity().front().sourceFileName, "b.jpg");
  EXPECT_EQ(errorLines(manager), 1);
}

TEST_F(HotFoldersManagerTest, ActivityKeepsTheNewestHundredSuccessesAndTheErrorsApart) {
  for (int i = 0; i < 101; ++i) putImage(QStringLiteral("p%1.jpg").arg(i), i, true, 8);
  HotFolder gone = folder();
  gone.name = "Gone";
  gone.sourceFolder = temp_.path() + "/missing";
  HotFoldersManager manager;
  manager.upsert(gone);
  settle(manager, gone.id, State::waitingForFolder);
  const HotFolder hotFolder = folder();
  manager.upsert(hotFolder);
  ASSERT_TRUE(QTest::qWaitFor(
      [&] { return HotFolderProcessedStore::folderState(hotFolder.idText()).size() == 101; }, 60000));
  ASSERT_TRUE(QTest::qWaitFor([&] { return doneLines(manager) == 100; }, 10000));
  EXPECT_EQ(errorLines(manager), 1);
  EXPECT_EQ(manager.recentActivity().back().hotFolderName, QStringLiteral("Gone"));
}

// A destination in another folder's source, through a link here, would feed each folder the
// other's outputs for ever: both are refused and say why; an unrelated folder runs.
TEST_F(HotFoldersManagerTest, FoldersThatFeedEachOtherAreRefusedEvenThroughALink) {
  const QString a = temp_.path() + "/a", b = temp_.path() + "/b", link = temp_.path() + "/link";
  ASSERT_TRUE(QDir().mkpath(a) && QDir().mkpath(b + "/sub"));
  ASSERT_EQ(::symlink(QFile::encodeName(b).constData(), QFile::encodeName(link).constData()), 0);
  HotFolder first = folder(), second = folder(), alone = folder();
  first.name = "First";
  first.sourceFolder = a;
  first.destinationFolder = link + "/sub/new";  // inside b, through the link, not made yet
  second.name = "Second";
  second.sourceFolder = b;
  second.destinationFolder = temp_.path() + "/elsewhere";
  alone.sourceFolder = source_;
  HotFolders::save({first, second, alone});
  HotFoldersManager manager;
  settle(manager, alone.id, State::watching);
  settle(manager, first.id, State::refused);
  settle(manager, second.id, State::refused);
  EXPECT_TRUE(manager.status(first.id).message.contains("Second"));
  EXPECT_TRUE(manager.status(second.id).message.contains("First"));
  EXPECT_EQ(errorLines(manager), 2);

  first.destinationFolder = temp_.path() + "/out-a";  // the loop undone: both run
  manager.upsert(first);
  settle(manager, first.id, State::watching);
  settle(manager, second.id, State::watching);
}

TEST_F(HotFoldersManagerTest, ScanReportsProgressOnlyWhileItRunsAndDeletionForgetsTheFolder) {
  for (int i = 0; i < 6; ++i) putImage(QStringLiteral("p%1.jpg").arg(i), i);
  HotFoldersManager manager;
  const HotFolder hotFolder = folder();
  bool sawProgress = false;
  QObject::connect(&manager, &HotFoldersManager::progressChanged,
                   [&] { sawProgress = sawProgress || manager.progress(hotFolder.id).has_value(); });
  manager.upsert(hotFolder);
  // The scan's last step is its one write of the store.
  ASSERT_TRUE(QTest::qWaitFor(
      [&] {
        return manager.recentActivity().size() == 6 && !manager.progress(hotFolder.id) &&
               HotFolderProcessedStore::folderState(hotFolder.idText()).size() == 6;
      },
      60000));
  EXPECT_TRUE(sawProgress);
  EXPECT_EQ(errorLines(manager), 0);

  // Saving it unchanged keeps the same watcher; removing it drops its memory, not its files.
  manager.upsert(hotFolder);
  EXPECT_TRUE(manager.isRunning(hotFolder.id));
  manager.remove(hotFolder);
  EXPECT_FALSE(manager.isRunning(hotFolder.id));
  EXPECT_TRUE(HotFolderProcessedStore::folderState(hotFolder.idText()).isEmpty());
  EXPECT_EQ(outputs().size(), 6);
  EXPECT_TRUE(HotFolders::load().empty());
}

TEST_F(HotFoldersManagerTest, EndingDuringAScanLeavesOnlyWholeFiles) {
  for (int i = 0; i < 20; ++i) putImage(QStringLiteral("e%1.jpg").arg(i), i, true, 600);
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
    EXPECT_EQ(ImageFormats::detect(QFile::encodeName(destination_ + '/' + name).toStdString()),
              ImageFormat::jpeg);
  }
  // A stop in mid-scan still records the files that finished.
  EXPECT_EQ(HotFolderProcessedStore::folderState(hotFolder.idText()).size(), written.size());
}

}  // namespace
}  // namespace quillane::testing
