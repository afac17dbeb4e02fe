#include "QuotePacer.h"

#include <utility>

namespace {

constexpr double LongGapS = 60; // to wait for: worth a word

} // namespace

QuotePacer::QuotePacer(double speed, std::optional<double> skipGapsS, LongGap onLongGap)
    : m_speed(speed)
    , m_skip_gaps_s(skipGapsS)
    , m_on_long_gap(std::move(onLongGap))
{ }

bool QuotePacer::waitUntilDue(qint64 dueMs)
{
    if (m_speed > 0) {
        if (!m_first_due_ms) {
            m_first_due_ms = m_last_due_ms = dueMs;
            m_begin = Clock::now();
        }
        passGap(dueMs - m_last_due_ms);
        m_last_due_ms = dueMs;
    }
    std::unique_lock<std::mutex> locker(m_mutex);
    if (m_speed > 0) {
        const std::chrono::duration<double, std::milli> played((dueMs - *m_first_due_ms) / m_speed);
        const auto due = m_begin + std::chrono::duration_cast<Clock::duration>(played);
        m_stopped.wait_until(locker, due, [this] { return m_stop; });
    }
    return !m_stop;
}

bool QuotePacer::waitFor(std::chrono::milliseconds time)
{
    std::unique_lock<std::mutex> locker(m_mutex);
    return !m_stopped.wait_for(locker, time, [this] { return m_stop; });
}

void QuotePacer::stop()
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_all();
}

// The pause before the next quote: leaves it out if it is too long, and says so if it is long.
void QuotePacer::passGap(qint64 gapMs)
{
    const double waitS = static_cast<double>(gapMs) / m_speed / 1000;
    const bool skip = m_skip_gaps_s && waitS > *m_skip_gaps_s;
    if (waitS > LongGapS && m_on_long_gap)
        m_on_long_gap(m_last_due_ms, m_last_due_ms + gapMs, waitS, skip);
    if (!skip)
        return;
    *m_first_due_ms += gapMs;
    ++m_gaps_skipped;
}
