// Import, images, per-image quality, export, removal and clearing through real requests.
#include <QDir>
#include <QFileInfo>

#include "api/LocalAPIDTOs.h"
#include "records/ExportProfile.h"
#include "tests/api/ApiTestSupport.h"

namespace quillane {
namespace {

using BatchRouterTest = testing::RouterFixture;

TEST_F(BatchRouterTest,
       ImportReportsEachFailureInOrderListsNewIdsAndImagesDescribeTheModelWithTheirOverrides) {
  std::string good = writeJPEG("good.jpg"), missing = dir_.filePath("missing.png").toStdString();
  std::string garbage = dir_.filePath("garbage.png").toStdString(), aFolder = folder("subfolder");
  testing::writeBytes(garbage, {'n', 'o', 't', ' ', 'a', 'n', ' ', 'i', 'm', 'a', 'g', 'e'});

  auto response = call("POST", "/v1/import",
                       R"({"paths":[")" + missing + R"(",")" + good + R"(",")" + garbage + R"(",")" +
                           aFolder + R"("],"extra":true})");
  QJsonArray failed = json(response)["failed"].toArray();
  ASSERT_EQ(failed.size(), 3) << response.body;
  EXPECT_EQ(failed[0].toObject(),
            (QJsonObject{{"error", "File not found"}, {"path", QString::fromStdString(missing)}}));
  EXPECT_EQ(failed[1].toObject()["path"].toString() + failed[2].toObject()["path"].toString(),
            QString::fromStdString(garbage + aFolder));
  ASSERT_EQ(model_->images().size(), 1u);
  const std::string id = LocalAPIDTOs::idText(model_->images()[0]->id());
  EXPECT_EQ(json(response)["imported"].toArray(), QJsonArray{QString::fromStdString(id)});

  // A name relative to the program's working folder is refused even where it names a file.
  const QString working = QDir::currentPath();
  ASSERT_TRUE(QDir::setCurrent(dir_.path()));
  response = call("POST", "/v1/import", R"({"paths":["good.jpg"]})");
  QDir::setCurrent(working);
  const QJsonObject refused{{"error", "Path must be absolute"}, {"path", "good.jpg"}};
  EXPECT_EQ(json(response)["failed"].toArray(), QJsonArray{refused});
  EXPECT_EQ(model_->images().size(), 1u);

  // The images describe the model.
  ASSERT_TRUE(waitUntilSettled());
  const qint64 original = QFileInfo(QString::fromStdString(good)).size();
  QJsonObject image = json(call("GET", "/v1/images"))[0].toObject();
  EXPECT_DOUBLE_EQ(image.take("ratio").toDouble(), 1.0 - 751.0 / double(original));
  EXPECT_EQ(QJsonDocument(image).toJson(QJsonDocument::Compact).toStdString(),
            R"({"compressedSizeBytes":751,"frameCount":1,"height":30,"id":")" + id +  // quality 75, jpeg
                R"(","isAnimated":false,"name":"good.jpg","originalFormat":"jpeg","originalSizeBytes":)" +
                std::to_string(original) + R"(,"state":"ready","width":40})");

  // Ids are matched in any case; the answer is the row as it is now, being encoded again.
  std::string lower = QString::fromStdString(id).toLower().toStdString();
  auto set = call("POST", "/v1/images/" + lower + "/quality", R"({"quality":40})");
  EXPECT_EQ(json(set)["qualityOverride"].toDouble(), 40.0);
  EXPECT_TRUE(json(set)["state"] == "encoding" && json(set)["compressedSizeBytes"].isUndefined()) << set.body;
  ASSERT_TRUE(waitUntilSettled());
  EXPECT_EQ(json(call("GET", "/v1/images"))[0]["compressedSizeBytes"].toInteger(), 401);

  for (const char* clear : {"{}", R"({"quality":null})"}) {
    call("POST", "/v1/images/" + id + "/quality", R"({"quality":12})");
    EXPECT_FALSE(
        json(call("POST", "/v1/images/" + id + "/quality", clear)).object().contains("qualityOverride"));
  }
  ASSERT_TRUE(waitUntilSettled());
  EXPECT_EQ(json(call("GET", "/v1/images"))[0]["compressedSizeBytes"].toInteger(), 751);
}

TEST_F(BatchRouterTest, ExportWaitsForBytesWritesIntoTheFolderThePathOrTheProfilesAndAppliesTheProfile) {
  encoderDelayMs_ = 400;
  const std::string one = writeJPEG("one.jpg", 1);
  auto ids = importPaths({one, writeJPEG("two.jpg", 2)});
  ASSERT_EQ(ids.size(), 2u);
  std::string out = folder("out"), profileFolder = folder("profile-out");
  // Without waiting, images that have no bytes yet are reported; with the default wait the
  // same export succeeds.
  auto early = call("POST", "/v1/export", R"({"folder":")" + out + R"(","waitTimeoutSeconds":0})");
  EXPECT_EQ(json(early)[0].toObject().keys(), (QStringList{"error", "id", "name", "originalSizeBytes"}))
      << early.body;

  QJsonArray results = json(call("POST", "/v1/export", R"({"folder":")" + out + R"("})")).array();
  ASSERT_EQ(results.size(), 2);
  EXPECT_EQ(results[0].toObject()["destination"].toString().toStdString(), out + "/one.jpg");
  EXPECT_EQ(results[0].toObject()["compressedSizeBytes"].toInteger(), 751);
  EXPECT_EQ(QFileInfo(QString::fromStdString(out + "/two.jpg")).size(), 751);

  // One image to a path of its own; a write that fails is reported in the answer.
  const std::string route = "/v1/images/" + ids[0] + "/export",
                    target = dir_.filePath("renamed.bin").toStdString();
  EXPECT_EQ(call("POST", route, R"({"path":")" + target + R"(","folder":5})").status, 400)
      << "a wrong type anywhere invalidates the shared body";
  EXPECT_EQ(
      json(call("POST", route, R"({"path":")" + target + R"("})"))["destination"].toString().toStdString(),
      target);
  EXPECT_EQ(QFileInfo(QString::fromStdString(target)).size(), 751);
  auto failedWrite = call("POST", route, R"({"path":"/nonexistent-dir/x.jpg"})");
  EXPECT_TRUE(json(failedWrite)["error"].isString() && json(failedWrite)["destination"].isUndefined())
      << failedWrite.body;

  // Onto a source of the batch: beside it instead, and the answer says where.
  EXPECT_EQ(json(call("POST", route, R"({"path":")" + one + R"("})"))["destination"].toString(),
            dir_.filePath("one-2.jpg"));

  const QString lossless = QString::fromStdString(profileFolder);
  model_->upsertExportProfile({QUuid::createUuid(), "Lossless", ImageFormat::png, 90, lossless, false, {}});
  auto viaProfile = json(call("POST", "/v1/export", R"({"profile":"lossless"})"));
  EXPECT_EQ(viaProfile[0]["destination"].toString().toStdString(), profileFolder + "/one.png");
  EXPECT_EQ(viaProfile[0]["compressedSizeBytes"].toInteger(), 900);
  // Both: the folder wins, the profile still sets format and quality.
  auto both = json(call("POST", "/v1/export", R"({"profile":"Lossless","folder":")" + out + R"("})"));
  EXPECT_EQ(both[1]["destination"].toString().toStdString(), out + "/two.png");
  EXPECT_EQ(call("DELETE", "/v1/images/" + ids[1]).body, R"({"removed":true})");
  EXPECT_EQ(call("POST", "/v1/clear", "ignored body").body, R"({"cleared":1})");
}

}  // namespace
}  // namespace quillane
