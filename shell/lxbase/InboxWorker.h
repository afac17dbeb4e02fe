// CInboxWorker: what the three per-plugin worker threads have in common.
#ifndef LXBASE_INBOXWORKER_H
#define LXBASE_INBOXWORKER_H

#include <lxbase/LxbaseExport.h>

#include <lxutils/LxThread.h>

#include <QMap>
#include <QMutex>
#include <QString>
#include <QVariant>
#include <QVector>

#include <atomic>

class IMessageInterface;
class CParking;
struct EventQueueItem;
struct LogPlace;
struct MsgQueueItem;

// The part of a worker that does not depend on what its inbox holds.
//
// Life: made by the center at registration, set up by the setters, started; its loop ends only when
// the stop flag is set (there is no event loop, so quit() alone does nothing); released by the
// center after that.
class LXBASE_EXPORT CInboxWorkerBase : public LxThread
{
public:
    ~CInboxWorkerBase() override;

    // The ID of the plugin that is served. Called before start.
    void setId(QString id);
    const QString& id() const { return m_id; }

    // The plugin whose handler is called on this thread; not owned, and alive until the thread has
    // ended. Null changes nothing; without a plugin, items are taken out and freed undelivered.
    // Called before start.
    void setInterface(IMessageInterface* pInterface);

    // The mutex of the inbox; owned by the worker from here on. Null changes nothing; without a
    // mutex the loop never looks at the inbox and spins until the stop flag is set. Called before
    // start.
    void setMutex(QMutex* mutex);

    // Ours: where the thread waits while its inbox is empty; owned by the worker from here on.
    // Without one (null changes nothing) it polls. Called before start.
    void setParking(CParking* parking);

    // Asks the loop to end: after the handler call in progress, or within one look at the inbox. It
    // frees the rest of its batch undelivered; what is in the inbox stays there. Any thread, but
    // not with the mutex of the inbox held.
    void setStop(bool stop);

    // Frees what is still in the inbox, undelivered. Called when the thread has ended and nobody
    // appends any more: a payload may be of a type whose library is unloaded before this object is
    // deleted.
    virtual void freeInbox() = 0;

protected:
    CInboxWorkerBase() = default;

    // constant after start
    QMutex* m_mutex = nullptr;
    QString m_id;
    IMessageInterface* m_interface = nullptr;
    CParking* m_parking = nullptr;

    // set by the thread that unregisters, read by the loop without a lock
    std::atomic<bool> m_stop{false};

    // touched by the worker's own thread only: number of items found by one look at the inbox, to
    // the number of looks that found that many (saturating); key 0 counts the empty looks
    QMap<int, int> m_batch_stats;
};

// The inbox and the loop. `Item` is MsgQueueItem or EventQueueItem; both are compiled once, in
// InboxWorker.cpp. A derived worker is an instance of this with a WorkerProfile.
template<class Item>
class CInboxWorker : public CInboxWorkerBase
{
public:
    // Frees the inbox with the items still in it, and its mutex. The thread must have ended.
    ~CInboxWorker() override;

    // The inbox: pointers to items made with `new`, appended by any thread under the mutex; owned
    // by the worker from here on. Null changes nothing. Called before start.
    void setList(QVector<Item*>* list);

    // See CInboxWorkerBase.
    void freeInbox() override;

protected:
    // How the waiting items are taken out of the inbox, with its mutex held.
    enum class Take {
        Exchange, // swap with an empty vector: constant time
        Copy,     // copy the pointers and empty the inbox in place: its storage stays where it is
    };
    // What happens to the batch statistics once a record of them has been written.
    enum class AfterRecord { KeepCounts, StartAnew };

    // Everything in which the three workers differ.
    struct WorkerProfile
    {
        // called once per item
        void (IMessageInterface::*handler)(QString srcId, QVariant type, QVariant data);
        Take take;
        quint32 recordIntervalMs; // least time between two statistics records
        AfterRecord afterRecord;
        const char* recordText;
    };

    CInboxWorker() = default;

    // The loop: the body of run().
    void drain(const WorkerProfile& profile, const LogPlace& place);

    QVector<Item*>* m_list = nullptr;

private:
    void takeBatch(QVector<Item*>& batch, Take take);
    bool deliver(const QVector<Item*>& batch, const WorkerProfile& profile);
    void countLook(int items);
    void writeRecord(const WorkerProfile& profile, const LogPlace& place);
};

extern template class LXBASE_EXPORT CInboxWorker<MsgQueueItem>;
extern template class LXBASE_EXPORT CInboxWorker<EventQueueItem>;

#endif
