// ThreadSanitizer builds only (the tsan preset): Qt is not instrumented, and its QMutex and
// QSemaphore wait on futexes that ThreadSanitizer can't see, so every hand-off through Qt (a
// queued call, a pool's task, a future's end) would look like a race between the code on
// either side. The test executables are linked with --wrap for the Qt entry points below
// (tests/CMakeLists.txt), and each wrapper tells ThreadSanitizer of the hand-off: a release
// before work is handed over, an acquire where it is taken up. All hand-offs share one sync
// object, which orders more than Qt does: what is still reported is two threads touching the
// same memory with no hand-off at all between them.
#if defined(__SANITIZE_THREAD__)

#include <QCoreApplication>
#include <QFutureInterfaceBase>
#include <QMetaObject>
#include <QRunnable>
#include <QSemaphore>
#include <QThread>
#include <QThreadPool>
#include <functional>

extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);

namespace {

char handOff;
void publish() { __tsan_release(&handOff); }
void takeUp() { __tsan_acquire(&handOff); }
// A take-up as the scope ends, after the value a wrapper returns is computed.
struct TakeUpOnReturn {
  ~TakeUpOnReturn() { takeUp(); }
};

// Each event is taken up before it is delivered, whichever thread delivers it.
bool beforeDelivery(void**) {
  takeUp();
  return false;  // deliver it as usual
}
[[maybe_unused]] const bool registered =
    QInternal::registerCallback(QInternal::EventNotifyCallback, &beforeDelivery);

// A pool's task, run between a take-up and a publication.
class HandedOff final : public QRunnable {
 public:
  explicit HandedOff(QRunnable* task) : task_(task) { setAutoDelete(true); }
  void run() override {
    takeUp();
    const bool drop = task_->autoDelete();
    task_->run();
    publish();
    if (drop) {
      takeUp();
      delete task_;
    }
  }

 private:
  QRunnable* task_;
};

// A slot (a queued call's function, a connection's receiver), called between a take-up and a
// publication, and deleted after a take-up: the thread that drops the last reference, inside
// Qt, may not be the one that called it.
class HandedOffSlot final : public QtPrivate::QSlotObjectBase {
 public:
  explicit HandedOffSlot(QtPrivate::QSlotObjectBase* slot) : QSlotObjectBase(&impl), slot_(slot) {}

 private:
  static void impl(int which, QSlotObjectBase* self, QObject* receiver, void** args, bool* ret) {
    auto* wrapper = static_cast<HandedOffSlot*>(self);
    switch (which) {
      case Destroy:
        takeUp();
        wrapper->slot_->destroyIfLastRef();
        delete wrapper;
        break;
      case Call:
        takeUp();
        wrapper->slot_->call(receiver, args);
        publish();
        break;
      case Compare:
        *ret = wrapper->slot_->compare(args);
        break;
    }
  }

  QtPrivate::QSlotObjectBase* slot_;
};

QtPrivate::QSlotObjectBase* handedOff(QtPrivate::QSlotObjectBase* slot) {
  return slot ? new HandedOffSlot(slot) : nullptr;
}

// A pool's function or a future's continuation, called between a take-up and a publication.
template <class... Arguments>
std::function<void(Arguments...)> handedOff(std::function<void(Arguments...)> task) {
  return [task = std::move(task)](Arguments... arguments) {
    takeUp();
    task(arguments...);
    publish();
  };
}

}  // namespace

// WRAP(symbol, type, (parameters)) declares Qt's function REAL(symbol) and begins its wrapper;
// tests/CMakeLists.txt wraps each symbol that follows "WRAP(" here. PUBLISHING_WRAP and
// TAKING_UP_WRAP are whole wrappers that only publish before the call or take up after it.
#define REAL(name) __real_##name
#define WRAP(name, type, parameters) \
  type REAL(name) parameters;        \
  type __wrap_##name parameters
#define PUBLISHING_WRAP(name, type, parameters, arguments) \
  WRAP(name, type, parameters) {                           \
    publish();                                             \
    return REAL(name) arguments;                           \
  }
#define TAKING_UP_WRAP(name, type, parameters, arguments) \
  WRAP(name, type, parameters) {                          \
    const TakeUpOnReturn takeUpOnReturn;                  \
    return REAL(name) arguments;                          \
  }

extern "C" {

// QMetaObject::invokeMethodImpl(QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*)
WRAP(_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv, bool,
     (QObject * object, QtPrivate::QSlotObjectBase* slot, Qt::ConnectionType type, void* ret)) {
  QtPrivate::QSlotObjectBase* wrapper = handedOff(slot);
  publish();
  return REAL(
      _ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv)(
      object, wrapper, type, ret);
}

// QObject::connectImpl(const QObject*, void**, const QObject*, void**, QtPrivate::QSlotObjectBase*,
// Qt::ConnectionType, const int*, const QMetaObject*): a connection to a function or a lambda.
WRAP(
    _ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject,
    QMetaObject::Connection,
    (const QObject* sender, void** signal, const QObject* receiver, void** slotPointer,
     QtPrivate::QSlotObjectBase* slot, Qt::ConnectionType type, const int* types,
     const QMetaObject* senderMeta)) {
  QtPrivate::QSlotObjectBase* wrapper = handedOff(slot);
  publish();
  return REAL(
      _ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject)(
      sender, signal, receiver, slotPointer, wrapper, type, types, senderMeta);
}

// QThread::wait(QDeadlineTimer): what the thread did before it ended (its `finished` slots
// included) comes before what follows the wait.
TAKING_UP_WRAP(_ZN7QThread4waitE14QDeadlineTimer, bool, (QThread * thread, QDeadlineTimer deadline),
               (thread, deadline))

// The three QMetaObject::activate overloads: a signal, which may be queued to another thread.
PUBLISHING_WRAP(_ZN11QMetaObject8activateEP7QObjectPKS_iPPv, void,
                (QObject * sender, const QMetaObject* meta, int index, void** argv),
                (sender, meta, index, argv))
PUBLISHING_WRAP(_ZN11QMetaObject8activateEP7QObjectiPPv, void, (QObject * sender, int index, void** argv),
                (sender, index, argv))
PUBLISHING_WRAP(_ZN11QMetaObject8activateEP7QObjectiiPPv, void,
                (QObject * sender, int offset, int index, void** argv), (sender, offset, index, argv))

// QCoreApplication::postEvent(QObject*, QEvent*, int)
PUBLISHING_WRAP(_ZN16QCoreApplication9postEventEP7QObjectP6QEventi, void,
                (QObject * receiver, QEvent* event, int priority), (receiver, event, priority))

// QThreadPool::start and tryStart, of a runnable and of a function.
WRAP(_ZN11QThreadPool5startEP9QRunnablei, void, (QThreadPool * pool, QRunnable* task, int priority)) {
  auto* wrapper = new HandedOff(task);
  publish();
  REAL(_ZN11QThreadPool5startEP9QRunnablei)(pool, wrapper, priority);
}
WRAP(_ZN11QThreadPool8tryStartEP9QRunnable, bool, (QThreadPool * pool, QRunnable* task)) {
  auto* wrapper = new HandedOff(task);
  publish();
  if (REAL(_ZN11QThreadPool8tryStartEP9QRunnable)(pool, wrapper)) return true;
  wrapper->setAutoDelete(false);
  delete wrapper;
  return false;
}
WRAP(_ZN11QThreadPool5startESt8functionIFvvEEi, void,
     (QThreadPool * pool, std::function<void()> task, int priority)) {
  std::function<void()> wrapper = handedOff(std::move(task));
  publish();
  REAL(_ZN11QThreadPool5startESt8functionIFvvEEi)(pool, std::move(wrapper), priority);
}
WRAP(_ZN11QThreadPool8tryStartESt8functionIFvvEE, bool, (QThreadPool * pool, std::function<void()> task)) {
  std::function<void()> wrapper = handedOff(std::move(task));
  publish();
  return REAL(_ZN11QThreadPool8tryStartESt8functionIFvvEE)(pool, std::move(wrapper));
}
// QThreadPool::waitForDone(int)
TAKING_UP_WRAP(_ZN11QThreadPool11waitForDoneEi, bool, (QThreadPool * pool, int msecs), (pool, msecs))

// A future's end, and the waits for it.
PUBLISHING_WRAP(_ZN20QFutureInterfaceBase14reportFinishedEv, void, (QFutureInterfaceBase * future), (future))
TAKING_UP_WRAP(_ZN20QFutureInterfaceBase15waitForFinishedEv, void, (QFutureInterfaceBase * future), (future))
TAKING_UP_WRAP(_ZN20QFutureInterfaceBase13waitForResultEi, void, (QFutureInterfaceBase * future, int index),
               (future, index))

// QFutureInterfaceBase::setContinuation, with and without the continuation's own data: the
// continuation runs on the thread that ends the future, or at once if it has ended.
using Continuation = std::function<void(const QFutureInterfaceBase&)>;
WRAP(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EE, void,
     (QFutureInterfaceBase * future, Continuation continuation)) {
  Continuation wrapper = handedOff(std::move(continuation));
  publish();
  REAL(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EE)(future, std::move(wrapper));
}
WRAP(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EEP27QFutureInterfaceBasePrivate, void,
     (QFutureInterfaceBase * future, Continuation continuation, QFutureInterfaceBasePrivate* data)) {
  Continuation wrapper = handedOff(std::move(continuation));
  publish();
  REAL(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EEP27QFutureInterfaceBasePrivate)
  (future, std::move(wrapper), data);
}

// QFutureInterfaceBase::derefT(): the last holder of a future's results, on any thread, drops
// them after every other holder has let go.
WRAP(_ZNK20QFutureInterfaceBase6derefTEv, bool, (const QFutureInterfaceBase* future)) {
  publish();
  const TakeUpOnReturn takeUpOnReturn;
  return REAL(_ZNK20QFutureInterfaceBase6derefTEv)(future);
}

// QSemaphore::release, acquire and the two tryAcquire.
PUBLISHING_WRAP(_ZN10QSemaphore7releaseEi, void, (QSemaphore * semaphore, int n), (semaphore, n))
TAKING_UP_WRAP(_ZN10QSemaphore7acquireEi, void, (QSemaphore * semaphore, int n), (semaphore, n))
TAKING_UP_WRAP(_ZN10QSemaphore10tryAcquireEi, bool, (QSemaphore * semaphore, int n), (semaphore, n))
TAKING_UP_WRAP(_ZN10QSemaphore10tryAcquireEii, bool, (QSemaphore * semaphore, int n, int timeout),
               (semaphore, n, timeout))

}  // extern "C"

#endif  // __SANITIZE_THREAD__
