#include <lxbase/DispatchThread.h>

#include <lxbase/Inbox.h>
#include <lxbase/MessageCenter.h>

#include <lxplatform/Clock.h>

#include <utility>

CDispatchThread::~CDispatchThread() = default;

void CDispatchThread::setList(MessageList* list)
{
    if (list)
        m_list = list;
}

// Taking messages off the front of the shared list one by one would move everything behind them,
// under the lock, each time. Instead the waiting messages are taken over in one exchange and routed
// from the local batch; a stop gives the rest back. An empty reference is dropped like an empty
// poll, with the shortest sleep.
void CDispatchThread::drain(void (CMessageCenter::*route)(QSharedPointer<CMessageCommon> msg))
{
    lxbase::detail::InboxState ownState(CMessageCenter::IdlePolicy::Poll); // where there is none
    lxbase::detail::InboxMeter& meter = m_state ? m_state->meter : ownState.meter;
    const lxbase::detail::Inbox<MessageList::value_type> inbox{{m_mutex, m_state}, m_list};
    lxbase::detail::Backoff backoff;
    MessageList batch;
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
            inbox.idle(m_stop, backoff);
            continue;
        }
        m_list->swap(batch);
        meter.take(batch.size());
        m_mutex->unlock();
        backoff.taken += batch.size();

        int taken = 0;
        while (taken < batch.size() && !m_stop) {
            const QSharedPointer<CMessageCommon> msg = std::exchange(batch[taken++], {});
            if (msg)
                (CMessageCenter::GetInstance()->*route)(msg);
            else
                usleep(1);
        }
        giveBack(batch, taken, meter);
        meter.finishBatch(0);
        batch.resize(0);
    }
}

void CDispatchThread::giveBack(MessageList& batch, int taken, lxbase::detail::InboxMeter& meter)
{
    if (taken == batch.size())
        return;
    const QMutexLocker locker(m_mutex);
    *m_list = batch.mid(taken) + *m_list;
    meter.giveBack(batch.size() - taken);
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
