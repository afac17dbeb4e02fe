// Waiting in tests: for a condition, never for a time; a deadline that passes is a failure.
#ifndef LXTEST_WAIT_H
#define LXTEST_WAIT_H

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QSemaphore>
#include <QThread>

#include <functional>

namespace lxtest {

constexpr int deadlineMs = 30000;

// Returns when `condition` holds (it is asked again every millisecond). False: not in time, which
// starts anew whenever `progress` (none: nothing) has changed.
[[nodiscard]] inline bool waitUntil(
    const std::function<bool()>& condition,
    const std::function<qint64()>& progress = [] { return 0; })
{
    QDeadlineTimer deadline(deadlineMs);
    qint64 last = progress();
    while (!condition()) {
        const qint64 now = progress();
        if (now != last)
            deadline.setRemainingTime(deadlineMs);
        last = now;
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}

// Fails the test, with the condition's text, if it does not come true in time.
#define LX_WAIT_FOR(condition)                                                                     \
    QVERIFY2(lxtest::waitUntil([&] { return bool(condition); }),                                   \
             "did not come true in time: " #condition)

// One thread waits for `count` signals of others. A wait that expires ends the program with a
// message: it may stand in a handler, where no test can be failed.
class Latch
{
public:
    explicit Latch(int count = 1)
        : m_count(count)
    { }

    void signal() { m_signals.release(); }
    void wait()
    {
        if (!m_signals.tryAcquire(m_count, deadlineMs))
            qFatal("a latch was not signalled in time");
    }

private:
    const int m_count;
    QSemaphore m_signals;
};

// Lets everything that the calling thread's event loop has been asked to delete go.
inline void runDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace lxtest

#endif
