#include <lxbase/LiveWorkers.h>

#include <QSet>

namespace lxbase::detail {

LiveWorkers& LiveWorkers::instance()
{
    static auto* const all = new LiveWorkers;
    return *all;
}

void LiveWorkers::add(CInboxWorkerBase* worker)
{
    const QMutexLocker locker(&m_mutex);
    m_serials.insert(worker, ++m_last_serial);
}

void LiveWorkers::remove(CInboxWorkerBase* worker)
{
    InboxStatistics last = worker->statistics();
    last.dropped += last.waiting;
    last.waiting = 0;
    const QMutexLocker locker(&m_mutex);
    const quint64 serial = m_serials.take(worker);
    addTo(m_gone, last);
    if (m_readers > 0)
        m_gone_meanwhile.append({serial, last});
}

int LiveWorkers::count()
{
    const QMutexLocker locker(&m_mutex);
    return m_serials.size();
}

QVector<InboxStatistics> LiveWorkers::statistics()
{
    QMutexLocker locker(&m_mutex);
    Sums gone = m_gone;
    const int begin = m_gone_meanwhile.size();
    ++m_readers;
    locker.unlock();

    QVector<InboxStatistics> present;
    QSet<quint64> seen;
    forEach([&](const CInboxWorkerBase& worker, quint64 serial) {
        present.append(worker.statistics());
        seen.insert(serial);
    });

    locker.relock();
    for (int i = begin; i < m_gone_meanwhile.size(); ++i) {
        if (!seen.contains(m_gone_meanwhile[i].serial))
            addTo(gone, m_gone_meanwhile[i].last);
    }
    if (--m_readers == 0)
        m_gone_meanwhile.clear();
    locker.unlock();
    QVector<InboxStatistics> all;
    for (const auto& [kind, sum] : gone)
        all.append(sum);
    return all + present;
}

void LiveWorkers::addTo(Sums& sums, const InboxStatistics& last)
{
    InboxStatistics& sum = sums[last.kind];
    sum.kind = last.kind;
    sum.peak = qMax(sum.peak, last.peak);
    sum.put += last.put;
    sum.handled += last.handled;
    sum.dropped += last.dropped;
    sum.superseded += last.superseded;
    sum.waitTime.add(last.waitTime);
    sum.handlerTime.add(last.handlerTime);
}

} // namespace lxbase::detail
