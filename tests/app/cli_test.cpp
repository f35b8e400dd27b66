// The real quillane-cli executable: exit statuses, stdout and stderr, files written, and the
// profiles it finds in the user's data folder (the records, their order and names are the
// compress command's, tested on its own). Then its compress command line read without
// running the tool: each option to the command's argument, the fallbacks it warns of, and the
// lines it refuses.

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>
#include <filesystem>

#include "app/cli/CompressArguments.h"
#include "tests/support/ProgramUnderTest.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using testing::ProgramRun;

class CommandLineTool : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(QFileInfo(program_).isExecutable()) << program_.toStdString();
    ASSERT_TRUE(dir_.isValid());
    QDir(dir_.path()).mkpath("in/nested");
  }

  // `shell` runs the tool through /bin/sh -c, with "$Q" the tool, for arguments that QProcess
  // can't pass (bytes that are not UTF-8, made with printf).
  ProgramRun run(const QStringList& arguments, const QString& stdoutFile = {}, const QString& shell = {}) {
    QProcessEnvironment env = testing::sandboxEnvironment(dir_.path());
    env.insert("Q", program_);
    if (!shell.isEmpty()) return testing::runToEnd("/bin/sh", {"-c", shell}, env, dir_.path());
    return testing::runToEnd(program_, arguments, env, dir_.path(), stdoutFile);
  }

  // Relative to the tool's working folder.
  QString image(const QString& relative, testing::Pattern pattern = testing::Pattern::photo) {
    testing::writeSmallImage(path("in/" + relative), pattern);
    return "in/" + relative;
  }
  QString path(const QString& relative) const { return dir_.filePath(relative); }

  QString program_ = testing::builtProgram("quillane-cli");
  QTemporaryDir dir_;
};

TEST_F(CommandLineTool, ErrorsExitWithSixOrTwoFallbacksAreToldAndTheDefaultProfileIsFound) {
  QString a = image("a.png");
  for (const QStringList& wrong :
       {QStringList{"shrink", a}, QStringList{"compress", a, "--max-bytes", "12x"}}) {
    const ProgramRun refused = run(wrong + QStringList{"--to", "out"});
    EXPECT_TRUE(refused.exitCode == 2 && refused.out.isEmpty()) << refused.exitCode;
    EXPECT_TRUE(refused.err.contains("Try 'quillane-cli --help'.")) << refused.err.toStdString();
  }
  EXPECT_EQ(run({"compress", "-h"}).exitCode, 0);
  struct Case {
    QStringList arguments;
    QString message;
  } cases[] = {
      {{"compress", a}, "Dossier de destination manquant : passez \"to\" ou un profil qui en a un."},
      {{"compress", "--to", "out"}, "Aucun fichier à compresser."},
      {{"compress", a, "--to", "out", "--profile", "Print"}, "Profil introuvable : Print"},
  };
  for (const Case& c : cases) {
    ProgramRun r = run(c.arguments);
    EXPECT_TRUE(r.exitCode == 6 && r.out.isEmpty()) << r.exitCode;
    EXPECT_EQ(QString::fromUtf8(r.err).trimmed(), c.message);
    EXPECT_FALSE(QFileInfo::exists(path("out")));
  }

  // What it falls back on is said on stderr; the folder may be a file:// URL.
  ProgramRun r = run({"compress", a, "--format", "bmp", "--quality", "150", "--to",
                      QUrl::fromLocalFile(path("out dir")).toString(QUrl::FullyEncoded)});
  ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
  EXPECT_TRUE(QFileInfo::exists(path("out dir/a.jpg"))) << r.out.toStdString();
  EXPECT_TRUE(r.err.contains("unknown format 'bmp'")) << r.err.toStdString();
  EXPECT_TRUE(r.err.contains("quality 150 is outside 1 to 100: 100 is used")) << r.err.toStdString();

  // The default profile in the data folder gives folder and format.
  testing::saveDefaultProfile(path("data"), "avif", path("archive"));
  r = run({"compress", image("pic.png")});
  ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
  EXPECT_TRUE(QFileInfo(path("archive/pic.avif")).size() > 0);
}

// Names are bytes: not UTF-8, or 255 bytes long, they go in and come out as they are; "-h"
// after "--" is a file; a lost standard output and an unusable folder are errors that say so.
TEST_F(CommandLineTool, OddNamesLostOutputAndUnusableFolders) {
  const QByteArray odd = QByteArray("in/") + "caf\xe9 \xff.png";
  const QByteArray longName = QByteArray(251, 'n') + ".png";
  testing::writeBytes(QFile::encodeName(dir_.path()).toStdString() + "/" + odd.toStdString(),
                      testing::readBytes(path(image("odd.png")).toStdString()));
  QFile::copy(path("in/odd.png"), path("in/" + longName));
  QFile::copy(path("in/odd.png"), path("-h"));
  ProgramRun r = run({}, {},
                     "exec \"$Q\" compress \"$(printf 'in/caf\\351 \\377.png')\" in/" + longName +
                         " --format png --to out -- -h");
  ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
  EXPECT_TRUE(r.err.isEmpty());
  // Valid JSON still, each byte that is not UTF-8 as U+F700 plus the byte.
  QJsonParseError parse;
  QJsonDocument::fromJson(r.out, &parse);
  EXPECT_EQ(parse.error, QJsonParseError::NoError) << r.out.toStdString();
  EXPECT_TRUE(r.out.contains("\\/out\\/caf\\uf7e9 \\uf7ff.png\"")) << r.out.toStdString();
  EXPECT_TRUE(r.out.contains("\"path\":\"-h\"") && !r.out.contains("Usage"));
  const std::string root = QFile::encodeName(dir_.path()).toStdString();
  EXPECT_TRUE(std::filesystem::exists(root + "/out/caf\xe9 \xff.png"));
  EXPECT_TRUE(QFileInfo::exists(path("out/" + longName)) && QFileInfo::exists(path("out/-h.png")));
  // Qt can't name these files to remove them.
  std::filesystem::remove(root + "/out/caf\xe9 \xff.png");
  std::filesystem::remove(root + "/" + odd.toStdString());

  ProgramRun full = run({"compress", "in/odd.png", "--to", "out"}, "/dev/full");
  EXPECT_EQ(full.exitCode, 3);
  EXPECT_TRUE(full.err.startsWith("quillane-cli: standard output: ")) << full.err.toStdString();

  ProgramRun blocked = run({"compress", "in/odd.png", "--to", "in/odd.png/sub"});
  EXPECT_EQ(blocked.exitCode, 6);
  EXPECT_TRUE(blocked.err.startsWith("in/odd.png/sub: ")) << blocked.err.toStdString();
}

TEST_F(CommandLineTool, InspectAndAnalyzeDescribeEachFileInOrder) {
  QString png = image("shot.png", testing::Pattern::screenshot);
  ProgramRun inspected = run({"inspect", png, "in/missing.png"});
  ASSERT_EQ(inspected.exitCode, 0);
  QJsonArray files = inspected.json();
  EXPECT_TRUE(files[0].toObject()["format"] == "png" && files[0].toObject()["pixelWidth"] == 48)
      << inspected.out.toStdString();
  EXPECT_EQ(files[1].toObject().keys(), (QStringList{"error", "path"}));

  ProgramRun analyzed = run({"analyze", "--quality", "90", png});
  ASSERT_EQ(analyzed.exitCode, 0);
  QJsonObject plans = analyzed.json()[0].toObject()["plans"].toObject();
  EXPECT_EQ(plans.keys(), (QStringList{"avif", "heic", "jpeg", "jxl", "png", "webp"}));
  for (const QString& format : plans.keys()) {
    const QJsonObject plan = plans[format].toObject();
    EXPECT_EQ(plan["quality"].toDouble(), 90);
    EXPECT_EQ(plan.contains("modeQuality"), plan["mode"] == "lossy") << format.toStdString();
  }
}

TEST(CompressArguments, OptionsBecomeTheCommandsArgumentsAndFallbacksAreTold) {
  const struct {
    QByteArrayList line;
    QVariantMap arguments;
    QByteArrayList files;
    std::vector<std::string> warnings;
  } cases[] = {
      {{"a.png", "--to", "out/sub", "b.jpg", "--format", "WEBP", "--skip-larger"},
       {{"to", QByteArray("out/sub")}, {"format", "WEBP"}, {"skipLarger", true}},
       {"a.png", "b.jpg"},
       {}},
      {{"--max-width=24", "--max-height", "16", "--max-bytes=1.5M", "--profile", "Web"},
       {{"maxWidth", 24}, {"maxHeight", 16}, {"maxBytes", qlonglong(1500000)}, {"profile", "Web"}},
       {},
       {}},
      // "--" ends the options: what follows is a file, even "-h" or an option's name.
      {{"--", "-h", "--to"}, {}, {"-h", "--to"}, {}},
      // A file:// URL is the path of its bytes, escaped or not (a shell passes them raw).
      {{"--to", "file:///tmp/out%20dir"}, {{"to", QByteArray("/tmp/out dir")}}, {}, {}},
      {{"--to", "file://localhost/tmp/caf\xe9 x"}, {{"to", QByteArray("/tmp/caf\xe9 x")}}, {}, {}},
      {{"--format", "bmp", "--quality", "150"},
       {{"format", "bmp"}, {"quality", 150.0}},
       {},
       {"unknown format 'bmp' ignored: the profile's format, or jpeg, is used (png, jpeg, heic, avif, webp, "
        "jxl)",
        "quality 150 is outside 1 to 100: 100 is used"}},
      {{"--quality", "0.5"}, {{"quality", 0.5}}, {}, {"quality 0.5 is outside 1 to 100: 1 is used"}},
      {{"--quality", "high"}, {{"quality", "high"}}, {}, {"quality 'high' is no number: ignored"}},
      {{"--quality", "nan"}, {{"quality", "nan"}}, {}, {"quality 'nan' is no number: ignored"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line.join(' ').toStdString());
    const cli::CompressRequest request = cli::readCompress(c.line);
    ASSERT_EQ(request.error, std::nullopt);
    EXPECT_EQ(request.arguments, c.arguments);
    QVariantList files;
    for (const QByteArray& file : c.files) files.append(file);
    EXPECT_EQ(request.files, files);
    EXPECT_EQ(request.warnings, c.warnings);
  }

  const std::pair<QByteArrayList, std::string> refused[] = {
      {{"--max-width", "0"}, "--max-width needs a whole number of pixels above 0"},
      {{"--max-height", "wide"}, "--max-height needs a whole number of pixels above 0"},
      {{"--max-bytes", "12x"}, "--max-bytes needs a size in bytes, such as 250000, 500k or 1.5M"},
      {{"--max-bytes", "-5k"}, "--max-bytes needs a size in bytes, such as 250000, 500k or 1.5M"},
      {{"--to", "file://elsewhere/out"}, "--to: not a local file URL: file://elsewhere/out"},
      {{"--colour", "red"}, "unknown option --colour"},
      {{"--colour=red"}, "unknown option --colour"},
      {{"a.png", "--to"}, "option --to needs a value"},
  };
  for (const auto& [line, error] : refused)
    EXPECT_EQ(cli::readCompress(line).error, error) << line.join(' ').toStdString();
}

}  // namespace
}  // namespace quillane
