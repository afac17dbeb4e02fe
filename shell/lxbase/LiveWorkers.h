// LiveWorkers: the workers that run, of all plugins.
// Internal: not installed.
#ifndef LXBASE_LIVEWORKERS_H
#define LXBASE_LIVEWORKERS_H

#include <lxbase/BusMonitor.h>
#include <lxbase/InboxWorker.h>

#include <QMap>
#include <QMutex>
#include <QVector>

#include <map>

namespace lxbase::detail {

// From their start until they have been waited for, so also while UnReg waits. Never destroyed.
// Any thread.
//
// Locks: inside its mutex only those of inboxes.
class LiveWorkers
{
public:
    static LiveWorkers& instance();

    void add(CInboxWorkerBase* worker);

    // The thread has ended, and what is still in the inbox will be freed. Its figures are added to
    // those of the workers that have gone. Whoever removes a worker may delete it then.
    void remove(CInboxWorkerBase* worker);

    // How many there are.
    int count();

    // The figures of all: first those that have gone, summed up for each kind that had one, then
    // the others. Each worker is in it once, also one that goes meanwhile, so sums never go back.
    QVector<InboxStatistics> statistics();

    // Calls `visit` with one worker after the other and its serial number, which no other has had;
    // the worker stays for the call. The mutex is held for each call anew, so workers may come and
    // go meanwhile.
    template<class Visit>
    void forEach(const Visit& visit)
    {
        CInboxWorkerBase* last = nullptr;
        for (;;) {
            const QMutexLocker locker(&m_mutex);
            const auto next = m_serials.upperBound(last);
            if (next == m_serials.end())
                return;
            last = next.key();
            visit(*last, next.value());
        }
    }

private:
    QMutex m_mutex;
    QMap<CInboxWorkerBase*, quint64> m_serials; // guarded by m_mutex
    quint64 m_last_serial = 0;                  // guarded by m_mutex

    using Sums = std::map<InboxKind, InboxStatistics>; // copied for good, not shared
    static void addTo(Sums& sums, const InboxStatistics& last);

    struct Gone
    {
        quint64 serial;
        InboxStatistics last;
    };

    // guarded by m_mutex
    Sums m_gone;
    int m_readers = 0;              // calls of statistics in progress
    QVector<Gone> m_gone_meanwhile; // while there are any
};

} // namespace lxbase::detail

#endif
