// The one atomic writer, against whatever is already at or beside its destination.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "tests/support/StalledVolume.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

namespace fs = std::filesystem;

class AtomicWriter : public ::testing::Test {
 protected:
  void write(const std::string& name, const std::string& text, unsigned permissions = 0666) {
    FileIO::writeFileAtomically(dir_ + "/" + name,
                                {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, permissions);
  }
  std::string read(const std::string& path) {
    auto bytes = testing::readBytes(path);
    return {bytes.begin(), bytes.end()};
  }
  testing::TempDir temp_;
  const std::string dir_ = temp_.path();
};

TEST_F(AtomicWriter, ReplacesALinkAtTheDestinationAndTakesTheLongestNames) {
  testing::writeBytes(dir_ + "/victim", {'o', 'l', 'd'});
  fs::create_symlink(dir_ + "/victim", dir_ + "/out.jpg");
  write("out.jpg", "new");
  EXPECT_EQ(read(dir_ + "/victim"), "old");
  EXPECT_FALSE(fs::is_symlink(dir_ + "/out.jpg"));
  EXPECT_EQ(read(dir_ + "/out.jpg"), "new");

  const std::string longest(255, 'n');
  write(longest, "long");
  EXPECT_EQ(read(dir_ + "/" + longest), "long");
  EXPECT_THROW(write(longest + "n", "x"), FileError);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 3) << "no temporary left";
}

// A pipe, a socket, a folder or a device where the file was to go is not ours: each is refused and left as it
// was (as root, /dev/null was once replaced by a regular file). A failure names the folder or the
// destination: the reason alone ("No such file or directory") would not say which.
TEST_F(AtomicWriter, OnlyAFileOrALinkIsReplacedAndAFailureNamesItsPlace) {
  ASSERT_EQ(::mkfifo((dir_ + "/pipe.jpg").c_str(), 0644), 0);
  fs::create_directories(dir_ + "/folder.jpg/inside");  // a folder in the file's place, even for root
  const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", (dir_ + "/socket.jpg").c_str());
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::vector<std::string> names = {"pipe.jpg", "folder.jpg", "socket.jpg"};
  if (::mknod((dir_ + "/null.jpg").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) names.push_back("null.jpg");
  for (const std::string& name : names) {
    const auto before = fs::symlink_status(dir_ + "/" + name).type();
    EXPECT_THROW(write(name, "new"), FileIO::DestinationNotAFile) << name;
    EXPECT_EQ(fs::symlink_status(dir_ + "/" + name).type(), before) << name;
  }
  ::close(sock);
  const auto failure = [&](const std::string& name) -> std::string {
    try {
      write(name, "x");
    } catch (const FileIO::WriteError& e) {
      return e.description();
    }
    return "no error";
  };
  EXPECT_EQ(failure("missing/a.jpg"), dir_ + "/missing: No such file or directory");
  EXPECT_EQ(failure("folder.jpg"), dir_ + "/folder.jpg: exists and is not a regular file; left as it is");
  EXPECT_EQ(size_t(std::distance(fs::directory_iterator(dir_), fs::directory_iterator())), names.size())
      << "no temporary left";
}

TEST_F(AtomicWriter, AnOutputIsNoMoreReadableThanItsSourceOrTheFileItReplaces) {
  const auto mode = [&](const std::string& name) {
    return unsigned(fs::status(dir_ + "/" + name).permissions() & fs::perms::all);
  };
  const mode_t umask = ::umask(022);
  testing::writeBytes(dir_ + "/private.png", {'p'});
  ::chmod((dir_ + "/private.png").c_str(), 0600);
  testing::writeBytes(dir_ + "/group.png", {'g'});
  ::chmod((dir_ + "/group.png").c_str(), 0750);
  EXPECT_EQ(FileIO::permissionsFor(dir_ + "/group.png"), 0640u) << "never executable";

  write("a.jpg", "out", FileIO::permissionsFor(dir_ + "/private.png"));
  EXPECT_EQ(mode("a.jpg"), 0600u);
  write("b.jpg", "out");
  EXPECT_EQ(mode("b.jpg"), 0644u) << "the umask still applies";
  // The user made an earlier output private: replacing it keeps it so.
  ::chmod((dir_ + "/b.jpg").c_str(), 0640);
  write("b.jpg", "out");
  EXPECT_EQ(mode("b.jpg"), 0640u);
  ::umask(umask);
}

TEST_F(AtomicWriter, TemporariesNobodyHoldsAreRemovedAndThoseOfARunningWriterKept) {
  const std::string orphan = dir_ + "/.quillane-abcDEF.tmp", held = dir_ + "/.quillane-ghiJKL.tmp",
                    justMade = dir_ + "/.quillane-mnoPQR.tmp", foreign = dir_ + "/.quillane-abc.tmp.keep";
  for (const std::string& path : {orphan, held, justMade, foreign}) testing::writeBytes(path, {'t'});
  // A minute old: long after a writer would have locked it, long before a day.
  const timeval minuteAgo{::time(nullptr) - 60, 0};
  const timeval times[2] = {minuteAgo, minuteAgo};
  for (const std::string& path : {orphan, held, foreign}) ASSERT_EQ(::utimes(path.c_str(), times), 0);
  // Another writer's lock, as a running process holds it (a lock of another open file).
  const int holder = ::open(held.c_str(), O_RDONLY);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);

  write("a.png", "a");
  EXPECT_FALSE(fs::exists(orphan)) << "its writer was killed";
  EXPECT_TRUE(fs::exists(held)) << "its writer is still at work";
  EXPECT_TRUE(fs::exists(justMade)) << "it may not be locked yet";
  EXPECT_TRUE(fs::exists(foreign)) << "only the writer's own form";
  ::close(holder);
}

// A process that is ending waits for a write stuck on a volume that stopped answering only until its
// deadline: it would never end otherwise.
TEST_F(AtomicWriter, AnEndingProcessWaitsForAStuckWriteOnlyUntilItsDeadline) {
  ASSERT_TRUE(fs::create_directory(dir_ + "/volume"));
  testing::StalledVolume volume(dir_ + "/volume", testing::StalledVolume::Server::gone);
  if (!volume.mounted()) GTEST_SKIP() << "no right to mount here";
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  // In a process of its own, as stopping the writes is for good.
  const pid_t child = ::fork();
  if (child == 0) {
    std::thread([this] {
      try {
        write("volume/a.png", "a");
      } catch (const FileError&) {
      }
    }).detach();
    char byte;
    (void)!::read(go[0], &byte, 1);
    ::_exit(FileIO::stopWritesForExit(std::chrono::steady_clock::now() + std::chrono::milliseconds(200)) ? 1
                                                                                                         : 2);
  }
  // Under way once it waits for the volume.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (volume.holding() == 0 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_GT(volume.holding(), 0);
  const int ended = int(::syscall(SYS_pidfd_open, child, 0));
  (void)!::write(go[1], "g", 1);
  pollfd exited{ended, POLLIN, 0};
  const bool endedInTime = ::poll(&exited, 1, 5000) == 1;
  EXPECT_TRUE(endedInTime) << "waited for the volume";
  if (!endedInTime) ::kill(child, SIGKILL);  // it holds the volume's device too, so it never fails
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
  for (const int fd : {go[0], go[1], ended}) ::close(fd);
}

}  // namespace
}  // namespace quillane
