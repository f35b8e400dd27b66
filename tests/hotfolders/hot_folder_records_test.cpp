// hotFolders.json and hotFolderProcessed.json: what survives a round trip, what a damaged
// file reads as, and that folders updated from several threads keep each other's memory.

#include <thread>

#include "hotfolders/HotFolder.h"
#include "hotfolders/HotFolderProcessedStore.h"
#include "tests/records/records_test_support.h"

namespace quillane::testing {
namespace {

using HotFolderRecordsTest = StoreFolderTest;

const QByteArray requiredOnly =
    R"([{"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","name":"Shots","sourceFolder":"file:///tmp/in",)"
    R"("destinationFolder":"file:///tmp/out%20dir","isEnabled":true}])";

TEST_F(HotFolderRecordsTest, AbsentOrNullOptionalsReadAsNoSettingsAndAllFieldsRoundTrip) {
  QByteArray withNull = requiredOnly;
  withNull.replace("\"isEnabled\"", "\"profileName\":null,\"format\":null,\"quality\":null,\"isEnabled\"");
  for (const QByteArray& bytes : {requiredOnly, withNull}) {
    writeStoreFile(QStringLiteral("hotFolders.json"), bytes);
    const HotFolderList folders = HotFolders::load();
    ASSERT_EQ(folders.size(), 1u) << bytes.toStdString();
    EXPECT_EQ(folders[0].destinationFolder, QStringLiteral("/tmp/out dir"));
    EXPECT_FALSE(folders[0].profileName || folders[0].format || folders[0].quality);
    HotFolders::save(folders);
    EXPECT_EQ(readStoreFile(QStringLiteral("hotFolders.json")), requiredOnly);
  }
  HotFolder folder{QUuid::createUuid(), "Web", "/a",  "/b", QStringLiteral("Web"),
                   ImageFormat::webp,   62.5,  false, {}};
  folder.sizing = {.maxHeight = 900, .maxBytes = 500000, .skipLarger = true};
  HotFolders::save({folder});
  EXPECT_EQ(HotFolders::load(), HotFolderList{folder});
}

// A list with one entry that lacks a required key reads as no folders; a damaged memory reads
// as nothing, and the next update keeps only its own folder.
TEST_F(HotFolderRecordsTest, DamagedFilesReadEmpty) {
  for (const char* key :
       {"\"id\"", "\"name\"", "\"sourceFolder\"", "\"destinationFolder\"", "\"isEnabled\""}) {
    QByteArray bytes = requiredOnly;
    bytes.replace(key, "\"other\"");
    writeStoreFile(QStringLiteral("hotFolders.json"),
                   "[" + requiredOnly.mid(1, requiredOnly.size() - 2) + "," + bytes.mid(1));
    EXPECT_TRUE(HotFolders::load().empty()) << key;
  }
  for (const QByteArray& bytes : {QByteArray(R"({"A":{"a.png":{"sizeBytes":1}}})"), QByteArray(R"([1])"),
                                  QByteArray(R"({"A":{"a.png":{"sizeBytes":1,"modif)"),
                                  QByteArray(R"({"A":{},"formerOutputs":[{"outputDevice":1}]})")}) {
    writeStoreFile("hotFolderProcessed.json", bytes);
    EXPECT_TRUE(HotFolderProcessedStore::folderState("A").isEmpty()) << bytes.toStdString();
  }
  HotFolderProcessedStore::update("B", [](HotFolderProcessedMap& files) { files.insert("b.png", {3, 4}); });
  EXPECT_EQ(readStoreFile("hotFolderProcessed.json"),
            QByteArray(R"({"B":{"b.png":{"sizeBytes":3,"modificationDate":4}}})"));
}

// A modification date with nanoseconds, as stat gives it, compares equal after a round trip:
// anything coarser than the double itself would make every file look changed at the next
// scan. Folders keep their own maps, and an emptied map stays.
TEST_F(HotFolderRecordsTest, ProcessedMapsKeepFullPrecisionAndStayApartPerFolder) {
  const HotFolderProcessedEntry entry{123456789012, 786543210.123456789};
  HotFolderProcessedStore::update("A", [&](HotFolderProcessedMap& files) { files.insert("x.png", entry); });
  EXPECT_EQ(HotFolderProcessedStore::folderState("A").value("x.png"), entry);
  EXPECT_NE(HotFolderProcessedStore::folderState("A").value("x.png").modificationDate, 786543210.1234567);
  HotFolderProcessedStore::update("B", [](HotFolderProcessedMap& files) { files.insert("b.png", {3, 4}); });
  HotFolderProcessedStore::pruneProcessedState("A", {"x.png"});
  EXPECT_EQ(readStoreFile("hotFolderProcessed.json"),
            QByteArray(R"({"A":{},"B":{"b.png":{"sizeBytes":3,"modificationDate":4}}})"));
  HotFolderProcessedStore::remove("B");
  EXPECT_EQ(readStoreFile("hotFolderProcessed.json"), QByteArray(R"({"A":{}})"));
}

// An output stays known after its entry goes, whether pruned or with its whole folder, up to
// the bound, beyond which the oldest goes first.
TEST_F(HotFolderRecordsTest, OutputsOfForgottenEntriesStayKnownUpToTheBound) {
  const auto identity = [](uint64_t inode) { return HotFolderProcessedEntry::Identity{7, inode, 3, 4.5}; };
  const auto withOutput = [&](uint64_t inode) {
    return HotFolderProcessedEntry{1, 2, HotFolderProcessedEntry::Output{"o.jpg", identity(inode)}};
  };
  HotFolderProcessedStore::update(
      "A", [&](HotFolderProcessedMap& files) { files.insert("x.png", withOutput(1)); });
  HotFolderProcessedStore::pruneProcessedState("A", {"x.png"});
  EXPECT_TRUE(HotFolderProcessedStore::folderState("A").isEmpty());
  EXPECT_EQ(HotFolderProcessedStore::outputs(), std::set{identity(1)});

  const uint64_t last = HotFolderProcessedStore::formerOutputsKept + 1;
  HotFolderProcessedStore::update("B", [&](HotFolderProcessedMap& files) {
    for (uint64_t inode = 2; inode <= last; ++inode) files.insert(QString::number(inode), withOutput(inode));
  });
  HotFolderProcessedStore::remove("B");
  const std::set<HotFolderProcessedEntry::Identity> kept = HotFolderProcessedStore::outputs();
  EXPECT_EQ(kept.size(), HotFolderProcessedStore::formerOutputsKept);
  EXPECT_FALSE(kept.count(identity(1)));
  EXPECT_TRUE(kept.count(identity(2)) && kept.count(identity(last)));
}

TEST_F(HotFolderRecordsTest, ConcurrentUpdatesOfTwoFoldersLoseNothing) {
  auto fill = [](const QString& folder) {
    for (int i = 0; i < 20; ++i) {
      HotFolderProcessedStore::update(folder, [&](HotFolderProcessedMap& files) {
        files.insert(QString::number(i), {i, double(i)});
      });
    }
  };
  std::thread a(fill, QStringLiteral("A")), b(fill, QStringLiteral("B"));
  a.join();
  b.join();
  EXPECT_EQ(HotFolderProcessedStore::folderState("A").size(), 20);
  EXPECT_EQ(HotFolderProcessedStore::folderState("B").size(), 20);
}

}  // namespace
}  // namespace quillane::testing
