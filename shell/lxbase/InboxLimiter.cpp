#include <lxbase/InboxLimiter.h>

#include <lxbase/Owned.h>

#include <lxplatform/Clock.h>

#include <QHash>

#include <algorithm>
#include <new>
#include <utility>

namespace lxbase::detail {

namespace {

IMessageInterface::ThreadType flagOf(InboxKind kind)
{
    switch (kind) {
    case InboxKind::Messages:
        return IMessageInterface::MessageThread;
    case InboxKind::Quotations:
        return IMessageInterface::QuotationThread;
    case InboxKind::Events:
        break;
    }
    return IMessageInterface::EventThread;
}

// A type is an int as a rule.
uint hashOf(const QVariant& type)
{
    const int kind = type.userType();
    if (kind == QMetaType::Int)
        return qHash(*static_cast<const int*>(type.constData()));
    if (kind == QMetaType::QByteArray)
        return qHash(*static_cast<const QByteArray*>(type.constData()));
    return kind < QMetaType::User ? qHash(type.toString()) : static_cast<uint>(kind);
}

// Kinds are not mixed: comparing unlike variants converts them.
bool isSame(const QVariant& a, const QVariant& b)
{
    const int kind = a.userType();
    if (kind != b.userType())
        return false;
    if (kind == QMetaType::Int)
        return *static_cast<const int*>(a.constData()) == *static_cast<const int*>(b.constData());
    return a == b;
}

} // namespace

bool isPlain(const InboxPolicy& policy)
{
    return policy.mode == InboxPolicy::Unbounded && policy.highWatermark == 0
        && policy.maxAgeMs == 0;
}

QString faultOf(const InboxPolicy& policy)
{
    const bool limited =
        policy.mode == InboxPolicy::DropOldest || policy.mode == InboxPolicy::RefuseNewest;
    if (policy.mode < InboxPolicy::Unbounded || policy.mode > InboxPolicy::RefuseNewest)
        return QStringLiteral("mode %1 is unknown").arg(static_cast<int>(policy.mode));
    if (limited && policy.limit < 1)
        return QStringLiteral("limit %1: the mode needs one from 1 on").arg(policy.limit);
    if (!limited && policy.limit != 0)
        return QStringLiteral("limit %1: the mode has none, give 0").arg(policy.limit);
    if (policy.maxAgeMs < 0)
        return QStringLiteral("maxAgeMs %1: milliseconds from 0 on").arg(policy.maxAgeMs);
    if (policy.highWatermark < 0 || (limited && policy.highWatermark > policy.limit)) {
        return QStringLiteral("highWatermark %1: from 0 to the limit, if there is one")
            .arg(policy.highWatermark);
    }
    if (policy.lowWatermark < 0 || policy.lowWatermark > std::max(policy.highWatermark - 1, 0)) {
        return QStringLiteral("lowWatermark %1: from 0 on and below highWatermark, which is %2")
            .arg(policy.lowWatermark)
            .arg(policy.highWatermark);
    }
    if ((policy.highWatermark > 0) != bool(policy.observer)) {
        return QStringLiteral("highWatermark %1 %2 an observer: give both or neither")
            .arg(policy.highWatermark)
            .arg(QLatin1String(policy.observer ? "with" : "without"));
    }
    return {};
}

template<class Item>
InboxLimiter<Item>::InboxLimiter(const InboxName& name, const InboxPolicy& policy,
                                 InboxMeter& meter)
    : m_name(name)
    , m_mode(policy.mode)
    , m_limit(static_cast<std::size_t>(policy.limit))
    , m_max_age_ms(static_cast<quint32>(policy.maxAgeMs))
    , m_meter(meter)
    , m_watermark(policy.highWatermark > 0
                      ? std::make_shared<Watermark>(name.plugin, flagOf(name.kind), policy)
                      : nullptr)
{ }

template<class Item>
InboxLimiter<Item>::~InboxLimiter() = default;

// Whatever may throw comes first.
template<class Item>
void InboxLimiter<Item>::put(Item* item, Aftermath<Item>& aftermath)
{
    const bool full = m_limit > 0 && m_slots.size() >= m_limit;
    aftermath.makeRoom(full ? Aftermath<Item>::For::Lost : Aftermath<Item>::For::Superseded);
    switch (m_mode) {
    case InboxPolicy::Unbounded:
        push(item, nullptr);
        break;
    case InboxPolicy::KeepLatest: {
        Entry& entry = entryOf(*item);
        if (!entry.slot) {
            push(item, &entry);
            break;
        }
        aftermath.takeSuperseded(std::exchange(entry.slot->item, item));
        m_meter.supersede();
        stamp(*entry.slot);
        return;
    }
    case InboxPolicy::DropOldest:
        push(item, nullptr);
        if (full)
            lose(popFront().item, LostReason::DroppedOldest, aftermath);
        break;
    case InboxPolicy::RefuseNewest:
        if (full)
            return lose(item, LostReason::RefusedNewest, aftermath);
        push(item, nullptr);
        break;
    }
    m_meter.putLimited(waiting());
    watch(aftermath);
}

template<class Item>
void InboxLimiter<Item>::take(QVector<Item*>& batch, Aftermath<Item>& aftermath)
{
    adaptBatch();
    batch.reserve(m_batch);
    const quint32 nowMs = m_max_age_ms > 0 ? lxplatform::tickCountMs() : 0;
    InboxMeter::Probe probe;
    for (int left = m_batch; left > 0 && !m_slots.empty(); --left) {
        const bool probed = &m_slots.front() == m_probed;
        const Slot slot = popFront();
        if (m_max_age_ms > 0 && nowMs - slot.putMs > m_max_age_ms) {
            lose(slot.item, LostReason::TooOld, aftermath);
            continue;
        }
        if (probed)
            probe = {batch.size(), m_probe_ns};
        batch.append(slot.item);
    }
    m_meter.take(batch.size(), probe);
    watch(aftermath);
}

template<class Item>
QVector<Item*> InboxLimiter<Item>::takeAll(Aftermath<Item>& aftermath)
{
    if (m_watermark && m_watermark->isCrossedAtEnd(waiting()))
        aftermath.takeCrossings(m_watermark);
    QVector<Item*> items;
    items.reserve(waiting());
    for (const Slot& slot : m_slots)
        items.append(slot.item);
    m_slots.clear();
    m_table.clear();
    m_entries = 0;
    return items;
}

template<class Item>
typename InboxLimiter<Item>::Entry& InboxLimiter<Item>::entryOf(const Item& item)
{
    if (m_entries == m_table.size())
        renewTable();
    const uint hash = qHash(item.src_id, hashOf(item.type));
    std::unique_ptr<Entry>& chain = m_table[hash & (m_table.size() - 1)];
    for (Entry* entry = chain.get(); entry; entry = entry->next.get()) {
        if (entry->hash == hash && isSame(entry->type, item.type) && entry->sender == item.src_id)
            return *entry;
    }
    auto entry = std::make_unique<Entry>();
    entry->sender = owned(item.src_id);
    entry->type = owned(item.type);
    entry->hash = hash;
    entry->next = std::move(chain);
    chain = std::move(entry);
    ++m_entries;
    return *chain;
}

// Each item that waits has an entry, and there is room for as many more.
template<class Item>
void InboxLimiter<Item>::renewTable()
{
    std::size_t size = MinTable;
    while (size < 2 * m_slots.size())
        size *= 2;
    Table table(size);
    for (std::unique_ptr<Entry>& chain : m_table) {
        while (std::unique_ptr<Entry> entry = std::move(chain)) {
            chain = std::move(entry->next);
            if (!entry->slot)
                continue;
            std::unique_ptr<Entry>& place = table[entry->hash & (size - 1)];
            entry->next = std::move(place);
            place = std::move(entry);
        }
    }
    m_table.swap(table);
    m_entries = m_slots.size();
}

template<class Item>
void InboxLimiter<Item>::push(Item* item, Entry* entry)
{
    m_slots.push_back({item, entry, 0});
    if (entry)
        entry->slot = &m_slots.back();
    stamp(m_slots.back());
}

template<class Item>
typename InboxLimiter<Item>::Slot InboxLimiter<Item>::popFront()
{
    const Slot slot = m_slots.front();
    if (slot.entry)
        slot.entry->slot = nullptr;
    if (m_probed == &m_slots.front())
        m_probed = nullptr;
    m_slots.pop_front();
    return slot;
}

// The time of an item that is in its slot from now on.
template<class Item>
void InboxLimiter<Item>::stamp(Slot& slot)
{
    if (m_max_age_ms > 0)
        slot.putMs = lxplatform::tickCountMs();
    if (monitorSwitches.level.load(std::memory_order_relaxed) >= StatisticsLevel::Sampled
        && (!m_probed || m_probed == &slot)) {
        m_probed = &slot;
        m_probe_ns = monotonicNs();
    }
}

template<class Item>
void InboxLimiter<Item>::lose(Item* item, LostReason reason, Aftermath<Item>& aftermath)
{
    m_meter.dropWaiting();
    aftermath.takeLost(item, reason, m_name.kind, m_name.plugin);
}

// Without memory a crossing is told later, with the next one; the items are not to suffer for it.
template<class Item>
void InboxLimiter<Item>::watch(Aftermath<Item>& aftermath)
{
    try {
        if (m_watermark && m_watermark->isCrossedAt(waiting()))
            aftermath.takeCrossings(m_watermark);
    } catch (const std::bad_alloc&) { }
}

template<class Item>
void InboxLimiter<Item>::adaptBatch()
{
    const qint64 nowNs = monotonicNs();
    const bool slow = nowNs - std::exchange(m_taken_ns, nowNs) > MaxBatchNs;
    m_batch = slow ? 1 : std::min(2 * m_batch, MaxBatch);
}

template<class Item>
void putLimited(InboxLimiterBase& limiter, Item* item, Aftermath<Item>& aftermath)
{
    static_cast<InboxLimiter<Item>&>(limiter).put(item, aftermath);
}

template<class Item>
std::unique_ptr<InboxLimiterBase> applyPolicy(const Inbox<Item*>& inbox, const InboxName& name,
                                              const InboxPolicy& policy, Aftermath<Item>& aftermath)
{
    const QMutexLocker locker(inbox.mutex);
    InboxState& state = *inbox.state;
    const auto previous = limiterOf<Item>(inbox.state);
    if (!previous && isPlain(policy))
        return nullptr;
    auto limiter =
        isPlain(policy) ? nullptr : std::make_unique<InboxLimiter<Item>>(name, policy, state.meter);
    QVector<Item*> items = previous ? previous->takeAll(aftermath) : std::exchange(*inbox.list, {});
    if (limiter) {
        state.meter.withdrawProbe();
        for (Item* item : qAsConst(items))
            limiter->put(item, aftermath);
    } else {
        inbox.list->swap(items);
    }
    std::unique_ptr<InboxLimiterBase> replaced = std::move(limiter);
    state.limiter.swap(replaced);
    return replaced;
}

template class InboxLimiter<MsgQueueItem>;
template class InboxLimiter<EventQueueItem>;
template void putLimited(InboxLimiterBase&, MsgQueueItem*, Aftermath<MsgQueueItem>&);
template void putLimited(InboxLimiterBase&, EventQueueItem*, Aftermath<EventQueueItem>&);
template std::unique_ptr<InboxLimiterBase> applyPolicy(const Inbox<MsgQueueItem*>&,
                                                       const InboxName&, const InboxPolicy&,
                                                       Aftermath<MsgQueueItem>&);
template std::unique_ptr<InboxLimiterBase> applyPolicy(const Inbox<EventQueueItem*>&,
                                                       const InboxName&, const InboxPolicy&,
                                                       Aftermath<EventQueueItem>&);

} // namespace lxbase::detail
