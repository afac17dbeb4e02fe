// CallWatch: a deadline for each call of a plugin on the main thread.
#ifndef LXCLIENT_CALLWATCH_H
#define LXCLIENT_CALLWATCH_H

#include <QString>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class SupervisedPlugin;

// A thread of its own looks at the call in progress. One that has not returned by its deadline
// never gives the main thread back: the program is ended from here, for nothing else can be done
// about it. Time in which the whole process stood still does not count.
class CallWatch
{
public:
    // The call that has not returned.
    struct Overrun
    {
        SupervisedPlugin& plugin;
        QString what; // "has been in initialise for 10 s"
    };
    // Ends the process. On the watching thread; the main thread is in the call, or is kept waiting
    // right behind it, so that everything of the main thread can be used.
    using Ending = std::function<void(const Overrun& overrun)>;

    // A deadline of 0 never comes.
    CallWatch(std::chrono::milliseconds deadline, Ending ending);
    ~CallWatch();
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

    // Another deadline, for the call in progress as well. Any thread.
    void setDeadline(std::chrono::milliseconds deadline);

    // One call, for as long as this object lives. On the main thread; the innermost one counts.
    class Call
    {
    public:
        Call(CallWatch& watch, SupervisedPlugin& plugin, const char* operation);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        friend class CallWatch;

        CallWatch& m_watch;
        SupervisedPlugin& m_plugin;
        const char* const m_operation;
        std::chrono::steady_clock::duration m_age{0}; // guarded by m_watch.m_mutex
        Call* const m_outer; // last: from its initialisation on, the watching thread sees the call
    };

private:
    void watch();
    Call* change(Call* call);

    const Ending m_ending;

    std::mutex m_mutex;
    std::condition_variable m_stopped;
    // guarded by m_mutex
    bool m_stop = false;
    bool m_overrun = false; // the program is being ended
    std::chrono::milliseconds m_deadline;
    Call* m_call = nullptr; // in progress

    std::thread m_thread; // last: uses the others
};

#endif
