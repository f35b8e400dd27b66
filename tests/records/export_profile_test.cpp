#include <QJsonDocument>

#include "records/ExportProfile.h"
#include "records/ExportProfileResolver.h"
#include "tests/records/records_test_support.h"

namespace quillane::testing {
namespace {

const QUuid idA = QUuid::fromString(QStringLiteral("0b8f3a6e-1c2d-4e5f-8a9b-0c1d2e3f4a5b"));
const QUuid idB = QUuid::fromString(QStringLiteral("1c9e4b7f-2d3e-4f60-9bac-1d2e3f405b6c"));
const QUuid idC = QUuid::fromString(QStringLiteral("2daf5c80-3e4f-4071-8cbd-2e3f40516c7d"));

ExportProfile profile(QUuid id, QString name, ImageFormat format = ImageFormat::jpeg, double quality = 75,
                      bool isDefault = false) {
  return ExportProfile{id, std::move(name), format, quality, std::nullopt, isDefault};
}

std::optional<ExportProfileList> decode(const char* json) {
  return ExportProfiles::listFromJson(QJsonDocument::fromJson(QByteArray(json)));
}

// ---- Coding ----

TEST(ExportProfileJSON, WritesTheStoredForms) {
  ExportProfile p = profile(idA, QStringLiteral("Web é"), ImageFormat::webp, 80);
  p.destinationFolder = QStringLiteral("/home/u/My Pictures");
  EXPECT_EQ(ExportProfiles::toJson(ExportProfileList{p}).write(),
            R"([{"id":"0B8F3A6E-1C2D-4E5F-8A9B-0C1D2E3F4A5B","name":"Web é","format":"webp","quality":80,)"
            R"("destinationFolder":"file:///home/u/My%20Pictures","isDefault":false}])");
  p.destinationFolder.reset();
  p.quality = 62.5;
  p.isDefault = true;
  EXPECT_EQ(ExportProfiles::toJson(p).write(),
            R"({"id":"0B8F3A6E-1C2D-4E5F-8A9B-0C1D2E3F4A5B","name":"Web é","format":"webp","quality":62.5,)"
            R"("isDefault":true})");
}

TEST(ExportProfileJSON, OptionalFieldsMayBeMissingOrNull) {
  const auto list = decode(R"([
    {"id":"0b8f3a6e-1c2d-4e5f-8a9b-0c1d2e3f4a5b","name":"A","format":"png","quality":90},
    {"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"jxl","quality":40,
     "destinationFolder":null,"isDefault":null,"unknownKey":[1]},
    {"id":"2DAF5C80-3E4F-4071-8CBD-2E3F40516C7D","name":"C","format":"avif","quality":1,
     "destinationFolder":"file:///tmp/My%20Out","isDefault":true}])");
  ASSERT_TRUE(list);
  ASSERT_EQ(list->size(), 3u);
  EXPECT_EQ((*list)[0], profile(idA, QStringLiteral("A"), ImageFormat::png, 90));
  EXPECT_EQ((*list)[1], profile(idB, QStringLiteral("B"), ImageFormat::jxl, 40));
  ExportProfile c = profile(idC, QStringLiteral("C"), ImageFormat::avif, 1, true);
  c.destinationFolder = QStringLiteral("/tmp/My Out");
  EXPECT_EQ((*list)[2], c);
}

TEST(ExportProfileJSON, OneBadEntryFailsTheWholeFile) {
  const char* good = R"({"id":"0B8F3A6E-1C2D-4E5F-8A9B-0C1D2E3F4A5B","name":"A","format":"png","quality":90})";
  const char* bad[] = {
      R"({"name":"B","format":"png","quality":90})",                                              // no id
      R"({"id":"{1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C}","name":"B","format":"png","quality":9})",  // braces
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","format":"png","quality":90})",             // no name
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"jpg","quality":90})",  // raw value
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"png","quality":"9"})",
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"png"})",
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"png","quality":9,"isDefault":1})",
      R"({"id":"1C9E4B7F-2D3E-4F60-9BAC-1D2E3F405B6C","name":"B","format":"png","quality":9,)"
      R"("destinationFolder":"https://example.invalid/x"})",
      R"("not an object")",
  };
  for (const char* entry : bad) {
    const std::string json = std::string("[") + good + "," + entry + "]";
    EXPECT_FALSE(decode(json.c_str())) << entry;
  }
  EXPECT_FALSE(decode(good)) << "an object, not a list";
  EXPECT_TRUE(decode((std::string("[") + good + "]").c_str()));
}

TEST_F(StoreFolderTest, ProfilesRoundTripThroughTheirFile) {
  ExportProfile a = profile(idA, QStringLiteral("Web"), ImageFormat::webp, 80, true);
  a.destinationFolder = QStringLiteral("/tmp/a b/#c");
  const ExportProfileList list{a, profile(idB, QStringLiteral("Archive"), ImageFormat::jxl, 95)};
  ExportProfiles::save(list);
  EXPECT_EQ(ExportProfiles::load(), list);
  writeStoreFile(QString::fromLatin1(ExportProfiles::fileName), "[{\"id\":");
  EXPECT_TRUE(ExportProfiles::load().empty());
}

// ---- List operations ----

TEST(ExportProfileList, NewNameAppendsAndSameNameInOtherCaseReplacesInPlace) {
  ExportProfileList list{profile(idA, QStringLiteral("web")), profile(idB, QStringLiteral("Print"))};
  ExportProfiles::upsert(list, profile(idC, QStringLiteral("Mail")));
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[2].id, idC);

  const QUuid fresh = QUuid::createUuid();
  ExportProfiles::upsert(list, profile(fresh, QStringLiteral("  Web\n"), ImageFormat::png));
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0].id, fresh) << "the incoming profile takes over with its own id";
  EXPECT_EQ(list[0].name, QStringLiteral("  Web\n")) << "the name is stored as given";
  EXPECT_EQ(list[0].format, ImageFormat::png);
}

TEST(ExportProfileList, RenamingOntoAnotherNameRemovesTheOther) {
  ExportProfileList list{profile(idA, QStringLiteral("A")), profile(idB, QStringLiteral("B")),
                         profile(idC, QStringLiteral("C"))};
  ExportProfiles::upsert(list, profile(idA, QStringLiteral("b "), ImageFormat::heic));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], profile(idA, QStringLiteral("b "), ImageFormat::heic));
  EXPECT_EQ(list[1].id, idC);
}

TEST(ExportProfileList, OnlyOneDefaultAndDeletingItLeavesNone) {
  ExportProfileList list{profile(idA, QStringLiteral("A"), ImageFormat::jpeg, 75, true),
                         profile(idB, QStringLiteral("B"))};
  ExportProfiles::upsert(list, profile(idB, QStringLiteral("B"), ImageFormat::jpeg, 75, true));
  EXPECT_FALSE(list[0].isDefault);
  EXPECT_TRUE(list[1].isDefault);
  ExportProfiles::upsert(list, profile(idC, QStringLiteral("C")));  // not a default: nothing changes
  EXPECT_TRUE(list[1].isDefault);

  ExportProfiles::remove(list, profile(idB, QStringLiteral("whatever name")));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(ExportProfiles::findDefault(list), nullptr);
}

TEST(ExportProfileList, FindComparesNamesIgnoringCaseButNotSpace) {
  const ExportProfileList list{profile(idA, QStringLiteral("Web")), profile(idB, QStringLiteral("WEB"))};
  ASSERT_NE(ExportProfiles::find(list, QStringLiteral("wEb")), nullptr);
  EXPECT_EQ(ExportProfiles::find(list, QStringLiteral("wEb"))->id, idA);
  EXPECT_EQ(ExportProfiles::find(list, QStringLiteral(" web")), nullptr);
}

// ---- Resolver ----

class ExportProfileResolverTest : public StoreFolderTest {
 protected:
  void SetUp() override {
    StoreFolderTest::SetUp();
    ExportProfile web = profile(idA, QStringLiteral("Web"), ImageFormat::webp, 80);
    web.destinationFolder = QStringLiteral("/srv/web");
    ExportProfiles::save({web, profile(idB, QStringLiteral("Archive"), ImageFormat::jxl, 95)});
  }
};

TEST_F(ExportProfileResolverTest, NamedProfileFillsWhatWasNotGiven) {
  auto r = ExportProfileResolver::resolve(QStringLiteral("wEB"), std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(r.format, ImageFormat::webp);
  EXPECT_EQ(r.quality, 80);
  EXPECT_EQ(r.outputDirectory, QStringLiteral("/srv/web"));

  r = ExportProfileResolver::resolve(QStringLiteral("Web"), 40.0, std::nullopt, QStringLiteral("/out"));
  EXPECT_EQ(r.format, ImageFormat::webp);
  EXPECT_EQ(r.quality, 40);
  EXPECT_EQ(r.outputDirectory, QStringLiteral("/out"));

  r = ExportProfileResolver::resolve(QStringLiteral("archive"), std::nullopt, ImageFormat::png, std::nullopt);
  EXPECT_EQ(r.format, ImageFormat::png);
  EXPECT_EQ(r.quality, 95);
  EXPECT_EQ(r.outputDirectory, std::nullopt);
}

TEST_F(ExportProfileResolverTest, UnknownNameThrowsWithThatName) {
  try {
    ExportProfileResolver::resolve(QStringLiteral(" Web"), 50.0, ImageFormat::png, std::nullopt);
    FAIL() << "expected ProfileNotFoundError";
  } catch (const ProfileNotFoundError& e) {
    EXPECT_EQ(e.name(), QStringLiteral(" Web"));
    EXPECT_EQ(e.description(), "Profil introuvable :  Web");
  }
}

TEST_F(ExportProfileResolverTest, WithoutANameTheDefaultProfileOrTheStartValuesApply) {
  auto r = ExportProfileResolver::resolve(std::nullopt, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(r.format, ImageFormat::jpeg);
  EXPECT_EQ(r.quality, 75);
  EXPECT_EQ(r.outputDirectory, std::nullopt);

  ExportProfileList list = ExportProfiles::load();
  list[1].isDefault = true;
  ExportProfiles::save(list);
  r = ExportProfileResolver::resolve(std::nullopt, 10.0, std::nullopt, std::nullopt);
  EXPECT_EQ(r.format, ImageFormat::jxl);
  EXPECT_EQ(r.quality, 10);
}

TEST_F(ExportProfileResolverTest, DamagedFileMeansNoProfiles) {
  writeStoreFile(QString::fromLatin1(ExportProfiles::fileName), "{oops");
  const auto r = ExportProfileResolver::resolve(std::nullopt, std::nullopt, ImageFormat::heic, std::nullopt);
  EXPECT_EQ(r.format, ImageFormat::heic);
  EXPECT_EQ(r.quality, 75);
  EXPECT_THROW(ExportProfileResolver::resolve(QStringLiteral("Web"), std::nullopt, std::nullopt, std::nullopt),
               ProfileNotFoundError);
}

}  // namespace
}  // namespace quillane::testing
