// The API's settings and token, and the controller that serves on the stored port; then every route,
// its refusals and the token check, through real requests to a real model.
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>
#include <QRegularExpression>
#include <QTcpServer>

#include "api/LocalAPIController.h"
#include "api/LocalAPIDTOs.h"
#include "services/UpdateChecker.h"
#include "tests/api/ApiTestSupport.h"

namespace quillane {
namespace {

using namespace std::chrono_literals;

using ControllerTest = testing::ApiSandbox;

TEST_F(ControllerTest, TheTokenHasItsFormAndIsKeptInAFileOnlyItsOwnerCanRead) {
  const auto fileMode = [] {
    struct stat info {};
    ::stat(QFile::encodeName(LocalAPISettings::store()->fileName()).constData(), &info);
    return info.st_mode & 0777;
  };
  QString first = LocalAPISettings::token();
  EXPECT_TRUE(QRegularExpression("^qlne_[A-Za-z0-9_-]{43}$").match(first).hasMatch()) << first.toStdString();
  EXPECT_EQ(LocalAPISettings::token(), first);
  EXPECT_EQ(fileMode(), 0600u);
  LocalAPISettings::setPort(8080);
  EXPECT_EQ(fileMode(), 0600u) << "later writes keep the mode";
  // Empty is replaced by a fresh token.
  LocalAPISettings::setToken(QString());
  QString second = LocalAPISettings::token();
  EXPECT_TRUE(second != first && !second.isEmpty());

  // A settings folder that can't be written (a read-only or full disk) holds the token made for the run,
  // where each read made a new one. Root writes anywhere: the check runs as another user.
  const QByteArray folder = QFile::encodeName(QFileInfo(LocalAPISettings::store()->fileName()).path());
  ASSERT_TRUE(QFile::remove(LocalAPISettings::store()->fileName()));
  ASSERT_EQ(::chmod(QFile::encodeName(dir_.path()), 0755) | ::chmod(folder, 0555), 0);
  EXPECT_EXIT(
      {
        if (::geteuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) _exit(2);
        const QString made = LocalAPISettings::token();
        _exit(!made.isEmpty() && LocalAPISettings::token() == made ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  ::chmod(folder, 0755);
}

// Values written by hand: a switch is on only for a true value, and a token is one string.
TEST_F(ControllerTest, HandWrittenSettingsAreReadStrictly) {
  const auto write = [&](const QByteArray& lines) {
    QFile file(LocalAPISettings::store()->fileName());
    QDir().mkpath(QFileInfo(file).path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("[General]\n" + lines);
  };
  const std::vector<const char*> offValues{"no", "off", "0", "false", "nein", ""},
      onValues{"true", "yes", "On", "1"};
  for (bool on : {false, true})
    for (const char* value : on ? onValues : offValues) {
      write(QByteArray("localAPIEnabled=") + value + "\nupdateCheckEnabled=" + value + "\n");
      EXPECT_EQ(LocalAPISettings::isEnabled(), on) << value;
      EXPECT_EQ(UpdateChecker::isCheckAtLaunchEnabled(), on) << value;
    }
  write("localAPIToken=abc,def\n");
  EXPECT_EQ(LocalAPISettings::token(), QStringLiteral("abc,def"));
  // A port no server can listen on is the default one, not a port of the listener's choosing.
  for (const char* port : {"-5", "70000"}) {
    write(QByteArray("localAPIPort=") + port + "\n");
    EXPECT_EQ(LocalAPISettings::effectivePort(), LocalAPISettings::defaultPort) << port;
  }
}

// Enabled by hand in the settings file, with no token yet: a client that reads the token from
// the file as soon as the API runs is let in, without the settings pane ever opening. Any web
// page can make the browser open connections to 127.0.0.1: without the token, a request is
// refused as soon as its head is read, and its body is never waited for.
TEST_F(ControllerTest, ReportsAFailedBindRestartsOnANewPortAndRefusesRequestsWithoutTheTokenBeforeTheirBody) {
  QTcpServer blocker;
  ASSERT_TRUE(blocker.listen(QHostAddress::LocalHost, 0));
  LocalAPISettings::setEnabled(true);
  LocalAPISettings::setPort(blocker.serverPort());
  BatchViewModel::Options options;
  options.restoreSession = false;
  BatchViewModel model(options);
  LocalAPIController controller(model);  // enabled: it starts by itself
  ASSERT_TRUE(QTest::qWaitFor([&] { return controller.lastError().has_value(); }, 5000));
  EXPECT_FALSE(controller.isRunning());

  int first = testing::freeLocalPort();
  LocalAPISettings::setPort(first);
  controller.start();
  EXPECT_FALSE(controller.isRunning()) << "running only once the listener is ready";
  ASSERT_TRUE(QTest::qWaitFor([&] { return controller.isRunning(); }, 5000));
  EXPECT_EQ(controller.lastError(), std::nullopt) << "cleared by the next ready";
  const std::string token =
      LocalAPISettings::store()->value(LocalAPISettings::tokenKey).toString().toStdString();
  ASSERT_FALSE(token.empty());
  // No token, and a wrong one, each with a body that never comes.
  for (const std::string authorization : {"", "Authorization: Bearer qlne_wrong\r\n"}) {
    const auto answer = testing::offThread([&] {
      testing::RawConnection connection(first);
      connection.send("POST /v1/import HTTP/1.1\r\n" + authorization + "Content-Length: 8388608\r\n\r\nx");
      return connection.readResponse(10s);
    });
    EXPECT_TRUE(answer.status == 401 && answer.closedByServer) << answer.raw;
  }
  EXPECT_EQ(statusCode(first, token), 200);

  int second = testing::freeLocalPort();
  LocalAPISettings::setPort(second);
  controller.start();
  ASSERT_TRUE(
      QTest::qWaitFor([&] { return controller.isRunning() && controller.boundPort() == second; }, 5000));
  EXPECT_EQ(statusCode(second, token), 200);
  EXPECT_FALSE(testing::RawConnection(first).connected());
}

using RouterTest = testing::RouterFixture;

const std::string unauthorized = R"({"error":"Missing or invalid Authorization token"})";
const std::string emptyStatus =
    R"({"apiVersion":"v1","appVersion":"unknown","availableFormats":["png","jpeg","heic","avif","webp","jxl"],)"
    R"("imageCount":0,"isEncoding":false,"outputFormat":"jpeg","quality":75})";

TEST_F(RouterTest, TheTokenIsCheckedBeforeAnyRoutingAndReadAtEachRequestAndRoutesMatchSegmentsExactly) {
  for (const std::string& authorization :
       {std::string(), "Authorization: bearer " + token_ + "\r\n",
        "Authorization: Bearer  " + token_ + "\r\n", "Authorization: Bearer " + token_ + "x\r\n"}) {
    auto response = raw("GET /no/such/route HTTP/1.1\r\n" + authorization + "\r\n");
    EXPECT_EQ(std::to_string(response.status) + response.body, "401" + unauthorized) << authorization;
  }
  EXPECT_EQ(raw("GET /v1/status HTTP/1.1\r\nAUTHORIZATION: Bearer " + token_ + "\r\n\r\n").status, 200);
  LocalAPISettings::setToken(QString());  // a new token is made at the next read
  EXPECT_EQ(call("GET", "/v1/status").body, unauthorized);
  EXPECT_EQ(call("GET", "/v1/status", {}, LocalAPISettings::token().toStdString()).status, 200);
  token_ = LocalAPISettings::token().toStdString();

  // Routes match segments exactly and never answer 405.
  for (const char* target : {"/v1/status", "/v1/status/", "//v1//status", "/v1/status?verbose=1"})
    EXPECT_EQ(call("GET", target).body, emptyStatus) << target;
  for (const std::string route : {"PUT /v1/status", "get /v1/status", "GET /V1/status",
                                  "GET /v1/status/extra", "GET /v1/images/x/quality"}) {
    const size_t space = route.find(' ');
    auto response = call(route.substr(0, space), route.substr(space + 1));
    EXPECT_EQ(std::to_string(response.status) + response.body, "404" + error("Unknown route")) << route;
  }
}

TEST_F(RouterTest, RefusalsNameWhatWasWrong) {
  const std::string id = importPaths({writeJPEG("a.jpg")}).at(0),
                    file = QString::fromStdString(writeJPEG("f.jpg")).replace("/", "\\/").toStdString();
  const std::string unknownID = "0000000A-0000-0000-0000-00000000000b",
                    range = "quality must be between 1 and 100";
  model_->upsertExportProfile({QUuid::createUuid(), "Bare", ImageFormat::webp, 30, std::nullopt, false, {}});
  struct Case {
    std::string method, target, body;
    int status;
    std::string message;
  } const cases[] = {
      {"POST", "/v1/import", R"({"paths":[1]})", 400, R"(Expected JSON body: {\"paths\": [String]})"},
      {"POST", "/v1/settings", R"({"quality":"80"})", 400,
       R"(Expected JSON body: {\"quality\": Double?, \"format\": String?, \"profile\": String?})"},
      {"POST", "/v1/settings", R"({"quality":100.5})", 400, range},
      {"POST", "/v1/settings", R"({"format":"jpg"})", 400,
       "Unknown format 'jpg' \xE2\x80\x94 expected one of "
       R"([\"png\", \"jpeg\", \"heic\", \"avif\", \"webp\", \"jxl\"])"},
      {"POST", "/v1/settings", R"({"profile":"Web"})", 404, "No profile named 'Web'"},
      {"POST", "/v1/images/" + id + "/quality", "not json", 400,
       R"(Expected JSON body: {\"quality\": Double?} (omit\/null to follow the global slider))"},
      {"POST", "/v1/images/" + id + "/quality", R"({"quality":0})", 400, range},
      // The lookup comes first: a bad body for an unknown id is a 404 echoing the segment.
      {"POST", "/v1/images/" + unknownID + "/quality", "not json", 404,
       "No image with id '" + unknownID + "'"},
      {"DELETE", "/v1/images/not-a-uuid", "", 404, "No image with id 'not-a-uuid'"},
      {"POST", "/v1/images/" + id + "/export", R"({"folder":"/tmp"})", 400,
       R"(Expected JSON body: {\"path\": String, \"waitTimeoutSeconds\": Double?})"},
      {"POST", "/v1/export", R"({"folder":7})", 400,
       R"(Expected JSON body: {\"folder\": String, \"waitTimeoutSeconds\": Double?, \"profile\": String?})"},
      {"POST", "/v1/export", R"({"folder":")" + file + R"("})", 400, "folder does not exist: " + file},
      {"POST", "/v1/export", R"({"profile":"none"})", 404, "No profile named 'none'"},
      // Relative to the program's working folder (often "/"): never taken.
      {"POST", "/v1/export", R"({"folder":"out"})", 400, "folder must be an absolute path: out"},
      {"POST", "/v1/images/" + id + "/export", R"({"path":"a.webp"})", 400,
       "path must be an absolute path: a.webp"},
      {"POST", "/v1/profiles", R"({"name":"a","format":"png","quality":5,"destinationFolder":"."})", 400,
       "destinationFolder must be an absolute path: ."},
      {"POST", "/v1/export", R"({"profile":"bare"})", 400,
       "Profile 'bare' has no destination folder \xE2\x80\x94 pass \\\"folder\\\" explicitly"},
      {"POST", "/v1/profiles", R"({"name":"a","format":"png","quality":null})", 400,
       R"(Expected JSON body: {\"name\": String, \"format\": String, \"quality\": Double, \"destinationFolder\": String?})"},
      {"POST", "/v1/profiles", R"({"name":" \n\t","format":"png","quality":5})", 400,
       "name must not be empty"},
      {"POST", "/v1/profiles",
       R"({"name":"a","format":"png","quality":5,"destinationFolder":")" + file + R"("})", 400,
       "destinationFolder does not exist: " + file},
      {"DELETE", "/v1/profiles/Gone%20Now", "", 404, "No profile named 'Gone Now'"},
  };
  for (const Case& c : cases) {
    auto response = call(c.method, c.target, c.body);
    EXPECT_EQ(response.status, c.status) << c.method << " " << c.target << " " << c.body;
    EXPECT_EQ(response.body, error(c.message)) << c.method << " " << c.target << " " << c.body;
  }
  EXPECT_EQ(model_->exportProfiles().size(), 1u);
  EXPECT_EQ(model_->images().size(), 1u);
}

TEST_F(RouterTest, SizeSettingsReachTheEncodesAndTurnOffWithZeroAndSettingsApplyInOrder) {
  auto set = call("POST", "/v1/settings", R"({"maxWidth":20,"maxBytes":"50k","skipLarger":true})");
  ASSERT_EQ(set.status, 200) << set.body;
  EXPECT_NE(set.body.find(R"("maxBytes":50000,"maxWidth":20,)"), std::string::npos) << set.body;
  EXPECT_NE(set.body.find(R"("skipLarger":true)"), std::string::npos) << set.body;
  EXPECT_EQ(model_->compressionOptions(),
            (CompressionOptions{.maxWidth = 20, .maxBytes = 50000, .skipLarger = true}));

  // The sized encoder is the engine's own: a 40 x 30 photo comes back fitted.
  ASSERT_EQ(importPaths({writeJPEG("a.jpg")}).size(), 1u);
  ASSERT_TRUE(waitUntilSettled());
  auto image = json(call("GET", "/v1/images")).array()[0].toObject();
  EXPECT_EQ(image["resultWidth"].toInt(), 20);
  EXPECT_EQ(image["resultHeight"].toInt(), 15);
  EXPECT_EQ(image["resultQuality"].toDouble(), 75);

  for (const char* bad : {R"({"maxWidth":-1})", R"({"maxHeight":2.5})", R"({"maxBytes":"lots"})",
                          R"({"skipLarger":1})", R"({"maxWidth":"20"})"})
    EXPECT_EQ(call("POST", "/v1/settings", bad).status, 400) << bad;
  const auto off = call("POST", "/v1/settings", R"({"maxWidth":0,"maxBytes":0,"skipLarger":false})").body;
  EXPECT_EQ(off.find("max"), std::string::npos) << off;
  EXPECT_EQ(off.find("skip"), std::string::npos) << off;
  EXPECT_EQ(model_->compressionOptions(), CompressionOptions{});

  // Settings apply in order and keep what was applied.
  auto fraction = call("POST", "/v1/settings", R"({"quality":62.5,"format":"webp"})");
  EXPECT_NE(fraction.body.find(R"("outputFormat":"webp","quality":62.5})"), std::string::npos)
      << fraction.body;
  model_->upsertExportProfile({QUuid::createUuid(), "Web", ImageFormat::avif, 55, std::nullopt, false, {}});
  // A good profile followed by a bad format: the profile stays applied.
  EXPECT_EQ(call("POST", "/v1/settings", R"({"format":"gif","profile":"wEB"})").status, 400);
  EXPECT_TRUE(model_->outputFormat() == ImageFormat::avif && model_->quality() == 55.0);
  EXPECT_EQ(model_->appliedProfileName(), std::optional<QString>("Web"));
}

TEST_F(RouterTest, ProfilesAreUpsertedByNameInAnyCaseListedAndDeleted) {
  std::string out = folder("out");
  auto created =
      call("POST", "/v1/profiles",
           R"({"name":"  My Web  ","format":"webp","quality":70,"destinationFolder":")" + out + R"("})");
  QString id = json(created)["id"].toString();
  EXPECT_EQ(created.body, R"({"destinationFolder":")" +
                              QString::fromStdString(out).replace("/", "\\/").toStdString() +
                              R"(","format":"webp","id":")" + id.toUpper().toStdString() +
                              R"(","name":"My Web","quality":70})");
  // Same name in other case: same id and default flag, replaced whole (the folder is gone).
  auto profiles = model_->exportProfiles();
  profiles.front().isDefault = true;
  model_->upsertExportProfile(profiles.front());
  auto renamed = call("POST", "/v1/profiles", R"({"name":"my web","format":"png","quality":90})");
  EXPECT_EQ(renamed.body,
            R"({"format":"png","id":")" + id.toStdString() + R"(","name":"my web","quality":90})");
  ASSERT_EQ(model_->exportProfiles().size(), 1u);
  EXPECT_TRUE(model_->exportProfiles().front().isDefault);
  EXPECT_EQ(call("GET", "/v1/profiles").body, "[" + renamed.body + "]");
  EXPECT_EQ(call("DELETE", "/v1/profiles/MY%20WEB").body, R"({"removed":true})");
  EXPECT_EQ(call("GET", "/v1/profiles").body, "[]");
}

TEST_F(RouterTest, ImportReportsEachFailureInOrderListsNewIdsAndImagesDescribeTheModelWithTheirOverrides) {
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
  call("POST", "/v1/images/" + id + "/quality", R"({"quality":13})");
  ASSERT_TRUE(waitUntilSettled());
  const QJsonObject broken = json(call("GET", "/v1/images"))[0].toObject();
  EXPECT_TRUE(broken["state"] == "failed" && !broken["error"].toString().isEmpty())
      << QJsonDocument(broken).toJson().toStdString();

  for (const char* clear : {"{}", R"({"quality":null})"}) {
    call("POST", "/v1/images/" + id + "/quality", R"({"quality":12})");
    EXPECT_FALSE(
        json(call("POST", "/v1/images/" + id + "/quality", clear)).object().contains("qualityOverride"));
  }
}

// Paths on a volume that no longer answers (a network volume whose server went away) hold up the
// requests that name them, never the window; once it answers, the answers are those for no file.
TEST_F(RouterTest, AVolumeThatNoLongerAnswersHoldsUpOnlyTheRequestsThatNameIt) {
  const std::string volumePath = folder("volume");
  testing::StalledVolume volume(volumePath);
  if (!volume.mounted()) GTEST_SKIP() << "no right to mount here";
  const std::string file = volumePath + "/a.jpg", out = volumePath + "/out", kept = volumePath + "/kept";
  const auto send = [&](const std::string& target, const std::string& body) {
    return std::async(std::launch::async,
                      [port = port_, request = testing::buildRequest("POST", target, token_, body)] {
                        return testing::httpExchange(port, request);
                      });
  };
  auto imported = send("/v1/import", R"({"paths":[")" + file + R"(",")" + writeJPEG("good.jpg") + R"("]})");
  auto exported = send("/v1/export", R"({"folder":")" + out + R"("})");
  auto profile = send("/v1/profiles",
                      R"({"name":"a","format":"png","quality":5,"destinationFolder":")" + kept + R"("})");
  ASSERT_TRUE(QTest::qWaitFor([&] { return volume.holding() == 3; }, 10000)) << volume.holding();
  EXPECT_EQ(call("GET", "/v1/status").status, 200);
  EXPECT_EQ(volume.holding(), 3);

  volume.release();
  const auto answer = [](std::future<testing::RawHTTPResponse>& future) {
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, 10000));
    return json(future.get());
  };
  const QJsonObject importAnswer = answer(imported).object();
  const QJsonObject notFound{{"error", "File not found"}, {"path", QString::fromStdString(file)}};
  EXPECT_EQ(importAnswer["failed"].toArray(), QJsonArray{notFound});
  EXPECT_EQ(importAnswer["imported"].toArray().size(), 1);
  EXPECT_EQ(answer(exported)["error"].toString().toStdString(), "folder does not exist: " + out);
  EXPECT_EQ(answer(profile)["error"].toString().toStdString(), "destinationFolder does not exist: " + kept);
  EXPECT_TRUE(model_->exportProfiles().empty());
}

TEST_F(RouterTest, ExportWaitsForBytesWritesIntoTheFolderThePathOrTheProfilesAndAppliesTheProfile) {
  gate_.acquire();
  const std::string one = writeJPEG("one.jpg", 1);
  auto ids = importPaths({one, writeJPEG("two.jpg", 2)});
  ASSERT_EQ(ids.size(), 2u);
  std::string out = folder("out"), profileFolder = folder("profile-out");
  // Without waiting, images that have no bytes yet are reported; with the default wait the
  // same export succeeds.
  auto early = call("POST", "/v1/export", R"({"folder":")" + out + R"(","waitTimeoutSeconds":0})");
  EXPECT_EQ(json(early)[0].toObject().keys(), (QStringList{"error", "id", "name", "originalSizeBytes"}))
      << early.body;

  openGateOnRequest_ = true;  // only an export that waits has bytes
  QJsonArray results = json(call("POST", "/v1/export", R"({"folder":")" + out + R"("})")).array();
  ASSERT_EQ(results.size(), 2);
  EXPECT_EQ(results[0].toObject()["destination"].toString().toStdString(), out + "/one.jpg");
  EXPECT_EQ(results[0].toObject()["compressedSizeBytes"].toInteger(), 751);
  EXPECT_EQ(QFileInfo(QString::fromStdString(out + "/two.jpg")).size(), 751);

  // One image to a path of its own, as the system reads it (through a link, ".." is the parent of the
  // link's target); a write that fails is reported in the answer.
  ASSERT_TRUE(QDir(dir_.path()).mkpath("deep/sub") &&
              QFile::link(dir_.filePath("deep/sub"), dir_.filePath("link")));
  const std::string route = "/v1/images/" + ids[0] + "/export",
                    target = dir_.filePath("link/../renamed.bin").toStdString();
  const std::string toTarget = R"({"path":")" + target + R"("})";
  EXPECT_EQ(call("POST", route, R"({"path":")" + target + R"(","folder":5})").status, 400)
      << "a wrong type anywhere invalidates the shared body";
  EXPECT_EQ(json(call("POST", route, toTarget))["destination"].toString().toStdString(), target);
  EXPECT_EQ(QFileInfo(dir_.filePath("deep/renamed.bin")).size(), 751);
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
  EXPECT_TRUE(model_->images().empty());
}

}  // namespace
}  // namespace quillane
