// ThreadSanitizer builds only (the tsan preset): Qt is not instrumented, and its QMutex and
// QSemaphore wait on futexes that ThreadSanitizer can't see, so every hand-off through Qt (a
// queued call, a pool's task, a future's end) would look like a race between the code on
// either side. The test executables are linked with --wrap for the Qt entry points below
// (tests/CMakeLists.txt), and each wrapper tells ThreadSanitizer of the hand-off: a release
// before work is handed over, an acquire where it is taken up. Every hand-off uses one sync
// object: two threads are ordered once any hand-off lies between them, so a report left is an
// access made while another thread was inside the same stretch of unsynchronised code.
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

std::function<void()> handedOff(std::function<void()> task) {
  return [task = std::move(task)] {
    takeUp();
    task();
    publish();
  };
}

}  // namespace

#define REAL(name) __real_##name
#define WRAP(name) __wrap_##name

extern "C" {

// QMetaObject::invokeMethodImpl(QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*)
bool REAL(_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv)(
    QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*);
bool WRAP(_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv)(
    QObject* object, QtPrivate::QSlotObjectBase* slot, Qt::ConnectionType type, void* ret) {
  QtPrivate::QSlotObjectBase* wrapper = handedOff(slot);
  publish();
  return REAL(
      _ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv)(
      object, wrapper, type, ret);
}

// QObject::connectImpl(const QObject*, void**, const QObject*, void**, QtPrivate::QSlotObjectBase*,
// Qt::ConnectionType, const int*, const QMetaObject*): a connection to a function or a lambda.
QMetaObject::Connection REAL(
    _ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject)(
    const QObject*, void**, const QObject*, void**, QtPrivate::QSlotObjectBase*, Qt::ConnectionType,
    const int*, const QMetaObject*);
QMetaObject::Connection WRAP(
    _ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject)(
    const QObject* sender, void** signal, const QObject* receiver, void** slotPointer,
    QtPrivate::QSlotObjectBase* slot, Qt::ConnectionType type, const int* types,
    const QMetaObject* senderMeta) {
  QtPrivate::QSlotObjectBase* wrapper = handedOff(slot);
  publish();
  return REAL(
      _ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject)(
      sender, signal, receiver, slotPointer, wrapper, type, types, senderMeta);
}

// QThread::wait(QDeadlineTimer): what the thread did before it ended (its `finished` slots
// included) comes before what follows the wait.
bool REAL(_ZN7QThread4waitE14QDeadlineTimer)(QThread*, QDeadlineTimer);
bool WRAP(_ZN7QThread4waitE14QDeadlineTimer)(QThread* thread, QDeadlineTimer deadline) {
  const bool ended = REAL(_ZN7QThread4waitE14QDeadlineTimer)(thread, deadline);
  takeUp();
  return ended;
}

// The three QMetaObject::activate overloads: a signal, which may be queued to another thread.
void REAL(_ZN11QMetaObject8activateEP7QObjectPKS_iPPv)(QObject*, const QMetaObject*, int, void**);
void WRAP(_ZN11QMetaObject8activateEP7QObjectPKS_iPPv)(QObject* sender, const QMetaObject* meta, int index,
                                                       void** argv) {
  publish();
  REAL(_ZN11QMetaObject8activateEP7QObjectPKS_iPPv)(sender, meta, index, argv);
}
void REAL(_ZN11QMetaObject8activateEP7QObjectiPPv)(QObject*, int, void**);
void WRAP(_ZN11QMetaObject8activateEP7QObjectiPPv)(QObject* sender, int index, void** argv) {
  publish();
  REAL(_ZN11QMetaObject8activateEP7QObjectiPPv)(sender, index, argv);
}
void REAL(_ZN11QMetaObject8activateEP7QObjectiiPPv)(QObject*, int, int, void**);
void WRAP(_ZN11QMetaObject8activateEP7QObjectiiPPv)(QObject* sender, int offset, int index, void** argv) {
  publish();
  REAL(_ZN11QMetaObject8activateEP7QObjectiiPPv)(sender, offset, index, argv);
}

// QCoreApplication::postEvent(QObject*, QEvent*, int)
void REAL(_ZN16QCoreApplication9postEventEP7QObjectP6QEventi)(QObject*, QEvent*, int);
void WRAP(_ZN16QCoreApplication9postEventEP7QObjectP6QEventi)(QObject* receiver, QEvent* event,
                                                              int priority) {
  publish();
  REAL(_ZN16QCoreApplication9postEventEP7QObjectP6QEventi)(receiver, event, priority);
}

// QThreadPool::start and tryStart, of a runnable and of a function.
void REAL(_ZN11QThreadPool5startEP9QRunnablei)(QThreadPool*, QRunnable*, int);
void WRAP(_ZN11QThreadPool5startEP9QRunnablei)(QThreadPool* pool, QRunnable* task, int priority) {
  auto* wrapper = new HandedOff(task);
  publish();
  REAL(_ZN11QThreadPool5startEP9QRunnablei)(pool, wrapper, priority);
}
bool REAL(_ZN11QThreadPool8tryStartEP9QRunnable)(QThreadPool*, QRunnable*);
bool WRAP(_ZN11QThreadPool8tryStartEP9QRunnable)(QThreadPool* pool, QRunnable* task) {
  auto* wrapper = new HandedOff(task);
  publish();
  if (REAL(_ZN11QThreadPool8tryStartEP9QRunnable)(pool, wrapper)) return true;
  wrapper->setAutoDelete(false);
  delete wrapper;
  return false;
}
void REAL(_ZN11QThreadPool5startESt8functionIFvvEEi)(QThreadPool*, std::function<void()>, int);
void WRAP(_ZN11QThreadPool5startESt8functionIFvvEEi)(QThreadPool* pool, std::function<void()> task,
                                                     int priority) {
  std::function<void()> wrapper = handedOff(std::move(task));
  publish();
  REAL(_ZN11QThreadPool5startESt8functionIFvvEEi)(pool, std::move(wrapper), priority);
}
bool REAL(_ZN11QThreadPool8tryStartESt8functionIFvvEE)(QThreadPool*, std::function<void()>);
bool WRAP(_ZN11QThreadPool8tryStartESt8functionIFvvEE)(QThreadPool* pool, std::function<void()> task) {
  std::function<void()> wrapper = handedOff(std::move(task));
  publish();
  return REAL(_ZN11QThreadPool8tryStartESt8functionIFvvEE)(pool, std::move(wrapper));
}
// QThreadPool::waitForDone(int)
bool REAL(_ZN11QThreadPool11waitForDoneEi)(QThreadPool*, int);
bool WRAP(_ZN11QThreadPool11waitForDoneEi)(QThreadPool* pool, int msecs) {
  const bool done = REAL(_ZN11QThreadPool11waitForDoneEi)(pool, msecs);
  takeUp();
  return done;
}

// A future's end, and the waits for it.
void REAL(_ZN20QFutureInterfaceBase14reportFinishedEv)(QFutureInterfaceBase*);
void WRAP(_ZN20QFutureInterfaceBase14reportFinishedEv)(QFutureInterfaceBase* future) {
  publish();
  REAL(_ZN20QFutureInterfaceBase14reportFinishedEv)(future);
}
void REAL(_ZN20QFutureInterfaceBase15waitForFinishedEv)(QFutureInterfaceBase*);
void WRAP(_ZN20QFutureInterfaceBase15waitForFinishedEv)(QFutureInterfaceBase* future) {
  REAL(_ZN20QFutureInterfaceBase15waitForFinishedEv)(future);
  takeUp();
}
void REAL(_ZN20QFutureInterfaceBase13waitForResultEi)(QFutureInterfaceBase*, int);
void WRAP(_ZN20QFutureInterfaceBase13waitForResultEi)(QFutureInterfaceBase* future, int index) {
  REAL(_ZN20QFutureInterfaceBase13waitForResultEi)(future, index);
  takeUp();
}

// QFutureInterfaceBase::setContinuation, with and without the continuation's own data: the
// continuation runs on the thread that ends the future, or at once if it has ended.
using Continuation = std::function<void(const QFutureInterfaceBase&)>;
Continuation handedOffContinuation(Continuation continuation) {
  Continuation wrapper = [continuation = std::move(continuation)](const QFutureInterfaceBase& future) {
    takeUp();
    continuation(future);
    publish();
  };
  publish();
  return wrapper;
}
void REAL(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EE)(QFutureInterfaceBase*,
                                                                           Continuation);
void WRAP(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EE)(QFutureInterfaceBase* future,
                                                                           Continuation continuation) {
  REAL(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EE)
  (future, handedOffContinuation(std::move(continuation)));
}
void REAL(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EEP27QFutureInterfaceBasePrivate)(
    QFutureInterfaceBase*, Continuation, QFutureInterfaceBasePrivate*);
void WRAP(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EEP27QFutureInterfaceBasePrivate)(
    QFutureInterfaceBase* future, Continuation continuation, QFutureInterfaceBasePrivate* data) {
  REAL(_ZN20QFutureInterfaceBase15setContinuationESt8functionIFvRKS_EEP27QFutureInterfaceBasePrivate)
  (future, handedOffContinuation(std::move(continuation)), data);
}

// QFutureInterfaceBase::derefT(): the last holder of a future's results, on any thread, drops
// them after every other holder has let go.
bool REAL(_ZNK20QFutureInterfaceBase6derefTEv)(const QFutureInterfaceBase*);
bool WRAP(_ZNK20QFutureInterfaceBase6derefTEv)(const QFutureInterfaceBase* future) {
  publish();
  const bool held = REAL(_ZNK20QFutureInterfaceBase6derefTEv)(future);
  takeUp();
  return held;
}

// QSemaphore::release, acquire and the two tryAcquire.
void REAL(_ZN10QSemaphore7releaseEi)(QSemaphore*, int);
void WRAP(_ZN10QSemaphore7releaseEi)(QSemaphore* semaphore, int n) {
  publish();
  REAL(_ZN10QSemaphore7releaseEi)(semaphore, n);
}
void REAL(_ZN10QSemaphore7acquireEi)(QSemaphore*, int);
void WRAP(_ZN10QSemaphore7acquireEi)(QSemaphore* semaphore, int n) {
  REAL(_ZN10QSemaphore7acquireEi)(semaphore, n);
  takeUp();
}
bool REAL(_ZN10QSemaphore10tryAcquireEi)(QSemaphore*, int);
bool WRAP(_ZN10QSemaphore10tryAcquireEi)(QSemaphore* semaphore, int n) {
  const bool acquired = REAL(_ZN10QSemaphore10tryAcquireEi)(semaphore, n);
  takeUp();
  return acquired;
}
bool REAL(_ZN10QSemaphore10tryAcquireEii)(QSemaphore*, int, int);
bool WRAP(_ZN10QSemaphore10tryAcquireEii)(QSemaphore* semaphore, int n, int timeout) {
  const bool acquired = REAL(_ZN10QSemaphore10tryAcquireEii)(semaphore, n, timeout);
  takeUp();
  return acquired;
}

}  // extern "C"

#endif  // __SANITIZE_THREAD__
