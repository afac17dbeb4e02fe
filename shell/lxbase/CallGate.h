// CallGate: keeps the center's members alive while a call uses them.
// Internal: not installed.
#ifndef LXBASE_CALLGATE_H
#define LXBASE_CALLGATE_H

#include <lxbase/CacheLine.h>
#include <lxbase/ThreadLocal.h>

#include <QDeadlineTimer>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace lxbase::detail {

// The center is a static object, and threads that the host forgot may still call it while the
// process ends. Every operation that touches more than an atomic member passes the gate, in one of
// three eras: open; closed, from the beginning of the center's end on, when a call is turned away
// but may still log; sealed, when what logging needs is being destroyed as well. The gate itself
// never is (its destructor is trivial and its initialisation constant), so it may be asked at any
// time, by any thread.
//
// Passing counts an entry of the present era, and leaving an exit of the era of the entry. To begin
// a new era reads and resets the entries in one step, so the calls to wait for are the entries of
// the old era that have no exit yet: however many come later, they delay nothing.
class alignas(CacheLine) CallGate
{
    enum Era : unsigned { Open, Closed, Sealed, EraCount };

public:
    // A call's stay behind the gate. False: the center is gone, touch none of it.
    class Pass
    {
    public:
        explicit Pass(CallGate& gate)
            : m_gate(gate)
            , m_era(static_cast<Era>(gate.m_entries.fetch_add(1) >> EraShift))
        {
            ++callsOfThisThread;
        }
        ~Pass()
        {
            --callsOfThisThread;
            m_gate.m_exits[m_era].fetch_add(1);
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        explicit operator bool() const { return m_era == Open; }
        bool mayLog() const { return m_era != Sealed; }

    private:
        CallGate& m_gate;
        const Era m_era;
    };

    bool isOpen() const { return m_entries.load() >> EraShift == Open; }

    // Both begin an era and wait for the calls of the one before. False: some were still there at
    // the deadline. A call that this thread itself is inside of is not waited for: its log handler,
    // or a signal handler, ends the process, so it will never go on.
    bool close(QDeadlineTimer deadline) { return begin(Closed, callsOfThisThread, deadline); }
    bool seal(QDeadlineTimer deadline) { return begin(Sealed, 0, deadline); }

private:
    static constexpr int EraShift = 62;
    static constexpr std::uint64_t countOf(std::uint64_t entries)
    {
        return entries & ((std::uint64_t(1) << EraShift) - 1);
    }

    bool begin(Era era, std::uint64_t calls, QDeadlineTimer deadline)
    {
        const std::uint64_t old = m_entries.exchange(std::uint64_t(era) << EraShift);
        for (int polls = 0; m_exits[old >> EraShift].load() + calls != countOf(old); ++polls) {
            if (deadline.hasExpired())
                return false;
            if (polls < 1000)
                std::this_thread::yield();
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // The calls that the present thread is inside of.
    LXBASE_THREAD_LOCAL inline static thread_local std::uint64_t callsOfThisThread = 0;

    // the era in the two highest bits, below them the entries since it began
    std::atomic<std::uint64_t> m_entries{0};
    std::atomic<std::uint64_t> m_exits[EraCount] = {};
};

// The gate of the one center.
inline CallGate centerGate;

} // namespace lxbase::detail

#endif
