#include <lxbase/LostItems.h>

#include <lxbase/InboxMeter.h>
#include <lxbase/Owned.h>
#include <lxbase/Probes.h>
#include <lxbase/TraceRecorder.h>

#include <QDateTime>

#include <utility>

namespace lxbase::detail {

namespace {

// Whether the present thread is inside the observer: what it loses there is not observed again.
thread_local bool observing = false;

} // namespace

LostItems& LostItems::instance()
{
    static auto* const all = new LostItems;
    return *all;
}

void LostItems::note(LostItem item)
{
    LXBASE_PROBE(lost, static_cast<int>(item.path), static_cast<int>(item.reason));
    if (isTracing()) {
        TraceEntry entry{TraceKind::Lost};
        entry.detail = static_cast<quint8>(item.path);
        entry.number = static_cast<quint64>(item.reason);
        entry.type = &item.type;
        entry.source = &item.source;
        entry.destination = &item.destination;
        entry.traceId = &item.traceId;
        TraceRecorder::record(entry);
    }
    if (monitorSwitches.level.load(std::memory_order_relaxed) == StatisticsLevel::Off)
        return;
    count(item.reason);
    item.timeMs = QDateTime::currentMSecsSinceEpoch();
    // listed for longer than the library that put it may stay loaded
    item.source = owned(item.source);
    item.destination = owned(item.destination);
    item.type = owned(item.type);
    item.traceId = owned(item.traceId);
    LostItem forgotten; // destroyed after the lock: its type may be of any class
    QMutexLocker locker(&m_mutex);
    item.sequence = ++m_last_sequence;
    if (m_ring.size() < MaxListed)
        m_ring.resize(MaxListed);
    LostItem& place = m_ring[static_cast<int>(item.sequence % MaxListed)];
    forgotten = std::exchange(place, item);
    const auto observer = m_observer;
    locker.unlock();
    if (observer && !std::exchange(observing, true)) {
        (*observer)(item);
        observing = false;
    }
}

void LostItems::count(LostReason reason, quint64 count)
{
    if (monitorSwitches.level.load(std::memory_order_relaxed) != StatisticsLevel::Off)
        m_counts[static_cast<int>(reason)].fetch_add(count, std::memory_order_relaxed);
}

QVector<quint64> LostItems::counts() const
{
    QVector<quint64> result;
    for (const auto& count : m_counts)
        result.append(count.load(std::memory_order_relaxed));
    return result;
}

QVector<LostItem> LostItems::after(quint64 sequence) const
{
    QVector<LostItem> result;
    const QMutexLocker locker(&m_mutex);
    const quint64 first = m_last_sequence < MaxListed ? 1 : m_last_sequence - MaxListed + 1;
    for (quint64 next = qMax(sequence + 1, first); next <= m_last_sequence; ++next)
        result.append(m_ring.at(static_cast<int>(next % MaxListed)));
    return result;
}

void LostItems::setObserver(std::function<void(const LostItem&)> observer)
{
    auto next = observer ? std::make_shared<const Observer>(std::move(observer)) : nullptr;
    const QMutexLocker locker(&m_mutex);
    m_observer.swap(next); // the old one goes after the lock
}

} // namespace lxbase::detail
