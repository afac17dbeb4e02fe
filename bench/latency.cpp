// How long a message takes from the put to the handler, at a steady rate, with and without idle
// workers beside; the bus and a queued call. Also what those idle workers cost while nothing is
// put.
#include "Bench.h"
#include "Peers.h"
#include "Receiver.h"

#include <benchmark/benchmark.h>

#include <lxmsg/MessageCommon.h>

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// The payload of a message is the time of its put. The first messages are not counted: a new thread
// may share its sender's core until the kernel balances the two, some 50 ms later.
class StopWatch : public Receiver
{
public:
    StopWatch(int warmUp, int messages)
        : m_warmUp(warmUp)
    {
        m_latencies_ns.reserve(messages);
    }

    // Called when everything has arrived. `share` of the counted messages took at most so long.
    double percentileUs(double share)
    {
        std::sort(m_latencies_ns.begin(), m_latencies_ns.end());
        const auto rank = static_cast<std::size_t>(share * (m_latencies_ns.size() - 1));
        return m_latencies_ns.at(rank) / 1000.0;
    }

protected:
    void arrived(const QVariant& data) override
    {
        const qint64 latency = nowNs() - data.toLongLong();
        if (m_warmUp > 0)
            --m_warmUp;
        else
            m_latencies_ns.push_back(latency);
        Receiver::arrived(data);
    }

private:
    // touched by the delivering thread, read after the last
    int m_warmUp;
    std::vector<qint64> m_latencies_ns;
};

// Sleeps until shortly before the time and spins the rest, for the kernel wakes late.
void waitUntil(Clock::time_point time)
{
    constexpr std::chrono::microseconds wakesLate{100};
    if (time - Clock::now() > wakesLate)
        std::this_thread::sleep_until(time - wakesLate);
    while (Clock::now() < time) { }
}

// The time of a message's put is taken right before it. A producer that has fallen behind its
// schedule puts without waiting; `rate` reports what was reached.
template<class Transport>
void latency(benchmark::State& state, int messagesPerSecond, int messages, int idlePlugins)
{
    std::optional<IdlePlugins> idle;
    if (idlePlugins > 0) {
        idle.emplace(idlePlugins);
        IdlePlugins::settle();
    }
    const int warmUp = messages / 10;
    const int all = warmUp + messages;
    StopWatch receiver(warmUp, messages);
    Countdown done(1);
    receiver.expect(all, done);
    {
        Transport transport(receiver);
        typename Transport::Port port(transport);
        const std::chrono::nanoseconds period(1000000000 / messagesPerSecond);
        for (auto _ : state) {
            const auto start = Clock::now();
            for (int k = 0; k < all; ++k) {
                waitUntil(start + k * period);
                auto record = std::make_unique<CMessageCommon>(senderId, receiverId,
                                                               QVariant(messageType), QVariant());
                record->SetMsg(QVariant(nowNs()));
                port.put(record.release());
            }
            done.wait("not every timed message was delivered");
            const std::chrono::duration<double> took = Clock::now() - start;
            state.counters["rate"] = all / took.count();
        }
    }
    state.counters["p50_us"] = receiver.percentileUs(0.5);
    state.counters["p99_us"] = receiver.percentileUs(0.99);
    state.counters["p999_us"] = receiver.percentileUs(0.999);
}

double cpuSeconds()
{
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0)
        fail("getrusage does not tell the time used");
    const auto seconds = [](const timeval& time) { return time.tv_sec + time.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void idleCpu(benchmark::State& state, int plugins)
{
    const IdlePlugins idle(plugins);
    IdlePlugins::settle();
    for (auto _ : state) {
        const auto start = Clock::now();
        const double before = cpuSeconds();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const std::chrono::duration<double> took = Clock::now() - start;
        state.counters["cores"] = (cpuSeconds() - before) / took.count();
    }
}

template<class Transport>
void addLatency(const std::string& name, int rate, int messages, int idlePlugins)
{
    benchmark::RegisterBenchmark(
        (name + "/" + Transport::Name).c_str(),
        [=](benchmark::State& state) { latency<Transport>(state, rate, messages, idlePlugins); })
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

void registerBenchmarks()
{
    for (const int idlePlugins : {0, 50}) {
        const int workers = idlePlugins * IdlePlugins::WorkersPerPlugin;
        const std::string idle = "_" + std::to_string(workers) + "idle";
        addLatency<Bus>("latency_500" + idle, 500, 1500, idlePlugins);
        addLatency<InvokeMethod>("latency_500" + idle, 500, 1500, idlePlugins);
        addLatency<Bus>("latency_50000" + idle, 50000, 100000, idlePlugins);
        addLatency<InvokeMethod>("latency_50000" + idle, 50000, 100000, idlePlugins);
        benchmark::RegisterBenchmark(("cpu_" + std::to_string(workers) + "idle/bus").c_str(),
                                     [=](benchmark::State& state) { idleCpu(state, idlePlugins); })
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, registerBenchmarks);
}
