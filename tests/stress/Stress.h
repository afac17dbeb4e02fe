// What the stress programs share: their options, their verdict, and looks at the own process.
#ifndef LXSTRESS_STRESS_H
#define LXSTRESS_STRESS_H

#include <QCommandLineParser>
#include <QString>

#include <functional>
#include <thread>

namespace lxstress {

// The command line of a stress program: --seed and --idle, and what the program adds. Prints the
// seed, sets the idle policy, and switches the debug records and warnings of the bus off. A wrong
// command line ends the program with a message.
class Options : public QCommandLineParser
{
public:
    Options(const char* purpose, const QList<QCommandLineOption>& additional = {});

    bool parks() const { return value("idle") == "park"; }
    quint64 number(const QString& name) const;
};

// Says what is wrong and counts it; only the first few are printed. Any thread.
void fail(const char* format, ...) Q_ATTRIBUTE_FORMAT_PRINTF(1, 2);

// The exit code: 0 and the summary printed if nothing failed.
int verdict(const QString& summary);

// Returns when `condition` holds. Ends the program with a message if `progress` (none: nothing) has
// stood still for the time of a test's deadline before.
using Progress = std::function<quint64()>;
void waitFor(
    const char* what, const std::function<bool()>& condition,
    const Progress& progress = [] { return 0; });

// Returns when every counted record and payload has been handled or freed.
void waitForRecords(const Progress& progress);

// Threads of this process; bytes that it has allocated (0: not known, a sanitizer's allocator).
int threadCount();
std::size_t allocatedBytes();

// Whether this library is still in the process.
bool isMapped(const QString& library);

// A number that depends on nothing but its arguments, evenly distributed.
quint64 mixed(quint64 seed, quint64 stream, quint64 index);

// A thread that the end of the scope waits for.
class Joined : public std::thread
{
public:
    using std::thread::thread;
    Joined(Joined&&) = default;
    ~Joined()
    {
        if (joinable())
            join();
    }
};

} // namespace lxstress

#endif
