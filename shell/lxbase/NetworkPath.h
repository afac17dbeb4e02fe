// NetworkPath: what the two paths from the network have in common.
// Internal: not installed.
#ifndef LXBASE_NETWORKPATH_H
#define LXBASE_NETWORKPATH_H

#include <lxbase/Inbox.h>
#include <lxbase/LostItems.h>
#include <lxbase/MessageCenter.h>

#include <QDeadlineTimer>
#include <QLatin1String>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>

namespace lxbase::detail {

// The operations on one path: outside queue, list, dispatch thread. All of them are members of the
// center; this is a view that the center makes where it needs one.
template<class Thread>
struct NetworkPath
{
    using MessageList = CMessageCenter::MessageList;
    using Message = MessageList::value_type;

    std::atomic<CMessageCenter::MessageQueue*>& queue;
    MessageList*& list;
    std::atomic<QMutex*>& mutex; // publishes the others: null until the path is whole
    std::unique_ptr<InboxState>& state;
    Thread*& thread;

    // Hands the message to the queue and to the list, independently of one another. False: there is
    // no list.
    bool handIn(const Message& msg) const
    {
        if (auto* const outside = queue.load())
            outside->push(msg);
        QMutex* const listMutex = mutex;
        if (!listMutex)
            return false;
        Inbox<Message>{{listMutex, state.get()}, list}.append(msg);
        return true;
    }

    // Makes list and thread, unless they are there. A put that comes meanwhile finds the path
    // either not started or whole. False: there is no thread to be had, and the path is as before.
    bool start(const char* name, CMessageCenter::IdlePolicy policy) const
    {
        if (mutex)
            return true;
        auto newMutex = std::make_unique<QMutex>();
        auto newList = std::make_unique<MessageList>();
        auto newState = std::make_unique<InboxState>(policy);
        auto newThread = std::make_unique<Thread>();
        newThread->setObjectName(QLatin1String(name));
        newThread->setList(newList.get());
        newThread->setMutex(newMutex.get());
        newThread->setState(newState.get());
        newThread->start(QThread::InheritPriority);
        if (!newThread->isRunning())
            return false;
        // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): it loses sight of the reference
        state.swap(newState);
        list = newList.release();
        thread = newThread.release();
        mutex = newMutex.release();
        return true;
    }

    bool isStarted() const { return mutex.load(); }

    NetworkListStatistics statistics() const
    {
        QMutex* const listMutex = mutex;
        if (!listMutex)
            return {};
        const QMutexLocker locker(listMutex);
        return state->meter.counts(list->size());
    }

    // Ends the thread. False: it had not ended at the deadline, or is the present one.
    bool stop(QDeadlineTimer deadline) const
    {
        if (!thread)
            return true;
        thread->setStop(true);
        thread->quit();
        return thread != QThread::currentThread() && thread->wait(deadline);
    }

    // Frees everything, the messages that are still in the list unrouted. The thread has ended.
    void free() const
    {
        delete std::exchange(thread, nullptr);
        if (list) {
            const auto lost = std::count_if(list->cbegin(), list->cend(),
                                            [](const Message& msg) { return !msg.isNull(); });
            LostItems::instance().count(LostReason::AtEnd, static_cast<quint64>(lost));
        }
        delete std::exchange(list, nullptr);
        delete mutex.exchange(nullptr);
        state.reset();
    }
};

} // namespace lxbase::detail

#endif
