// The compress command without a transport: its parameters in every accepted form, settings from
// explicit values and profiles, names kept apart within one command, errors that touch no file.
#include <sys/stat.h>
#include <unistd.h>

#include <QJsonObject>
#include <QTemporaryDir>
#include <cerrno>
#include <cstring>

#include "automation/CompressImagesIntent.h"
#include "automation/CompressScriptCommand.h"
#include "automation/QuillaneBusService.h"
#include "records/JSONFileStore.h"
#include "tests/support/ProgramUnderTest.h"

namespace quillane {
namespace {

using CompressScriptCommand::performDefaultImplementation;

class CompressCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(temp_.isValid());
    JSONFileStore::setFolderForTesting(temp_.filePath("support"));
    QDir(temp_.path()).mkpath("in/sub");
  }
  void TearDown() override { JSONFileStore::setFolderForTesting({}); }

  QString source(const QString& name) { return testing::writeSmallImage(temp_.filePath("in/" + name)); }
  QString out(const QString& relative = "out") const { return temp_.filePath(relative); }

  // Runs the command and parses its JSON; fails the test on a command error.
  QJsonArray run(const QVariant& files, const QVariantMap& arguments) {
    auto outcome = performDefaultImplementation(files, arguments);
    EXPECT_TRUE(outcome.json) << outcome.errorString;
    EXPECT_EQ(outcome.errorNumber, 0);
    return outcome.json ? QJsonDocument::fromJson(QByteArray::fromStdString(*outcome.json)).array()
                        : QJsonArray();
  }
  // Where each record's file went, relative to the test's folder ("" for none).
  QStringList destinations(const QJsonArray& records) const {
    QStringList paths;
    for (const auto& record : records) {
      const QString destination = record.toObject()["destination"].toString();
      paths << (destination.isEmpty() ? destination : QDir(temp_.path()).relativeFilePath(destination));
    }
    return paths;
  }

  QTemporaryDir temp_;
};

// Only a transport that passes variants can meet a bad direct parameter: command error 6,
// and no file is touched.
TEST_F(CompressCommand, PathsComeFromUrlsStringsAndNestedListsInOrderAndAnythingElseIsErrorSix) {
  QVariantList inner{QString("b.png"), QUrl::fromLocalFile("/x/c d.jpg"), QByteArray("\xff\xfe.png")};
  QVariant direct = QVariantList{QString("~/a.png"), QVariant(inner), QStringList{"e.webp"}};
  EXPECT_EQ(CompressScriptCommand::filePaths(direct),
            (std::vector<std::string>{"~/a.png", "b.png", "/x/c d.jpg", "\xff\xfe.png", "e.webp"}));
  EXPECT_TRUE(CompressScriptCommand::filePaths(QVariantList{}).empty());

  const std::string badParameter =
      "Paramètre direct invalide : attendait un ou plusieurs chemins de fichiers.";
  for (const QVariant& bad : {QVariant(), QVariant(42), QVariant(QVariantList{QString("a.png"), 3.5})}) {
    const auto outcome = performDefaultImplementation(bad, {{"to", out()}});
    EXPECT_EQ(std::tuple(outcome.json.has_value(), outcome.errorNumber, outcome.errorString),
              std::tuple(false, 6, badParameter))
        << bad.typeId();
  }
  EXPECT_FALSE(CompressScriptCommand::url(QVariant(3)));
  EXPECT_FALSE(QFileInfo::exists(out()));
}

TEST_F(CompressCommand, SizeOptionsTakeNumbersOrSizeTextsRefuseTheWrongKindAndReachEachFile) {
  using CompressScriptCommand::compressionOptions;
  const CompressionOptions given = compressionOptions({{"maxWidth", 1600},
                                                       {"maxHeight", qlonglong(1200)},
                                                       {"maxBytes", QString("1.5M")},
                                                       {"skipLarger", true}});
  EXPECT_EQ(given, (CompressionOptions{
                       .maxWidth = 1600, .maxHeight = 1200, .maxBytes = 1500000, .skipLarger = true}));
  EXPECT_EQ(compressionOptions({{"maxBytes", 250000.0}}).maxBytes, 250000);

  for (const QVariantMap& bad :
       {QVariantMap{{"maxWidth", 0}}, QVariantMap{{"maxHeight", true}},
        QVariantMap{{"maxWidth", QString("wide")}}, QVariantMap{{"maxBytes", QString("5q")}},
        QVariantMap{{"maxBytes", -3}}, QVariantMap{{"skipLarger", QString("yes")}}})
    EXPECT_THROW(compressionOptions(bad), ScriptCommandError) << bad.firstKey().toStdString();

  // The size options reach each file: it is fitted, and kept within a budget below its size at quality 100.
  const QString jpeg = source("b.jpg");
  QVariantMap fit{{"to", out()}, {"format", "jpeg"}, {"quality", 100}, {"maxWidth", 20}};
  const int budget = run(QStringList{jpeg}, fit)[0].toObject()["compressedSizeBytes"].toInt() * 85 / 100;
  fit.insert("maxBytes", budget);
  const QJsonObject fitted = run(QStringList{jpeg}, fit)[0].toObject();
  EXPECT_EQ(fitted["pixelWidth"].toInt(), 20);
  EXPECT_LE(fitted["compressedSizeBytes"].toInt(), budget);
}

// Files run side by side, a large one first so that the small ones behind it finish before it: the records
// still follow the arguments, each with its own file and how it looks beside its source, and the names are
// the ones sequential compression gives, apart ignoring case within one command only. A file of the same name
// from before is replaced; a format is named in any case.
TEST_F(CompressCommand, ParallelFilesKeepTheOrderAndNamesOfTheArgumentsWithinOneCommand) {
  const QString large = temp_.filePath("in/p.png");
  testing::writeBytes(large.toStdString(),
                      fixtures::png(testing::makeImage(1200, 900, testing::Pattern::photo, 3)));
  QDir(temp_.path()).mkpath("in/b");
  QDir().mkpath(out());
  testing::writeBytes(out("out/p.jpg").toStdString(), {'o', 'l', 'd'});
  const QString upper = source("b/P.jpg");
  const QStringList files{large, source("sub/p.png"), temp_.filePath("in/missing.png"), upper};
  QJsonArray records = run(files, {{"to", QUrl::fromLocalFile(out())}, {"format", "JPEG"}});
  ASSERT_EQ(records.size(), 4);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(records[i].toObject()["path"].toString(), files[i]);
  EXPECT_EQ(destinations(records), (QStringList{"out/p.jpg", "out/p-2.jpg", "", "out/P-3.jpg"}));
  for (int i : {0, 1, 3}) EXPECT_GE(records[i].toObject()["butteraugli"].toDouble(-1), 0.0) << i;
  EXPECT_GT(QFileInfo(out("out/p.jpg")).size(), 10 * QFileInfo(out("out/p-2.jpg")).size());
  EXPECT_EQ(destinations(run(QStringList{upper}, {{"to", out()}})), QStringList{"out/P.jpg"})
      << "a new command starts with a fresh set of names";
}

// An input is never a destination, whether it was read already or is still to be read: the name gets the
// next number.
TEST_F(CompressCommand, NoInputOfTheCommandIsReplaced) {
  QString png = source("photo.png");
  QDir().mkpath(out());
  ASSERT_TRUE(QFile::copy(source("x.jpg"), out("out/photo.jpg")));
  const auto second = testing::readBytes(out("out/photo.jpg").toStdString());
  QJsonArray records = run(QStringList{png, out("out/photo.jpg")}, {{"to", out()}, {"format", "jpeg"}});
  EXPECT_EQ(destinations(records), (QStringList{"out/photo-2.jpg", "out/photo-3.jpg"}));
  EXPECT_EQ(testing::readBytes(out("out/photo.jpg").toStdString()), second)
      << "the second input was read, not replaced";

  // A private source gives a private output.
  QFile::setPermissions(png, QFile::ReadOwner | QFile::WriteOwner);
  run(QStringList{png}, {{"to", out("private")}});
  struct stat st {};
  ASSERT_EQ(::stat(QFile::encodeName(out("private/photo.jpg")).constData(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // The desktop's compress action (D-Bus) keeps to the same rule: in place, the source stays as it was.
  const QString jpeg = source("sub/pic.jpg");
  const auto original = testing::readBytes(jpeg.toStdString());
  const auto compress = [](const QString& file, const QString& folder) {
    return CompressImagesIntent::fromArguments({file}, "jpeg", 30, {}, folder).perform();
  };
  EXPECT_EQ(compress(jpeg, temp_.filePath("in/sub")), QStringList{temp_.filePath("in/sub/pic-2.jpg")});
  EXPECT_EQ(testing::readBytes(jpeg.toStdString()), original);
  // A name that is not UTF-8 reaches it as a URL's escapes, and its output keeps the bytes.
  const std::string odd = QFile::encodeName(temp_.filePath("in/sub/caf")).toStdString() + "\xe9";
  testing::writeBytes(odd + ".png", fixtures::png(testing::makeImage(40, 30, testing::Pattern::photo, 7)));
  const auto url = [](const std::string& path) {
    return QString::fromLatin1("file://" + QByteArray::fromStdString(path).toPercentEncoding("/"));
  };
  // The answer names the written file the same way, and so does a folder of such a name.
  EXPECT_EQ(compress(url(odd + ".png"), {}), QStringList{url(odd + ".jpg")});
  EXPECT_EQ(compress(url(odd + ".png"), url(odd)), QStringList{url(odd + "/caf\xe9.jpg")});
  EXPECT_EQ(::unlink((odd + ".jpg").c_str()), 0) << "no output under the source's own bytes";
  EXPECT_EQ(::unlink((odd + "/caf\xe9.jpg").c_str()), 0);
  ::rmdir(odd.c_str());
  ::unlink((odd + ".png").c_str());  // a name the temporary folder's clean-up can't read
}

// The desktop's compress action as the bus hands it over (CompressWithOptions' map; Compress
// passes the same four through fromArguments): each refusal with the error name and text the
// caller gets, touching nothing; a failing file ends the call, and what was written stays.
TEST_F(CompressCommand, DesktopActionRefusalsAreNamedBusErrorsAndKeepWhatWasWritten) {
  const QString a = source("a.png"), b = source("b.jpg"), notImage = temp_.filePath("in/notes.png");
  testing::writeBytes(notImage.toStdString(), {'j', 'u', 's', 't', ' ', 't', 'e', 'x', 't'});
  QFile::copy(a, out("blocker"));  // a file where a folder should be made
  const QString bus = "com.quillane.Quillane.Error.", invalid = "org.freedesktop.DBus.Error.InvalidArgs";
  const QString failed = bus + "CompressionFailed";
  const QVariantMap e{{"outputFolder", out("e")}}, bad{{"outputFolder", out("bad")}};
  const auto with = [&](QVariantMap options) {
    options.insert(e);
    return options;
  };
  // The files written, joined by commas.
  const auto perform = [](const QStringList& files, const QVariantMap& options) {
    return CompressImagesIntent::fromOptions(files, options).perform().join(",").toStdString();
  };
  const struct {
    QStringList files;
    QVariantMap options;
    QString error, text;
  } cases[] = {
      {{}, e, bus + "EmptyFileList", "Choisissez au moins une image"},
      {{a}, with({{"quality", 101}}), invalid, "quality : 101"},
      {{a}, with({{"format", "gif"}}), invalid, "format : gif"},
      // Relative to wherever the service runs (often /): never taken.
      {{"in/a.png"}, e, invalid, "Chemin relatif refusé pour files : in/a.png"},
      {{a}, {{"outputFolder", "out/e"}}, invalid, "outputFolder : out/e"},
      // A URL names a local file or none: another machine's is not taken as ours.
      {{"file://elsewhere" + a}, e, invalid, "files : file://elsewhere/"},
      {{"https://example.org/a.png"}, e, invalid, "files : https://example.org/a.png"},
      {{a}, with({{"profile", "Nope"}}), bus + "ProfileNotFound", "Profil introuvable : Nope"},
      {{a}, {{"outputFolder", out("blocker/sub")}}, bus + "OutputFolder", "blocker/sub"},
      {{a, temp_.filePath("in/gone.png"), b},
       {{"outputFolder", out("gone")}, {"format", "png"}},
       failed,
       "Échec de la compression de gone.png"},
      {{notImage}, bad, failed, "notes.png : Impossible de décoder"},
      {{temp_.filePath("in/sub/")}, bad, failed, "de sub : " + QString::fromLocal8Bit(std::strerror(EISDIR))},
      {{a}, with({{"maxWidth", "wide"}}), invalid, "maxWidth"},
      {{a}, with({{"colour", 1}}), invalid, "colour"},
      {{a}, with({{"quality", "high"}}), invalid, "quality : high"},
      {{a}, with({{"quality", true}}), invalid, "quality : true"},
      {{a}, with({{"profile", 3}}), invalid, "profile : 3"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.toStdString());
    try {
      perform(c.files, c.options);
      ADD_FAILURE() << "accepted";
    } catch (...) {
      const auto [name, text] = QuillaneBusService::errorFor(std::current_exception());
      EXPECT_EQ(name, c.error);
      EXPECT_TRUE(text.contains(c.text)) << text.toStdString();
    }
  }
  EXPECT_EQ(QDir(out("gone")).entryList(QDir::Files | QDir::Hidden), QStringList{"a.png"});
  EXPECT_TRUE(QDir(out("bad")).isEmpty());
  EXPECT_FALSE(QFileInfo::exists(out("e")));
  EXPECT_EQ(QuillaneBusService::errorFor(std::make_exception_ptr(CallerGoneError())).first,
            bus + "CallerGone");
  EXPECT_EQ(QuillaneBusService::errorFor(std::make_exception_ptr(std::bad_alloc())).first,
            "org.freedesktop.DBus.Error.Failed");

  // A file URL is read as the launch reads it, in any case and of this machine by name.
  EXPECT_EQ(perform({"FILE://localhost" + a}, {{"outputFolder", out("url")}}),
            out("url/a.jpg").toStdString());

  // A JPEG at 95 grows at 100: kept, and left out of the outputs.
  const QVariantMap grows{
      {"format", "jpeg"}, {"quality", 100}, {"outputFolder", out("kept")}, {"skipLarger", true}};
  EXPECT_EQ(perform({b}, grows), "");
  EXPECT_TRUE(QDir(out("kept")).isEmpty());
}

}  // namespace
}  // namespace quillane
