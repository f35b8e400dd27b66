#include "hotfolders/MountObserver.h"

#include <fcntl.h>
#include <unistd.h>

#include <QSocketNotifier>

namespace quillane {

MountObserver::MountObserver(QObject* parent) : QObject(parent) {
  fd_ = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) return;  // no /proc: volumes mounted later wait for the next edit of a folder
  drain();
  notifier_ = new QSocketNotifier(qintptr(fd_), QSocketNotifier::Exception, this);
  connect(notifier_, &QSocketNotifier::activated, this, [this] {
    drain();
    emit mountsChanged();
  });
}

MountObserver::~MountObserver() {
  delete notifier_;
  if (fd_ >= 0) ::close(fd_);
}

void MountObserver::drain() {
  char buffer[16 * 1024];
  ::lseek(fd_, 0, SEEK_SET);
  while (::read(fd_, buffer, sizeof buffer) > 0) {
  }
}

}  // namespace quillane
