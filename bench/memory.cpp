// How much memory a queued message takes: a million are put while the receiver is held in its
// handler, and the resident size of the process is compared. A program of its own, for memory that
// an earlier benchmark had used and freed would be used again unseen; for the same reason each
// benchmark wants a process of its own.
#include "Bench.h"
#include "Payload.h"
#include "Peers.h"
#include "Receiver.h"

#include <benchmark/benchmark.h>

#include <lxmsg/MessageCommon.h>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

using namespace bench;

double residentBytes()
{
    long total = 0;
    long resident = 0;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/self/statm", "r"),
                                                               std::fclose);
    if (!file || std::fscanf(file.get(), "%ld %ld", &total, &resident) != 2)
        fail("/proc/self/statm does not tell the resident size");
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

template<class Transport>
void memoryPerItem(benchmark::State& state, const Payload& payload)
{
    constexpr int Messages = 1000000;
    GatedReceiver receiver;
    Transport transport(receiver);
    typename Transport::Port port(transport);
    const auto put = [&](int number) {
        port.put(
            new CMessageCommon(senderId, receiverId, QVariant(messageType), payload.make(number)));
    };
    Countdown done(1);
    receiver.expect(Messages + 1, done);
    for (auto _ : state) {
        receiver.shut();
        put(0);
        receiver.waitUntilBlocked();
        const double before = residentBytes();
        for (int k = 0; k < Messages; ++k)
            put(k);
        state.counters["bytes"] = (residentBytes() - before) / Messages;
        receiver.open();
        done.wait("not every queued message was delivered");
    }
}

template<class Transport>
void add(const Payload& payload)
{
    benchmark::RegisterBenchmark(
        (std::string("memory_per_item/") + Transport::Name + "/" + payload.name).c_str(),
        [&](benchmark::State& state) { memoryPerItem<Transport>(state, payload); })
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

void registerBenchmarks()
{
    for (const Payload& payload : payloads) {
        add<Bus>(payload);
        add<Floor>(payload);
        add<InvokeMethod>(payload);
    }
}

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, registerBenchmarks);
}
