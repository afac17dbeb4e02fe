// LostItems: counts and remembers what did not reach a handler.
// Internal: not installed.
#ifndef LXBASE_LOSTITEMS_H
#define LXBASE_LOSTITEMS_H

#include <lxbase/BusMonitor.h>

#include <QMutex>

#include <atomic>
#include <memory>

struct EventQueueItem;
struct MsgQueueItem;

namespace lxbase::detail {

// Never destroyed: something may be lost at any time. Any thread.
class LostItems
{
public:
    static LostItems& instance();

    // Counts and lists an item, unless the level is Off, and calls the observer. The sequence and
    // the time are filled in here. Called with no lock held.
    void note(LostItem item);

    // The same for one that was put into an inbox of `plugin`.
    void note(const MsgQueueItem& item, LostReason reason, InboxKind kind, const QString& plugin);
    void note(const EventQueueItem& item, LostReason reason, InboxKind kind, const QString& plugin);

    // Counts `count` items only: where they are too many to list, or it is too late for that.
    void count(LostReason reason, quint64 count = 1);

    QVector<quint64> counts() const;
    QVector<LostItem> after(quint64 sequence) const;
    void setObserver(std::function<void(const LostItem&)> observer);

    static constexpr int MaxListed = 1024;

private:
    using Observer = std::function<void(const LostItem&)>;

    std::atomic<quint64> m_counts[LostReasonCount] = {};

    mutable QMutex m_mutex;
    // guarded by m_mutex; no other lock is taken inside
    QVector<LostItem> m_ring; // the item of sequence n at n % MaxListed
    quint64 m_last_sequence = 0;
    std::shared_ptr<const Observer> m_observer;
};

// A record that was put when the center was gone already; null: nothing was put.
inline void countTurnedAway(const void* record)
{
    if (record)
        LostItems::instance().count(LostReason::AtEnd);
}

} // namespace lxbase::detail

#endif
