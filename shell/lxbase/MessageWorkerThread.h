/// \file
/// CMessageWorkerThread: delivers a plugin's ordinary messages.
#ifndef LXBASE_MESSAGEWORKERTHREAD_H
#define LXBASE_MESSAGEWORKERTHREAD_H

#include <lxbase/InboxWorker.h>
#include <lxbase/QueueItems.h>

/// One per plugin registered with MessageThread, named "<ID>_MessageWorkerThread". Calls
/// RecvMsg on this thread, once per item, in the order in which the items were put.
///
/// Every five minutes or more, right after a batch, it writes a debug record of its batch
/// statistics, which count for the life of the thread; an idle worker writes none.
class LXBASE_EXPORT CMessageWorkerThread : public CInboxWorker<MsgQueueItem>
{
    Q_OBJECT
public:
    CMessageWorkerThread();
    ~CMessageWorkerThread() override;

    void run() override;
};

#endif
