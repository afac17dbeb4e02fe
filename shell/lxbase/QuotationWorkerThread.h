/// \file
/// CQuotationWorkerThread: delivers a plugin's quotations.
#ifndef LXBASE_QUOTATIONWORKERTHREAD_H
#define LXBASE_QUOTATIONWORKERTHREAD_H

#include <lxbase/InboxWorker.h>
#include <lxbase/QueueItems.h>

/// One per plugin registered with QuotationThread, named "<ID>_QuotationWorkerThread". Calls
/// RecvQuotationMsg on this thread, once per item, in the order in which the items were put; market
/// data and ordinary messages thus never wait for one another in a plugin.
///
/// Every minute or more, right after a batch, it writes a debug record of its batch statistics and
/// starts them anew; an idle worker writes none.
class LXBASE_EXPORT CQuotationWorkerThread : public CInboxWorker<MsgQueueItem>
{
    Q_OBJECT
public:
    CQuotationWorkerThread();
    ~CQuotationWorkerThread() override;

    void run() override;
};

#endif
