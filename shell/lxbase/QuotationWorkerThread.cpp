#include <lxbase/QuotationWorkerThread.h>

#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageInterface.h>

CQuotationWorkerThread::CQuotationWorkerThread() = default;

CQuotationWorkerThread::~CQuotationWorkerThread() = default;

void CQuotationWorkerThread::run()
{
    drain({&IMessageInterface::RecvQuotationMsg, Take::Copy, 60 * 1000, AfterRecord::StartAnew,
           "CQuotationWorkerThread::run"},
          LXBASE_LOG_PLACE);
}
