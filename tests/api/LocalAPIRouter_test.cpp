// Token, routing, status, settings and profiles, through real requests to a real model.
#include "tests/api/RouterFixture.h"

#include "records/ExportProfile.h"

namespace quillane {
namespace {

using testing::RouterFixture;

const std::string unauthorized = R"({"error":"Missing or invalid Authorization token"})";
const std::string unknownRoute = R"({"error":"Unknown route"})";
const std::string emptyStatus =
    R"({"apiVersion":"v1","appVersion":"unknown","availableFormats":["png","jpeg","heic","avif","webp","jxl"],)"
    R"("imageCount":0,"isEncoding":false,"outputFormat":"jpeg","quality":75})";

using RouterTest = RouterFixture;

TEST_F(RouterTest, TokenIsCheckedBeforeAnyRouting) {
  auto missing = raw("GET /v1/status HTTP/1.1\r\n\r\n");
  EXPECT_EQ(missing.status, 401);
  EXPECT_EQ(missing.statusLine, "HTTP/1.1 401 Unauthorized");
  EXPECT_EQ(missing.body, unauthorized);
  EXPECT_EQ(raw("GET /v1/status HTTP/1.1\r\nAuthorization: bearer " + token_ + "\r\n\r\n").body, unauthorized);
  EXPECT_EQ(raw("GET /v1/status HTTP/1.1\r\nAuthorization: Bearer  " + token_ + "\r\n\r\n").body, unauthorized);
  std::string wrong = token_;
  wrong.back() = wrong.back() == 'A' ? 'B' : 'A';
  EXPECT_EQ(call("GET", "/v1/status", {}, wrong).body, unauthorized);
  EXPECT_EQ(call("GET", "/v1/status", {}, token_ + "x").body, unauthorized);
  EXPECT_EQ(call("GET", "/status", {}, "nope").body, unauthorized);
  // Header names are matched in any case.
  EXPECT_EQ(raw("GET /v1/status HTTP/1.1\r\nAUTHORIZATION: Bearer " + token_ + "\r\n\r\n").status, 200);
}

TEST_F(RouterTest, ANewTokenTakesEffectAtTheNextRequest) {
  EXPECT_EQ(call("GET", "/v1/status").status, 200);
  auto settings = LocalAPISettings::store();
  settings->remove(LocalAPISettings::tokenKey);
  settings->sync();
  EXPECT_EQ(call("GET", "/v1/status").body, unauthorized);
  EXPECT_EQ(call("GET", "/v1/status", {}, LocalAPISettings::token().toStdString()).status, 200);
}

TEST_F(RouterTest, RoutesMatchSegmentsExactlyAndNeverAnswer405) {
  EXPECT_EQ(call("GET", "/v1/status").body, emptyStatus);
  EXPECT_EQ(call("GET", "/v1/status/").body, emptyStatus);
  EXPECT_EQ(call("GET", "//v1//status").body, emptyStatus);
  EXPECT_EQ(call("GET", "/v1/status?verbose=1").body, emptyStatus);
  for (auto [method, target] : std::vector<std::pair<std::string, std::string>>{
           {"GET", "/status"}, {"PUT", "/v1/status"}, {"get", "/v1/status"}, {"GET", "/V1/status"},
           {"GET", "/v1/Status"}, {"GET", "/v1"}, {"GET", "/"}, {"GET", "/v1/status/extra"},
           {"POST", "/v1/images"}, {"DELETE", "/v1/profiles"}, {"GET", "/v1/images/x/quality"},
           {"DELETE", "/v1/images/a/b"}, {"GET", "/v2/status"}}) {
    auto response = call(method, target);
    EXPECT_EQ(response.status, 404) << method << " " << target;
    EXPECT_EQ(response.body, unknownRoute) << method << " " << target;
  }
}

TEST_F(RouterTest, SettingsValidateInOrderAndKeepWhatWasApplied) {
  const std::string expected =
      error(R"(Expected JSON body: {\"quality\": Double?, \"format\": String?, \"profile\": String?})");
  EXPECT_EQ(call("POST", "/v1/settings").body, expected);
  EXPECT_EQ(call("POST", "/v1/settings", "[]").body, expected);
  EXPECT_EQ(call("POST", "/v1/settings", R"({"quality":"80"})").body, expected);
  EXPECT_EQ(call("POST", "/v1/settings", "{}").body, emptyStatus);

  const std::string range = error("quality must be between 1 and 100");
  EXPECT_EQ(call("POST", "/v1/settings", R"({"quality":100})").status, 200);
  EXPECT_EQ(call("POST", "/v1/settings", R"({"quality":100.5})").body, range);
  EXPECT_EQ(call("POST", "/v1/settings", R"({"quality":0.5})").body, range);
  auto one = call("POST", "/v1/settings", R"({"quality":1,"format":null})");
  EXPECT_EQ(json(one)["quality"].toDouble(), 1.0);
  auto fraction = call("POST", "/v1/settings", R"({"quality":62.5,"format":"webp"})");
  EXPECT_NE(fraction.body.find(R"("outputFormat":"webp","quality":62.5})"), std::string::npos) << fraction.body;

  auto unknown = call("POST", "/v1/settings", R"({"format":"jpg"})");
  EXPECT_EQ(unknown.status, 400);
  EXPECT_EQ(unknown.body,
            "{\"error\":\"Unknown format 'jpg' \xE2\x80\x94 expected one of "
            R"([\"png\", \"jpeg\", \"heic\", \"avif\", \"webp\", \"jxl\"]"})");

  EXPECT_EQ(call("POST", "/v1/settings", R"({"profile":"Web"})").body, error("No profile named 'Web'"));
  ExportProfile web{QUuid::createUuid(), "Web", ImageFormat::avif, 55, std::nullopt, false};
  model_->upsertExportProfile(web);
  // A good profile followed by a bad format: the profile stays applied.
  EXPECT_EQ(call("POST", "/v1/settings", R"({"format":"gif","profile":"wEB"})").status, 400);
  EXPECT_EQ(model_->outputFormat(), ImageFormat::avif);
  EXPECT_EQ(model_->quality(), 55.0);
  EXPECT_EQ(model_->appliedProfileName(), std::optional<QString>("Web"));
}

TEST_F(RouterTest, ProfilesCanBeUpsertedListedAndDeleted) {
  std::string out = folder("out");
  auto created = call("POST", "/v1/profiles",
                      R"({"name":"  My Web  ","format":"webp","quality":70,"destinationFolder":")" + out + R"("})");
  ASSERT_EQ(created.status, 200) << created.body;
  QJsonObject dto = json(created).object();
  EXPECT_EQ(dto.keys(), (QStringList{"destinationFolder", "format", "id", "name", "quality"}));
  EXPECT_EQ(dto["name"].toString(), "My Web");
  EXPECT_EQ(dto["destinationFolder"].toString().toStdString(), out);
  EXPECT_NE(created.body.find(R"(\/out")"), std::string::npos) << "slashes are escaped";
  QString id = dto["id"].toString();
  EXPECT_EQ(id, id.toUpper());

  // Same name in other case: same id and default flag, replaced whole (the folder is gone).
  auto profiles = model_->exportProfiles();
  profiles.front().isDefault = true;
  model_->upsertExportProfile(profiles.front());
  auto renamed = call("POST", "/v1/profiles", R"({"name":"my web","format":"png","quality":90})");
  EXPECT_EQ(json(renamed)["id"].toString(), id);
  EXPECT_FALSE(json(renamed).object().contains("destinationFolder"));
  ASSERT_EQ(model_->exportProfiles().size(), 1u);
  EXPECT_TRUE(model_->exportProfiles().front().isDefault);
  EXPECT_EQ(model_->exportProfiles().front().name, "my web");

  auto list = call("GET", "/v1/profiles");
  EXPECT_EQ(list.body, "[" + renamed.body + "]");

  EXPECT_EQ(call("DELETE", "/v1/profiles/MY%20WEB").body, R"({"removed":true})");
  EXPECT_EQ(call("GET", "/v1/profiles").body, "[]");
  EXPECT_EQ(call("DELETE", "/v1/profiles/Gone%20Now").body, error("No profile named 'Gone Now'"));
  // A segment that does not decode is used as it came.
  EXPECT_EQ(call("DELETE", "/v1/profiles/100%").body, error("No profile named '100%'"));
}

TEST_F(RouterTest, ProfileUpsertRefusals) {
  const std::string expected = error(
      R"(Expected JSON body: {\"name\": String, \"format\": String, \"quality\": Double, \"destinationFolder\": String?})");
  EXPECT_EQ(call("POST", "/v1/profiles", R"({"name":"a","format":"png"})").body, expected);
  EXPECT_EQ(call("POST", "/v1/profiles", R"({"name":"a","format":"png","quality":null})").body, expected);
  EXPECT_EQ(call("POST", "/v1/profiles", R"({"name":1,"format":"png","quality":5})").body, expected);
  EXPECT_EQ(call("POST", "/v1/profiles", R"({"name":" \n\t","format":"png","quality":5})").body,
            error("name must not be empty"));
  EXPECT_EQ(call("POST", "/v1/profiles", R"({"name":"a","format":"PNG","quality":5})").status, 400);
  EXPECT_EQ(call("POST", "/v1/profiles", R"({"name":"a","format":"png","quality":0})").body,
            error("quality must be between 1 and 100"));
  std::string file = writeJPEG("not-a-folder.jpg");
  EXPECT_EQ(call("POST", "/v1/profiles",
                 R"({"name":"a","format":"png","quality":5,"destinationFolder":")" + file + R"("})").body,
            "{\"error\":\"destinationFolder does not exist: " + QString::fromStdString(file).replace("/", "\\/").toStdString() + "\"}");
  EXPECT_TRUE(model_->exportProfiles().empty());
}

}  // namespace
}  // namespace quillane
