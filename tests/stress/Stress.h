// What the stress programs share: their options, their verdict, and looks at the own process.
#ifndef LXSTRESS_STRESS_H
#define LXSTRESS_STRESS_H

#include <QCommandLineParser>
#include <QString>

#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

namespace lxstress {

// The command line of a stress program: --seed and --idle, and what the program adds. Prints the
// seed and sets the idle policy; the bus's debug records are switched off, and its warnings too
// unless the program keeps them. A wrong command line ends the program with a message.
class Options
{
public:
    Options(const char* purpose, const std::vector<QCommandLineOption>& additional = {});

    std::uint64_t seed() const { return m_seed; }
    bool isSet(const char* name) const;
    QString text(const char* name) const;
    std::uint64_t number(const char* name) const;

private:
    QCommandLineParser m_parser;
    std::uint64_t m_seed;
};

// Says what is wrong and counts it; only the first few are printed. Any thread.
void fail(const QString& what);

// The exit code: 0 and `summary` printed if nothing failed.
int verdict(const QString& summary);

// Returns when `condition` holds. Ends the program with a message if `progress` stands still for
// the time of a test's deadline before.
void waitFor(const char* what, const std::function<bool()>& condition,
             const std::function<std::uint64_t()>& progress);

// Threads of this process; bytes that it has allocated (0: not known, a sanitizer's allocator).
int threadCount();
std::size_t allocatedBytes();

// Whether code of this library is in the process.
bool isCodeMapped(const QString& library);

// A number that depends on nothing but its arguments, evenly distributed.
std::uint64_t mixed(std::uint64_t seed, std::uint64_t stream, std::uint64_t index);

// A thread that the end of the scope waits for.
class Joined
{
public:
    explicit Joined(std::function<void()> body)
        : m_thread(std::move(body))
    { }
    Joined(Joined&&) = default;
    ~Joined()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::thread m_thread;
};

} // namespace lxstress

#endif
