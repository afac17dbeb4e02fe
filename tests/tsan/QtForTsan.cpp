// Teaches ThreadSanitizer the synchronisation of Qt, whose library is not instrumented: the
// sanitizer does not see Qt's atomics, so it would take correct users of QMutex and QThread for
// racing ones.
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

namespace {

// The function that would have been called without this library. Members take `this` as their
// first argument.
template<class Function>
Function qtsOwn(const char* mangledName)
{
    void* const symbol = dlsym(RTLD_NEXT, mangledName);
    if (!symbol) {
        std::fprintf(stderr, "QtForTsan: this Qt has no %s; adapt QtForTsan.cpp to it\n",
                     mangledName);
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
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
    static const auto own = qtsOwn<void (*)(QMutex*)>("_ZN6QMutex4lockEv");
    __tsan_mutex_pre_lock(this, 0);
    own(this);
    __tsan_mutex_post_lock(this, 0, 0);
}

bool QMutex::tryLock(int timeout) noexcept
{
    static const auto own = qtsOwn<bool (*)(QMutex*, int)>("_ZN6QMutex7tryLockEi");
    __tsan_mutex_pre_lock(this, __tsan_mutex_try_lock);
    const bool locked = own(this, timeout);
    __tsan_mutex_post_lock(
        this, locked ? __tsan_mutex_try_lock : __tsan_mutex_try_lock | __tsan_mutex_try_lock_failed,
        0);
    return locked;
}

void QMutex::unlock() noexcept
{
    static const auto own = qtsOwn<void (*)(QMutex*)>("_ZN6QMutex6unlockEv");
    __tsan_mutex_pre_unlock(this, 0);
    own(this);
    __tsan_mutex_post_unlock(this, 0);
}

QMutex::~QMutex()
{
    static const auto own = qtsOwn<void (*)(QMutex*)>("_ZN6QMutexD1Ev");
    __tsan_mutex_destroy(this, 0);
    own(this);
}

void QSemaphore::release(int n)
{
    static const auto own = qtsOwn<void (*)(QSemaphore*, int)>("_ZN10QSemaphore7releaseEi");
    __tsan_release(this);
    own(this, n);
}

void QSemaphore::acquire(int n)
{
    tryAcquire(n, -1);
}

bool QSemaphore::tryAcquire(int n, int timeout)
{
    static const auto own =
        qtsOwn<bool (*)(QSemaphore*, int, int)>("_ZN10QSemaphore10tryAcquireEii");
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
    static const auto own = qtsOwn<void (*)(QThread*, Priority)>("_ZN7QThread5startENS_8PriorityE");
    connect(
        this, &QThread::finished, this, [this] { __tsan_release(this); }, Qt::DirectConnection);
    own(this, priority);
}

bool QThread::wait(QDeadlineTimer deadline)
{
    static const auto own =
        qtsOwn<bool (*)(QThread*, QDeadlineTimer)>("_ZN7QThread4waitE14QDeadlineTimer");
    const bool ended = own(this, deadline);
    if (ended)
        __tsan_acquire(this);
    return ended;
}

bool QThread::wait(unsigned long time)
{
    return wait(time == ULONG_MAX ? QDeadlineTimer(QDeadlineTimer::Forever)
                                  : QDeadlineTimer(qint64(time)));
}

void QObject::deleteLater()
{
    static const auto own = qtsOwn<void (*)(QObject*)>("_ZN7QObject11deleteLaterEv");
    __tsan_release(this);
    own(this);
}

// The call is never destroyed: who would do that last is ordered by a count that the sanitizer does
// not see.
bool QMetaObject::invokeMethodImpl(QObject* object, QtPrivate::QSlotObjectBase* slot,
                                   Qt::ConnectionType type, void* ret)
{
    static const auto own =
        qtsOwn<bool (*)(QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*)>(
            "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14"
            "ConnectionTypeEPv");
    slot->ref();
    __tsan_release(object);
    return own(object, slot, type, ret);
}
