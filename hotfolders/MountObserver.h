#pragma once
// MountObserver: tells when a volume is mounted or unmounted anywhere in this process's
// mount namespace. The kernel flags /proc/self/mountinfo with POLLPRI at every change; the
// file is read again from its start after each one, which re-arms the flag.
//
// GUI thread only (a QSocketNotifier on the thread's event loop; idle, it costs nothing).

#include <QObject>

class QSocketNotifier;

namespace quillane {

class MountObserver : public QObject {
  Q_OBJECT
 public:
  explicit MountObserver(QObject* parent = nullptr);
  ~MountObserver() override;

 signals:
  void mountsChanged();

 private:
  void drain();
  int fd_ = -1;
  QSocketNotifier* notifier_ = nullptr;
};

}  // namespace quillane
