// DurationRecorder: a DurationHistogram that one thread writes while others read it.
// Internal: not installed.
#ifndef LXBASE_DURATIONRECORDER_H
#define LXBASE_DURATIONRECORDER_H

#include <lxbase/BusMonitor.h>

#include <atomic>

// (Named by DurationHistogram as its friend, so it is in the same namespace.)
class DurationRecorder
{
public:
    // Called by the one thread that writes: no read-modify-write, nothing to wait for.
    void add(qint64 duration)
    {
        duration = qMax<qint64>(duration, 0);
        increase(m_counts[DurationHistogram::stepOf(duration)], 1);
        increase(m_sum, duration);
        if (duration > m_max.load(std::memory_order_relaxed))
            m_max.store(duration, std::memory_order_relaxed);
    }

    // Any thread. What is being added meanwhile may be in it in part.
    DurationHistogram read() const;

private:
    template<class T, class Difference>
    static void increase(std::atomic<T>& value, Difference by)
    {
        value.store(value.load(std::memory_order_relaxed) + static_cast<T>(by),
                    std::memory_order_relaxed);
    }

    std::atomic<quint64> m_counts[DurationHistogram::Steps] = {};
    std::atomic<qint64> m_max{0};
    std::atomic<qint64> m_sum{0};
};

#endif
