/// \file
/// CInboxWorker: what the three per-plugin worker threads have in common.
#ifndef LXBASE_INBOXWORKER_H
#define LXBASE_INBOXWORKER_H

#include <lxbase/InboxThread.h>
#include <lxbase/LxbaseExport.h>

#include <QMap>
#include <QString>
#include <QVariant>
#include <QVector>

#include <atomic>

class IMessageInterface;
enum class InboxKind;
struct EventQueueItem;
struct InboxStatistics;
struct MsgQueueItem;
enum class TraceKind : quint8;

namespace lxbase::detail {
class InboxMeter;
struct LogPlace;
} // namespace lxbase::detail

/// The part of a worker that does not depend on what its inbox holds.
///
/// Life: made by the center at registration, set up by the setters, started; stopped by
/// unregistration, when its loop ends after the handler call in progress, or within one poll of the
/// inbox, frees the rest of its batch undelivered and leaves what is in the inbox; deleted by the
/// event loop of the thread that made it. It owns its inbox: list, mutex and state.
class LXBASE_EXPORT CInboxWorkerBase : public CInboxThread
{
public:
    ~CInboxWorkerBase() override;

    /// Ours: the worker that the calling code runs on; null on any other thread.
    static CInboxWorkerBase* current();

    /// The ID of the plugin that is served. Called before start.
    void setId(QString id);

    /// The ID of the plugin that is served.
    const QString& id() const { return m_id; }

    /// The plugin whose handler is called on this thread; not owned, and alive until the thread has
    /// ended. Null changes nothing; without a plugin, items are taken out and freed undelivered.
    /// Called before start.
    void setInterface(IMessageInterface* pInterface);

    /// Ours: UnReg of the plugin has begun. Set by the thread that unregisters, for the handlers of
    /// the plugin.
    void announceUnReg() { m_unregistering = true; }

    /// Ours: whether UnReg of the plugin `id` has begun, where the calling code is a handler of it;
    /// else null.
    static const std::atomic<bool>* unregistering(const QString& id);

    /// Ours: has the event loop of the thread that made this worker delete it, which has ended; or
    /// deleteRetired, where that thread has no event loop any more.
    void retire();

    /// Ours: deletes the retired workers that no event loop will delete any more; those of threads
    /// that may still run one are left to it. Called at the end of the process.
    static void deleteRetired();

    /// Ours: what the inbox is for.
    InboxKind kind() const { return m_kind; }

    /// Ours: how many items are in the inbox now.
    int waiting() const;

    /// Ours: the figures of the inbox. Any thread, not with the mutex of the inbox held.
    InboxStatistics statistics() const;

    /// Ours: what CBusMonitor counts of the inbox; null for a worker that was made without a state.
    lxbase::detail::InboxMeter* meter() const;

    /// Ours: the system's number of the thread; 0 before it runs.
    quint64 threadNumber() const { return m_thread_number; }

    /// Frees what is still in the inbox, undelivered. Called when the thread has ended and nobody
    /// appends any more: a payload may be of a type whose library is unloaded before this object is
    /// deleted.
    virtual void freeInbox() = 0;

protected:
    /// A worker for an inbox of that kind.
    explicit CInboxWorkerBase(InboxKind kind)
        : m_kind(kind)
    { }

    /// How many items are in the list; called with the mutex of the inbox held.
    virtual int listSize() const = 0;

    const InboxKind m_kind;
    QString m_id;                             // constant after start
    IMessageInterface* m_interface = nullptr; // constant after start

    // touched by the worker's own thread only: number of items found by one poll of the inbox, to
    // the number of polls that found that many (saturating); key 0 counts the empty polls
    QMap<int, int> m_batch_stats;

    // atomic: written by the thread itself when it begins, read by any
    std::atomic<quint64> m_thread_number{0};

private:
    std::atomic<bool> m_unregistering{false}; // see announceUnReg
};

/// The inbox and the loop. `Item` is MsgQueueItem or EventQueueItem; both are compiled once, in
/// InboxWorker.cpp. A derived worker is an instance of this with a WorkerProfile.
template<class Item>
class CInboxWorker : public CInboxWorkerBase
{
public:
    /// Frees the inbox with the items still in it, its mutex and its state. The thread has ended.
    ~CInboxWorker() override;

    /// The inbox: pointers to items made with `new`, appended by any thread under the mutex; owned
    /// by the worker from here on. Null changes nothing. Called before start.
    void setList(QVector<Item*>* list);

    void freeInbox() override;

protected:
    /// How the waiting items are taken out of the inbox, with its mutex held.
    enum class Take {
        Exchange, ///< swap with an empty vector: constant time
        Copy,     ///< copy the pointers and empty the inbox in place: its storage stays where it is
    };

    /// What happens to the batch statistics once a record of them has been written.
    enum class AfterRecord { KeepCounts, StartAnew };

    /// Everything in which the three workers differ.
    struct WorkerProfile
    {
        /// called once per item
        void (IMessageInterface::*handler)(QString srcId, QVariant type, QVariant data);
        Take take;
        quint32 recordIntervalMs; ///< least time between two statistics records
        AfterRecord afterRecord;
        const char* recordText;
    };

    using CInboxWorkerBase::CInboxWorkerBase;

    int listSize() const override;

    /// The loop: the body of run().
    void drain(const WorkerProfile& profile, const lxbase::detail::LogPlace& place);

    QVector<Item*>* m_list = nullptr; ///< constant after start

private:
    void takeBatch(QVector<Item*>& batch, Take take);
    bool deliver(const QVector<Item*>& batch, const WorkerProfile& profile,
                 lxbase::detail::InboxMeter& meter, const char* plugin);
    void callWatched(Item& item, const WorkerProfile& profile, lxbase::detail::InboxMeter& meter);
    void traceBatch(TraceKind kind, int items) const;
    void traceHandler(TraceKind kind, const Item& item, qint64 timeNs) const; // 0: now
    void drop(Item* const* first, Item* const* last, bool hasPlugin);
    void countPoll(int items);
    void writeRecord(const WorkerProfile& profile, const lxbase::detail::LogPlace& place);
};

extern template class LXBASE_EXPORT CInboxWorker<MsgQueueItem>;
extern template class LXBASE_EXPORT CInboxWorker<EventQueueItem>;

#endif
