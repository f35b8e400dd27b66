// The D-Bus Compress method against the same work without the bus. A private dbus-daemon and
// the real `quillane --service` run beside this program (found next to it, or in
// $QUILLANE_BIN_DIR).
//   BM_EmptyCallOverTheBus: Compress with no files, answered with an error: the round trip
//     alone (message to the service, hop to its worker thread, reply), what every call adds.
//   BM_CompressOverTheBus/<sample>: one sample image to WebP at 75 through the service.
//   BM_CompressInProcess/<sample>: the same CompressImagesIntent in this process.
//   BM_CompressWithTheCli/<sample>: `quillane-cli compress` on it, start-up included.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "automation/CompressImagesIntent.h"
#include "automation/QuillaneBusClient.h"

namespace quillane {
namespace {

const char* const kSamples[] = {"screenshot.png", "logo-alpha.png", "photo-orientation6.jpg", "photo.heic"};

struct Rig {
  QTemporaryDir dir;
  QString bin;
  QProcess daemon, service;
  std::unique_ptr<QDBusConnection> bus;

  bool start() {
    bin = qEnvironmentVariable("QUILLANE_BIN_DIR", QCoreApplication::applicationDirPath());
    daemon.start(QStandardPaths::findExecutable("dbus-daemon"),
                 {"--session", "--nofork", "--print-address=1"});
    if (!daemon.waitForStarted(10000)) return false;
    while (!daemon.canReadLine())
      if (!daemon.waitForReadyRead(10000)) return false;
    const QString address = QString::fromUtf8(daemon.readLine()).trimmed();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DBUS_SESSION_BUS_ADDRESS", address);
    env.insert("XDG_DATA_HOME", dir.filePath("data"));
    env.insert("XDG_CONFIG_HOME", dir.filePath("config"));
    env.insert("XCTestConfigurationFilePath", "dbus_bench");
    service.setProcessEnvironment(env);
    service.start(bin + "/quillane", {"--service"});
    bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address, "dbus-bench"));
    for (int i = 0; i < 600 && !QuillaneBusClient::isRunning(*bus); ++i) QThread::msleep(50);
    return QuillaneBusClient::isRunning(*bus);
  }
  ~Rig() {
    service.kill();
    service.waitForFinished();
    daemon.kill();
    daemon.waitForFinished();
  }
  QString out() const { return dir.filePath("out"); }
};

Rig* rig = nullptr;

QString sample(const benchmark::State& state) {
  return QStringLiteral(QUILLANE_SAMPLES_DIR "/") + QLatin1String(kSamples[state.range(0)]);
}

void BM_EmptyCallOverTheBus(benchmark::State& state) {
  for (auto _ : state) {
    const auto reply = QuillaneBusClient::compress(*rig->bus, {}, "webp", 75, {}, rig->out());
    if (reply.succeeded()) state.SkipWithError("an empty call succeeded");
  }
}
BENCHMARK(BM_EmptyCallOverTheBus)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_CompressOverTheBus(benchmark::State& state) {
  state.SetLabel(kSamples[state.range(0)]);
  for (auto _ : state) {
    const auto reply = QuillaneBusClient::compress(*rig->bus, {sample(state)}, "webp", 75, {}, rig->out());
    if (!reply.succeeded()) state.SkipWithError(reply.errorMessage.toUtf8().constData());
  }
}
BENCHMARK(BM_CompressOverTheBus)->DenseRange(0, 3)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_CompressInProcess(benchmark::State& state) {
  state.SetLabel(kSamples[state.range(0)]);
  const auto intent = CompressImagesIntent::fromArguments({sample(state)}, "webp", 75, {}, rig->out());
  for (auto _ : state) benchmark::DoNotOptimize(intent.perform());
}
BENCHMARK(BM_CompressInProcess)->DenseRange(0, 3)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_CompressWithTheCli(benchmark::State& state) {
  state.SetLabel(kSamples[state.range(0)]);
  for (auto _ : state) {
    QProcess cli;
    cli.start(rig->bin + "/quillane-cli",
              {"compress", sample(state), "--to", rig->out(), "--format", "webp", "--quality", "75"});
    if (!cli.waitForFinished(120000) || cli.exitCode() != 0) state.SkipWithError("quillane-cli failed");
  }
}
BENCHMARK(BM_CompressWithTheCli)->DenseRange(0, 3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillane

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  benchmark::Initialize(&argc, argv);
  quillane::Rig rig;
  if (!rig.start()) {
    std::fprintf(stderr, "dbus_bench: could not start dbus-daemon and quillane --service\n");
    return 1;
  }
  quillane::rig = &rig;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
