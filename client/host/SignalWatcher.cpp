#include "SignalWatcher.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int Signals[] = {SIGINT, SIGTERM, SIGHUP};

// A handler may do next to nothing; writing a byte to a pipe is allowed, and the thread reads it.
int pipeEnds[2] = {-1, -1};

// atomic: handlers may run on several threads
std::atomic<int> taken{0};
static_assert(std::atomic<int>::is_always_lock_free);

void giveBack()
{
    for (const int number : Signals) {
        struct sigaction present = {};
        if (::sigaction(number, nullptr, &present) == 0 && present.sa_handler != SIG_IGN)
            ::signal(number, SIG_DFL);
    }
}

void handle(int)
{
    const int savedErrno = errno;
    if (++taken == 2)
        giveBack();
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[1], &byte, 1);
    errno = savedErrno;
}

bool readByte()
{
    char byte = 0;
    ssize_t got = 0;
    do {
        got = ::read(pipeEnds[0], &byte, 1);
    } while (got < 0 && errno == EINTR);
    return got == 1;
}

} // namespace

SignalWatcher::SignalWatcher(std::function<void()> onFirst, std::function<void()> onSecond)
{
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0)
        return; // the signals keep their default: the process ends, unorderly
    m_thread = std::thread([onFirst = std::move(onFirst), onSecond = std::move(onSecond)] {
        for (const auto& call : {onFirst, onSecond}) {
            if (!readByte())
                return;
            call();
        }
    });
    struct sigaction action = {};
    action.sa_handler = handle;
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    for (const int number : Signals) {
        struct sigaction present = {};
        const bool ignored =
            ::sigaction(number, nullptr, &present) == 0 && present.sa_handler == SIG_IGN;
        if (number != SIGHUP || !ignored)
            ::sigaction(number, &action, nullptr);
    }
}

SignalWatcher::~SignalWatcher()
{
    if (!m_thread.joinable())
        return;
    giveBack();
    ::close(std::exchange(pipeEnds[1], -1)); // ends the thread
    m_thread.join();
    ::close(std::exchange(pipeEnds[0], -1));
}
