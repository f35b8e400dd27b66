// The two lists the user's exports leave: export profiles (their stored form, upsert and the
// resolver that fills a command's settings from them) and the export history (its stored form
// and which record a later export supersedes).
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "records/ExportProfile.h"
#include "records/ExportProfileResolver.h"
#include "records/ExportRecord.h"
#include "records/JsonForms.h"
#include "tests/records/records_test_support.h"

namespace quillane::testing {
namespace {

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
  const std::string json = ExportProfiles::toJson(ExportProfileList{p, profile(idB, "B")}).write();
  EXPECT_EQ(
      json,
      R"([{"id":"0B8F3A6E-1C2D-4E5F-8A9B-0C1D2E3F4A5B","name":"Web é","format":"webp","quality":62.5,)"
      R"("destinationFolder":"file:///home/u/My%20Pictures","isDefault":true,"maxWidth":1600,)"
      R"("maxBytes":5000000000,"skipLarger":true},)"
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"jpeg","quality":75,"isDefault":false}])");
  EXPECT_EQ(decode(json), (ExportProfileList{p, profile(idB, "B")}));
  // Optional fields may be missing or null.
  const auto list =
      decode(R"([{"id":"0b8f3a6e-1c2d-4e5f-8a9b-0c1d2e3f4a5b","name":"A","format":"png","quality":90},
    {"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"jxl","quality":40,
     "destinationFolder":null,"isDefault":null,"unknownKey":[1],"maxWidth":0,"maxHeight":-5,"maxBytes":null}])");
  EXPECT_EQ(list, (ExportProfileList{profile(idA, "A", ImageFormat::png, 90),
                                     profile(idB, "B", ImageFormat::jxl, 40)}));
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
  ASSERT_EQ(list.size(), 3u);
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
  using R = ExportProfileResolver::Resolved;
  static void expect(const R& r, ImageFormat format, double quality, const std::optional<QString>& folder) {
    EXPECT_EQ(r.format, format);
    EXPECT_EQ(r.quality, quality);
    EXPECT_EQ(r.outputDirectory, folder);
  }
};

TEST_F(ExportProfileResolverTest, ExplicitValuesWinOneByOneAndTheProfileFillsTheRest) {
  expect(ExportProfileResolver::resolve(QStringLiteral("wEB"), std::nullopt, std::nullopt, std::nullopt),
         ImageFormat::webp, 80, QStringLiteral("/srv/web"));
  expect(ExportProfileResolver::resolve(QStringLiteral("Web"), 40.0, std::nullopt, QStringLiteral("/out")),
         ImageFormat::webp, 40, QStringLiteral("/out"));
  expect(ExportProfileResolver::resolve(std::nullopt, std::nullopt, ImageFormat::png, std::nullopt),
         ImageFormat::png, 75, std::nullopt);
  ExportProfileList list = ExportProfiles::load();
  list[1].isDefault = true;
  ExportProfiles::save(list);
  expect(ExportProfileResolver::resolve(std::nullopt, 10.0, std::nullopt, std::nullopt), ImageFormat::jxl, 10,
         std::nullopt);

  // Given size options win over the profile's one by one.
  const CompressionOptions profile{.maxWidth = 1600, .maxHeight = 1200, .maxBytes = 500000};
  EXPECT_EQ(ExportProfileResolver::merged({}, profile), profile);
  EXPECT_EQ(ExportProfileResolver::merged({.maxHeight = 300, .skipLarger = true}, profile),
            (CompressionOptions{.maxWidth = 1600, .maxHeight = 300, .maxBytes = 500000, .skipLarger = true}));
  EXPECT_TRUE(ExportProfileResolver::merged({}, {.skipLarger = true}).skipLarger);
  list = ExportProfiles::load();
  list[0].sizing = profile;
  ExportProfiles::save(list);
  EXPECT_EQ(ExportProfileResolver::resolve(QStringLiteral("web"), 1.0, std::nullopt, std::nullopt).sizing,
            profile);
}

TEST_F(ExportProfileResolverTest, UnknownNameThrowsAndADamagedFileMeansNoProfiles) {
  try {
    ExportProfileResolver::resolve(QStringLiteral(" Web"), 50.0, ImageFormat::png, std::nullopt);
    ADD_FAILURE() << "names are not trimmed";
  } catch (const ProfileNotFoundError& e) {
    EXPECT_EQ(e.description(), "Profil introuvable :  Web");
  }
  writeStoreFile(QString::fromLatin1(ExportProfiles::fileName), "{oops");
  expect(ExportProfileResolver::resolve(std::nullopt, std::nullopt, std::nullopt, std::nullopt),
         ImageFormat::jpeg, 75, std::nullopt);
  EXPECT_THROW(
      ExportProfileResolver::resolve(QStringLiteral("Web"), std::nullopt, std::nullopt, std::nullopt),
      ProfileNotFoundError);
}

double utc(const char* iso) {
  return JsonForms::secondsSince2001(QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs));
}

ExportRecord record(const char* id, const char* destination, const char* iso) {
  return ExportRecord{QUuid::fromString(QString::fromLatin1(id)),
                      QStringLiteral("a.png"),
                      QUrl::fromLocalFile(QString::fromUtf8(destination)),
                      ImageFormat::heic,
                      1234,
                      utc(iso)};
}

TEST(ExportRecordJSON, WritesTheStoredFormsWithDatesFrom2001) {
  ExportRecord r =
      record("{6f9619ff-8b86-d011-b42d-00c04fc964ff}", "/tmp/out dir/Été.heic", "2001-01-01T00:00:01.500Z");
  r.sizeBytes = qint64(5) << 40;
  EXPECT_EQ(ExportHistory::toJson(r).write(),
            R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","sourceDisplayName":"a.png",)"
            R"("destinationURL":"file:///tmp/out%20dir/%C3%89t%C3%A9.heic","format":"heic",)"
            R"("sizeBytes":5497558138880,"date":1.5})");
  r.date = utc("2000-12-31T23:59:59Z");
  EXPECT_EQ(ExportHistory::toJson(r).asObject().back().second.write(), "-1");
  r.date = utc("2024-03-01T12:00:00.250+01:00");
  EXPECT_EQ(ExportHistory::toJson(r).asObject().back().second.write(), "730983600.25");
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
  writeStoreFile(QString::fromLatin1(ExportHistory::fileName), "[null]");
  EXPECT_TRUE(ExportHistory::load().empty());
}

TEST_F(StoreFolderTest, ALaterExportToTheSameFileSupersedesAndTiesGoByOrderOfExport) {
  const auto older = record("11111111-0000-0000-0000-000000000000", "/o/a.jpg", "2024-01-01T10:00:00Z");
  const auto newer = record("22222222-0000-0000-0000-000000000000", "/o/a.jpg", "2024-01-01T10:00:00.001Z");
  const auto sameTime = record("33333333-0000-0000-0000-000000000000", "/o/a.jpg", "2024-01-01T10:00:00Z");
  const auto elsewhere = record("44444444-0000-0000-0000-000000000000", "/o/b.jpg", "2025-01-01T10:00:00Z");
  auto sameIDLater = older;
  sameIDLater.date = utc("2030-01-01T00:00:00Z");
  EXPECT_TRUE(ExportHistory::isRecordSuperseded({newer, older}, older));
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({newer, older}, newer));
  // Two exports within one millisecond: the list, newest first, tells which came last.
  EXPECT_TRUE(ExportHistory::isRecordSuperseded({sameTime, older}, older));
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({sameTime, older}, sameTime));
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({elsewhere, older}, older));
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({sameIDLater, older}, older));

  // Dates are seconds since 2001 at a double's precision: two exports 300 µs apart, listed in
  // the wrong order, are told apart by date alone, after a save and load too.
  ExportRecordList list{older, newer};
  list[0].date = 725882400.0001;
  list[1].date = 725882400.0004;
  ExportHistory::save(list);
  ASSERT_EQ(ExportHistory::load(), list);
  EXPECT_TRUE(ExportHistory::isRecordSuperseded(list, list[0]));
  EXPECT_FALSE(ExportHistory::isRecordSuperseded(list, list[1]));
}

}  // namespace
}  // namespace quillane::testing
