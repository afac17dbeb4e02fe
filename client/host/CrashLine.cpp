#include "CrashLine.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <memory>
#include <new>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr struct
{
    int number;
    const char* name;
} crashSignals[] = {
    {SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"},   {SIGILL, "SIGILL"},
    {SIGFPE, "SIGFPE"},   {SIGABRT, "SIGABRT"},
};
struct sigaction previousActions[std::size(crashSignals)]; // in the same order
const char* before = ""; // the line; on a terminal clears what stands there

// The program's own, so that the signal handler finds it without allocating anything.
thread_local RunningCall running;

// For the handlers of one thread. Where a sanitizer has given the thread one already, that stays.
class SignalStack
{
public:
    SignalStack()
    {
        stack_t present = {};
        if (::sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0)
            return;
        const auto size = static_cast<std::size_t>(std::max(::sysconf(_SC_SIGSTKSZ), 16384L));
        m_memory.reset(new (std::nothrow) char[size]);
        if (!m_memory)
            return;
        stack_t own = {};
        own.ss_sp = m_memory.get();
        own.ss_size = size;
        ::sigaltstack(&own, nullptr);
    }
    ~SignalStack()
    {
        if (!m_memory)
            return;
        stack_t none = {};
        none.ss_flags = SS_DISABLE;
        ::sigaltstack(&none, nullptr);
    }
    SignalStack(const SignalStack&) = delete;
    SignalStack& operator=(const SignalStack&) = delete;

    void touch() const { }

private:
    std::unique_ptr<char[]> m_memory; // null: not ours
};

// Text of a bounded length, put together without a call of the library.
class Line
{
public:
    void add(const char* text)
    {
        while (*text != '\0' && m_length < sizeof m_text - 1)
            m_text[m_length++] = *text++;
    }
    void write()
    {
        m_text[m_length++] = '\n';
        [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, m_text, m_length);
    }

private:
    char m_text[1024];
    std::size_t m_length = 0;
};

// Only what a signal handler may do. A thread that is in no call of a plugin may still be a
// plugin's own, or a worker of the bus: its name, to which the system gives 15 letters, says more.
void onCrash(int number, siginfo_t* info, void*)
{
    Line line;
    line.add(before);
    line.add("lxclient: crash, ");
    for (std::size_t i = 0; i < std::size(crashSignals); ++i) {
        if (crashSignals[i].number != number)
            continue;
        line.add(crashSignals[i].name);
        ::sigaction(number, &previousActions[i], nullptr);
    }
    if (running.plugin) {
        line.add(" in ");
        line.add(running.plugin);
        line.add(": ");
        line.add(running.operation);
    } else {
        char thread[16] = {};
        ::prctl(PR_GET_NAME, thread);
        line.add(" outside of the calls of plugins, in thread ");
        line.add(thread);
    }
    line.write();
    // What the instruction has caused it causes again, with the core as it was; what was sent has
    // to be sent again.
    if (info->si_code <= 0)
        ::raise(number);
}

} // namespace

void crashline::install()
{
    if (::isatty(STDERR_FILENO) == 1)
        before = "\r\033[K";
    struct sigaction action = {};
    action.sa_sigaction = onCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(crashSignals); ++i)
        ::sigaction(crashSignals[i].number, &action, &previousActions[i]);
}

RunningCall crashline::exchange(RunningCall call) noexcept
{
    thread_local const SignalStack stack;
    stack.touch();
    const RunningCall last = running;
    running.plugin =
        nullptr; // the handler never finds the name of one and the operation of another
    std::atomic_signal_fence(std::memory_order_seq_cst);
    running.operation = call.operation;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    running.plugin = call.plugin;
    return last;
}
