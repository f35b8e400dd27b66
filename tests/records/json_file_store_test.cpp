#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStandardPaths>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "records/JSONFileStore.h"
#include "tests/records/records_test_support.h"

namespace quillane::testing {

namespace {

// Makes a folder refuse new entries for its lifetime: by its mode, or, for a user that
// ignores modes (root), by the file system's immutable flag. ok() is false when neither works.
class ReadOnlyFolder {
 public:
  explicit ReadOnlyFolder(const QString& path) : path_(path) {
    QFile::setPermissions(path_, QFile::ReadOwner | QFile::ExeOwner);
    if (!canCreateIn()) {
      ok_ = true;
      return;
    }
    QFile::setPermissions(path_, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    ok_ = setImmutable(true) && !canCreateIn();
    immutable_ = ok_;
  }
  ~ReadOnlyFolder() {
    if (immutable_) setImmutable(false);
    QFile::setPermissions(path_, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
  }
  bool ok() const { return ok_; }

 private:
  bool canCreateIn() const {
    QFile probe(path_ + QStringLiteral("/.probe"));
    if (!probe.open(QIODevice::WriteOnly)) return false;
    probe.remove();
    return true;
  }
  bool setImmutable(bool on) const {
    const int fd = ::open(QFile::encodeName(path_).constData(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return false;
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (done) {
      flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
      done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    ::close(fd);
    return done;
  }
  QString path_;
  bool ok_ = false;
  bool immutable_ = false;
};

JsonValue sampleList() {
  return JsonValue(JsonValue::Array{JsonValue::object().set("a", 1).set("b", "x/y")});
}

using JSONFileStoreTest = StoreFolderTest;

TEST_F(JSONFileStoreTest, FirstSaveCreatesTheFolderAndWritesCompactJSON) {
  ASSERT_FALSE(QDir(folder_).exists());
  JSONFileStore::save(sampleList(), QStringLiteral("list.json"));
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray(R"([{"a":1,"b":"x/y"}])"));
  EXPECT_EQ(QDir(folder_).entryList(QDir::Files), QStringList{QStringLiteral("list.json")});
}

TEST_F(JSONFileStoreTest, SaveReplacesTheWholeFile) {
  writeStoreFile(QStringLiteral("list.json"), QByteArray(4096, ' ') + "[1,2,3]");
  JSONFileStore::save(JsonValue::array(), QStringLiteral("list.json"));
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray("[]"));
}

TEST_F(JSONFileStoreTest, MissingAndCorruptFilesReadAsNothing) {
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("absent.json")));
  writeStoreFile(QStringLiteral("truncated.json"), R"([{"a":1,"b":)");
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("truncated.json")));
  writeStoreFile(QStringLiteral("binary.json"), QByteArray("\x89PNG\r\n\x1a\n\0\0", 10));
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("binary.json")));
  writeStoreFile(QStringLiteral("empty.json"), "");
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("empty.json")));
}

TEST_F(JSONFileStoreTest, LoadGivesBackWhatSaveWrote) {
  JSONFileStore::save(sampleList(), QStringLiteral("list.json"));
  const auto document = JSONFileStore::load(QStringLiteral("list.json"));
  ASSERT_TRUE(document);
  ASSERT_TRUE(document->isArray());
  EXPECT_EQ(document->array().at(0)[QStringLiteral("b")].toString(), QStringLiteral("x/y"));
}

TEST_F(JSONFileStoreTest, FailedSaveIntoAReadOnlyFolderKeepsTheOldFile) {
  writeStoreFile(QStringLiteral("list.json"), "[\"old\"]");
  {
    ReadOnlyFolder readOnly(folder_);
    if (!readOnly.ok()) GTEST_SKIP() << "cannot make a folder read-only here";
    JSONFileStore::save(sampleList(), QStringLiteral("list.json"));
  }
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray("[\"old\"]"));
  EXPECT_EQ(QDir(folder_).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("list.json")});
}

TEST_F(JSONFileStoreTest, SaveIsSilentWhenTheFolderCannotExist) {
  // A plain file where the folder should be: neither mkpath nor the write can succeed.
  ASSERT_TRUE(QDir().mkpath(temp_.path() + QStringLiteral("/support")));
  QFile blocker(folder_);
  ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
  blocker.write("not a folder");
  blocker.close();
  JSONFileStore::save(sampleList(), QStringLiteral("list.json"));
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("list.json")));
  EXPECT_EQ(QDir(temp_.path() + QStringLiteral("/support")).entryList(QDir::Files | QDir::Hidden),
            QStringList{QStringLiteral("Quillane")});
}

TEST_F(JSONFileStoreTest, FolderDefaultsToTheGenericDataLocation) {
  JSONFileStore::setFolderForTesting({});
  EXPECT_EQ(JSONFileStore::folder(),
            QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Quillane"));
  EXPECT_EQ(JSONFileStore::path(QStringLiteral("x.json")), JSONFileStore::folder() + QStringLiteral("/x.json"));
}

}  // namespace
}  // namespace quillane::testing
