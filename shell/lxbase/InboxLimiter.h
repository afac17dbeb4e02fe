// InboxLimiter: the inbox of a plugin under any policy but the bus's own way.
// Internal: not installed.
#ifndef LXBASE_INBOXLIMITER_H
#define LXBASE_INBOXLIMITER_H

#include <lxbase/Aftermath.h>
#include <lxbase/Inbox.h>
#include <lxbase/InboxPolicy.h>
#include <lxbase/QueueItems.h>
#include <lxbase/Watermark.h>

#include <QVector>

#include <deque>
#include <memory>
#include <vector>

namespace lxbase::detail {

// Whether the policy asks for nothing: then there is no limiter.
bool isPlain(const InboxPolicy& policy);

// What does not make sense about the policy, in words; empty: nothing.
QString faultOf(const InboxPolicy& policy);

// Whose inbox it is.
struct InboxName
{
    QString plugin;
    InboxKind kind;
};

// While an inbox has a limiter, its items wait here and its list is empty. Everything is guarded by
// the mutex of the inbox. Items that are displaced, and crossings, go into the aftermath of the
// thread that has it.
//
// The worker takes few items at a time where its handler is slow, and many where it is fast, so
// that what the policy promises holds until shortly before the handler call and the mutex is seldom
// taken all the same.
//
// For KeepLatest, an entry for each sender and type says where their item waits: a hash table with
// chains. Entries outlive the items, so that a steady stream makes none; when the table is full,
// those whose items have gone are dropped.
template<class Item>
class InboxLimiter final : public InboxLimiterBase
{
public:
    // `meter` is that of the inbox, and outlives this.
    InboxLimiter(const InboxName& name, const InboxPolicy& policy, InboxMeter& meter);
    ~InboxLimiter() override; // of an empty one: see takeAll

    int waiting() const override { return static_cast<int>(m_slots.size()); }

    // The item belongs to the limiter, or to the aftermath, when this returns; to the caller if it
    // throws.
    void put(Item* item, Aftermath<Item>& aftermath);

    // The next ones for the handler, which the meter is told of. There may be none: too old, all of
    // them.
    void take(QVector<Item*>& batch, Aftermath<Item>& aftermath);

    // The end: everything that waits, which is the caller's then.
    QVector<Item*> takeAll(Aftermath<Item>& aftermath);

private:
    struct Entry;
    struct Slot
    {
        Item* item;
        Entry* entry;  // under KeepLatest
        quint32 putMs; // if items have a greatest age
    };
    struct Entry
    {
        QString sender;
        QVariant type;
        uint hash;
        Slot* slot = nullptr; // where the item waits; null: none does
        std::unique_ptr<Entry> next;
    };
    using Table = std::vector<std::unique_ptr<Entry>>; // by the last bits of the hash

    Entry& entryOf(const Item& item);
    void renewTable();
    void push(Item* item, Entry* entry);
    Slot popFront();
    void stamp(Slot& slot);
    void lose(Item* item, LostReason reason, Aftermath<Item>& aftermath);
    void watch(Aftermath<Item>& aftermath);
    void adaptBatch();

    static constexpr int MaxBatch = 64; // items
    static constexpr qint64 MaxBatchNs =
        200'000; // a batch that took longer is followed by one item
    static constexpr std::size_t MinTable = 1024; // fewer entries are not worth dropping

    const InboxName m_name;
    const InboxPolicy::Mode m_mode;
    const std::size_t m_limit;
    const quint32 m_max_age_ms; // 0: none
    InboxMeter& m_meter;
    const std::shared_ptr<Watermark> m_watermark; // null: none

    std::deque<Slot> m_slots; // an element stays where it is while others come and go at the ends
    Table m_table;            // as large as a power of two, or empty
    std::size_t m_entries = 0;

    int m_batch = 1; // the most that the next one takes
    qint64 m_taken_ns = 0;

    const Slot* m_probed = nullptr; // its item's time is being taken
    qint64 m_probe_ns = 0;
};

// That of an inbox, or null. With the mutex held.
template<class Item>
InboxLimiter<Item>* limiterOf(InboxState* state)
{
    return state ? static_cast<InboxLimiter<Item>*>(state->limiter.get()) : nullptr;
}

// Puts an inbox under a policy, with what waits in it. With the mutex held. What is returned is
// deleted when no lock is held any more.
template<class Item>
std::unique_ptr<InboxLimiterBase> applyPolicy(const Inbox<Item*>& inbox, const InboxName& name,
                                              const InboxPolicy& policy,
                                              Aftermath<Item>& aftermath);

extern template class InboxLimiter<MsgQueueItem>;
extern template class InboxLimiter<EventQueueItem>;

} // namespace lxbase::detail

#endif
