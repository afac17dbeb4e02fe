#include "CallWatch.h"

#include "BusTables.h"
#include "SupervisedPlugin.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace {

// How often the watching thread looks: a call is found at most this much after its deadline.
constexpr std::chrono::milliseconds Period(50);

} // namespace

CallWatch::CallWatch(std::chrono::milliseconds deadline, Ending ending)
    : m_ending(std::move(ending))
    , m_deadline(deadline)
    , m_thread([this] { watch(); })
{ }

CallWatch::~CallWatch()
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_one();
    m_thread.join();
}

void CallWatch::setDeadline(std::chrono::milliseconds deadline)
{
    const std::lock_guard<std::mutex> locker(m_mutex);
    m_deadline = deadline;
}

CallWatch::Call::Call(CallWatch& watch, SupervisedPlugin& plugin, const char* operation)
    : m_watch(watch)
    , m_plugin(plugin)
    , m_operation(operation)
    , m_outer(watch.change(this))
{ }

CallWatch::Call::~Call()
{
    m_watch.change(m_outer);
}

// Gives back the call before. Does not return once the program is being ended.
CallWatch::Call* CallWatch::change(Call* call)
{
    std::unique_lock<std::mutex> locker(m_mutex);
    m_stopped.wait(locker, [this] { return !m_overrun; });
    return std::exchange(m_call, call);
}

// The time between two looks counts as two periods at most: after a longer one, nobody ran.
void CallWatch::watch()
{
    using Clock = std::chrono::steady_clock;
    std::unique_lock<std::mutex> locker(m_mutex);
    Clock::time_point last = Clock::now();
    while (!m_stopped.wait_for(locker, Period, [this] { return m_stop; })) {
        const Clock::time_point now = Clock::now();
        const Clock::duration elapsed = std::min<Clock::duration>(now - last, 2 * Period);
        last = now;
        if (!m_call)
            continue;
        m_call->m_age += elapsed;
        if (m_deadline.count() == 0 || m_call->m_age < m_deadline)
            continue;
        m_overrun = true;
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(m_call->m_age);
        const Overrun overrun{
            m_call->m_plugin,
            QStringLiteral("has been in %1 for %2")
                .arg(QLatin1String(m_call->m_operation), durationText(ns.count()))};
        locker.unlock();
        m_ending(overrun);
        std::abort(); // it has not
    }
}
