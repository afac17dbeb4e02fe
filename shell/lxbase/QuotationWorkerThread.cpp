#include <lxbase/QuotationWorkerThread.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageInterface.h>

CQuotationWorkerThread::CQuotationWorkerThread()
    : CInboxWorker(InboxKind::Quotations)
{ }

CQuotationWorkerThread::~CQuotationWorkerThread() = default;

void CQuotationWorkerThread::run()
{
    drain({&IMessageInterface::RecvQuotationMsg, Take::Copy, 60 * 1000, AfterRecord::StartAnew,
           "CQuotationWorkerThread::run"},
          LXBASE_LOG_PLACE);
}
