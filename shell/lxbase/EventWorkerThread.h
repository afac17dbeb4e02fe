/// \file
/// CEventWorkerThread: delivers a plugin's events.
#ifndef LXBASE_EVENTWORKERTHREAD_H
#define LXBASE_EVENTWORKERTHREAD_H

#include <lxbase/InboxWorker.h>
#include <lxbase/QueueItems.h>

/// One per plugin registered with EventThread, named "<ID>_EventWorkerThread". Calls
/// RecvEvent on this thread, once per item, in the order in which the items were put.
///
/// Every five minutes or more, right after a batch, it writes a debug record of its batch
/// statistics, which count for the life of the thread; an idle worker writes none.
class LXBASE_EXPORT CEventWorkerThread : public CInboxWorker<EventQueueItem>
{
    Q_OBJECT
public:
    CEventWorkerThread();
    ~CEventWorkerThread() override;

    void run() override;
};

#endif
