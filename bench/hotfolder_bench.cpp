// Hot folders end to end: photos of about 12 MP dropped into a watched folder.
//
//   hotfolder_bench [COUNT] [PATH-TO-quillane-cli]
//
// Reports (1) the time from the last file landing to the first scan's progress report, that
// is the debounce, the listing and the one stability wait of fresh files; (2) wall and CPU time
// to compress them all, against `quillane-cli compress` on the same files with the same
// settings (the CLI compresses one file at a time, the scan one per processor, so CPU time is
// the figure that shows what watching adds); (3) the CPU time of 20 idle watched folders over
// 10 s. Files are written to a staging folder first and moved in with fresh dates, as a copy
// from a file manager would leave them. COUNT defaults to 200.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "hotfolders/HotFolderWatcher.h"
#include "records/JSONFileStore.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"

namespace {

using namespace quillane;
using Clock = std::chrono::steady_clock;

double cpuSeconds(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}
double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

struct Progress {
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<Clock::time_point> started, finished;
  int errors = 0;
};

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  const int count = argc > 1 ? std::atoi(argv[1]) : 200;
  const QString cli = argc > 2 ? QString::fromLocal8Bit(argv[2])
                               : QCoreApplication::applicationDirPath() + QStringLiteral("/quillane-cli");
  QTemporaryDir root;
  for (const char* folder : {"store", "staging", "in", "out", "cli-out"}) QDir(root.path()).mkpath(folder);
  JSONFileStore::setFolderForTesting(root.filePath("store"));

  // Eight different pictures, copied as often as needed: encoding 200 distinct 12 MP JPEGs
  // would take longer than the measurement.
  std::vector<std::vector<uint8_t>> photos;
  for (uint32_t seed = 1; seed <= 8; ++seed) {
    photos.push_back(
        fixtures::jpeg(testing::makeImage(4000, 3000, testing::Pattern::photo, seed), {.quality = 92}));
  }
  QStringList staged;
  for (int i = 0; i < count; ++i) {
    staged << root.filePath(QStringLiteral("staging/IMG_%1.jpg").arg(i + 1, 4, 10, QLatin1Char('0')));
    testing::writeBytes(staged.back().toStdString(), photos[size_t(i) % photos.size()]);
  }

  // (1) and (2): the watched folder.
  HotFolder folder{QUuid::createUuid(),
                   "Bench",
                   root.filePath("in"),
                   root.filePath("out"),
                   std::nullopt,
                   ImageFormat::jpeg,
                   75,
                   true,
                   {}};
  auto watcher = std::make_unique<HotFolderWatcher>(folder);
  Progress progress;
  watcher->onActivity = [&](const HotFolderActivity& line) {
    std::lock_guard lock(progress.mutex);
    progress.errors += line.isError() ? 1 : 0;
  };
  watcher->onProgress = [&](int completed, int total) {
    std::lock_guard lock(progress.mutex);
    if (completed == 0 && !progress.started) progress.started = Clock::now();
    if (completed == total) progress.finished = Clock::now();
    progress.changed.notify_all();
  };
  watcher->start();
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the first scan of the empty folder

  const double cpuBefore = cpuSeconds(RUSAGE_SELF);
  for (const QString& path : staged) {
    ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), nullptr, 0);  // a fresh copy's date
    QFile::rename(path, root.filePath("in/") + QFileInfo(path).fileName());
  }
  const Clock::time_point landed = Clock::now();
  {
    std::unique_lock lock(progress.mutex);
    progress.changed.wait(lock, [&] { return progress.finished.has_value(); });
  }
  const double hotCPU = cpuSeconds(RUSAGE_SELF) - cpuBefore;
  const double firstScan = seconds(*progress.started - landed);
  const double hotWall = seconds(*progress.finished - landed);
  watcher.reset();

  // The command-line tool on the same files.
  QStringList arguments{QStringLiteral("compress")};
  for (const QString& path : staged) arguments << root.filePath("in/") + QFileInfo(path).fileName();
  arguments << QStringLiteral("--to") << root.filePath("cli-out") << QStringLiteral("--format")
            << QStringLiteral("jpeg") << QStringLiteral("--quality") << QStringLiteral("75");
  const double childBefore = cpuSeconds(RUSAGE_CHILDREN);
  const Clock::time_point cliStart = Clock::now();
  QProcess process;
  process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
  process.setStandardOutputFile(QProcess::nullDevice());
  process.start(cli, arguments);
  process.waitForFinished(-1);
  const double cliWall = seconds(Clock::now() - cliStart);
  const double cliCPU = cpuSeconds(RUSAGE_CHILDREN) - childBefore;

  std::printf("files: %d (12 MP JPEG to JPEG at 75), errors: %d, cli exit status: %d\n", count,
              progress.errors, process.exitCode());
  std::printf("last file landed -> first scan's progress report: %.0f ms\n", firstScan * 1000);
  std::printf("hot folder: %.1f s wall, %.1f s CPU (%.0f ms CPU per file)\n", hotWall, hotCPU,
              hotCPU * 1000 / count);
  std::printf("quillane-cli compress: %.1f s wall, %.1f s CPU (%.0f ms CPU per file)\n", cliWall, cliCPU,
              cliCPU * 1000 / count);
  std::printf("CPU ratio hot folder / cli: %.3f\n", hotCPU / cliCPU);

  // (3) Twenty idle local folders.
  std::vector<std::unique_ptr<HotFolderWatcher>> idle;
  for (int i = 0; i < 20; ++i) {
    const QString path = root.filePath(QStringLiteral("idle%1").arg(i));
    QDir().mkpath(path);
    idle.push_back(std::make_unique<HotFolderWatcher>(HotFolder{
        QUuid::createUuid(), "Idle", path, path + "-out", std::nullopt, ImageFormat::jpeg, 75, true, {}}));
    idle.back()->start();
  }
  std::this_thread::sleep_for(std::chrono::seconds(2));  // their first scans
  const double idleBefore = cpuSeconds(RUSAGE_SELF);
  std::this_thread::sleep_for(std::chrono::seconds(10));
  std::printf("20 idle watched folders: %.1f ms CPU in 10 s\n",
              (cpuSeconds(RUSAGE_SELF) - idleBefore) * 1000);
  idle.clear();
  return 0;
}
