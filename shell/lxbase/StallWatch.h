// StallWatch: the thread that looks for handlers that do not return and inboxes that grow.
// Internal: not installed.
#ifndef LXBASE_STALLWATCH_H
#define LXBASE_STALLWATCH_H

#include <lxbase/BusMonitor.h>

#include <lxutils/LxThread.h>

#include <QDeadlineTimer>
#include <QHash>
#include <QMap>
#include <QMutex>
#include <QSemaphore>
#include <QStringList>
#include <QVector>

class CInboxWorkerBase;

namespace lxbase::detail {

// "BusMonitor_Thread". There is at most one, made by the limit and ended by another or by the end
// of the center.
//
// It knows a handler call by the count of its worker's calls, which it has seen before: so it finds
// a call to be old within one tick, without a clock reading in the worker. Its own clock goes no
// faster than its ticks come: time in which it could not run does not count.
class StallWatch : public LxThread
{
public:
    static constexpr int TickMs = 100;
    static constexpr int MaxReportsPerMinute = 5; // for one plugin
    static constexpr qint64 MinuteMs = 60000;
    static constexpr quint64 FirstDepth = 10000; // of an inbox that is reported

    // Any thread. Ends the present one and starts another, unless `ms` is 0.
    static void begin(int ms);

    // Ends the present one. False: it had not ended at the deadline.
    static bool end(QDeadlineTimer deadline);

    // Whether there is one, and what it sees.
    static bool isWatching();
    static QVector<Stall> stalls();

    void run() override;

private:
    explicit StallWatch(int limitMs)
        : m_limit_ms(limitMs)
    { }

    // What is remembered of one worker.
    struct Watched
    {
        quint64 calls = 0;                // of the call in progress
        qint64 sinceMs = -1;              // when it was first seen; negative: none is in progress
        qint64 reportAtMs = 0;            // how long it has to last for the next report
        bool reported = false;            // a record was written of it
        Stall stall;                      // as reported; no plugin: not yet
        quint64 reportDepth = FirstDepth; // of the inbox, for the next report
        qint64 deepMs = 0;                // when half of FirstDepth waited last
    };

    void tick(qint64 nowMs);
    void look(CInboxWorkerBase& worker, Watched& watched, qint64 nowMs, QStringList& records);
    static void trace(const Stall& stall);
    bool mayReport(const QString& plugin, qint64 nowMs);

    const int m_limit_ms;
    QSemaphore m_stop;

    // this thread's alone
    QMap<quint64, Watched> m_watched;            // by the worker's serial number
    QHash<QString, QVector<qint64>> m_report_ms; // by plugin, within the last minute

    mutable QMutex m_mutex;
    QVector<Stall> m_stalls; // guarded by m_mutex
};

} // namespace lxbase::detail

#endif
