#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <QJsonDocument>

#include "tests/records/records_test_support.h"

namespace quillane::testing {
namespace {

// Makes a folder refuse new entries for its lifetime: by its mode, or, for a user that
// ignores modes (root), by the file system's immutable flag. ok() is false when neither works.
class ReadOnlyFolder {
 public:
  explicit ReadOnlyFolder(const QString& path) : path_(path) {
    QFile::setPermissions(path_, QFile::ReadOwner | QFile::ExeOwner);
    if (canCreateIn()) {
      QFile::setPermissions(path_, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
      immutable_ = setImmutable(true);
    }
    ok_ = !canCreateIn();
  }
  ~ReadOnlyFolder() {
    if (immutable_) setImmutable(false);
    QFile::setPermissions(path_, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
  }
  bool ok() const { return ok_; }

 private:
  bool canCreateIn() const {
    QFile probe(path_ + QStringLiteral("/.probe"));
    return probe.open(QIODevice::WriteOnly) && probe.remove();
  }
  bool setImmutable(bool on) const {
    const int fd = ::open(QFile::encodeName(path_).constData(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return false;
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    ::close(fd);
    return done;
  }
  QString path_;
  bool ok_ = false;
  bool immutable_ = false;
};

const JsonValue sample = JsonValue(JsonValue::Array{JsonValue::object().set("a", 1).set("b", "x/y")});

using JSONFileStoreTest = StoreFolderTest;

TEST_F(JSONFileStoreTest, FirstSaveCreatesTheFolderAndWritesCompactJSON) {
  ASSERT_FALSE(QDir(folder_).exists());
  JSONFileStore::save(sample, QStringLiteral("list.json"));
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray(R"([{"a":1,"b":"x/y"}])"));
  EXPECT_EQ(QDir(folder_).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("list.json")});
  EXPECT_TRUE(JSONFileStore::load(QStringLiteral("list.json"))->isArray());
}

TEST_F(JSONFileStoreTest, MissingAndCorruptFilesReadAsNothing) {
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("absent.json")));
  for (const QByteArray& bytes :
       {QByteArray(R"([{"a":1,"b":)"), QByteArray("\x89PNG\r\n\x1a\n\0", 9), QByteArray()}) {
    writeStoreFile(QStringLiteral("bad.json"), bytes);
    EXPECT_FALSE(JSONFileStore::load(QStringLiteral("bad.json"))) << bytes.toHex().toStdString();
  }
}

TEST_F(JSONFileStoreTest, FailedSaveKeepsTheOldFileAndLeavesNoTemporaryFile) {
  writeStoreFile(QStringLiteral("list.json"), "[\"old\"]");
  {
    ReadOnlyFolder readOnly(folder_);
    if (!readOnly.ok()) GTEST_SKIP() << "cannot make a folder read-only here";
    JSONFileStore::save(sample, QStringLiteral("list.json"));
  }
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray("[\"old\"]"));
  EXPECT_EQ(QDir(folder_).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("list.json")});
}

TEST_F(JSONFileStoreTest, SaveIsSilentWhenTheFolderCannotBeMade) {
  ASSERT_TRUE(QDir().mkpath(temp_.path() + QStringLiteral("/support")));
  QFile blocker(folder_);  // a plain file where the folder should be
  ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
  blocker.close();
  JSONFileStore::save(sample, QStringLiteral("list.json"));
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("list.json")));
}

}  // namespace
}  // namespace quillane::testing
