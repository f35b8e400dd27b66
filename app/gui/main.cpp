// The desktop application: one QApplication event loop around QuillaneApp's objects.
//
//   quillane [FILE...]          the window, with the files added to the batch; when an
//                               instance runs already, it gets the files (or is raised)
//                               over the session bus and this launch ends
//   quillane --compress FILE... compresses with the default profile, or beside each file (see
//                               CompressLaunch.h); with no file it is the plain launch
//   quillane --background       the hot folders, the local API and the bus with no window (see
//                               DesktopSession.h); a later launch opens the window in it
//   quillane -h, --help, --version, and the usage for anything else (LaunchArguments.h)
//   quillane --service          started by the bus for the Compress method: no window until
//                               a launch asks for one, and gone after a quiet minute
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QApplication>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>

#include "QuillaneVersion.h"
#include "app/gui/CompressLaunch.h"
#include "app/gui/DesktopSession.h"
#include "app/gui/LaunchArguments.h"
#include "app/gui/QuillaneApp.h"
#include "app/gui/StartupNotification.h"
#include "automation/QuillaneBusClient.h"
#include "automation/QuillaneBusService.h"
#include "automation/TerminationSignals.h"
#include "engine/FileIO.h"
#include "records/JSONFileStore.h"
#include "services/BaseDirectories.h"
#include "services/LanguageManager.h"
#include "services/SettingsFile.h"
#include "services/Strings.h"

namespace {

// The local API serves each client on a descriptor of its own; allow as many as the
// system lets this process have, so that hundreds of clients at once are not refused.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// After a change of language the previous instance starts this one and then quits. Wait
// for it to be gone (five seconds at most) so that it has released the local API's port
// before this instance binds it: its process descriptor becomes readable when it ends.
void waitForReplacedInstance() {
  const qint64 pid = qEnvironmentVariableIntValue("QUILLANE_RELAUNCHED_FROM");
  qunsetenv("QUILLANE_RELAUNCHED_FROM");
  if (pid <= 0) return;
  const int process = int(::syscall(SYS_pidfd_open, pid_t(pid), 0));
  if (process < 0) return;  // gone already
  pollfd ended{process, POLLIN, 0};
  while (::poll(&ended, 1, 5000) < 0 && errno == EINTR) {
  }
  ::close(process);
}

// The working folder as bytes, for relative file arguments.
QByteArray workingFolder() {
  QByteArray folder(PATH_MAX, '\0');
  if (::getcwd(folder.data(), size_t(folder.size())) == nullptr) folder.clear();
  folder.truncate(qsizetype(std::strlen(folder.constData())));
  return folder;
}

// Whether a window can be shown: a display, or a platform chosen explicitly (offscreen).
bool hasDisplay() {
  return qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY") ||
         qEnvironmentVariableIsSet("QT_QPA_PLATFORM");
}

constexpr int kServiceQuietMs = 60 * 1000;
constexpr int kHandOverPollMs = 100;

// Waits, ten seconds at most, until no process owns the bus name: the bus says when it is
// released.
bool waitUntilNameIsFree(const QDBusConnection& connection) {
  QDBusServiceWatcher released(quillane::QuillaneBusService::serviceName, connection,
                               QDBusServiceWatcher::WatchForUnregistration);
  QEventLoop loop;
  QObject::connect(&released, &QDBusServiceWatcher::serviceUnregistered, &loop, &QEventLoop::quit);
  QTimer::singleShot(10000, &loop, &QEventLoop::quit);
  // Asked once the watch is in place, so that a release in between is not missed.
  if (quillane::QuillaneBusClient::isRunning(connection)) loop.exec();
  return !quillane::QuillaneBusClient::isRunning(connection);
}

int quitSignalPipe[2] = {-1, -1};

void onQuitSignal(int) {
  const char byte = 1;
  [[maybe_unused]] const ssize_t written = ::write(quitSignalPipe[0], &byte, 1);
}

// SIGTERM and SIGINT (a session ending, a terminal's Ctrl+C) quit as the Quit command does:
// the handler only writes to a socket, and the event loop quits.
void quitOnTerminationSignals(QObject* owner) {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, quitSignalPipe) != 0) return;
  auto* notifier = new QSocketNotifier(quitSignalPipe[1], QSocketNotifier::Read, owner);
  QObject::connect(notifier, &QSocketNotifier::activated, owner, [] {
    char byte;
    [[maybe_unused]] const ssize_t got = ::read(quitSignalPipe[1], &byte, 1);
    QCoreApplication::quit();
  });
  struct sigaction action {};
  action.sa_handler = onQuitSignal;
  ::sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
}

// Ends the process with `status` at `deadline`, whatever its other threads are doing then: a thread
// stuck on a volume that stopped answering ends with it (on a FUSE volume whose server took its request
// and never answers, only once the server answers or goes, with the bus name given up already).
void endBy(std::chrono::steady_clock::time_point deadline, int status) {
  std::thread([deadline, status] {
    std::this_thread::sleep_until(deadline);
    ::_exit(status);
  }).detach();
}

// The launches that open no window: URLs that are not local files are told, --compress runs
// alone, and a launch without a display hands its files to a running window. Their status, or
// nothing where the launch goes on to the window.
std::optional<int> runWithoutWindow(const quillane::LaunchArguments& arguments, int& argc, char** argv) {
  using Mode = quillane::LaunchArguments::Mode;
  // Quillane reads local files only: another URL is told on stderr and the rest go on.
  if (!arguments.notLocal.isEmpty()) {
    quillane::QuillaneApp::describeApplication();
    quillane::LanguageManager::installLookupReadOnly();
    for (const QByteArray& url : arguments.notLocal) {
      const QString message =
          quillane::Strings::format("launch.error.notLocalFileFormat", QString::fromLocal8Bit(url));
      std::fprintf(stderr, "quillane: %s\n", message.toLocal8Bit().constData());
    }
    if (arguments.mode == Mode::compress && arguments.files.isEmpty()) return 1;
  }

  if (arguments.mode == Mode::compress) {
    quillane::TerminationSignals::endOnceWritesAreWhole();
    // No window and no display needed; the launcher's busy pointer ends as the work begins, the
    // outcome comes as a notification.
    quillane::StartupNotification::complete(qgetenv("DESKTOP_STARTUP_ID"));
    QCoreApplication application(argc, argv);
    quillane::QuillaneApp::describeApplication();
    quillane::LanguageManager::installLookupReadOnly();
    // As URLs, whose escapes keep the bytes of a name that is not UTF-8.
    QStringList files;
    for (const QUrl& file : arguments.files) files.append(file.toString(QUrl::FullyEncoded));
    return quillane::runCompressLaunch(files);
  }

  if (arguments.mode != Mode::service && arguments.mode != Mode::background && !hasDisplay()) {
    // No display to show a window on (a shell of another session, a service): the files can
    // still go to a running instance's window; otherwise the launch says why it can't open one,
    // where Qt would abort.
    QCoreApplication application(argc, argv);
    quillane::QuillaneApp::describeApplication();
    quillane::LanguageManager::installLookupReadOnly();
    const QDBusConnection connection = QDBusConnection::sessionBus();
    if (quillane::QuillaneBusClient::isRunning(connection) &&
        !quillane::QuillaneBusClient::openOrActivate(connection, arguments.files))
      return 0;
    std::fprintf(stderr, "quillane: %s\n",
                 quillane::Strings::text("launch.error.noDisplay").toLocal8Bit().constData());
    return 1;
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  quillane::BaseDirectories::settle();
  quillane::FileIO::openClosedStandardDescriptors();
  const quillane::LaunchArguments arguments = quillane::LaunchArguments::parse(argc, argv, workingFolder());
  using Mode = quillane::LaunchArguments::Mode;

  // Answered before a display is opened, so that they work from any shell.
  if (arguments.mode == Mode::version) {
    std::printf("quillane %s\n", quillane::kAppVersion);
    return 0;
  }
  if (arguments.mode == Mode::help || arguments.mode == Mode::usageError) {
    quillane::QuillaneApp::describeApplication();
    quillane::LanguageManager::installLookupReadOnly();
    const QByteArray usage = quillane::LaunchArguments::usage().toLocal8Bit();
    if (arguments.mode == Mode::help) {
      std::fputs(usage.constData(), stdout);
      return 0;
    }
    const QString unknown = quillane::Strings::format("launch.error.unknownOptionFormat",
                                                      QString::fromLocal8Bit(arguments.unknownOption));
    std::fprintf(stderr, "quillane: %s\n\n%s", unknown.toLocal8Bit().constData(), usage.constData());
    return 2;
  }
  raiseDescriptorLimit();

  if (const std::optional<int> status = runWithoutWindow(arguments, argc, argv)) return *status;

  const bool service = arguments.mode == Mode::service;
  const bool background = arguments.mode == Mode::background;
  const bool canShowWindow = !(service || background) || hasDisplay();
  waitForReplacedInstance();
  // Qt takes the launcher's startup id out of the environment as its X11 connection opens.
  const QByteArray startupId = qgetenv("DESKTOP_STARTUP_ID");
  std::unique_ptr<QCoreApplication> application;
  if (canShowWindow)
    application = std::make_unique<QApplication>(argc, argv);
  else
    application = std::make_unique<QCoreApplication>(argc, argv);
  quillane::QuillaneApp::describeApplication();
  // Ahead of the bus service: its replies are worded in this run's language.
  quillane::LanguageManager::shared();

  quillane::DesktopSession session(canShowWindow);
  quillane::QuillaneBusService::Handlers handlers;
  if (canShowWindow) {
    handlers.activate = [&session] { session.showWindow(); };
    handlers.open = [&session](const QList<QUrl>& files) { session.open(files); };
  }
  quillane::QuillaneBusService bus(std::move(handlers));
  const QDBusConnection connection = QDBusConnection::sessionBus();
  if (!bus.publish(connection) && quillane::QuillaneBusClient::isRunning(connection)) {
    // Started by the bus, or in the background, while another instance took the name: that
    // one serves the calls and watches the folders.
    if (service || background) return 0;
    // One process owns the batch: hand over to it. Only if it can't be reached does this
    // launch carry on alone.
    const auto error = quillane::QuillaneBusClient::openOrActivate(connection, arguments.files);
    if (!error) {
      // This launch shows no window of its own: its launcher's busy pointer ends here.
      quillane::StartupNotification::complete(startupId);
      return 0;
    }
    // An instance without a display gives its name up to a launch that has one: take over.
    if (!waitUntilNameIsFree(connection) || !bus.publish(connection))
      std::fprintf(stderr, "quillane: the running instance did not answer: %s\n",
                   error->toLocal8Bit().constData());
  }
  if (!canShowWindow) {
    // Without a display the window can't be shown here: a launch that asks for it takes the
    // name over once the calls under way are answered.
    QObject::connect(&bus, &quillane::QuillaneBusService::windowRefused, &session, [&session, &bus] {
      session.quitWhenQuiet(kHandOverPollMs, [&bus] { return bus.pendingCompressCalls() > 0; });
    });
  }

  if (service) {
    QObject::connect(&bus, &quillane::QuillaneBusService::idle, &session,
                     [&session] { session.idleActivity(); });
    session.quitWhenQuiet(kServiceQuietMs, [&bus] { return bus.pendingCompressCalls() > 0; });
  } else if (background) {
    session.startInBackground();
  } else {
    session.open(arguments.files);
  }
  quitOnTerminationSignals(application.get());
  const int status = application->exec();
  // Quitting, in this order. The bus name goes first: a launch from here on starts an instance of
  // its own and is never handed to this one, which is ending. Running encodes are abandoned: they
  // cannot be interrupted inside the codec libraries and write nothing, and the batch, history and
  // settings are on disk (each is written when it changes; an export under way is finished and
  // recorded first). What serves or writes files is stopped, a file still being written (a bus call's,
  // which runs on to its next file) is let become whole and a state file that a full disk refused is
  // tried once more, all within endingBound: work stuck on a volume that stopped answering would never
  // end, and the process ends without it, leaving at most the temporary of a write cut off there
  // (records are made only of files written whole).
  bus.withdraw();
  const auto deadline = std::chrono::steady_clock::now() + quillane::TerminationSignals::endingBound;
  endBy(deadline, status);
  session.stopForQuit();
  quillane::JSONFileStore::saveUnwritten();
  quillane::SettingsFile::removeRunFile();
  quillane::FileIO::stopWritesForExit(deadline);
  std::fflush(nullptr);
  ::_exit(status);
}
