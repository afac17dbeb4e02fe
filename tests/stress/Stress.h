// What the stress programs share: waiting while there is progress, and looks at the own process.
#ifndef LXSTRESS_STRESS_H
#define LXSTRESS_STRESS_H

#include <lxtest/Counted.h>
#include <lxtest/Wait.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QThread>

#include <functional>

#include <dlfcn.h>

namespace lxstress {

// Returns when `condition` holds. Ends the program with a message if `progress` (none: nothing) has
// stood still for the time of a test's deadline before.
inline void waitFor(
    const char* what, const std::function<bool()>& condition,
    const std::function<qint64()>& progress = [] { return 0; })
{
    QDeadlineTimer deadline(lxtest::deadlineMs);
    qint64 last = progress();
    while (!condition()) {
        const qint64 now = progress();
        if (now != last)
            deadline.setRemainingTime(lxtest::deadlineMs);
        last = now;
        if (deadline.hasExpired())
            qFatal("no progress any more while waiting for %s, at %lld", what, last);
        QThread::msleep(1);
    }
}

// Returns when every counted record and payload has been handled or freed.
inline void waitForRecords()
{
    const auto alive = [] {
        return lxtest::CountedMessage::alive() + lxtest::CountedEvent::alive()
            + lxtest::CountedPayload::alive();
    };
    waitFor(
        "every record and payload to be handled or freed", [&] { return alive() == 0; }, alive);
}

inline int threadCount()
{
    return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

// Whether this library is still in the process.
inline bool isMapped(const QString& library)
{
    return dlopen(library.toLocal8Bit(), RTLD_LAZY | RTLD_NOLOAD) != nullptr;
}

} // namespace lxstress

#endif
