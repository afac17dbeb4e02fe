// CMessageWorkerThread: delivers a plugin's ordinary messages.
#ifndef LXBASE_MESSAGEWORKERTHREAD_H
#define LXBASE_MESSAGEWORKERTHREAD_H

#include <lxbase/InboxWorker.h>

#include <cstddef>

// One message for one receiver: made with `new` by the put paths, queued in a message or quotation
// inbox, deleted by the worker after the handler call.
struct LXBASE_EXPORT MsgQueueItem final
{
    QString src_id; // the sender's ID, as given to the put
    QVariant type;
    QString trace_id; // not passed to the handler; empty for quotations
    QVariant data;    // the payload

    // From memory that is kept for items, unless the bus was built without: an item is deleted on
    // another thread than it was made on.
    static void* operator new(std::size_t size);
    static void operator delete(void* item) noexcept;
};

// One per plugin registered with MessageThread, named "<ID>_MessageWorkerThread". Calls RecvMsg on
// this thread, once per item, in the order in which the items were put.
//
// Every five minutes or more, right after a batch, it writes a debug record of its batch
// statistics, which count for the life of the thread; an idle worker writes none.
class LXBASE_EXPORT CMessageWorkerThread : public CInboxWorker<MsgQueueItem>
{
    Q_OBJECT
public:
    CMessageWorkerThread();
    ~CMessageWorkerThread() override;

    void run() override;
};

#endif
