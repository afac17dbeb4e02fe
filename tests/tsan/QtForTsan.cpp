// Teaches ThreadSanitizer the synchronisation of Qt, whose library is not instrumented: it would
// take correct users of QMutex and QThread for racing ones.
//
// The functions below have the names of Qt's own and stand before them in the symbol search order
// (every target of the build links this library first). Each forwards to Qt's and tells the
// sanitizer which order the call establishes, no more than Qt really gives. What nobody here uses
// is not here: recursive mutexes, wait conditions, read-write locks.
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMutex>
#include <QObject>
#include <QSemaphore>
#include <QThread>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

// In a function of this library: `own` is Qt's function of that name; a member takes `this` first.
#define QTS_OWN(mangledName, ...)                                                                  \
    static const auto own =                                                                        \
        reinterpret_cast<__VA_ARGS__>(required(dlsym(RTLD_NEXT, mangledName), mangledName))

namespace {

void* required(void* symbol, const char* mangledName)
{
    if (!symbol) {
        std::fprintf(stderr, "this Qt has no %s; adapt QtForTsan.cpp to it\n", mangledName);
        std::abort();
    }
    return symbol;
}

// Whoever posts an event to an object is ordered before that object's handling of it.
bool acquireWhatWasPosted(void** receiverEventAndResult)
{
    __tsan_acquire(receiverEventAndResult[0]);
    return false; // the event goes on to its receiver
}

const bool callbackRegistered =
    QInternal::registerCallback(QInternal::EventNotifyCallback, acquireWhatWasPosted);

} // namespace

void QMutex::lock() noexcept
{
    QTS_OWN("_ZN6QMutex4lockEv", void (*)(QMutex*));
    __tsan_mutex_pre_lock(this, 0);
    own(this);
    __tsan_mutex_post_lock(this, 0, 0);
}

bool QMutex::tryLock(int timeout) noexcept
{
    QTS_OWN("_ZN6QMutex7tryLockEi", bool (*)(QMutex*, int));
    __tsan_mutex_pre_lock(this, __tsan_mutex_try_lock);
    const bool locked = own(this, timeout);
    const unsigned failed = locked ? 0 : __tsan_mutex_try_lock_failed;
    __tsan_mutex_post_lock(this, __tsan_mutex_try_lock | failed, 0);
    return locked;
}

void QMutex::unlock() noexcept
{
    QTS_OWN("_ZN6QMutex6unlockEv", void (*)(QMutex*));
    __tsan_mutex_pre_unlock(this, 0);
    own(this);
    __tsan_mutex_post_unlock(this, 0);
}

QMutex::~QMutex()
{
    QTS_OWN("_ZN6QMutexD1Ev", void (*)(QMutex*));
    __tsan_mutex_destroy(this, 0);
    own(this);
}

void QSemaphore::release(int n)
{
    QTS_OWN("_ZN10QSemaphore7releaseEi", void (*)(QSemaphore*, int));
    __tsan_release(this);
    own(this, n);
}

void QSemaphore::acquire(int n)
{
    tryAcquire(n, -1);
}

bool QSemaphore::tryAcquire(int n, int timeout)
{
    QTS_OWN("_ZN10QSemaphore10tryAcquireEii", bool (*)(QSemaphore*, int, int));
    const bool acquired = own(this, n, timeout);
    if (acquired)
        __tsan_acquire(this);
    return acquired;
}

// What a thread did is ordered before whatever follows a successful wait for it. finished() is
// emitted by the thread itself, after run(). Its start needs no help: Qt calls pthread_create,
// which the sanitizer knows.
void QThread::start(Priority priority)
{
    QTS_OWN("_ZN7QThread5startENS_8PriorityE", void (*)(QThread*, Priority));
    connect(
        this, &QThread::finished, this, [this] { __tsan_release(this); }, Qt::DirectConnection);
    own(this, priority);
}

bool QThread::wait(QDeadlineTimer deadline)
{
    QTS_OWN("_ZN7QThread4waitE14QDeadlineTimer", bool (*)(QThread*, QDeadlineTimer));
    const bool ended = own(this, deadline);
    if (ended)
        __tsan_acquire(this);
    return ended;
}

bool QThread::wait(unsigned long timeMs)
{
    return wait(QDeadlineTimer(timeMs == ULONG_MAX ? -1 : qint64(timeMs))); // -1: forever
}

void QObject::deleteLater()
{
    QTS_OWN("_ZN7QObject11deleteLaterEv", void (*)(QObject*));
    __tsan_release(this);
    own(this);
}

// The call is never destroyed: who would do that last is ordered by a count that the sanitizer does
// not see.
bool QMetaObject::invokeMethodImpl(QObject* object, QtPrivate::QSlotObjectBase* slot,
                                   Qt::ConnectionType type, void* ret)
{
    QTS_OWN("_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14"
            "ConnectionTypeEPv",
            bool (*)(QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*));
    slot->ref();
    __tsan_release(object);
    return own(object, slot, type, ret);
}
