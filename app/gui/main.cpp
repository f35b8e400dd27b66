// The desktop application: one QApplication event loop around QuillaneApp's objects.
#include <QApplication>
#include <QWidget>

#include <QThread>

#include <signal.h>
#include <sys/resource.h>

#include "app/gui/QuillaneApp.h"

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
// for it to be gone (a few seconds at most) so that it has released the local API's port
// before this instance binds it.
void waitForReplacedInstance() {
  const qint64 pid = qEnvironmentVariableIntValue("QUILLANE_RELAUNCHED_FROM");
  qunsetenv("QUILLANE_RELAUNCHED_FROM");
  if (pid <= 0) return;
  for (int attempt = 0; attempt < 50 && ::kill(pid_t(pid), 0) == 0; ++attempt) QThread::msleep(100);
}

}  // namespace

int main(int argc, char** argv) {
  raiseDescriptorLimit();
  waitForReplacedInstance();
  QApplication application(argc, argv);
  quillane::QuillaneApp::describeApplication();
  quillane::QuillaneApp app;
  auto window = app.createMainWindow();
  window->show();
  return application.exec();
}
