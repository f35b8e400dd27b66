// The one atomic writer: a link planted at the destination is replaced, not followed; the
// longest names a folder takes work; temporaries left by a crash go once they are a day old.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

namespace fs = std::filesystem;

class AtomicWriter : public ::testing::Test {
 protected:
  void write(const std::string& name, const std::string& text) {
    FileIO::writeFileAtomically(dir_ + "/" + name,
                                {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
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

TEST_F(AtomicWriter, AFailedWriteNamesTheFolderOrTheDestinationAndLeavesNothing) {
  auto failure = [&](const std::string& name) -> std::string {
    try {
      write(name, "x");
    } catch (const FileIO::WriteError& e) {
      return e.description();
    }
    return "no error";
  };
  // The reason alone ("No such file or directory") would not say which folder.
  EXPECT_EQ(failure("missing/a.jpg"), dir_ + "/missing: No such file or directory");
  fs::create_directories(dir_ + "/taken.jpg/inside");  // a folder in the file's place, even for root
  EXPECT_EQ(failure("taken.jpg"), dir_ + "/taken.jpg: Is a directory");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1) << "no temporary left";
}

TEST_F(AtomicWriter, TheFirstWriteIntoAFolderRemovesItsOwnTemporariesOlderThanADay) {
  const std::string stale = dir_ + "/.quillane-abcDEF.tmp", fresh = dir_ + "/.quillane-ghiJKL.tmp",
                    foreign = dir_ + "/.quillane-abc.tmp.keep";
  for (const std::string& path : {stale, fresh, foreign}) testing::writeBytes(path, {'t'});
  const timeval twoDaysAgo{::time(nullptr) - 2 * 24 * 3600, 0};
  const timeval times[2] = {twoDaysAgo, twoDaysAgo};
  ASSERT_EQ(::utimes(stale.c_str(), times), 0);
  ASSERT_EQ(::utimes(foreign.c_str(), times), 0);

  write("a.png", "a");
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(fresh)) << "a day old at least: it may belong to a write still running";
  EXPECT_TRUE(fs::exists(foreign)) << "only the writer's own form";
}

}  // namespace
}  // namespace quillane
