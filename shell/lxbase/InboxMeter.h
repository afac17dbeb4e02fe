// InboxMeter: what one inbox has to tell to CBusMonitor.
// Internal: not installed.
#ifndef LXBASE_INBOXMETER_H
#define LXBASE_INBOXMETER_H

#include <lxbase/BusMonitor.h>
#include <lxbase/CacheLine.h>
#include <lxbase/DurationRecorder.h>

#include <atomic>
#include <memory>

namespace lxbase::detail {

// Read by everybody who counts; set by CBusMonitor.
struct alignas(CacheLine) MonitorSwitches
{
    std::atomic<StatisticsLevel> level{StatisticsLevel::Counts};
    std::atomic<bool> watchesHandlers{false};
    std::atomic<bool> traces{false};
};
inline MonitorSwitches monitorSwitches;

// Nanoseconds of a clock that only goes forward.
qint64 monotonicNs();

// The figures are written by the thread that drains the inbox, and are atomic because others read
// them. A put counts nothing: what was put is what was taken and what still waits, and the most
// that waited is the largest batch, for the thread takes all that waits. The level that holds for a
// batch is that of its beginning.
//
// Two clock readings a batch and a few more in a long one have to do: a message costs less than
// four of them.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): on purpose, see CacheLine
class InboxMeter
{
public:
    // One waiting item whose time is being taken.
    struct Probe
    {
        int index = -1; // in the inbox, and then in the batch; negative: there is none
        qint64 putNs = 0;
        qint64 waitedNs = -1; // negative: not known yet, or recorded
    };

    // An item that a handler has, for whoever watches; lies on the worker's stack.
    struct InHand
    {
        const QString* sender;
        const QVariant* type;
    };

    // ---- with the mutex of the inbox held

    // An element has been appended at `index`.
    void put(int index)
    {
        if (monitorSwitches.level.load(std::memory_order_relaxed) >= StatisticsLevel::Sampled
            && m_probe.index < 0)
            m_probe = {index, monotonicNs(), -1};
    }

    // The draining thread has taken all `count` elements; `giveBack` returns the last ones.
    void take(int count);
    void giveBack(int count);

    // The same for an inbox with a limiter, which says when it puts, when an element was superseded
    // or dropped, and what the draining thread takes; `probe` is of an element of the batch.
    void putLimited(int waiting) { raisePeak(static_cast<quint64>(waiting)); }
    void supersede() { ++m_superseded; }
    void dropWaiting() { ++m_dropped_waiting; }
    void take(int count, Probe probe);

    // An inbox gets a limiter, whose probes are its own.
    void withdrawProbe() { m_probe = {}; }

    // The counts, while `waiting` elements are in the list.
    NetworkListStatistics counts(int waiting) const;
    quint64 superseded() const { return m_superseded; }

    // ---- the draining thread, for the batch that it has taken

    // Element `index` is about to be handled, or has been.
    void begin(int index)
    {
        if (m_calls_to_reading-- <= 0)
            readClock(index);
    }
    void end()
    {
        if (m_timed)
            recordHandlerTime();
    }

    // The batch is done, save `dropped` elements that nobody will handle.
    void finishBatch(int dropped);

    // ---- any thread

    // Fills in the times.
    void readTimes(InboxStatistics& statistics) const;

    // ---- watching: the draining thread publishes what it has in hand, if watchesHandlers is set

    void publish(const InHand& inHand)
    {
        increase<quint64>(m_calls, 1);
        m_in_hand.store(&inHand);
    }

    // Waits for the moment that a watching thread may need to copy what is in hand.
    void withdraw();

    // The watching thread, of which there is one. Copies of what is in hand that may be kept for
    // longer than the libraries of the plugins; false: nothing is.
    bool copyInHand(QString& sender, QVariant& type);

    // How many calls have been published, and whether one is in progress.
    quint64 calls() const { return m_calls.load(std::memory_order_relaxed); }
    bool isInHand() const { return m_in_hand.load(); }

private:
    template<class T>
    static void increase(std::atomic<T>& value, T by)
    {
        value.store(value.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
    }

    void raisePeak(quint64 waiting)
    {
        if (waiting > m_peak.load(std::memory_order_relaxed))
            m_peak.store(waiting, std::memory_order_relaxed);
    }
    void readClock(int index);
    void recordWait();
    void recordHandlerTime();
    void recordTo(std::atomic<DurationRecorder*>& recorder,
                  std::unique_ptr<DurationRecorder>& owner, qint64 duration);

    // Between two readings of the clock in a batch: as many calls as take some microseconds, so
    // that busyForNs is right to that, and fast handlers pay for few readings.
    static constexpr int MaxCallsPerReading = 64;
    static constexpr qint64 MaxNsPerCall = 2000; // above that on average, fewer calls
    static constexpr int SampledCalls = 64;      // one in so many is timed at level Sampled

    // guarded by the mutex of the inbox
    Probe m_probe;
    quint64 m_superseded = 0;
    quint64 m_dropped_waiting = 0;

    // the draining thread's alone
    alignas(CacheLine) StatisticsLevel m_batch_level = StatisticsLevel::Off;
    int m_batch_size = 0;
    int m_batch_counted = 0; // of the batch, as handled
    Probe m_batch_probe;
    bool m_timed = false;
    int m_calls_to_timed = 0; // at level Sampled, from one batch to the next
    int m_calls_per_reading = 1;
    int m_calls_to_reading = 0;
    qint64 m_read_ns = 0; // the last reading
    std::unique_ptr<DurationRecorder> m_wait_time_owner;
    std::unique_ptr<DurationRecorder> m_handler_time_owner;

    // atomic: written by the draining thread, the first two with the mutex of the inbox held (the
    // peak, with it, by whoever puts under a limiter as well)
    std::atomic<quint64> m_taken{0};
    std::atomic<quint64> m_peak{0};
    std::atomic<quint64> m_handled{0};
    std::atomic<quint64> m_dropped{0};
    std::atomic<qint64> m_busy_since_ns{0};                 // 0: no handler call is in progress
    std::atomic<DurationRecorder*> m_wait_time{nullptr};    // made with the first duration
    std::atomic<DurationRecorder*> m_handler_time{nullptr}; // likewise

    // atomic: see publish; a hazard pointer (Michael, "Hazard Pointers", IEEE TPDS 2004)
    std::atomic<quint64> m_calls{0};
    std::atomic<const InHand*> m_in_hand{nullptr};
    std::atomic<const InHand*> m_hazard{nullptr};
};

} // namespace lxbase::detail

#endif
