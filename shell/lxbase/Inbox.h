// Inbox: where elements wait for the one thread that drains them. Every worker of a plugin has one,
// and each of the two network paths.
// Internal: not installed.
#ifndef LXBASE_INBOX_H
#define LXBASE_INBOX_H

#include <lxbase/InboxMeter.h>
#include <lxbase/MessageCenter.h>

#include <QMutex>
#include <QSemaphore>
#include <QVector>

#include <atomic>
#include <chrono>
#include <memory>
#include <utility>

namespace lxbase::detail {

// How the draining thread spends its time between polls; its own.
struct Backoff
{
    qint64 taken = 0; // elements taken since the last empty poll; counted by the thread's loop

    // kept by InboxBase::idle
    int emptyPolls = 0; // in a row
    int yields = 1;     // how often it gives way to others before the next poll

    // How often the thread polls again, giving way to others in between, before it waits: while
    // messages come in a burst the next one is on its way, and a wait and a wake-up cost many
    // polls.
    static constexpr int MaxEmptyPolls = 20;

    // In a burst it gives way for longer at a time, up to this often. Each poll takes the mutex,
    // and one that the producer waits for costs as much as a hundred messages.
    static constexpr int MaxYields = 64;

    // But not beyond this time: where other threads want the processor, giving way once can take a
    // slice of it, some milliseconds.
    static constexpr std::chrono::microseconds MaxTime{500};
};

template<class Item>
class Aftermath;

// The part of an InboxLimiter that does not depend on the items.
class InboxLimiterBase
{
public:
    virtual ~InboxLimiterBase() = default;
    Q_DISABLE_COPY(InboxLimiterBase)

    virtual int waiting() const = 0; // with the mutex of the inbox held

    // Constant: whether a put may leave an aftermath.
    bool leavesAftermath() const { return m_leaves_aftermath; }

protected:
    explicit InboxLimiterBase(bool leavesAftermath)
        : m_leaves_aftermath(leavesAftermath)
    { }

private:
    const bool m_leaves_aftermath;
};

// InboxLimiter::put. With the mutex held.
template<class Item>
Item* putLimited(InboxLimiterBase& limiter, Item* item, Aftermath<Item>* aftermath);

// What an inbox has beside its list and its mutex, one for each.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): on purpose, see CacheLine
class InboxState
{
public:
    explicit InboxState(CMessageCenter::IdlePolicy policy)
        : m_policy(policy)
    { }
    Q_DISABLE_COPY(InboxState)

    InboxMeter meter;

private:
    friend struct InboxBase;
    template<class Element>
    friend struct Inbox;

    // With the inbox's mutex held: whether the thread waits. Whoever learns so wakes it, once,
    // after the mutex has been released.
    bool claimWaiter() { return std::exchange(m_waits, false); }

    const CMessageCenter::IdlePolicy m_policy;
    alignas(CacheLine) bool m_waits = false; // guarded by the mutex of the inbox

public:
    // Guarded by the mutex of the inbox; null while nothing limits it, and for the network paths.
    std::unique_ptr<InboxLimiterBase> limiter;

private:
    QSemaphore m_wake_ups; // one for each claim that found the thread waiting
};

// The part of a view that does not depend on the elements. Without a state, the thread polls.
struct InboxBase
{
    QMutex* mutex = nullptr;
    InboxState* state = nullptr;

    // What the draining thread does after an empty poll, the only place where the two idle policies
    // differ. Called with the mutex held, returns with it released: after the shortest sleep that
    // the thread offers or, if it parks, when the list has become non-empty, `stop` has been set,
    // or another poll is due.
    void idle(const std::atomic<bool>& stop, Backoff& backoff) const;

    // Ends the wait of the draining thread; called without the mutex, after the stop flag has been
    // set.
    void wake() const;
};

// A view of one inbox: list, mutex and state belong to others. Without a list it is nobody's inbox.
template<class Element>
struct Inbox : InboxBase
{
    QVector<Element>* list = nullptr;

    explicit operator bool() const { return list; }

    // How many elements are in it now.
    quint64 size() const
    {
        if (!list)
            return 0;
        const QMutexLocker locker(mutex);
        return static_cast<quint64>(waiting());
    }

    // The same with the mutex held.
    int waiting() const
    {
        if (Q_UNLIKELY(state && state->limiter))
            return state->limiter->waiting();
        return list ? list->size() : 0;
    }

    // Queues an element and wakes the thread if it waits. The wake-up follows the unlock, so that
    // the woken thread finds the mutex free; the caller therefore keeps the state alive until this
    // returns (the registry lock, or the center's call gate, does).
    void append(const Element& element) const
    {
        QMutexLocker locker(mutex);
        appendLocked(element);
        wakeAfter(locker);
    }

    // The same for an inbox that may have a limiter. What that leaves to be done goes into what
    // `aftermath` returns, which is called if there may be something. Returned is an item that this
    // one has superseded: the caller's to free when no lock is held; null as a rule. `count` is
    // told how many are in the inbox then.
    template<class AftermathOf>
    Element append(const Element& item, const AftermathOf& aftermath, int* count = nullptr) const
    {
        Element superseded = nullptr;
        QMutexLocker locker(mutex);
        if (Q_UNLIKELY(state && state->limiter)) {
            InboxLimiterBase& limiter = *state->limiter;
            superseded =
                putLimited(limiter, item, limiter.leavesAftermath() ? &aftermath() : nullptr);
        } else {
            appendLocked(item);
        }
        if (Q_UNLIKELY(count))
            *count = waiting();
        wakeAfter(locker);
        return superseded;
    }

private:
    void appendLocked(const Element& element) const
    {
        list->append(element);
        if (state)
            state->meter.put(list->size() - 1);
    }

    void wakeAfter(QMutexLocker& locker) const
    {
        const bool waits = state && state->claimWaiter();
        locker.unlock();
        if (waits)
            state->m_wake_ups.release();
    }
};

} // namespace lxbase::detail

#endif
