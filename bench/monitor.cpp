// What looking into the bus costs beside the puts themselves, for which throughput and latency have
// the option --level: the time of a snapshot, and the memory that an inbox takes.
#include "Bench.h"
#include "Peers.h"
#include "Receiver.h"

#include <benchmark/benchmark.h>

#include <lxbase/BusMonitor.h>
#include <lxmsg/MessageCommon.h>

#include <malloc.h>

#include <memory>
#include <vector>

namespace {

using namespace bench;

constexpr int Workers = 150;
constexpr int MessagesEach = 1000; // enough that every duration has been taken

// Plugins that each have one inbox and have handled what was put there.
class BusyPlugins
{
public:
    BusyPlugins()
    {
        Countdown done(Workers);
        for (int k = 0; k < Workers; ++k) {
            const QString id = QStringLiteral("Busy%1").arg(k);
            m_receivers.push_back(std::make_unique<Receiver>());
            Receiver& receiver = *m_receivers.back();
            receiver.expect(MessagesEach, done);
            m_registrations.push_back(
                std::make_unique<Registration>(id, receiver, IMessageInterface::MessageThread));
            for (int n = 0; n < MessagesEach; ++n)
                receiver.Put(senderId, new CMessageCommon(senderId, id, messageType, n));
        }
        done.wait("not every message was delivered");
    }

    ~BusyPlugins()
    {
        m_registrations.clear();
        Registration::deleteRetiredWorkers();
    }

private:
    std::vector<std::unique_ptr<Receiver>> m_receivers;
    std::vector<std::unique_ptr<Registration>> m_registrations;
};

void snapshot(benchmark::State& state)
{
    CBusMonitor::setLevel(StatisticsLevel::Sampled);
    const BusyPlugins plugins;
    for (auto _ : state) {
        if (CBusMonitor::statistics().inboxes.size() < Workers)
            fail("a snapshot without every inbox");
    }
}

double heapBytes()
{
    return static_cast<double>(mallinfo2().uordblks);
}

void memoryPerInbox(benchmark::State& state, StatisticsLevel level)
{
    CBusMonitor::setLevel(level);
    for (auto _ : state) {
        const double before = heapBytes();
        const BusyPlugins plugins;
        state.counters["bytes"] = (heapBytes() - before) / Workers;
    }
}

void registerBenchmarks()
{
    mallopt(M_ARENA_MAX, 1); // mallinfo2 tells of the first arena only
    benchmark::RegisterBenchmark("snapshot_150/bus", snapshot)->Unit(benchmark::kMillisecond);
    const auto addMemory = [](const char* name, StatisticsLevel level) {
        benchmark::RegisterBenchmark(name, memoryPerInbox, level)->Iterations(3);
    };
    addMemory("memory_per_inbox_off/bus", StatisticsLevel::Off);
    addMemory("memory_per_inbox_sampled/bus", StatisticsLevel::Sampled);
}

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, registerBenchmarks);
}
