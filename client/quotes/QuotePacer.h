// QuotePacer: when the next quote is due.
#ifndef LXCLIENT_QUOTEPACER_H
#define LXCLIENT_QUOTEPACER_H

#include <QtGlobal>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>

// Waits on one thread; stopped, and asked, from any.
class QuotePacer
{
public:
    // Told of a pause that takes a minute or more: from when to when (UTC, milliseconds), the
    // seconds to wait, and whether it is left out.
    using LongGap = std::function<void(qint64 fromMs, qint64 toMs, double waitS, bool skipped)>;

    // `speed` is times real time, 0 at once. Pauses of more than `skipGapsS` seconds are left out;
    // none: no pause is.
    QuotePacer(double speed, std::optional<double> skipGapsS, LongGap onLongGap = {});

    // False: it was stopped. The first quote is due at once and sets the clock for the others.
    bool waitUntilDue(qint64 dueMs);

    // The same for a wait of its own: false, it was stopped meanwhile.
    bool waitFor(std::chrono::milliseconds time);

    // No quote is due any more.
    void stop();

    quint64 gapsSkipped() const { return m_gaps_skipped; }

private:
    using Clock = std::chrono::steady_clock;

    void passGap(qint64 gapMs);

    const double m_speed;
    const std::optional<double> m_skip_gaps_s;
    const LongGap m_on_long_gap;

    // the waiting thread's
    std::optional<qint64> m_first_due_ms; // moved on by the gaps that were left out
    qint64 m_last_due_ms = 0;
    Clock::time_point m_begin; // when the first quote was due

    std::atomic<quint64> m_gaps_skipped{0}; // written by the waiting thread

    std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_stop = false; // guarded by m_mutex
};

#endif
