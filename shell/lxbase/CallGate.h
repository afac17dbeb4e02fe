// CallGate: keeps the center's members alive while a call uses them.
// Internal: not installed.
#ifndef LXBASE_CALLGATE_H
#define LXBASE_CALLGATE_H

#include <atomic>
#include <thread>

// The center is a static object, and threads that the host forgot may still call it while the
// process ends. Every operation that touches more than an atomic member passes the gate; the
// destructor closes it, which waits for the calls inside and turns later ones away, and seals it at
// its end: until then a call that is turned away may still log, after that what logging needs is
// destroyed. The gate itself never is (its destructor is trivial and its initialisation constant),
// so it may be asked at any time, by any thread.
class CallGate
{
public:
    // A call's stay behind the gate. False: the center is gone, touch none of it.
    class Pass
    {
    public:
        explicit Pass(CallGate& gate)
            : m_gate(gate)
        {
            m_gate.m_inside.fetch_add(1);
        }
        ~Pass() { m_gate.m_inside.fetch_sub(1); }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        explicit operator bool() const { return m_gate.m_state.load() == State::Open; }
        bool mayLog() const { return m_gate.m_state.load() != State::Sealed; }

    private:
        CallGate& m_gate;
    };

    // Both return when no call is inside any more. Calls never wait for one another's workers to
    // take an item, so this takes as long as the longest call, at most one UnReg.
    void close() { enter(State::Closed); }
    void seal() { enter(State::Sealed); }

private:
    enum class State { Open, Closed, Sealed };

    void enter(State state)
    {
        m_state.store(state);
        while (m_inside.load() != 0)
            std::this_thread::yield();
    }

    std::atomic<int> m_inside{0};
    std::atomic<State> m_state{State::Open};
};

// The gate of the one center.
inline CallGate centerGate;

#endif
