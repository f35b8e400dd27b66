// The desktop application: one QApplication event loop around QuillaneApp's objects.
#include <QApplication>
#include <QWidget>

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

}  // namespace

int main(int argc, char** argv) {
  raiseDescriptorLimit();
  QApplication application(argc, argv);
  quillane::QuillaneApp::describeApplication();
  quillane::QuillaneApp app;
  auto window = app.createMainWindow();
  window->show();
  return application.exec();
}
