#include <lxbase/DispatchThread.h>

#include <lxbase/MessageCenter.h>
#include <lxbase/Parking.h>

#include <lxplatform/Clock.h>

#include <utility>

CDispatchThread::~CDispatchThread() = default;

void CDispatchThread::setMutex(QMutex* mutex)
{
    if (mutex)
        m_mutex = mutex;
}

void CDispatchThread::setList(MessageList* list)
{
    if (list)
        m_list = list;
}

void CDispatchThread::setParking(CParking* parking)
{
    if (parking)
        m_parking = parking;
}

void CDispatchThread::setStop(bool stop)
{
    m_stop = stop;
    if (stop && m_mutex)
        wake(*m_mutex, m_parking);
}

// Taking messages off the front of the shared list one by one would move everything behind them,
// under the lock, each time. Instead the waiting messages are taken over in one exchange and routed
// from the local batch; a stop gives the rest back. An empty reference is dropped like an empty
// look, with the shortest sleep.
void CDispatchThread::drain(void (CMessageCenter::*route)(QSharedPointer<CMessageCommon> msg))
{
    MessageList batch;
    ListPace pace;
    while (!m_stop) {
        if (!m_list) {
            lxplatform::sleepMs(1);
            continue;
        }
        if (!m_mutex) {
            usleep(1);
            continue;
        }
        m_mutex->lock();
        if (m_list->isEmpty()) {
            idle(*m_mutex, m_parking, m_stop, pace);
            continue;
        }
        m_list->swap(batch);
        m_mutex->unlock();
        pace.found += batch.size();

        int taken = 0;
        while (taken < batch.size() && !m_stop) {
            const QSharedPointer<CMessageCommon> msg = std::exchange(batch[taken++], {});
            if (msg)
                (CMessageCenter::GetInstance()->*route)(msg);
            else
                usleep(1);
        }
        giveBack(batch, taken);
        batch.resize(0);
    }
}

void CDispatchThread::giveBack(MessageList& batch, int taken)
{
    if (taken == batch.size())
        return;
    const QMutexLocker locker(m_mutex);
    *m_list = batch.mid(taken) + *m_list;
}

CProcessMsgByNetPutThread::CProcessMsgByNetPutThread() = default;

CProcessMsgByNetPutThread::~CProcessMsgByNetPutThread() = default;

void CProcessMsgByNetPutThread::run()
{
    drain(&CMessageCenter::ProcessMsgByNetPut);
}

CProcessQuotationThread::CProcessQuotationThread() = default;

CProcessQuotationThread::~CProcessQuotationThread() = default;

void CProcessQuotationThread::run()
{
    drain(&CMessageCenter::ProcessQuotationMsg);
}
