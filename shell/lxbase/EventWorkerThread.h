// CEventWorkerThread: delivers a plugin's events.
#ifndef LXBASE_EVENTWORKERTHREAD_H
#define LXBASE_EVENTWORKERTHREAD_H

#include <lxbase/InboxWorker.h>

#include <cstddef>

// One event for one receiver: made with `new` by PutEvent, deleted by the worker after the handler
// call.
struct LXBASE_EXPORT EventQueueItem final
{
    QString src_id; // the publisher's ID, as given to the put
    QVariant type;
    QVariant data; // the payload

    // From memory that is kept for items, unless the bus was built without: an item is deleted on
    // another thread than it was made on.
    static void* operator new(std::size_t size);
    static void operator delete(void* item) noexcept;
};

// One per plugin registered with EventThread, named "<ID>_EventWorkerThread". Calls RecvEvent on
// this thread, once per item, in the order in which the items were put.
//
// Every five minutes or more, right after a batch, it writes a debug record of its batch
// statistics, which count for the life of the thread; an idle worker writes none.
class LXBASE_EXPORT CEventWorkerThread : public CInboxWorker<EventQueueItem>
{
    Q_OBJECT
public:
    CEventWorkerThread();
    ~CEventWorkerThread() override;

    void run() override;
};

#endif
