#include <sys/resource.h>
#include <sys/stat.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <csignal>
#include <set>

#include "engine/Json.h"
#include "tests/records/records_test_support.h"

namespace quillane::testing {
namespace {

const JsonValue sample = JsonValue(JsonValue::Array{JsonValue::object().set("a", 1).set("b", "x/y")});

using JSONFileStoreTest = StoreFolderTest;

unsigned modeOf(const QString& path) {
  struct stat st {};
  ::stat(QFile::encodeName(path).constData(), &st);
  return unsigned(st.st_mode & 0777);
}

// The state files list the user's paths: only the user reads them, whatever the umask, and
// also when an older, more open file is replaced.
TEST_F(JSONFileStoreTest, FirstSaveCreatesTheFolderAndWritesCompactJSONOnlyItsOwnerReads) {
  ASSERT_FALSE(QDir(folder_).exists());
  JSONFileStore::save(sample, QStringLiteral("list.json"));
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray(R"([{"a":1,"b":"x/y"}])"));
  EXPECT_EQ(QDir(folder_).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("list.json")});
  EXPECT_TRUE(JSONFileStore::load(QStringLiteral("list.json"))->isArray());
  EXPECT_EQ(modeOf(folder_ + "/list.json"), 0600u);
  writeStoreFile(QStringLiteral("old.json"), "[]");
  ::chmod(QFile::encodeName(folder_ + "/old.json").constData(), 0644);
  JSONFileStore::save(sample, QStringLiteral("old.json"));
  EXPECT_EQ(modeOf(folder_ + "/old.json"), 0600u);
}

// Bytes of a name that are not UTF-8 become U+F780..U+F7FF, and a name that holds such a
// character has its bytes escaped too: strict parsers read it, and the bytes come back.
TEST(JsonWriter, NamesThatAreNotUTF8GiveValidJSONThatGivesTheirBytesBack) {
  const auto decode = [](const QString& text) {
    std::string bytes;
    for (char32_t c : text.toUcs4()) {
      if (c >= 0xF780 && c <= 0xF7FF)
        bytes += char(c - 0xF700);
      else
        bytes += QString::fromUcs4(&c, 1).toStdString();
    }
    return bytes;
  };
  const std::string names[] = {"caf\xe9.jpg",
                               "caf\xe8.jpg",
                               "\xc3\xa9t\xc3\xa9.png" /* valid: kept */,
                               "\xef\x9e\xa9",
                               /* U+F7A9 */ "\xc0\x80\xed\xa0\x80\xe2\x82",
                               "\xff/\x01"};
  std::set<std::string> written;
  for (const std::string& name : names) {
    const std::string json = JsonValue::object().set("path", name).writeSorted();
    written.insert(json);
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << json;
    EXPECT_EQ(decode(document.object()["path"].toString()), name) << json;
  }
  EXPECT_EQ(written.size(), std::size(names)) << "told apart";
  EXPECT_EQ(JsonValue::object().set("p", names[2]).writeSorted(), "{\"p\":\"" + names[2] + "\"}");
}

TEST_F(JSONFileStoreTest, MissingAndCorruptFilesReadAsNothing) {
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("absent.json")));
  for (const QByteArray& bytes :
       {QByteArray(R"([{"a":1,"b":)"), QByteArray("\x89PNG\r\n\x1a\n\0", 9), QByteArray()}) {
    writeStoreFile(QStringLiteral("bad.json"), bytes);
    EXPECT_FALSE(JSONFileStore::load(QStringLiteral("bad.json"))) << bytes.toHex().toStdString();
  }
}

// A save is dropped without a word where its folder cannot be made, and a save that cannot be
// written whole (here past a file size limit of 8 bytes) keeps the old file and no temporary one.
TEST_F(JSONFileStoreTest, FailedSavesAreSilentAndKeepTheOldFileWhole) {
  ASSERT_TRUE(QDir().mkpath(temp_.path() + QStringLiteral("/support")));
  QFile blocker(folder_);  // a plain file where the folder should be
  ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
  blocker.close();
  JSONFileStore::save(sample, QStringLiteral("list.json"));
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("list.json")));

  ASSERT_TRUE(blocker.remove());
  writeStoreFile(QStringLiteral("list.json"), "[\"old\"]");
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small{8, limit.rlim_max};
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  JSONFileStore::save(sample, QStringLiteral("list.json"));
  ::setrlimit(RLIMIT_FSIZE, &limit);
  ::signal(SIGXFSZ, handler);
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray("[\"old\"]"));
  EXPECT_EQ(QDir(folder_).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("list.json")});
}

}  // namespace
}  // namespace quillane::testing
