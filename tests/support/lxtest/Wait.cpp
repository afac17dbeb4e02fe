#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QThread>

bool lxtest::waitUntil(const std::function<bool()>& condition)
{
    const QDeadlineTimer deadline(deadlineMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}

void lxtest::Latch::wait()
{
    if (!m_signals.tryAcquire(m_count, deadlineMs))
        qFatal("a latch was not signalled in time");
}

void lxtest::runDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}
