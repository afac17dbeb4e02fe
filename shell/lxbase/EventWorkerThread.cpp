#include <lxbase/EventWorkerThread.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageInterface.h>

CEventWorkerThread::CEventWorkerThread()
    : CInboxWorker(InboxKind::Events)
{ }

CEventWorkerThread::~CEventWorkerThread() = default;

void CEventWorkerThread::run()
{
    drain({&IMessageInterface::RecvEvent, Take::Copy, 5 * 60 * 1000, AfterRecord::KeepCounts,
           "CEventWorkerThread::run"},
          LXBASE_LOG_PLACE);
}
