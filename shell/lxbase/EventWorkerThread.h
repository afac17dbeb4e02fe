// CEventWorkerThread: delivers a plugin's events.
#ifndef LXBASE_EVENTWORKERTHREAD_H
#define LXBASE_EVENTWORKERTHREAD_H

#include <lxbase/InboxWorker.h>

// One event for one receiver: made with `new` by PutEvent, deleted by the worker after the handler
// call.
struct LXBASE_EXPORT EventQueueItem
{
    QString src_id; // the publisher's ID, as given to the put
    QVariant type;
    QVariant data; // the payload
};

// One per plugin registered with EventThread, named "<ID>_EventWorkerThread". Calls RecvEvent on
// this thread, once per item, in the order in which the items were put.
//
// Every five minutes or more, right after a batch, it writes a debug record of its batch
// statistics, which count for the life of the thread; an idle worker writes none.
class LXBASE_EXPORT CEventWorkerThread : public InboxWorker<EventQueueItem>
{
    Q_OBJECT
public:
    CEventWorkerThread();
    ~CEventWorkerThread() override;

    void run() override;
};

#endif
