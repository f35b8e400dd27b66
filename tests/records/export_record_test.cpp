#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "records/ExportRecord.h"
#include "records/JsonForms.h"
#include "tests/records/records_test_support.h"

namespace quillane::testing {
namespace {

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
