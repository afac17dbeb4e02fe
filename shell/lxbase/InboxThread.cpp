#include <lxbase/InboxThread.h>

#include <lxbase/Inbox.h>

CInboxThread::~CInboxThread() = default;

void CInboxThread::setMutex(QMutex* mutex)
{
    if (mutex)
        m_mutex = mutex;
}

void CInboxThread::setState(lxbase::detail::InboxState* state)
{
    if (state)
        m_state = state;
}

void CInboxThread::setStop(bool stop)
{
    m_stop = stop;
    if (stop && m_mutex)
        lxbase::detail::InboxBase{m_mutex, m_state}.wake();
}
