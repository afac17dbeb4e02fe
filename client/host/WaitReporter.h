// WaitReporter: says what the client waits for, when it waits for long.
#ifndef LXCLIENT_WAITREPORTER_H
#define LXCLIENT_WAITREPORTER_H

#include <QString>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// A thread of its own, for the main thread may be what waits: a plugin's shutDown returns when its
// handlers have. It reports on stderr when a task has lasted for the limit and whenever that time
// has doubled: the task, and the inboxes that hold something.
class WaitReporter
{
public:
    // 0: reports nothing.
    explicit WaitReporter(int limitMs);
    ~WaitReporter();
    WaitReporter(const WaitReporter&) = delete;
    WaitReporter& operator=(const WaitReporter&) = delete;

    // What the client does from now on: "settling".
    void begin(const QString& task);

private:
    using Clock = std::chrono::steady_clock;

    void watch();
    static void report(const QString& task, Clock::duration elapsed);

    const std::chrono::milliseconds m_limit;

    std::mutex m_mutex;
    std::condition_variable m_changed; // of m_stop or m_task
    // guarded by m_mutex
    bool m_stop = false;
    QString m_task; // empty: none yet
    Clock::time_point m_since;
    std::chrono::milliseconds m_next_report{0}; // after m_since

    std::thread m_thread; // last: uses the others
};

#endif
