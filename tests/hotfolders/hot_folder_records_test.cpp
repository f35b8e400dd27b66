// hotFolders.json and hotFolderProcessed.json: what survives a round trip, what a damaged
// file reads as, and which outputs stay known. The dates' full precision, each folder's own
// memory and updates from several threads are checked through the watchers, whose files would
// otherwise be taken again or go missing from the memory.

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

  // An entry copied by hand repeats its id: the copy gets one of its own, the same at each load.
  writeStoreFile("hotFolders.json",
                 "[" + requiredOnly.mid(1, requiredOnly.size() - 2) + "," + requiredOnly.mid(1));
  const HotFolderList copied = HotFolders::load();
  ASSERT_EQ(copied.size(), 2u);
  EXPECT_EQ(copied[0].idText(), "6F9619FF-8B86-D011-B42D-00C04FC964FF");
  EXPECT_NE(copied[1].id, copied[0].id);
  EXPECT_EQ(HotFolders::load(), copied);
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

}  // namespace
}  // namespace quillane::testing
