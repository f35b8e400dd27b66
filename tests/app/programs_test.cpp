// The programs end to end. quillane-cli run for real (exit statuses, output, files written, the
// profiles in the data folder; records, their order and names are the compress command's, tested on
// its own), and its compress line read without running it. quillane on a session bus of its own per
// test (so that tests side by side never meet on one name; the bus starts it from the build's
// activation file): Compress called from here, a second launch handing its files over, the local API
// across a restart, and `quillane --compress` through a running instance or alone.
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <algorithm>
#include <filesystem>

#include "app/cli/CompressArguments.h"
#include "tests/support/BusStandIn.h"
#include "tests/support/ProgramUnderTest.h"
#include "tests/support/RawHTTPClient.h"
#include "tests/support/StalledVolume.h"

namespace quillane {
namespace {

using testing::ProgramRun;

// A picture of noise whose result takes a while to write.
void writeNoise(const QString& file) {
  testing::writeBytes(file.toStdString(),
                      fixtures::png(testing::makeImage(3000, 2000, testing::Pattern::noisyPhoto)));
}

// Runs `start`, then waits until a file appears in `folder`: a temporary, so a write is under way.
bool startAndAwaitAWrite(const QString& folder, const std::function<void()>& start) {
  const int watch = ::inotify_init1(IN_CLOEXEC);
  const bool watching = ::inotify_add_watch(watch, QFile::encodeName(folder).constData(), IN_CREATE) >= 0;
  start();
  pollfd ready{watch, POLLIN, 0};
  const bool written = watching && ::poll(&ready, 1, 120000) == 1;
  ::close(watch);
  return written;
}

class CommandLineTool : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(QFileInfo(program_).isExecutable()) << program_.toStdString();
    ASSERT_TRUE(dir_.isValid());
    QDir(dir_.path()).mkpath("in");
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
  const std::pair<QStringList, QString> cases[] = {
      {{"compress", a}, "Dossier de destination manquant : passez \"to\" ou un profil qui en a un."},
      {{"compress", "--to", "out"}, "Aucun fichier à compresser."},
      {{"compress", a, "--to", "out", "--profile", "Print"}, "Profil introuvable : Print"},
  };
  for (const auto& [arguments, message] : cases) {
    ProgramRun r = run(arguments);
    EXPECT_TRUE(r.exitCode == 6 && r.out.isEmpty()) << r.exitCode;
    EXPECT_EQ(QString::fromUtf8(r.err).trimmed(), message);
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

// Names are bytes: not UTF-8, they go in and come out as they are; "-h" after "--" is a file; a lost
// standard output and an unusable folder are errors that say so.
TEST_F(CommandLineTool, OddNamesLostOutputAndUnusableFolders) {
  const QByteArray odd = QByteArray("in/") + "caf\xe9 \xff.png";
  const std::string root = QFile::encodeName(dir_.path()).toStdString();
  testing::writeBytes(root + "/" + odd.toStdString(),
                      testing::readBytes(path(image("odd.png")).toStdString()));
  QFile::copy(path("in/odd.png"), path("-h"));
  ProgramRun r =
      run({}, {}, "exec \"$Q\" compress \"$(printf 'in/caf\\351 \\377.png')\" --format png --to out -- -h");
  ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
  EXPECT_TRUE(r.err.isEmpty());
  EXPECT_TRUE(std::filesystem::exists(root + "/out/caf\xe9 \xff.png"));
  EXPECT_TRUE(QFileInfo::exists(path("out/-h.png")));
  // Qt can't name these files to remove them.
  std::filesystem::remove(root + "/out/caf\xe9 \xff.png");
  std::filesystem::remove(root + "/" + odd.toStdString());

  ProgramRun full = run({"compress", "in/odd.png", "--to", "out"}, "/dev/full");
  EXPECT_EQ(full.exitCode, 3);
  EXPECT_TRUE(full.err.startsWith("quillane-cli: standard output: ")) << full.err.toStdString();
  // The help and the version too, with the write's own reason.
  for (const char* option : {"--help", "--version"})
    EXPECT_EQ(run({option}, "/dev/full").err, "quillane-cli: standard output: No space left on device\n")
        << option;
  ProgramRun closed = run({}, {}, "exec \"$Q\" inspect in/odd.png >&-");
  EXPECT_EQ(closed.exitCode, 3);
  EXPECT_EQ(closed.err, "quillane-cli: standard output: Bad file descriptor\n");
  // A reader that has gone: the tool is not killed by SIGPIPE.
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  QProcess gone;
  gone.setChildProcessModifier([&] {
    ::signal(SIGPIPE, SIG_DFL);  // as a shell starts it
    ::dup2(ends[1], 1);
  });
  gone.setProcessEnvironment(testing::sandboxEnvironment(dir_.path()));
  gone.setWorkingDirectory(dir_.path());
  gone.start(program_, {"inspect", "in/odd.png"});
  ASSERT_TRUE(gone.waitForFinished(60000));
  ::close(ends[1]);
  EXPECT_TRUE(gone.exitStatus() == QProcess::NormalExit && gone.exitCode() == 3) << gone.exitCode();
  EXPECT_EQ(gone.readAllStandardError(), "quillane-cli: standard output: Broken pipe\n");

  ProgramRun blocked = run({"compress", "in/odd.png", "--to", "in/odd.png/sub"});
  EXPECT_EQ(blocked.exitCode, 6);
  EXPECT_TRUE(blocked.err.startsWith("in/odd.png/sub: ")) << blocked.err.toStdString();
}

// Ctrl+C in the middle of a write ends the tool as the signal does, once that file is whole under its name:
// no temporary is left in the folder.
TEST_F(CommandLineTool, InterruptedWhileWritingItLeavesTheWholeFileAndNoTemporary) {
  writeNoise(path("in/noise.png"));
  ASSERT_TRUE(QDir(dir_.path()).mkdir("out"));
  QProcess tool;
  tool.setProcessEnvironment(testing::sandboxEnvironment(dir_.path()));
  tool.setWorkingDirectory(dir_.path());
  ASSERT_TRUE(startAndAwaitAWrite(path("out"), [&] {
    tool.start(program_, {"compress", "in/noise.png", "--format", "png", "--quality", "100", "--to", "out"});
  }));
  ::kill(pid_t(tool.processId()), SIGINT);
  ASSERT_TRUE(tool.waitForFinished(60000));
  EXPECT_EQ(tool.exitStatus(), QProcess::CrashExit);
  EXPECT_EQ(QDir(path("out")).entryList(QDir::Files | QDir::Hidden), QStringList{"noise.png"});
}

TEST_F(CommandLineTool, InspectAndAnalyzeDescribeEachFileInOrder) {
  QString png = image("shot.png", testing::Pattern::screenshot);
  ProgramRun inspected = run({"inspect", png, "in/missing.png"});
  ASSERT_EQ(inspected.exitCode, 0);
  QJsonArray files = inspected.json();
  EXPECT_TRUE(files[0].toObject()["format"] == "png" && files[0].toObject()["pixelWidth"] == 48)
      << inspected.out.toStdString();
  EXPECT_EQ(files[1].toObject().keys(), (QStringList{"error", "path"}));
  // A missing file is told as compress tells it, not as a picture that can't be decoded.
  const QJsonArray compressed = run({"compress", "in/missing.png", "--to", "out"}).json();
  EXPECT_EQ(files[1].toObject()["error"], compressed[0].toObject()["error"]) << inspected.out.toStdString();

  ProgramRun analyzed = run({"analyze", "--quality", "90", png});
  ASSERT_EQ(analyzed.exitCode, 0);
  QJsonObject plans = analyzed.json()[0].toObject()["plans"].toObject();
  EXPECT_EQ(plans.keys(), (QStringList{"avif", "heic", "jpeg", "jxl", "png", "webp"}));
  for (const QString& format : plans.keys()) {
    const QJsonObject plan = plans[format].toObject();
    EXPECT_EQ(plan["quality"].toDouble(), 90);
    EXPECT_EQ(plan.contains("modeQuality"), plan["mode"] == "lossy") << format.toStdString();
  }
  // Out of range, as compress takes it: the nearest end, with a warning.
  ProgramRun high = run({"analyze", "--quality", "250", png});
  EXPECT_EQ(high.json()[0].toObject()["plans"].toObject()["png"].toObject()["quality"].toDouble(), 100);
  EXPECT_EQ(high.err, "quillane-cli: quality 250 is outside 1 to 100: 100 is used\n");
}

TEST(CompressArguments, OptionsBecomeTheCommandsArgumentsAndFallbacksAreTold) {
  const struct {
    QByteArrayList line;
    QVariantMap arguments;
    std::vector<std::string> warnings = {};
    QByteArrayList files = {};
  } cases[] = {
      {{"a.png", "--to", "out/sub", "b.jpg", "--format", "WEBP", "--skip-larger"},
       {{"to", QByteArray("out/sub")}, {"format", "WEBP"}, {"skipLarger", true}},
       {},
       {"a.png", "b.jpg"}},
      {{"--max-width=24", "--max-height", "16", "--max-bytes=1.5M", "--profile", "Web"},
       {{"maxWidth", 24}, {"maxHeight", 16}, {"maxBytes", qlonglong(1500000)}, {"profile", "Web"}}},
      // "--" ends the options: what follows is a file, even "-h" or an option's name.
      {{"--", "-h", "--to"}, {}, {}, {"-h", "--to"}},
      // A file:// URL is the path of its bytes, escaped or not (a shell passes them raw).
      {{"--to", "file:///tmp/out%20dir"}, {{"to", QByteArray("/tmp/out dir")}}},
      {{"--to", "file://localhost/tmp/caf\xe9 x"}, {{"to", QByteArray("/tmp/caf\xe9 x")}}},
      {{"--format", "bmp", "--quality", "150"},
       {{"format", "bmp"}, {"quality", 150.0}},
       {"unknown format 'bmp' ignored: the profile's format, or jpeg, is used (png, jpeg, heic, avif, webp, "
        "jxl)",
        "quality 150 is outside 1 to 100: 100 is used"}},
      {{"--quality", "0.5"}, {{"quality", 0.5}}, {"quality 0.5 is outside 1 to 100: 1 is used"}},
      {{"--quality", "high"}, {{"quality", "high"}}, {"quality 'high' is no number: ignored"}},
      {{"--quality", "nan"}, {{"quality", "nan"}}, {"quality 'nan' is no number: ignored"}},
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
      {{"--skip-larger=yes"}, "option --skip-larger takes no value"},
      {{"a.png", "--to"}, "option --to needs a value"},
  };
  for (const auto& [line, error] : refused)
    EXPECT_EQ(cli::readCompress(line).error, error) << line.join(' ').toStdString();
}

using namespace std::chrono_literals;

const QString kService = "com.quillane.Quillane";
const QString kPath = "/com/quillane/Quillane";
const std::string kToken = "qlne_busTestTokenAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";

class DesktopBus : public ::testing::Test {
 protected:
  void SetUp() override {
    const QString daemon = QStandardPaths::findExecutable("dbus-daemon");
    if (daemon.isEmpty()) GTEST_SKIP() << "no dbus-daemon";
    ASSERT_TRUE(QFileInfo(program_).isExecutable()) << program_.toStdString();
    ASSERT_TRUE(dir_.isValid());
    for (const char* folder : {"data/Quillane", "in/sub", "out"}) QDir(dir_.path()).mkpath(folder);

    // A session bus that activates the built program, in this test's sandbox.
    const QString config(R"(<busconfig><type>session</type><listen>unix:dir=%1</listen><auth>EXTERNAL</auth>
        <servicedir>%2</servicedir><policy context="default"><allow send_destination="*" eavesdrop="true"/>
        <allow eavesdrop="true"/><allow own="*"/></policy></busconfig>)");
    testing::writeFile(path("bus.conf"), config.arg(dir_.path(), QUILLANE_BUS_SERVICES_DIR).toUtf8());
    daemon_.setProcessEnvironment(environment());  // what an activated program gets
    daemon_.start(daemon, {"--config-file=" + path("bus.conf"), "--nofork", "--print-address=1"});
    ASSERT_TRUE(daemon_.waitForStarted(10000));
    while (!daemon_.canReadLine())
      ASSERT_TRUE(daemon_.waitForReadyRead(10000)) << "dbus-daemon gave no address";
    address_ = QString::fromUtf8(daemon_.readLine()).trimmed();
    bus_ = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address_, "desktop-bus-test"));
    ASSERT_TRUE(bus_->isConnected()) << bus_->lastError().message().toStdString();
  }

  void TearDown() override {
    // The owner of the name may be a program the bus started.
    if (bus_ && owned()) {
      const uint pid = bus_->interface()->servicePid(kService).value();
      if (pid > 0) ::kill(pid_t(pid), SIGKILL);
    }
    stopInstances();
    if (bus_) QDBusConnection::disconnectFromBus("desktop-bus-test");
    daemon_.kill();
    daemon_.waitForFinished(10000);
  }

  // On this test's bus, unless `bus` is false.
  QProcessEnvironment environment(const QString& data = "data", bool bus = true) const {
    QProcessEnvironment env = testing::sandboxEnvironment(dir_.path(), data);
    if (address_.isEmpty())
      env.remove("DBUS_SESSION_BUS_ADDRESS");  // the daemon's own, for the programs it starts
    else if (bus)
      env.insert("DBUS_SESSION_BUS_ADDRESS", address_);
    return env;
  }

  // This test's bus, and the local API on at a port of its own.
  QProcessEnvironment environmentWithAPI() {
    apiPort_ = testing::freeLocalPort();
    const std::string settings = "[General]\nlocalAPIEnabled=true\nlocalAPIPort=" + std::to_string(apiPort_) +
                                 "\nlocalAPIToken=" + kToken + "\n";
    testing::writeFile(path("config/Quillane/Quillane.conf"), QByteArray::fromStdString(settings));
    return environment();
  }
  testing::RawHTTPResponse api(const std::string& method, const std::string& target,
                               const std::string& body = {}) {
    return testing::httpExchange(apiPort_, testing::buildRequest(method, target, kToken, body), 120s);
  }
  static QJsonDocument json(const testing::RawHTTPResponse& response) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(response.body));
  }
  // The ids the batch gave `file` imported through the API.
  QJsonArray importThroughAPI(const QString& file) {
    return json(api("POST", "/v1/import", R"({"paths":[")" + file.toStdString() + R"("]})"))["imported"]
        .toArray();
  }
  // The names of the batch's rows once `count` are there and ready (or of those there at the time-out).
  QStringList readyNames(int count) {
    QJsonArray images;
    const auto ready = [&] {
      images = json(api("GET", "/v1/images")).array();
      const auto isReady = [](const QJsonValue& row) { return row["state"] == "ready"; };
      return images.size() == count && std::all_of(images.begin(), images.end(), isReady);
    };
    (void)QTest::qWaitFor(ready, 90000);
    QStringList names;
    for (const auto& row : images) names << row.toObject()["name"].toString();
    return names;
  }

  void stopInstances() {
    for (auto& process : processes_) {
      process->kill();
      process->waitForFinished(10000);
    }
    processes_.clear();
  }

  // Starts the program for good and waits until it owns the name; `closeStderr` starts it
  // without a standard error, as `2>&-` does.
  void startInstance(const QStringList& arguments, const QProcessEnvironment& env, bool closeStderr = false) {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(env);
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    if (closeStderr) process->setChildProcessModifier([] { ::close(2); });
    process->start(program_, arguments);
    ASSERT_TRUE(process->waitForStarted(10000));
    ASSERT_TRUE(QTest::qWaitFor([&] { return owned() || process->state() != QProcess::Running; }, 60000));
    ASSERT_TRUE(owned()) << "the program ended early";
    processes_.push_back(std::move(process));
  }

  bool owned() const { return bus_->interface()->isServiceRegistered(kService).value(); }

  testing::ProgramRun run(const QStringList& arguments, const QProcessEnvironment& env) {
    return testing::runToEnd(program_, arguments, env, dir_.path());
  }

  template <class... Arguments>
  QDBusMessage call(const QString& method, const Arguments&... arguments) {
    QDBusInterface quillane(kService, kPath, "com.quillane.Quillane", *bus_);
    quillane.setTimeout(120000);
    return quillane.call(method, arguments...);
  }

  QString image(const QString& relative) { return testing::writeSmallImage(path("in/" + relative)); }
  QString path(const QString& relative) const { return dir_.filePath(relative); }

  QStringList entries(const QString& folder) const {
    return QDir(path(folder)).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
  }

  QTemporaryDir dir_;
  QString program_ = testing::builtProgram("quillane");
  QProcess daemon_;
  QString address_;
  std::unique_ptr<QDBusConnection> bus_;
  std::vector<std::unique_ptr<QProcess>> processes_;
  int apiPort_ = 0;
};

// The first call starts the program through the bus's activation file, as nothing runs yet.
TEST_F(DesktopBus, ACallStartsTheProgramIsAnsweredWithTheFilesOrANamedErrorAndALeaverLeavesNoWork) {
  const QString a = image("a.png"), nestedA = image("sub/a.jpg");
  ASSERT_FALSE(owned());
  QDBusMessage reply = call("Compress", QStringList{a, nestedA}, "webp", 80, "", path("out/made"));
  ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
  EXPECT_TRUE(owned());
  const QStringList outputs = reply.arguments().value(0).toStringList();
  ASSERT_EQ(outputs, QStringList({path("out/made/a.webp"), path("out/made/a-2.webp")}));
  for (const QString& output : outputs) EXPECT_EQ(testing::fileStart(output), "RIFF");

  // CompressWithOptions hands its map over whole (the intent's own test reads each option);
  // its refusals are named errors with the localised text.
  reply = call("CompressWithOptions", QStringList{a},
               QVariantMap{{"format", "png"}, {"outputFolder", path("out/fit")}, {"maxWidth", 24}});
  ASSERT_EQ(reply.arguments().value(0).toStringList(), QStringList{path("out/fit/a.png")})
      << reply.errorMessage().toStdString();
  reply = call("CompressWithOptions", QStringList{a}, QVariantMap{{"profile", "Nope"}});
  EXPECT_EQ(reply.errorName(), "com.quillane.Quillane.Error.ProfileNotFound");
  EXPECT_EQ(reply.errorMessage(), "Profil introuvable : Nope");

  // A client that gives up and leaves the bus leaves no work behind it, and no one client can fill the queue.
  const QString large = dir_.filePath("in/large.png");
  testing::writeBytes(large.toStdString(),
                      fixtures::png(testing::makeImage(512, 512, testing::Pattern::photo, 5)));
  const QStringList many(30, large);
  {
    QDBusConnection leaver = QDBusConnection::connectToBus(address_, "leaver");
    ASSERT_TRUE(leaver.isConnected());
    QDBusInterface quillane(kService, kPath, "com.quillane.Quillane", leaver);
    std::vector<QDBusPendingCall> calls{
        quillane.asyncCall("Compress", many, "webp", 90, "", path("out/first"))};
    for (int i = 0; i < 40; ++i)
      calls.push_back(
          quillane.asyncCall("Compress", QStringList{a}, "png", 50, "", path(QString("out/q%1").arg(i))));
    // The first is running: 31 more may wait, the rest are refused at once.
    for (size_t i = 32; i < calls.size(); ++i) {
      calls[i].waitForFinished();
      EXPECT_EQ(calls[i].error().name(), "org.freedesktop.DBus.Error.LimitsExceeded") << i;
    }
  }
  QDBusConnection::disconnectFromBus("leaver");  // the last reference is gone: the client leaves

  // Answered in turn, so after everything the leaver had queued.
  const QDBusMessage after = call("Compress", QStringList{a}, "png", 50, "", path("out/after"));
  ASSERT_EQ(after.type(), QDBusMessage::ReplyMessage) << after.errorMessage().toStdString();
  EXPECT_LT(entries("out/first").size(), 30) << "stopped before its next file";
  for (int i = 0; i < 31; ++i) EXPECT_FALSE(QFileInfo::exists(path(QString("out/q%1").arg(i)))) << i;

  // Ended (SIGTERM quits as the Quit command does) while a call writes, the program lets that file become
  // whole first: no temporary is left behind.
  writeNoise(path("in/noise.png"));
  ASSERT_TRUE(startAndAwaitAWrite(path("out"), [&] {
    QDBusInterface(kService, kPath, "com.quillane.Quillane", *bus_)
        .asyncCall("Compress", QStringList{path("in/noise.png")}, "png", 100, "", path("out"));
  }));
  const auto pid = pid_t(bus_->interface()->servicePid(kService).value());
  const int process = int(::syscall(SYS_pidfd_open, pid, 0));
  ::kill(pid, SIGTERM);
  pollfd ended{process, POLLIN, 0};
  EXPECT_EQ(::poll(&ended, 1, 10000), 1);
  ::close(process);
  EXPECT_EQ(entries("out"), QStringList{"noise.png"});
}

// A second launch and the local API feed one batch; settings through the API; after a restart the rows
// come back; a quit does not wait for an encode.
TEST_F(DesktopBus, ASecondLaunchAndTheAPIFeedOneBatchThatARestartFindsAgainAndQuitEndsAtOnce) {
  startInstance({}, environmentWithAPI());
  image("b.png");
  // Relative paths are the second launch's own, and a file URL (a launcher's %U) names its
  // file; another URL is told and left out. The launch ends at once, its files in the first's batch.
  const QString spaced = QUrl::fromLocalFile(image("a 1.jpg")).toString(QUrl::FullyEncoded);
  testing::ProgramRun second = run({"in/b.png", spaced, "https://example.com/x.png"}, environment());
  EXPECT_EQ(second.exitCode, 0) << second.err.toStdString();
  EXPECT_TRUE(spaced.contains("%20") && second.err.contains("https://example.com/x.png"))
      << second.err.toStdString();
  EXPECT_EQ(run({}, environment()).exitCode, 0);  // only raises the window
  ASSERT_EQ(readyNames(2).size(), 2);
  ASSERT_EQ(importThroughAPI(image("c.jpg")).size(), 1);
  const QStringList batch{"b.png", "a 1.jpg", "c.jpg"};
  ASSERT_EQ(readyNames(3), batch);

  ASSERT_EQ(api("POST", "/v1/settings", R"({"quality":60,"format":"webp"})").status, 200);

  // Rows come back from the saved session (the batch's own test checks what a row keeps), and
  // the format and quality once their settled change has been saved.
  ASSERT_EQ(readyNames(3), batch);
  const auto saved = [&] {
    QFile settings(path("data/Quillane/batchSettings.json"));
    return settings.open(QIODevice::ReadOnly) && settings.readAll().contains(R"("outputFormat":"webp")");
  };
  ASSERT_TRUE(QTest::qWaitFor(saved, 10000));
  stopInstances();
  // A hot folder on a volume that is not mounted yet.
  ASSERT_TRUE(QDir(dir_.path()).mkdir("volume"));
  testing::writeFile(
      path("data/Quillane/hotFolders.json"),
      QString(R"([{"id": "0F6F2D3E-7C4B-4C55-9D6E-2F3A4B5C6D7E", "name": "Far", "format": "webp",
      "sourceFolder": "%1", "destinationFolder": "%2", "quality": 70, "isEnabled": true}])")
          .arg(QUrl::fromLocalFile(path("volume/in")).toString(),
               QUrl::fromLocalFile(path("volume/out")).toString())
          .toUtf8());
  startInstance({}, environmentWithAPI());
  EXPECT_EQ(readyNames(3), batch);
  const QJsonDocument status = json(api("GET", "/v1/status"));
  EXPECT_TRUE(status["outputFormat"] == "webp" && status["quality"] == 60.0 &&
              status["appVersion"] != "unknown");

  // Quitting abandons running encodes: a large HEIC encode of noise (over ten seconds here, where
  // an AVIF one of the photo pattern ends within one) does not keep the process alive. Nor does a check
  // of a hot folder on a volume that stopped answering, and the name is free for a next launch at once.
  const QString large = path("large.jpg");
  testing::writeBytes(large.toStdString(),
                      fixtures::jpeg(testing::makeImage(6000, 4000, testing::Pattern::noisyPhoto, 7)));
  ASSERT_EQ(api("POST", "/v1/settings", R"({"format":"heic"})").status, 200);
  ASSERT_EQ(importThroughAPI(large).size(), 1);
  ASSERT_TRUE(QTest::qWaitFor(
      [&] { return json(api("GET", "/v1/images")).array().at(3)["state"] == "encoding"; }, 60000))
      << "the encode never started";
  // Its volume comes, and its server is gone: the check of the hot folder that the mount starts waits.
  testing::StalledVolume volume(path("volume").toStdString(), testing::StalledVolume::Server::gone);
  if (volume.mounted()) {
    ASSERT_TRUE(QTest::qWaitFor([&] { return volume.holding() > 0; }, 10000));
  }
  processes_.front()->terminate();  // SIGTERM quits as the Quit command does
  if (volume.mounted()) {
    EXPECT_TRUE(QTest::qWaitFor([&] { return !owned(); }, 2000) &&
                processes_.front()->state() == QProcess::Running)
        << "the name was held until the end";
    QTcpServer next;  // nor is the local API's port: a next instance listens there
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return next.listen(QHostAddress::LocalHost, quint16(apiPort_)); }, 2000) &&
        processes_.front()->state() == QProcess::Running)
        << "the port was held until the end";
  }
  ASSERT_TRUE(QTest::qWaitFor([&] { return processes_.front()->state() == QProcess::NotRunning; }, 9000))
      << "still waiting for the encode or the volume";
  EXPECT_EQ(processes_.front()->exitStatus(), QProcess::NormalExit);
  EXPECT_TRUE(!volume.mounted() || volume.holding() > 0) << "ended only once the volume answered";
}

// A fresh install has no profile: alone, the action writes beside each source, never over a
// file; through a running instance, with the instance's settings. The outcome is a notification
// where there is a notification service, else a line on stderr.
TEST_F(DesktopBus, CompressCommandWorksAloneOrThroughAnInstanceAndReportsTheOutcome) {
  const QString a = image("a.png");
  image("sub/c.jpg");
  ASSERT_TRUE(QFile::copy(a, path("in/sub/c-2.jpg")));      // someone else's file of that name
  ASSERT_TRUE(QFile::link("moved.jpg", path("in/a.jpg")));  // and their link that leads nowhere
  testing::ProgramRun alone = run({"--compress", "in/a.png", "in/sub/c.jpg"}, environment("data", false));
  EXPECT_EQ(alone.exitCode, 0) << alone.err.toStdString();
  EXPECT_EQ(alone.out, (path("in/a-2.jpg") + "\n" + path("in/sub/c-3.jpg") + "\n").toUtf8());
  EXPECT_EQ(QFileInfo(path("in/a.jpg")).symLinkTarget(), path("in/moved.jpg"));
  EXPECT_EQ(entries("in/sub"), QStringList({"c-2.jpg", "c-3.jpg", "c.jpg"}));
  EXPECT_EQ(testing::fileStart(path("in/sub/c-2.jpg")), "\x89PNG");  // still theirs
  EXPECT_TRUE(alone.err.contains("Images compressées enregistrées dans")) << alone.err.toStdString();
  // Ctrl+C in the middle of a write ends it once that file is whole: no temporary is left behind.
  writeNoise(path("in/noise.png"));
  testing::saveDefaultProfile(path("lossless"), "png", path("out"), 100);
  QProcess interrupted;
  interrupted.setProcessEnvironment(environment("lossless", false));
  ASSERT_TRUE(startAndAwaitAWrite(path("out"), [&] {
    interrupted.start(program_, {"--compress", path("in/noise.png")});
  }));
  ::kill(pid_t(interrupted.processId()), SIGINT);
  ASSERT_TRUE(interrupted.waitForFinished(60000));
  EXPECT_EQ(entries("out"), QStringList{"noise.png"});

  testing::saveDefaultProfile(path("instanceData"), "webp", path("viaInstance"));
  startInstance({"--service"}, environment("instanceData"), true);
  testing::ProgramRun forwarded = run({"--compress", "in/a.png"}, environment());
  EXPECT_EQ(forwarded.exitCode, 0) << forwarded.err.toStdString();
  EXPECT_EQ(forwarded.out.trimmed(), path("viaInstance/a.webp").toUtf8());
  // Started without a standard error, the instance keeps that number for /dev/null: its bus
  // connection, which took it otherwise, was swapped for /dev/null by every silenced decode.
  EXPECT_EQ(QFileInfo(QString("/proc/%1/fd/2").arg(processes_.back()->processId())).symLinkTarget(),
            "/dev/null");

  testing::BusStandIn notifications(*bus_, "org.freedesktop.Notifications", "/org/freedesktop/Notifications");
  testing::BusStandIn fileManager(*bus_, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1");
  ASSERT_TRUE(notifications.registered() && fileManager.registered());
  // Launched from a menu on X11: the launcher's busy pointer ends though no window shows. An X
  // display of its own, whose root window's messages a client of the test sees.
  QProcess xvfb;
  xvfb.start("Xvfb", {"-displayfd", "1", "-nolisten", "tcp"});
  ASSERT_TRUE(xvfb.waitForReadyRead(20000)) << "Xvfb did not start";
  const QByteArray display = ":" + xvfb.readLine().trimmed();
  const std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> x(xcb_connect(display, nullptr),
                                                                       &xcb_disconnect);
  ASSERT_FALSE(xcb_connection_has_error(x.get()));
  const uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(x.get(), xcb_setup_roots_iterator(xcb_get_setup(x.get())).data->root,
                               XCB_CW_EVENT_MASK, &events);
  xcb_flush(x.get());
  QProcessEnvironment launched = environment();
  launched.insert("DISPLAY", display);
  launched.insert("DESKTOP_STARTUP_ID", "files-42-host-quillane_TIME7");
  testing::ProgramRun failed = run({"--compress", "in/R&D <draft>.png"}, launched);
  QByteArray told;
  EXPECT_TRUE(QTest::qWaitFor(
      [&] {
        while (auto* event = xcb_poll_for_event(x.get())) {
          if ((event->response_type & 0x7f) == XCB_CLIENT_MESSAGE)
            told.append(reinterpret_cast<const char*>(
                            reinterpret_cast<xcb_client_message_event_t*>(event)->data.data8),
                        20);
          std::free(event);
        }
        return told.contains('\0');
      },
      5000));
  EXPECT_EQ(told.left(told.indexOf('\0')), "remove: ID=files-42-host-quillane_TIME7");
  xvfb.terminate();
  xvfb.waitForFinished();
  // With no file, the action is the plain launch: the running instance's window comes up.
  EXPECT_EQ(run({"--compress"}, environment()).exitCode, 0);
  // Only a URL of another machine: told on stderr, and nothing is compressed or notified.
  EXPECT_EQ(run({"--compress", "smb://server/x.png"}, environment()).exitCode, 1);
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_TRUE(failed.err.isEmpty()) << failed.err.toStdString();
  ASSERT_EQ(notifications.calls("Notify").size(), 1);
  const QVariantList notify = notifications.calls("Notify")[0];
  EXPECT_EQ(notify.value(0), "Quillane");
  EXPECT_EQ(notify.value(3), "Échec de la compression");
  // The service reads markup: the name's "&" and "<" are escaped, not taken for it.
  EXPECT_TRUE(notify.value(4).toString().startsWith("Échec de la compression de R&amp;D &lt;draft&gt;.png"))
      << notify.value(4).toString().toStdString();
  EXPECT_EQ(notify.value(5).toStringList(), QStringList());  // nothing to show in a folder

  // The outcome's "Show in folder" shows the written file in the file manager, even with the list
  // of written files piped to a reader that has gone.
  QProcess launch;
  launch.setProcessEnvironment(environment());
  launch.setWorkingDirectory(dir_.path());
  launch.start("bash", {"-c", "set -o pipefail; \"$0\" --compress in/a.png | true", program_});
  ASSERT_TRUE(QTest::qWaitFor([&] { return notifications.calls("Notify").size() == 2; }, 60000));
  EXPECT_EQ(notifications.calls("Notify")[1].value(5).toStringList().value(0), "show-in-folder");
  EXPECT_EQ(notifications.calls("GetCapabilities").size(), 2) << "once for each outcome";
  QDBusMessage chosen = QDBusMessage::createSignal("/org/freedesktop/Notifications",
                                                   "org.freedesktop.Notifications", "ActionInvoked");
  chosen << uint(2) << QString("show-in-folder");
  ASSERT_TRUE(bus_->send(chosen));
  EXPECT_TRUE(launch.waitForFinished(60000) && launch.exitCode() == 0) << launch.exitCode();
  ASSERT_EQ(fileManager.calls("ShowItems").size(), 1);
  EXPECT_EQ(fileManager.calls("ShowItems")[0].value(0).toStringList(),
            QStringList{QUrl::fromLocalFile(path("viaInstance/a.webp")).toString()});
}

// Where there is no display (a bus that lacks the session's environment), help and version still answer and
// an unknown option is a usage error. In the background, what arrived in a hot folder while the program was
// closed is compressed at start, what arrives later as it comes, with no window until a later launch asks for
// one; an instance with no display to show it on gives its name up to that launch.
TEST_F(DesktopBus, InTheBackgroundHotFoldersRunWithNoWindowUntilALaterLaunchOpensIt) {
  QProcessEnvironment bare = environment();
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) bare.remove(name);
  for (const char* option : {"--help", "-h"}) {
    const testing::ProgramRun help = run({option}, bare);
    EXPECT_EQ(help.exitCode, 0) << option << help.err.toStdString();
    EXPECT_TRUE(help.out.contains("quillane --background")) << help.out.toStdString();
  }
  EXPECT_TRUE(run({"--version"}, bare).out.startsWith("quillane "));
  const testing::ProgramRun wrong = run({"--frobnicate", "in/a.png"}, bare);
  EXPECT_TRUE(wrong.exitCode == 2 && wrong.out.isEmpty()) << wrong.exitCode;
  EXPECT_TRUE(wrong.err.contains("--frobnicate") && wrong.err.contains("quillane --compress"))
      << wrong.err.toStdString();
  // With no instance to hand over to, a window launch says it has no display (Qt would abort).
  const testing::ProgramRun noWindow = run({"in/a.png"}, bare);
  EXPECT_EQ(noWindow.exitCode, 1);
  EXPECT_TRUE(noWindow.err.contains("WAYLAND_DISPLAY")) << noWindow.err.toStdString();
  EXPECT_FALSE(owned());

  QDir().mkpath(path("hot/in"));
  const QString hotFolder(R"([{"id": "0F6F2D3E-7C4B-4C55-9D6E-2F3A4B5C6D7E", "name": "Drop", "format": "webp",
      "sourceFolder": "%1", "destinationFolder": "%2", "quality": 70, "isEnabled": true}])");
  const auto url = [&](const char* folder) { return QUrl::fromLocalFile(path(folder)).toString(); };
  testing::writeFile(path("data/Quillane/hotFolders.json"),
                     hotFolder.arg(url("hot/in"), url("hot/out")).toUtf8());
  ASSERT_TRUE(QFile::rename(image("early.png"), path("hot/in/early.png")));

  // Showing a window would end the background instance (and the launch that could not hand over).
  QProcessEnvironment env = environment();
  env.insert("QUILLANE_QUIT_WHEN_SHOWN", "1");
  // A settings lock that can't be used: the settings of the run are in a private file, gone at quit.
  env.insert("TMPDIR", path("tmp"));
  ASSERT_TRUE(QDir().mkpath(path("tmp")) && QDir().mkpath(path("config/Quillane/Quillane.conf.lock")));
  startInstance({"--background"}, env);
  EXPECT_EQ(run({"--background"}, env).exitCode, 0);  // one is enough

  ASSERT_TRUE(QFile::rename(image("drop.png"), path("hot/in/drop.png")));
  const QStringList both{"drop.webp", "early.webp"};
  ASSERT_TRUE(QTest::qWaitFor([&] { return entries("hot/out") == both; }, 60000))
      << entries("hot/out").join(' ').toStdString();
  EXPECT_EQ(processes_.front()->state(), QProcess::Running);

  // A launch from a shell without a display hands its files over all the same.
  image("b.png");
  const testing::ProgramRun later = run({"in/b.png"}, bare);
  EXPECT_EQ(later.exitCode, 0) << later.err.toStdString();
  ASSERT_TRUE(processes_.front()->waitForFinished(60000)) << "the background instance showed no window";
  EXPECT_EQ(processes_.front()->exitCode(), 0);
  EXPECT_TRUE(QDir(path("tmp")).isEmpty()) << "the run's private settings stayed";

  startInstance({"--background"}, bare);
  const testing::ProgramRun handedTo = run({"in/b.png"}, env);
  EXPECT_EQ(handedTo.exitCode, 0);
  EXPECT_FALSE(handedTo.err.contains("did not answer")) << handedTo.err.toStdString();
  ASSERT_TRUE(processes_.back()->waitForFinished(60000));
  EXPECT_EQ(processes_.back()->exitCode(), 0);
}

}  // namespace
}  // namespace quillane
