#include <lxbase/MessageWorkerThread.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageInterface.h>

CMessageWorkerThread::CMessageWorkerThread()
    : CInboxWorker(InboxKind::Messages)
{ }

CMessageWorkerThread::~CMessageWorkerThread() = default;

void CMessageWorkerThread::run()
{
    drain({&IMessageInterface::RecvMsg, Take::Exchange, 5 * 60 * 1000, AfterRecord::KeepCounts,
           "CMessageWorkerThread::run"},
          LXBASE_LOG_PLACE);
}
