#pragma once
// QuillaneBusService: the running program on the session bus. It owns the name
// com.quillane.Quillane and serves the object /com/quillane/Quillane with two interfaces:
//
//   com.quillane.Quillane         Compress (CompressImagesIntent), described by the installed
//                                 introspection file automation/dbus/com.quillane.Quillane.xml
//   org.freedesktop.Application   Activate and Open, through which a second launch hands its
//                                 files to this process (the window is the application's
//                                 business: the handlers do it)
//
// Compress calls run on a private one-thread pool, one at a time in the order they arrive,
// and never on the GUI thread; each gets its reply (the written paths, or a D-Bus error with
// the localised text) when its turn is done. One caller (one bus connection) may have at
// most maxCallsPerCaller calls unanswered; beyond that a call is refused at once with
// org.freedesktop.DBus.Error.LimitsExceeded. The work of a caller that has left the bus is
// dropped: its calls still waiting are skipped, and its running call stops before its next
// file. Activate and Open run their handlers on the GUI thread.
//
// Made, published and destroyed on the GUI thread. The destructor drops the calls still
// waiting and waits for the one running.

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QHash>
#include <QStringList>
#include <QThreadPool>
#include <QUrl>
#include <atomic>
#include <exception>
#include <functional>
#include <utility>

#include "engine/ThreadAnnotations.h"

namespace quillane {

class QuillaneBusService : public QDBusVirtualObject {
  Q_OBJECT

 public:
  static const QString serviceName;    // "com.quillane.Quillane"
  static const QString objectPath;     // "/com/quillane/Quillane"
  static const QString interfaceName;  // "com.quillane.Quillane"
  static constexpr int maxCallsPerCaller = 32;

  struct Handlers {
    // Both run on the GUI thread; either may be empty, and then the call is refused.
    std::function<void()> activate;                      // show and raise the window
    std::function<void(const QList<QUrl>& files)> open;  // add local files (file URLs) to the batch
  };

  explicit QuillaneBusService(Handlers handlers, QObject* parent = nullptr);
  ~QuillaneBusService() override;

  // Exports the object on `connection` and claims the name, never queueing for it. False
  // when the bus is not connected or another process owns the name; the object is then
  // withdrawn again.
  bool publish(QDBusConnection connection);
  // Gives the name and the object up, for a process that is ending: a launch from then on starts
  // an instance of its own. The calls under way are still answered.
  void withdraw();

  // Compress calls received and not yet answered. Any thread.
  int pendingCompressCalls() const { return pending_.load(); }

  // The D-Bus error name and localised message a failed Compress call is answered with.
  static std::pair<QString, QString> errorFor(const std::exception_ptr& failure);

  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;
  QString introspect(const QString& path) const override;

 signals:
  // A Compress call was answered and none is left (GUI thread).
  void idle();
  // An Activate or Open call was refused for want of a window (GUI thread), after its reply.
  void windowRefused();

 private:
  void compress(const QDBusMessage& message, const QDBusConnection& connection);
  void runOnGuiThread(const QDBusMessage& message, const QDBusConnection& connection,
                      std::function<bool()> work);

  Handlers handlers_;
  QThreadPool pool_;
  std::atomic<int> pending_{0};
  Mutex callersMutex_;
  QHash<QString, int> unansweredByCaller_ GUARDED_BY(callersMutex_);  // by unique bus name
  bool published_ = false;
  QDBusConnection connection_{QString()};
};

}  // namespace quillane
