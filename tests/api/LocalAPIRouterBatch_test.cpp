// Import, images, per-image quality, export, removal and clearing through real requests.
#include "tests/api/RouterFixture.h"

#include <QFileInfo>

#include "api/LocalAPIDTOs.h"
#include "records/ExportProfile.h"

namespace quillane {
namespace {

using testing::RouterFixture;
using BatchRouterTest = RouterFixture;

std::string escaped(const std::string& path) { return QString::fromStdString(path).replace("/", "\\/").toStdString(); }

TEST_F(BatchRouterTest, ImportReportsMissingAndUnreadableFilesAndListsNewIds) {
  std::string good = writeJPEG("good.jpg", 40, 30);
  std::string missing = dir_.filePath("missing.png").toStdString();
  std::string garbage = dir_.filePath("garbage.png").toStdString();
  testing::writeBytes(garbage, {'n', 'o', 't', ' ', 'a', 'n', ' ', 'i', 'm', 'a', 'g', 'e'});
  std::string aFolder = folder("subfolder");

  auto response = call("POST", "/v1/import",
                       R"({"paths":[")" + missing + R"(",")" + good + R"(",")" + garbage + R"(",")" + aFolder +
                           R"("],"extra":true})");
  ASSERT_EQ(response.status, 200) << response.body;
  QJsonObject result = json(response).object();
  QJsonArray failed = result["failed"].toArray();
  ASSERT_EQ(failed.size(), 3);
  EXPECT_EQ(failed[0].toObject(), (QJsonObject{{"error", "File not found"}, {"path", QString::fromStdString(missing)}}));
  EXPECT_EQ(failed[1].toObject()["path"].toString().toStdString(), garbage);
  EXPECT_EQ(failed[2].toObject()["path"].toString().toStdString(), aFolder);
  ASSERT_EQ(model_->importFailures().size(), 2u);
  EXPECT_EQ(failed[1].toObject()["error"].toString(), model_->importFailures()[0].message);

  QJsonArray imported = result["imported"].toArray();
  ASSERT_EQ(imported.size(), 1);
  ASSERT_EQ(model_->images().size(), 1u);
  EXPECT_EQ(imported[0].toString().toStdString(), LocalAPIDTOs::idText(model_->images()[0]->id()));

  const std::string expected = R"({"error":"Expected JSON body: {\"paths\": [String]}"})";
  EXPECT_EQ(call("POST", "/v1/import", R"({"paths":"a"})").body, expected);
  EXPECT_EQ(call("POST", "/v1/import", R"({"paths":[1]})").body, expected);
  EXPECT_EQ(call("POST", "/v1/import", "").body, expected);
  // An empty list imports nothing and still answers.
  EXPECT_EQ(call("POST", "/v1/import", R"({"paths":[]})").body, R"({"failed":[],"imported":[]})");
}

TEST_F(BatchRouterTest, ImagesListDescribesEachRowFromWhatTheModelHolds) {
  std::string path = writeJPEG("photo.jpg", 40, 30);
  auto ids = importPaths({path});
  ASSERT_EQ(ids.size(), 1u);
  ASSERT_TRUE(waitUntilSettled());

  auto response = call("GET", "/v1/images");
  QJsonArray list = json(response).array();
  ASSERT_EQ(list.size(), 1);
  QJsonObject image = list[0].toObject();
  int64_t original = QFileInfo(QString::fromStdString(path)).size();
  EXPECT_EQ(image["id"].toString().toStdString(), ids[0]);
  EXPECT_EQ(image["name"].toString(), "photo.jpg");
  EXPECT_EQ(image["width"].toInt(), 40);
  EXPECT_EQ(image["height"].toInt(), 30);
  EXPECT_EQ(image["frameCount"].toInt(), 1);
  EXPECT_EQ(image["isAnimated"].toBool(), false);
  EXPECT_EQ(image["originalFormat"].toString(), "jpeg");
  EXPECT_EQ(image["originalSizeBytes"].toInteger(), original);
  EXPECT_EQ(image["state"].toString(), "ready");
  EXPECT_EQ(image["compressedSizeBytes"].toInteger(), 751);  // quality 75, jpeg
  EXPECT_DOUBLE_EQ(image["ratio"].toDouble(), 1.0 - 751.0 / double(original));
  EXPECT_FALSE(image.contains("qualityOverride"));
  EXPECT_FALSE(image.contains("error"));

  // A result bigger than its source has a negative ratio.
  encoderScale_ = 1000;
  call("POST", "/v1/settings", R"({"quality":80})");
  ASSERT_TRUE(waitUntilSettled());
  EXPECT_LT(json(call("GET", "/v1/images"))[0]["ratio"].toDouble(), 0.0);
}

TEST_F(BatchRouterTest, PerImageQualityOverrideSetsAndClears) {
  auto ids = importPaths({writeJPEG("a.jpg")});
  ASSERT_EQ(ids.size(), 1u);
  ASSERT_TRUE(waitUntilSettled());
  std::string lower = QString::fromStdString(ids[0]).toLower().toStdString();

  auto set = call("POST", "/v1/images/" + lower + "/quality", R"({"quality":40})");
  ASSERT_EQ(set.status, 200) << set.body;
  QJsonObject dto = json(set).object();
  EXPECT_EQ(dto["id"].toString().toStdString(), ids[0]);
  EXPECT_EQ(dto["state"].toString(), "encoding");
  EXPECT_EQ(dto["qualityOverride"].toDouble(), 40.0);
  EXPECT_FALSE(dto.contains("compressedSizeBytes"));
  EXPECT_FALSE(dto.contains("ratio"));
  ASSERT_TRUE(waitUntilSettled());
  EXPECT_EQ(json(call("GET", "/v1/images"))[0]["compressedSizeBytes"].toInteger(), 401);

  for (const char* clear : {"{}", R"({"quality":null})"}) {
    call("POST", "/v1/images/" + ids[0] + "/quality", R"({"quality":12})");
    auto cleared = call("POST", "/v1/images/" + ids[0] + "/quality", clear);
    EXPECT_EQ(cleared.status, 200);
    EXPECT_FALSE(json(cleared).object().contains("qualityOverride"));
  }
  ASSERT_TRUE(waitUntilSettled());
  EXPECT_EQ(json(call("GET", "/v1/images"))[0]["compressedSizeBytes"].toInteger(), 751);

  EXPECT_EQ(call("POST", "/v1/images/" + ids[0] + "/quality", R"({"quality":101})").body,
            error("quality must be between 1 and 100"));
  EXPECT_EQ(call("POST", "/v1/images/" + ids[0] + "/quality", "not json").body,
            error(R"(Expected JSON body: {\"quality\": Double?} (omit\/null to follow the global slider))"));
  // The lookup comes first: a bad body for an unknown id is a 404 echoing the segment.
  std::string unknown = "0000000A-0000-0000-0000-00000000000b";
  EXPECT_EQ(call("POST", "/v1/images/" + unknown + "/quality", "not json").body,
            error("No image with id '" + unknown + "'"));
  EXPECT_EQ(call("POST", "/v1/images/not-a-uuid/quality", "{}").body, error("No image with id 'not-a-uuid'"));
}

TEST_F(BatchRouterTest, ExportAllWritesIntoTheFolderAndRefusesBadDestinations) {
  auto ids = importPaths({writeJPEG("one.jpg", 40, 30, 1), writeJPEG("two.jpg", 40, 30, 2)});
  ASSERT_EQ(ids.size(), 2u);
  std::string out = folder("out");

  auto response = call("POST", "/v1/export", R"({"folder":")" + out + R"("})");
  ASSERT_EQ(response.status, 200) << response.body;
  QJsonArray results = json(response).array();
  ASSERT_EQ(results.size(), 2);
  QJsonObject first = results[0].toObject();
  EXPECT_EQ(first["destination"].toString().toStdString(), out + "/one.jpg");
  EXPECT_EQ(first["compressedSizeBytes"].toInteger(), 751);
  EXPECT_EQ(first["id"].toString().toStdString(), ids[0]);
  EXPECT_EQ(first["name"].toString(), "one.jpg");
  EXPECT_TRUE(first.contains("originalSizeBytes") && first.contains("ratio"));
  EXPECT_FALSE(first.contains("error"));
  EXPECT_EQ(QFileInfo(QString::fromStdString(out + "/two.jpg")).size(), 751);

  const std::string expected =
      error(R"(Expected JSON body: {\"folder\": String, \"waitTimeoutSeconds\": Double?, \"profile\": String?})");
  EXPECT_EQ(call("POST", "/v1/export", "{}").body, expected);
  EXPECT_EQ(call("POST", "/v1/export", R"({"folder":7})").body, expected);
  std::string file = out + "/one.jpg";
  EXPECT_EQ(call("POST", "/v1/export", R"({"folder":")" + file + R"("})").body,
            "{\"error\":\"folder does not exist: " + escaped(file) + "\"}");
  EXPECT_EQ(call("POST", "/v1/export", R"({"profile":"none"})").body, error("No profile named 'none'"));
}

TEST_F(BatchRouterTest, ExportWithAProfileAppliesItAndFindsItsFolder) {
  importPaths({writeJPEG("p.jpg")});
  std::string profileFolder = folder("profile-out"), explicitFolder = folder("explicit-out");
  model_->upsertExportProfile({QUuid::createUuid(), "Lossless", ImageFormat::png, 90, QString::fromStdString(profileFolder), false});
  model_->upsertExportProfile({QUuid::createUuid(), "Bare", ImageFormat::webp, 30, std::nullopt, false});

  auto viaProfile = call("POST", "/v1/export", R"({"profile":"lossless"})");
  EXPECT_EQ(json(viaProfile)[0]["destination"].toString().toStdString(), profileFolder + "/p.png");
  EXPECT_EQ(json(viaProfile)[0]["compressedSizeBytes"].toInteger(), 900);

  // Both: the folder wins, the profile still sets format and quality.
  auto both = call("POST", "/v1/export", R"({"profile":"Bare","folder":")" + explicitFolder + R"("})");
  EXPECT_EQ(json(both)[0]["destination"].toString().toStdString(), explicitFolder + "/p.webp");
  EXPECT_EQ(json(both)[0]["compressedSizeBytes"].toInteger(), 304);

  model_->setQuality(75);
  auto noFolder = call("POST", "/v1/export", R"({"profile":"bare"})");
  EXPECT_EQ(noFolder.body,
            "{\"error\":\"Profile 'bare' has no destination folder \xE2\x80\x94 pass \\\"folder\\\" explicitly\"}");
  EXPECT_EQ(model_->quality(), 30.0) << "applied before the refusal";
}

TEST_F(BatchRouterTest, ExportWithoutWaitingReportsImagesThatHaveNoBytesYet) {
  encoderDelayMs_ = 400;
  importPaths({writeJPEG("slow.jpg")});
  std::string out = folder("out");
  auto response = call("POST", "/v1/export", R"({"folder":")" + out + R"(","waitTimeoutSeconds":0})");
  ASSERT_EQ(response.status, 200);
  QJsonObject entry = json(response)[0].toObject();
  EXPECT_TRUE(entry.contains("error")) << response.body;
  EXPECT_FALSE(entry.contains("destination"));
  EXPECT_FALSE(entry.contains("compressedSizeBytes"));
  // With the default wait the same export succeeds.
  auto waited = call("POST", "/v1/export", R"({"folder":")" + out + R"("})");
  EXPECT_EQ(json(waited)[0]["destination"].toString().toStdString(), out + "/slow.jpg");
}

TEST_F(BatchRouterTest, ExportOfOneImage) {
  auto ids = importPaths({writeJPEG("single.jpg")});
  ASSERT_EQ(ids.size(), 1u);
  std::string target = dir_.filePath("renamed.bin").toStdString();
  auto response = call("POST", "/v1/images/" + ids[0] + "/export", R"({"path":")" + target + R"(","folder":5})");
  EXPECT_EQ(response.status, 400) << "a wrong type anywhere invalidates the shared body";
  response = call("POST", "/v1/images/" + ids[0] + "/export", R"({"path":")" + target + R"("})");
  ASSERT_EQ(response.status, 200) << response.body;
  EXPECT_EQ(json(response)["destination"].toString().toStdString(), target);
  EXPECT_EQ(QFileInfo(QString::fromStdString(target)).size(), 751);

  auto failedWrite = call("POST", "/v1/images/" + ids[0] + "/export", R"({"path":"/nonexistent-dir/x.jpg"})");
  EXPECT_EQ(failedWrite.status, 200);
  EXPECT_TRUE(json(failedWrite).object().contains("error")) << failedWrite.body;
  EXPECT_FALSE(json(failedWrite).object().contains("destination"));

  EXPECT_EQ(call("POST", "/v1/images/" + ids[0] + "/export", R"({"folder":"/tmp"})").body,
            error(R"(Expected JSON body: {\"path\": String, \"waitTimeoutSeconds\": Double?})"));
}

TEST_F(BatchRouterTest, RemoveAndClear) {
  auto ids = importPaths({writeJPEG("a.jpg", 20, 20, 1), writeJPEG("b.jpg", 20, 20, 2), writeJPEG("c.jpg", 20, 20, 3)});
  ASSERT_EQ(ids.size(), 3u);
  EXPECT_EQ(call("DELETE", "/v1/images/" + ids[1]).body, R"({"removed":true})");
  EXPECT_EQ(call("DELETE", "/v1/images/" + ids[1]).body, error("No image with id '" + ids[1] + "'"));
  EXPECT_EQ(json(call("GET", "/v1/status"))["imageCount"].toInt(), 2);
  EXPECT_EQ(call("POST", "/v1/clear", "ignored body").body, R"({"cleared":2})");
  EXPECT_EQ(call("GET", "/v1/images").body, "[]");
  EXPECT_EQ(call("POST", "/v1/clear").body, R"({"cleared":0})");
}

}  // namespace
}  // namespace quillane
