#include <lxbase/LostItems.h>

#include <lxbase/InboxMeter.h>
#include <lxbase/Owned.h>
#include <lxbase/Probes.h>
#include <lxbase/QueueItems.h>
#include <lxbase/TraceRecorder.h>

#include <lxdefine/PluginID.h>

#include <QDateTime>
#include <QScopedValueRollback>

#include <utility>

namespace lxbase::detail {

namespace {

// Whether the present thread is inside the observer: what it loses there is not observed again.
thread_local bool observing = false;

// How an item came that waits in an inbox.
PutPath pathOf(InboxKind kind, const QString& srcId)
{
    if (kind == InboxKind::Events)
        return PutPath::PutEvent;
    if (kind == InboxKind::Quotations)
        return PutPath::PutQuotationMsg;
    return srcId == PluginID::PLUGINNET_GLOBALID ? PutPath::PutNetMsg : PutPath::Put;
}

template<class Item>
LostItem lostFrom(const Item& item, LostReason reason, InboxKind kind, const QString& plugin)
{
    LostItem lost;
    lost.reason = reason;
    lost.path = pathOf(kind, item.src_id);
    lost.source = item.src_id;
    lost.destination = plugin;
    lost.type = item.type;
    return lost;
}

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
    item.type = listable(item.type);
    item.traceId = owned(item.traceId);
    QMutexLocker locker(&m_mutex);
    item.sequence = ++m_last_sequence;
    if (m_ring.size() < MaxListed)
        m_ring.resize(MaxListed);
    LostItem& place = m_ring[static_cast<int>(item.sequence % MaxListed)];
    place = item;
    const auto observer = m_observer;
    locker.unlock();
    if (observer && !observing) {
        const QScopedValueRollback<bool> inside(observing, true); // also if it throws
        (*observer)(item);
    }
}

void LostItems::note(const MsgQueueItem& item, LostReason reason, InboxKind kind,
                     const QString& plugin)
{
    LostItem lost = lostFrom(item, reason, kind, plugin);
    lost.traceId = item.trace_id;
    note(std::move(lost));
}

void LostItems::note(const EventQueueItem& item, LostReason reason, InboxKind kind,
                     const QString& plugin)
{
    note(lostFrom(item, reason, kind, plugin));
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
