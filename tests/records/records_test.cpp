// The records in the user's data folder: the store every list is saved through, export profiles
// (stored form, upsert, the resolver that fills a command's settings) and the export history.
#include <sys/resource.h>
#include <sys/stat.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <csignal>
#include <set>

#include "engine/Json.h"
#include "records/ExportProfile.h"
#include "records/ExportProfileResolver.h"
#include "records/ExportRecord.h"
#include "records/JsonForms.h"
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
    for (char32_t c : text.toUcs4())
      bytes += c >= 0xF780 && c <= 0xF7FF ? std::string(1, char(c - 0xF700))
                                          : QString::fromUcs4(&c, 1).toStdString();
    return bytes;
  };
  // names[2] is valid UTF-8, names[3] U+F7A9 itself.
  const std::string names[] = {
      "caf\xe9.jpg", "caf\xe8.jpg", "\xc3\xa9t\xc3\xa9.png", "\xef\x9e\xa9", "\xc0\x80\xed\xa0\x80\xe2\x82",
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
}

TEST_F(JSONFileStoreTest, MissingAndCorruptFilesReadAsNothing) {
  EXPECT_FALSE(JSONFileStore::load(QStringLiteral("absent.json")));
  for (const QByteArray& bytes :
       {QByteArray(R"([{"a":1,"b":)"), QByteArray("\x89PNG\r\n\x1a\n\0", 9), QByteArray()}) {
    writeStoreFile(QStringLiteral("bad.json"), bytes);
    EXPECT_FALSE(JSONFileStore::load(QStringLiteral("bad.json"))) << bytes.toHex().toStdString();
  }
  // A pipe in a file's place is not waited on, nor a device read.
  const auto at = [](const char* name) { return QFile::encodeName(JSONFileStore::path(name)); };
  ASSERT_EQ(::mkfifo(at("pipe.json"), 0600), 0);
  ASSERT_EQ(::symlink("/dev/zero", at("zero.json")), 0);
  for (const char* name : {"pipe.json", "zero.json"}) EXPECT_FALSE(JSONFileStore::load(name)) << name;
}

// A save is dropped without a word where its folder cannot be made, and a save that cannot be
// written whole (here past a file size limit of 8 bytes) keeps the old file and no temporary one.
// Either way the run reads what it saved until a save is written, and its end tries again.
TEST_F(JSONFileStoreTest, FailedSavesAreSilentAndKeepTheOldFileWhole) {
  ASSERT_TRUE(QDir().mkpath(temp_.path() + QStringLiteral("/support")));
  ASSERT_TRUE(QFile(folder_).open(QIODevice::WriteOnly));  // a plain file where the folder should be
  JSONFileStore::save(sample, QStringLiteral("list.json"));
  const auto loaded = [](const char* name) {
    return JSONFileStore::load(name).value_or(QJsonDocument()).toJson(QJsonDocument::Compact);
  };
  EXPECT_EQ(loaded("list.json"), QByteArray(R"([{"a":1,"b":"x/y"}])"));

  ASSERT_TRUE(QFile::remove(folder_));
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
  EXPECT_EQ(loaded("list.json"), QByteArray(R"([{"a":1,"b":"x/y"}])"));
  JSONFileStore::saveUnwritten();  // as the process ends, with room again
  EXPECT_EQ(readStoreFile(QStringLiteral("list.json")), QByteArray(R"([{"a":1,"b":"x/y"}])"));
  writeStoreFile(QStringLiteral("list.json"), "[\"theirs\"]");
  EXPECT_EQ(loaded("list.json"), QByteArray("[\"theirs\"]")) << "written: the file is read again";
}

const QUuid idA = QUuid::fromString(QStringLiteral("0b8f3a6e-1c2d-4e5f-8a9b-0c1d2e3f4a5b"));
const QUuid idB = QUuid::fromString(QStringLiteral("1c9e4b7f-2d3e-4f60-9bac-1d2e3f405b6c"));
const QUuid idC = QUuid::fromString(QStringLiteral("2daf5c80-3e4f-4071-8cbd-2e3f40516c7d"));

ExportProfile profile(QUuid id, QString name, ImageFormat format = ImageFormat::jpeg, double quality = 75,
                      bool isDefault = false) {
  return ExportProfile{id, std::move(name), format, quality, std::nullopt, isDefault, {}};
}

std::optional<ExportProfileList> decode(const std::string& json) {
  return ExportProfiles::listFromJson(QJsonDocument::fromJson(QByteArray::fromStdString(json)));
}

TEST(ExportProfileJSON, WritesTheStoredFormsAndReadsThemBackWithOptionalFieldsMissingOrNull) {
  ExportProfile p = profile(idA, QStringLiteral("Web é"), ImageFormat::webp, 62.5, true);
  p.destinationFolder = QStringLiteral("/home/u/My Pictures");
  p.sizing = {.maxWidth = 1600, .maxBytes = 5000000000, .skipLarger = true};
  ExportProfile b = profile(idB, "B");
  b.destinationFolder = QStringLiteral("//srv/out");  // written so by hand: "/srv/out", of no machine "srv"
  const std::string json = ExportProfiles::toJson(ExportProfileList{p, b}).write();
  EXPECT_EQ(json,
            R"([{"id":"0B8F3A6E-1C2D-4E5F-8A9B-0C1D2E3F4A5B","name":"Web é","format":"webp","quality":62.5,)"
            R"("destinationFolder":"file:///home/u/My%20Pictures","isDefault":true,"maxWidth":1600,)"
            R"("maxBytes":5000000000,"skipLarger":true},)"
            R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"jpeg","quality":75,)"
            R"("destinationFolder":"file:////srv/out","isDefault":false}])");
  EXPECT_EQ(decode(json), (ExportProfileList{p, b}));
  // Optional fields may be missing or null.
  EXPECT_EQ(
      decode(R"([{"id":"0b8f3a6e-1c2d-4e5f-8a9b-0c1d2e3f4a5b","name":"A","format":"png","quality":90},
    {"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"jxl","quality":40,
     "destinationFolder":null,"isDefault":null,"unknownKey":[1],"maxWidth":0,"maxHeight":-5,"maxBytes":null}])"),
      (ExportProfileList{profile(idA, "A", ImageFormat::png, 90), profile(idB, "B", ImageFormat::jxl, 40)}));
}

TEST(ExportProfileJSON, OneBadEntryFailsTheWholeFile) {
  const std::string good =
      R"({"id":"0B8F3A6E-1C2D-4E5F-8A9B-0C1D2E3F4A5B","name":"A","format":"png","quality":90)";
  const std::string bad[] = {
      R"({"name":"B","format":"png","quality":90})",
      R"({"id":"{1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C}","name":"B","format":"png","quality":9})",
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"jpg","quality":90})",
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"png","quality":"9"})",
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"png"})",
      good + R"(,"isDefault":1})",
      good + R"(,"destinationFolder":"https://example.invalid/x"})",
      good + R"(,"destinationFolder":"file:Pictures"})",
      good + R"(,"maxWidth":"1600"})",
      good + R"(,"maxBytes":1.5})",
      good + R"(,"skipLarger":1})",
      "7",
  };
  const auto afterGood = [&good](const std::string& entry) { return "[" + good + "}," + entry + "]"; };
  for (const std::string& entry : bad) EXPECT_FALSE(decode(afterGood(entry))) << entry;
  EXPECT_FALSE(decode(good + "}")) << "an object, not a list";
  EXPECT_TRUE(decode("[" + good + "}]"));
}

TEST(ExportProfileList, UpsertReplacesByIdThenByNameIgnoringCaseElseAppendsAndKeepsOneDefault) {
  ExportProfileList list{profile(idA, "web"), profile(idB, "Print")};
  ExportProfiles::upsert(list, profile(idC, "Mail"));
  const QUuid fresh = QUuid::createUuid();
  ExportProfiles::upsert(list, profile(fresh, "  Web\n", ImageFormat::png));
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0], profile(fresh, "  Web\n", ImageFormat::png)) << "takes over in place, name as given";
  // Renaming Print onto Mail removes Mail and keeps Print's id.
  ExportProfiles::upsert(list, profile(idB, "MAIL "));
  EXPECT_EQ(list, (ExportProfileList{profile(fresh, "  Web\n", ImageFormat::png), profile(idB, "MAIL ")}));

  // Only one default, and deleting it leaves none.
  list = {profile(idA, "A", ImageFormat::jpeg, 75, true), profile(idB, "B")};
  ExportProfiles::upsert(list, profile(idB, "B", ImageFormat::jpeg, 75, true));
  EXPECT_FALSE(list[0].isDefault);
  ExportProfiles::upsert(list, profile(idC, "C"));
  EXPECT_TRUE(list[1].isDefault);
  ExportProfiles::remove(list, profile(idB, "another name"));
  EXPECT_EQ(list.size(), 2u);
  EXPECT_EQ(ExportProfiles::findDefault(list), nullptr);
}

class ExportProfileResolverTest : public StoreFolderTest {
 protected:
  void SetUp() override {
    StoreFolderTest::SetUp();
    ExportProfile web = profile(idA, "Web", ImageFormat::webp, 80);
    web.destinationFolder = QStringLiteral("/srv/web");
    ExportProfiles::save({web, profile(idB, "Archive", ImageFormat::jxl, 95)});
  }
  static void expect(const ExportProfileResolver::Resolved& r, ImageFormat format, double quality,
                     const std::optional<QString>& folder) {
    EXPECT_EQ(std::tuple(r.format, r.quality, r.outputDirectory), std::tuple(format, quality, folder));
  }
};
using ExportProfileResolver::resolve;
constexpr auto none = std::nullopt;

TEST_F(ExportProfileResolverTest, ExplicitValuesWinOneByOneAndTheProfileFillsTheRest) {
  expect(resolve("wEB", none, none, none), ImageFormat::webp, 80, "/srv/web");
  expect(resolve("Web", 40.0, ImageFormat::png, "/out"), ImageFormat::png, 40, "/out");
  expect(resolve(none, none, ImageFormat::png, none), ImageFormat::png, 75, none);
  ExportProfileList list = ExportProfiles::load();
  list[1].isDefault = true;
  ExportProfiles::save(list);
  expect(resolve(none, 10.0, none, none), ImageFormat::jxl, 10, none);

  // Given size options win over the profile's one by one.
  const CompressionOptions profile{.maxWidth = 1600, .maxHeight = 1200, .maxBytes = 500000};
  EXPECT_EQ(ExportProfileResolver::merged({}, profile), profile);
  EXPECT_EQ(ExportProfileResolver::merged({.maxWidth = 800, .maxHeight = 300, .skipLarger = true}, profile),
            (CompressionOptions{.maxWidth = 800, .maxHeight = 300, .maxBytes = 500000, .skipLarger = true}));
  EXPECT_TRUE(ExportProfileResolver::merged({}, {.skipLarger = true}).skipLarger);
  list = ExportProfiles::load();
  list[0].sizing = profile;
  ExportProfiles::save(list);
  EXPECT_EQ(resolve("web", 1.0, none, none).sizing, profile);
}

TEST_F(ExportProfileResolverTest, UnknownNameThrowsAndADamagedFileMeansNoProfiles) {
  try {
    resolve(" Web", 50.0, ImageFormat::png, none);
    ADD_FAILURE() << "names are not trimmed";
  } catch (const ProfileNotFoundError& e) {
    EXPECT_EQ(e.description(), "Profil introuvable :  Web");
  }
  writeStoreFile(QString::fromLatin1(ExportProfiles::fileName), "{oops");
  expect(resolve(none, none, none, none), ImageFormat::jpeg, 75, none);
  EXPECT_THROW(resolve("Web", none, none, none), ProfileNotFoundError);
}

double utc(const char* iso) {
  return JsonForms::secondsSince2001(QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs));
}

ExportRecord record(const char* id, const char* destination, const char* iso) {
  const QUrl url = QUrl::fromLocalFile(QString::fromUtf8(destination));
  return {QUuid::fromString(QString::fromLatin1(id)), "a.png", url, ImageFormat::heic, 1234, utc(iso), {}};
}

TEST(ExportRecordJSON, WritesTheStoredFormsWithDatesFrom2001) {
  ExportRecord r =
      record("{6f9619ff-8b86-d011-b42d-00c04fc964ff}", "/tmp/out dir/Été.heic", "2001-01-01T00:00:01.500Z");
  r.sizeBytes = qint64(5) << 40;
  EXPECT_EQ(ExportHistory::toJson(r).write(),
            R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","sourceDisplayName":"a.png",)"
            R"("destinationURL":"file:///tmp/out%20dir/%C3%89t%C3%A9.heic","format":"heic",)"
            R"("sizeBytes":5497558138880,"date":1.5})");
  // A new record is dated from the same 2001 origin.
  EXPECT_NEAR(ExportHistory::now(), JsonForms::secondsSince2001(QDateTime::currentDateTimeUtc()), 60);
}

TEST_F(StoreFolderTest, HistoryRoundTripsAndEveryFieldIsRequired) {
  const ExportRecordList list{
      record("11111111-2222-3333-4444-555555555555", "/x/a b#c.jpg", "2030-05-06T07:08:09.123Z")};
  ExportHistory::save(list);
  EXPECT_EQ(ExportHistory::load(), list);

  const QJsonObject stored =
      QJsonDocument::fromJson(readStoreFile("exportHistory.json")).array()[0].toObject();
  for (const QString& key : stored.keys()) {
    QJsonObject object = stored;
    object.remove(key);
    EXPECT_FALSE(ExportHistory::listFromJson(QJsonDocument(QJsonArray{object}))) << key.toStdString();
  }
  QJsonObject fractional = stored;
  fractional[QStringLiteral("sizeBytes")] = 12.5;
  EXPECT_FALSE(ExportHistory::listFromJson(QJsonDocument(QJsonArray{fractional})));
  // A file of the working folder, or of another machine, is no file an export wrote.
  for (const char* elsewhere : {"file:a.jpg", "file://server/x/a.jpg"}) {
    QJsonObject object = stored;
    object[QStringLiteral("destinationURL")] = elsewhere;
    EXPECT_FALSE(ExportHistory::listFromJson(QJsonDocument(QJsonArray{object}))) << elsewhere;
  }
  writeStoreFile(QString::fromLatin1(ExportHistory::fileName), "[null]");
  EXPECT_TRUE(ExportHistory::load().empty());
}

TEST_F(StoreFolderTest, ALaterExportToTheSameFileSupersedesAndTiesGoByOrderOfExport) {
  const auto older = record("11111111-0000-0000-0000-000000000000", "/o/a (1).jpg", "2024-01-01T10:00:00Z");
  auto newer = record("22222222-0000-0000-0000-000000000000", "/o/a (1).jpg", "2024-01-01T10:00:00.001Z");
  const auto sameTime =
      record("33333333-0000-0000-0000-000000000000", "/o/a (1).jpg", "2024-01-01T10:00:00Z");
  const auto elsewhere = record("44444444-0000-0000-0000-000000000000", "/o/b.jpg", "2025-01-01T10:00:00Z");
  auto sameIDLater = older;
  sameIDLater.date = utc("2030-01-01T00:00:00Z");
  using IDs = QSet<QUuid>;
  EXPECT_EQ(ExportHistory::supersededIDs({newer, older}), IDs{older.id});
  // Two exports within one millisecond: the list, newest first, tells which came last.
  EXPECT_EQ(ExportHistory::supersededIDs({sameTime, older}), IDs{older.id});
  EXPECT_EQ(ExportHistory::supersededIDs({elsewhere, older}), IDs{});
  EXPECT_EQ(ExportHistory::supersededIDs({sameIDLater, older}), IDs{});
  // The same file, as the batch's export names it ("(" escaped) and as a file dialog does.
  newer.destinationURL = QUrl::fromEncoded("file:///o/a%20%281%29.jpg");
  EXPECT_EQ(ExportHistory::supersededIDs({newer, older}), IDs{older.id});

  // Dates are seconds since 2001 at a double's precision: two exports 300 µs apart, listed in
  // the wrong order, are told apart by date alone, after a save and load too.
  ExportRecordList list{older, newer};
  list[0].date = 725882400.0001;
  list[1].date = 725882400.0004;
  ExportHistory::save(list);
  ASSERT_EQ(ExportHistory::load(), list);
  EXPECT_EQ(ExportHistory::supersededIDs(list), IDs{list[0].id});
}

}  // namespace
}  // namespace quillane::testing
