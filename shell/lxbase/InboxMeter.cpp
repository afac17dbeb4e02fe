#include <lxbase/InboxMeter.h>

#include <lxbase/Owned.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <thread>
#include <utility>

namespace lxbase::detail {

qint64 monotonicNs()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

void InboxMeter::take(int count)
{
    take(count, std::exchange(m_probe, {}));
}

void InboxMeter::take(int count, Probe probe)
{
    m_batch_level = monitorSwitches.level.load(std::memory_order_relaxed);
    m_batch_size = count;
    m_batch_counted = 0;
    m_batch_probe = probe;
    m_calls_to_reading =
        m_batch_level == StatisticsLevel::Off ? std::numeric_limits<int>::max() : 0;
    m_read_ns = 0;
    const auto taken = static_cast<quint64>(count);
    increase(m_taken, taken);
    raisePeak(taken);
}

void InboxMeter::giveBack(int count)
{
    m_taken.store(m_taken.load(std::memory_order_relaxed) - static_cast<quint64>(count),
                  std::memory_order_relaxed);
    m_batch_size -= count;
}

// What has been handled is read before what has been taken, so that a batch in hand is never
// negative.
NetworkListStatistics InboxMeter::counts(int waiting) const
{
    NetworkListStatistics counts;
    counts.waiting = static_cast<quint64>(waiting);
    counts.handled = m_handled.load(std::memory_order_acquire);
    counts.dropped = m_dropped.load(std::memory_order_acquire) + m_dropped_waiting;
    counts.put =
        m_taken.load(std::memory_order_relaxed) + counts.waiting + m_superseded + m_dropped_waiting;
    counts.peak = std::max(m_peak.load(std::memory_order_relaxed), counts.waiting);
    return counts;
}

void InboxMeter::readTimes(InboxStatistics& statistics) const
{
    const qint64 since = m_busy_since_ns.load(std::memory_order_relaxed);
    statistics.busyForNs = since ? std::max<qint64>(monotonicNs() - since, 1) : 0;
    if (const auto* const waitTime = m_wait_time.load())
        statistics.waitTime = waitTime->read();
    if (const auto* const handlerTime = m_handler_time.load())
        statistics.handlerTime = handlerTime->read();
}

void InboxMeter::finishBatch(int dropped)
{
    m_timed = false;
    recordWait();
    const int handled = m_batch_size - m_batch_counted - dropped;
    m_calls_to_timed -= handled;
    increase(m_handled, static_cast<quint64>(handled));
    if (dropped > 0)
        increase(m_dropped, static_cast<quint64>(dropped));
    m_busy_since_ns.store(0, std::memory_order_relaxed);
}

// Sequentially consistent, all of it: either the watching thread sees that nothing is in hand any
// more, or this one sees that it is being copied.
void InboxMeter::withdraw()
{
    const InHand* const inHand = m_in_hand.exchange(nullptr);
    while (inHand && m_hazard.load() == inHand)
        std::this_thread::yield();
}

bool InboxMeter::copyInHand(QString& sender, QVariant& type)
{
    const InHand* const inHand = m_in_hand.load();
    if (!inHand)
        return false;
    m_hazard.store(inHand);
    const bool there = m_in_hand.load() == inHand;
    if (there) {
        sender = owned(*inHand->sender);
        type = listable(*inHand->type);
    }
    m_hazard.store(nullptr);
    return there;
}

// What has been handled since the last reading is counted here. The next reading is due after as
// many calls as take some microseconds, or when a call is to be timed, or the probe's turn comes.
void InboxMeter::readClock(int index)
{
    recordWait();
    const qint64 now = monotonicNs();
    if (m_read_ns) {
        const int calls = std::max(index - m_batch_counted, 1);
        const bool fast = now - m_read_ns < calls * MaxNsPerCall;
        m_calls_per_reading = fast ? std::min(2 * m_calls_per_reading, MaxCallsPerReading)
                                   : std::max(m_calls_per_reading / 2, 1);
    }
    m_handled.store(m_handled.load(std::memory_order_relaxed)
                        + static_cast<quint64>(index - m_batch_counted),
                    std::memory_order_release);
    const int since = index - std::exchange(m_batch_counted, index);
    m_read_ns = now;
    m_busy_since_ns.store(now, std::memory_order_relaxed);
    if (index == m_batch_probe.index)
        m_batch_probe.waitedNs = now - m_batch_probe.putNs;

    int next = m_calls_per_reading;
    m_timed = m_batch_level == StatisticsLevel::Full;
    if (m_timed) {
        next = 1;
    } else if (m_batch_level == StatisticsLevel::Sampled) {
        m_calls_to_timed -= since;
        m_timed = m_calls_to_timed <= 0;
        if (m_timed)
            m_calls_to_timed = SampledCalls;
        next = m_timed ? 1 : std::min(next, m_calls_to_timed);
    }
    if (m_batch_probe.index > index)
        next = std::min(next, m_batch_probe.index - index);
    m_calls_to_reading = next - 1;
}

// Only when the handler has been called, which would otherwise wait for it.
void InboxMeter::recordWait()
{
    if (m_batch_probe.waitedNs >= 0)
        recordTo(m_wait_time, m_wait_time_owner, std::exchange(m_batch_probe.waitedNs, -1));
}

void InboxMeter::recordHandlerTime()
{
    recordTo(m_handler_time, m_handler_time_owner, monotonicNs() - m_read_ns);
    m_timed = false;
}

void InboxMeter::recordTo(std::atomic<DurationRecorder*>& recorder,
                          std::unique_ptr<DurationRecorder>& owner, qint64 duration)
{
    if (!owner) {
        owner = std::make_unique<DurationRecorder>();
        recorder = owner.get();
    }
    owner->add(duration);
}

} // namespace lxbase::detail
