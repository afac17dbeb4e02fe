// What every benchmark program has: its main, the idle policy that it measures, the failure of a
// wait that took too long, and the registration of a plugin for the length of a benchmark.
#ifndef LXBENCH_BENCH_H
#define LXBENCH_BENCH_H

#include <lxbase/MessageInterface.h>

#include <QString>

#include <chrono>
#include <memory>
#include <vector>

namespace bench {

// The longest that any wait may take. A benchmark that misses it has lost a delivery.
constexpr std::chrono::seconds Deadline{120};

// Ends the process with a message: after a lost delivery, cleaning up could wait forever.
[[noreturn]] void fail(const char* what);

// The body of main(). The idle policy is fixed for the life of a process at the first
// registration, so that it is an option of the program: --idle=poll or --idle=park (the default).
// So is what the bus counts: --level=off, counts (the default), sampled or full,
// and whether it records: --trace=on or off (the default). The other options
// are those of Google Benchmark. The bus logs to a null handler, its debug level off. Returns the
// exit status.
int run(int argc, char** argv, void (*registerBenchmarks)());

// Switches the debug level of the bus.
void setBusDebug(bool on);

// Keeps a plugin registered.
class Registration
{
public:
    Registration(const QString& id, IMessageInterface& plugin, IMessageInterface::ThreadType type);
    ~Registration();
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    // Deletes the workers of plugins that have been unregistered, as an event loop would.
    static void deleteRetiredWorkers();

private:
    QString m_id;
    IMessageInterface& m_plugin;
};

// Registers plugins, by default with all three workers, which nobody puts to.
class IdlePlugins
{
public:
    static constexpr int WorkersPerPlugin = 3;
    static constexpr IMessageInterface::ThreadType AllWorkers = IMessageInterface::MessageThread
        | IMessageInterface::QuotationThread | IMessageInterface::EventThread;

    explicit IdlePlugins(int plugins, IMessageInterface::ThreadType type = AllWorkers);
    ~IdlePlugins();

    // Returns when their threads, which have just started, are idle.
    static void settle();

private:
    std::vector<std::unique_ptr<IMessageInterface>> m_plugins;
    std::vector<std::unique_ptr<Registration>> m_registrations;
};

} // namespace bench

#endif
