/// \file
/// CInboxThread: what every thread of the bus that drains an inbox has in common.
#ifndef LXBASE_INBOXTHREAD_H
#define LXBASE_INBOXTHREAD_H

#include <lxbase/LxbaseExport.h>

#include <lxutils/LxThread.h>

#include <QMutex>

#include <atomic>

namespace lxbase::detail {
class InboxState;
}

/// The base of the workers and of the dispatch threads. Its loop has no event loop: quit() alone
/// does nothing, only the stop flag ends it.
class LXBASE_EXPORT CInboxThread : public LxThread
{
public:
    ~CInboxThread() override;

    /// The mutex of the inbox; the derived class says who owns it. Null changes nothing; without a
    /// mutex the thread never looks at the inbox. Called before start.
    void setMutex(QMutex* mutex);

    /// Ours: what the inbox has beside list and mutex; owned like the mutex. Without one (null
    /// changes nothing) the thread polls. Called before start.
    void setState(lxbase::detail::InboxState* state);

    /// Asks the loop to end. Any thread, but not with the mutex of the inbox held. What becomes of
    /// the elements that still wait says the derived class.
    void setStop(bool stop);

protected:
    CInboxThread() = default;

    // constant after start
    QMutex* m_mutex = nullptr;
    lxbase::detail::InboxState* m_state = nullptr;

    // set by the thread that stops this one, read by the loop without a lock
    std::atomic<bool> m_stop{false};
};

#endif
