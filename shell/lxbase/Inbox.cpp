#include <lxbase/Inbox.h>

#include <QThread>

#include <algorithm>
#include <utility>

namespace lxbase::detail {

namespace {

// For the mutex of an inbox, which nobody holds for longer than moments: save a call that a signal
// has interrupted for ever, because its handler ends the process.
constexpr int MaxLockMs = 1000;

} // namespace

// No wake-up is lost: both the decision to wait and every claim are made under the mutex, and the
// stop flag is set before the claim that follows it.
//
// In a burst, while at least one element comes for each time that the thread has given way, it
// gives way twice as often before the next poll; else once.
void InboxBase::idle(const std::atomic<bool>& stop, Backoff& backoff) const
{
    if (!state || state->m_policy == CMessageCenter::IdlePolicy::Poll) {
        mutex->unlock();
        QThread::usleep(1);
        return;
    }
    using Clock = std::chrono::steady_clock;
    const qint64 taken = std::exchange(backoff.taken, 0);
    backoff.emptyPolls = taken > 0 ? 0 : backoff.emptyPolls + 1;
    backoff.yields = taken >= backoff.yields ? std::min(2 * backoff.yields, Backoff::MaxYields) : 1;
    if (backoff.emptyPolls < Backoff::MaxEmptyPolls) {
        mutex->unlock();
        const auto end = Clock::now() + Backoff::MaxTime;
        for (int k = 0; k < backoff.yields && Clock::now() < end; ++k)
            QThread::yieldCurrentThread();
    } else {
        const bool waits = !stop;
        state->m_waits = waits;
        backoff.emptyPolls = 0;
        mutex->unlock();
        if (waits)
            state->m_wake_ups.acquire();
    }
}

void InboxBase::wake() const
{
    if (!state)
        return;
    bool waits = true; // for all that is known: a wake-up too many costs a poll
    if (mutex->tryLock(MaxLockMs)) {
        waits = state->claimWaiter();
        mutex->unlock();
    }
    if (waits)
        state->m_wake_ups.release();
}

} // namespace lxbase::detail
