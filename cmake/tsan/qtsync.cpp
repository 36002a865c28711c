/// \file
/// Tells ThreadSanitizer how threads meet inside Qt.
///
/// Qt itself is not built with the sanitizer, so that a contended mutex and a queued call look like
/// no synchronisation at all, and every use of them like a race. The functions here stand before
/// Qt's in a test program that is built with the sanitizer, announce what they do, and call Qt's.
/// They cover what is called from this tree; Qt's own calls among each other do not come here.

#include <QtCore/QDeadlineTimer>
#include <QtCore/QObject>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

// One definition for each: the C name of the replacement, the symbol in Qt, what comes before and
// after the call.
#define QT_FUNCTION(Result, Symbol, Parameters)                                                    \
    extern "C" __attribute__((visibility("default")))                                              \
    Result qtsync##Symbol Parameters __asm__(#Symbol);                                             \
    Result qtsync##Symbol Parameters

#define QT_ORIGINAL(Symbol) original<decltype(&qtsync##Symbol)>(#Symbol)

namespace
{

// Everything that is queued meets here: more order than there is may hide a race, but never makes
// one up.
char _queue;

template <typename Function>
Function original(const char *symbol)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
}

/// A functor on its way to another thread.
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

QT_FUNCTION(void, _ZN11QMetaObject8activateEP7QObjectPKS_iPPv,
            (QObject * sender, const QMetaObject *meta, int signal, void **args))
{
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

// A thread announces its end inside Qt. Ours delete what lived there last of all, which stands for
// it.
QT_FUNCTION(void, _ZN7QObjectD2Ev, (QObject * object))
{
    QT_ORIGINAL(_ZN7QObjectD2Ev)(object);
    __tsan_release(&_queue);
}

// Every class of this tree that does not handle events itself has this one in its table.
QT_FUNCTION(bool, _ZN7QObject5eventEP6QEvent, (QObject * object, QEvent *event))
{
    __tsan_acquire(&_queue);
    const bool handled = QT_ORIGINAL(_ZN7QObject5eventEP6QEvent)(object, event);
    __tsan_release(&_queue);
    return handled;
}
