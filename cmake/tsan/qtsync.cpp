/// \file
/// Tells ThreadSanitizer how threads meet inside Qt.
///
/// Qt is not built with the sanitizer, which therefore sees no synchronisation in a contended mutex
/// or a queued call, and reports a race at every use of them. The functions in this file replace
/// Qt's in a test program: each announces what it does and calls Qt's. They cover calls from this
/// tree; calls inside Qt do not reach them.

#include <QtCore/QDeadlineTimer>
#include <QtCore/QObject>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

// Defines a replacement for the function of Qt with this symbol.
#define QT_FUNCTION(Result, Symbol, Parameters)                                                    \
    extern "C" __attribute__((visibility("default")))                                              \
    Result qtsync##Symbol Parameters __asm__(#Symbol);                                             \
    Result qtsync##Symbol Parameters

#define QT_ORIGINAL(Symbol) original<decltype(&qtsync##Symbol)>(#Symbol)

namespace
{

// All queued calls share this mark. It gives the sanitizer more order than there is, which may hide
// a race, but never makes one up.
char _queue;
char _connections; // of signals: whoever emits one sees what was connected, under locks inside Qt

template <typename Function>
Function original(const char *symbol)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
}

/// Carries a functor to another thread.
class QueuedCall : public QtPrivate::QSlotObjectBase
{
public:
    explicit QueuedCall(QtPrivate::QSlotObjectBase *call)
        : QSlotObjectBase(&QueuedCall::run)
        , _call(call)
    {}

private:
    static void run(int which, QSlotObjectBase *self, QObject *receiver, void **args, bool *)
    {
        auto *queued = static_cast<QueuedCall *>(self);
        __tsan_acquire(&_queue);
        if (which == Call) {
            queued->_call->call(receiver, args);
            __tsan_release(&_queue);
        } else if (which == Destroy) {
            queued->_call->destroyIfLastRef();
            delete queued;
        }
    }

    QtPrivate::QSlotObjectBase *_call;
};

} // namespace

QT_FUNCTION(void, _ZN6QMutex4lockEv, (void *mutex))
{
    QT_ORIGINAL(_ZN6QMutex4lockEv)(mutex);
    __tsan_acquire(mutex);
}

QT_FUNCTION(bool, _ZN6QMutex7tryLockEi, (void *mutex, int timeout))
{
    const bool locked = QT_ORIGINAL(_ZN6QMutex7tryLockEi)(mutex, timeout);
    if (locked)
        __tsan_acquire(mutex);
    return locked;
}

QT_FUNCTION(void, _ZN6QMutex6unlockEv, (void *mutex))
{
    __tsan_release(mutex);
    QT_ORIGINAL(_ZN6QMutex6unlockEv)(mutex);
}

QT_FUNCTION(void, _ZN11QBasicMutex12lockInternalEv, (void *mutex))
{
    QT_ORIGINAL(_ZN11QBasicMutex12lockInternalEv)(mutex);
    __tsan_acquire(mutex);
}

QT_FUNCTION(void, _ZN11QBasicMutex14unlockInternalEv, (void *mutex))
{
    __tsan_release(mutex);
    QT_ORIGINAL(_ZN11QBasicMutex14unlockInternalEv)(mutex);
}

QT_FUNCTION(bool, _ZN14QWaitCondition4waitEP6QMutexm,
            (void *condition, void *mutex, unsigned long time))
{
    __tsan_release(mutex);
    const bool woken = QT_ORIGINAL(_ZN14QWaitCondition4waitEP6QMutexm)(condition, mutex, time);
    __tsan_acquire(mutex);
    return woken;
}

QT_FUNCTION(bool, _ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer,
            (void *condition, void *mutex, QDeadlineTimer deadline))
{
    __tsan_release(mutex);
    const bool woken =
        QT_ORIGINAL(_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer)(condition, mutex, deadline);
    __tsan_acquire(mutex);
    return woken;
}

QT_FUNCTION(void, _ZN10QSemaphore7acquireEi, (void *semaphore, int n))
{
    QT_ORIGINAL(_ZN10QSemaphore7acquireEi)(semaphore, n);
    __tsan_acquire(semaphore);
}

QT_FUNCTION(bool, _ZN10QSemaphore10tryAcquireEii, (void *semaphore, int n, int timeout))
{
    const bool got = QT_ORIGINAL(_ZN10QSemaphore10tryAcquireEii)(semaphore, n, timeout);
    if (got)
        __tsan_acquire(semaphore);
    return got;
}

QT_FUNCTION(void, _ZN10QSemaphore7releaseEi, (void *semaphore, int n))
{
    __tsan_release(semaphore);
    QT_ORIGINAL(_ZN10QSemaphore7releaseEi)(semaphore, n);
}

QT_FUNCTION(bool, _ZN7QThread4waitE14QDeadlineTimer, (void *thread, QDeadlineTimer deadline))
{
    const bool ended = QT_ORIGINAL(_ZN7QThread4waitE14QDeadlineTimer)(thread, deadline);
    __tsan_acquire(&_queue);
    return ended;
}

QT_FUNCTION(bool, _ZN7QThread4waitEm, (void *thread, unsigned long time))
{
    const bool ended = QT_ORIGINAL(_ZN7QThread4waitEm)(thread, time);
    __tsan_acquire(&_queue);
    return ended;
}

QT_FUNCTION(void, _ZN16QCoreApplication9postEventEP7QObjectP6QEventi,
            (QObject * receiver, QEvent *event, int priority))
{
    __tsan_release(&_queue);
    QT_ORIGINAL(_ZN16QCoreApplication9postEventEP7QObjectP6QEventi)(receiver, event, priority);
}

QT_FUNCTION(void, _ZN7QObject11deleteLaterEv, (QObject * object))
{
    __tsan_release(&_queue);
    QT_ORIGINAL(_ZN7QObject11deleteLaterEv)(object);
}

QT_FUNCTION(
    QMetaObject::Connection,
    _ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject,
    (const QObject *sender, void **signal, const QObject *receiver, void **slotPointer,
     QtPrivate::QSlotObjectBase *slot, Qt::ConnectionType type, const int *types,
     const QMetaObject *meta))
{
    __tsan_release(&_connections);
    return QT_ORIGINAL(
        _ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPKiPK11QMetaObject)(
        sender, signal, receiver, slotPointer, slot, type, types, meta);
}

QT_FUNCTION(void, _ZN11QMetaObject8activateEP7QObjectPKS_iPPv,
            (QObject * sender, const QMetaObject *meta, int signal, void **args))
{
    __tsan_acquire(&_connections);
    __tsan_release(&_queue);
    QT_ORIGINAL(_ZN11QMetaObject8activateEP7QObjectPKS_iPPv)(sender, meta, signal, args);
}

QT_FUNCTION(
    bool,
    _ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv,
    (QObject * object, QtPrivate::QSlotObjectBase *call, Qt::ConnectionType type, void *ret))
{
    auto *queued = new QueuedCall(call);
    __tsan_release(&_queue);
    const bool done = QT_ORIGINAL(
        _ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv)(
        object, queued, type, ret);
    __tsan_acquire(&_queue);
    return done;
}

// A thread announces its end inside Qt, where no replacement is called. The threads of this tree
// delete their objects as their last step, so that the deletion announces the end.
QT_FUNCTION(void, _ZN7QObjectD2Ev, (QObject * object))
{
    QT_ORIGINAL(_ZN7QObjectD2Ev)(object);
    __tsan_release(&_queue);
}

// Classes of this tree that do not handle events themselves have this function in their tables.
QT_FUNCTION(bool, _ZN7QObject5eventEP6QEvent, (QObject * object, QEvent *event))
{
    __tsan_acquire(&_queue);
    const bool handled = QT_ORIGINAL(_ZN7QObject5eventEP6QEvent)(object, event);
    __tsan_release(&_queue);
    return handled;
}
