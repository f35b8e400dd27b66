#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "records/ExportRecord.h"
#include "records/JsonForms.h"
#include "tests/records/records_test_support.h"

namespace quillane::testing {
namespace {

QDateTime utc(const char* iso) { return QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs); }

ExportRecord record(const char* id, QString destination, QDateTime date) {
  return ExportRecord{QUuid::fromString(QString::fromLatin1(id)), QStringLiteral("a.png"), std::move(destination),
                      ImageFormat::jpeg, 1234, std::move(date)};
}

std::optional<ExportRecordList> decode(const std::string& json) {
  return ExportHistory::listFromJson(QJsonDocument::fromJson(QByteArray::fromStdString(json)));
}

TEST(ExportRecordJSON, WritesTheStoredForms) {
  const ExportRecord r{QUuid::fromString(QStringLiteral("{6f9619ff-8b86-d011-b42d-00c04fc964ff}")),
                       QStringLiteral("Été.png"), QStringLiteral("/tmp/out dir/Été.heic"), ImageFormat::heic,
                       qint64(5) << 40, utc("2001-01-01T00:00:01.500Z")};
  EXPECT_EQ(ExportHistory::toJson(r).write(),
            R"({"id":"6F9619FF-8B86-D011-B42D-00C04FC964FF","sourceDisplayName":"Été.png",)"
            R"("destinationURL":"file:///tmp/out%20dir/%C3%89t%C3%A9.heic","format":"heic",)"
            R"("sizeBytes":5497558138880,"date":1.5})");
}

TEST(ExportRecordJSON, DatesCountSecondsFrom2001InUTC) {
  const struct {
    const char* iso;
    const char* json;
  } cases[] = {{"2001-01-01T00:00:00.000Z", "0"},
               {"2000-12-31T23:59:59.000Z", "-1"},
               {"2024-03-01T12:00:00.250+01:00", "730983600.25"}};
  for (const auto& c : cases) {
    EXPECT_EQ(JsonForms::date(utc(c.iso)).write(), c.json) << c.iso;
    EXPECT_EQ(JsonForms::dateFromSecondsSince2001(std::stod(c.json)), utc(c.iso)) << c.iso;
  }
}

TEST(ExportRecordJSON, RoundTripsAndEveryFieldIsRequired) {
  const ExportRecordList list{
      record("11111111-2222-3333-4444-555555555555", QStringLiteral("/x/a b#c.jpg"), utc("2030-05-06T07:08:09.123Z"))};
  const std::string json = ExportHistory::toJson(list).write();
  EXPECT_EQ(decode(json), list);

  for (const char* key : {"id", "sourceDisplayName", "destinationURL", "format", "sizeBytes", "date"}) {
    QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json));
    QJsonArray array = document.array();
    QJsonObject object = array[0].toObject();
    object.remove(QString::fromLatin1(key));
    array[0] = object;
    EXPECT_FALSE(ExportHistory::listFromJson(QJsonDocument(array))) << "without " << key;
  }
  std::string fractional = json;
  fractional.replace(fractional.find("1234"), 4, "12.5");
  EXPECT_FALSE(decode(fractional)) << "sizeBytes must be whole";
}

TEST_F(StoreFolderTest, HistoryFileRoundTripsAndDamageReadsAsEmpty) {
  const ExportRecordList list{
      record("11111111-2222-3333-4444-555555555555", QStringLiteral("/x/a.jpg"), utc("2030-05-06T07:08:09.123Z")),
      record("21111111-2222-3333-4444-555555555555", QStringLiteral("/x/a.jpg"), utc("2030-05-06T07:08:08Z"))};
  ExportHistory::save(list);
  EXPECT_EQ(ExportHistory::load(), list);
  writeStoreFile(QString::fromLatin1(ExportHistory::fileName), "[null]");
  EXPECT_TRUE(ExportHistory::load().empty());
}

TEST(ExportRecordSuperseded, OnlyAStrictlyLaterExportToTheSameFileSupersedes) {
  const ExportRecord older = record("11111111-0000-0000-0000-000000000000", QStringLiteral("/o/a.jpg"),
                                    utc("2024-01-01T10:00:00Z"));
  const ExportRecord newer = record("22222222-0000-0000-0000-000000000000", QStringLiteral("/o/a.jpg"),
                                    utc("2024-01-01T10:00:00.001Z"));
  const ExportRecord sameTime = record("33333333-0000-0000-0000-000000000000", QStringLiteral("/o/a.jpg"),
                                       utc("2024-01-01T10:00:00Z"));
  const ExportRecord elsewhere = record("44444444-0000-0000-0000-000000000000", QStringLiteral("/o/b.jpg"),
                                        utc("2025-01-01T10:00:00Z"));
  EXPECT_TRUE(ExportHistory::isRecordSuperseded({newer, older}, older));
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({newer, older}, newer));
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({sameTime, older}, older)) << "equal dates";
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({elsewhere, older}, older));
  ExportRecord sameIDLater = older;
  sameIDLater.date = utc("2030-01-01T00:00:00Z");
  EXPECT_FALSE(ExportHistory::isRecordSuperseded({sameIDLater, older}, older)) << "same id";
}

}  // namespace
}  // namespace quillane::testing
