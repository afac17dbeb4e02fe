// How many messages per second get from a put to a handler: the paths of the bus, and its peers
// with the same payloads, the same copies and the same receiver.
//
// An iteration puts one batch and ends with its last delivery. The CPU time is that of all threads
// of the process: it tells what a message costs even where the machine is busy with other things.
#include "Bench.h"
#include "Payload.h"
#include "Peers.h"
#include "Receiver.h"

#include <benchmark/benchmark.h>

#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

constexpr int DeliveriesPerBatch = 64000;
// A new thread may share its sender's core until the kernel balances the two, some 50 ms later.
constexpr std::chrono::milliseconds WarmUp{100};

constexpr const char* LastDelivery = "not every message of a batch was delivered";

CMessageCommon* makeRecord(const Payload& payload, const QString& destination, int number)
{
    return new CMessageCommon(senderId, destination, QVariant(messageType), payload.make(number));
}

// Threads that wait for a batch to put, so that starting them is not measured.
class Producers
{
public:
    // `makePut` is called on each thread and returns what puts one message.
    using Put = std::function<void(int number)>;

    Producers(int count, const std::function<Put()>& makePut)
    {
        for (int k = 0; k < count; ++k) {
            m_threads.emplace_back([this, makePut] {
                const Put put = makePut();
                work(put);
            });
        }
    }

    ~Producers()
    {
        release(0);
        for (std::thread& thread : m_threads)
            thread.join();
    }

    // Has every thread put `messages`; 0 ends the threads.
    void release(int messages)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_messages = messages;
        ++m_batch;
        m_released.notify_all();
    }

private:
    void work(const Put& put)
    {
        for (int batch = 1;; ++batch) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_released.wait(lock, [&] { return m_batch >= batch; });
            const int messages = m_messages;
            lock.unlock();
            if (messages == 0)
                return;
            for (int k = 0; k < messages; ++k)
                put(k);
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_released;
    int m_messages = 0; // guarded by m_mutex
    int m_batch = 0;    // guarded by m_mutex
    std::vector<std::thread> m_threads;
};

// Runs the benchmark's iterations: `putBatch` puts what makes DeliveriesPerBatch deliveries at the
// receivers together.
template<class PutBatch>
void runBatches(benchmark::State& state, const std::vector<std::unique_ptr<Receiver>>& receivers,
                PutBatch putBatch)
{
    const int count = static_cast<int>(receivers.size());
    Countdown done;
    const auto batch = [&] {
        done.reset(count);
        for (const auto& receiver : receivers)
            receiver->expect(DeliveriesPerBatch / count, done);
        putBatch();
        done.wait(LastDelivery);
    };
    const auto start = Clock::now();
    do {
        batch();
    } while (Clock::now() - start < WarmUp);
    for (auto _ : state)
        batch();
    state.SetItemsProcessed(state.iterations() * DeliveriesPerBatch);
}

std::vector<std::unique_ptr<Receiver>> makeReceivers(int count)
{
    std::vector<std::unique_ptr<Receiver>> receivers;
    for (int k = 0; k < count; ++k)
        receivers.push_back(std::make_unique<Receiver>());
    return receivers;
}

// The bus or a peer, direct, from one producer (the thread of the benchmark).
template<class Transport>
void oneToOne(benchmark::State& state, const Payload& payload)
{
    const auto receivers = makeReceivers(1);
    Transport transport(*receivers.front());
    typename Transport::Port port(transport);
    runBatches(state, receivers, [&] {
        for (int k = 0; k < DeliveriesPerBatch; ++k)
            port.put(makeRecord(payload, receiverId, k));
    });
}

template<class Transport>
void manyToOne(benchmark::State& state, const Payload& payload)
{
    constexpr int ProducerCount = 4;
    const auto receivers = makeReceivers(1);
    Transport transport(*receivers.front());
    Producers producers(ProducerCount, [&] {
        const auto port = std::make_shared<typename Transport::Port>(transport);
        return [port, &payload](int k) { port->put(makeRecord(payload, receiverId, k)); };
    });
    runBatches(state, receivers, [&] { producers.release(DeliveriesPerBatch / ProducerCount); });
}

void besideIdlePlugins(benchmark::State& state, const Payload& payload)
{
    const IdlePlugins idle(50);
    IdlePlugins::settle();
    oneToOne<Bus>(state, payload);
}

// The plugin IDs of a benchmark with several receivers.
QString receiverName(int number)
{
    return QStringLiteral("Receiver%1").arg(number);
}

// A benchmark of broadcasts to `count` receivers: registers them with `flag`, has `connect` link
// each ID to the traffic, and puts with `put`.
template<class Connect, class Put>
void broadcast(benchmark::State& state, int count, IMessageInterface::ThreadType flag,
               Connect connect, Put put)
{
    const auto receivers = makeReceivers(count);
    {
        std::vector<std::unique_ptr<Registration>> registrations;
        for (int k = 0; k < count; ++k) {
            registrations.push_back(
                std::make_unique<Registration>(receiverName(k), *receivers[k], flag));
            connect(receiverName(k), 1);
        }
        runBatches(state, receivers, [&] {
            for (int k = 0; k < DeliveriesPerBatch / count; ++k)
                put(k);
        });
        for (int k = 0; k < count; ++k)
            connect(receiverName(k), 2);
    }
    Registration::deleteRetiredWorkers();
}

void subscribe(const QString& id, int oper)
{
    CRegManager::Sub(id, QVariant(messageType), oper);
}

void broadcastMessages(benchmark::State& state, const Payload& payload, int count)
{
    broadcast(state, count, IMessageInterface::MessageThread, subscribe,
              [&](int k) { CRegManager::Put(senderId, makeRecord(payload, QString(), k)); });
}

void netPath(benchmark::State& state, const Payload& payload)
{
    broadcast(state, 1, IMessageInterface::MessageThread, subscribe,
              [&](int k) { CRegManager::PutNetMsg(senderId, makeRecord(payload, QString(), k)); });
}

void quotationPath(benchmark::State& state, const Payload& payload)
{
    broadcast(state, 1, IMessageInterface::QuotationThread, subscribe, [&](int k) {
        CRegManager::PutQuotationMsg(senderId, makeRecord(payload, QString(), k));
    });
}

void putEvent(const QString& srcId, const Payload& payload, int number)
{
    CRegManager::PutEvent(
        srcId,
        new CEventMessageCommon(srcId, QString(), QVariant(messageType), payload.make(number)));
}

void eventPath(benchmark::State& state, const Payload& payload)
{
    broadcast(
        state, 1, IMessageInterface::EventThread,
        [](const QString& id, int oper) { CRegManager::SubEvent(id, QVariant(messageType), oper); },
        [&](int k) { putEvent(senderId, payload, k); });
}

// The receiver is reached by the sender's relation group alone.
void relationPath(benchmark::State& state, const Payload& payload)
{
    const QString instance = senderId + QStringLiteral("#1");
    const auto relate = [](const QString& id, int oper) {
        CRegManager::setRelation(senderId, id, messageType, RELATION_RED, oper);
    };
    relate(instance, 1);
    broadcast(state, 1, IMessageInterface::EventThread, relate,
              [&](int k) { putEvent(instance, payload, k); });
    relate(instance, 2);
}

template<class Function, class... Arguments>
void add(const std::string& name, Function function, const Payload& payload, Arguments... arguments)
{
    benchmark::RegisterBenchmark(
        (name + "/" + payload.name).c_str(),
        [=, &payload](benchmark::State& state) { function(state, payload, arguments...); })
        ->UseRealTime()
        ->MeasureProcessCPUTime()
        ->Unit(benchmark::kMillisecond);
}

// The bus and its peers stand next to one another, so that they meet the same noise.
template<class... Transports>
void addTransports(const Payload& payload)
{
    (add(std::string("direct_1to1/") + Transports::Name, oneToOne<Transports>, payload), ...);
    (add(std::string("direct_4to1/") + Transports::Name, manyToOne<Transports>, payload), ...);
}

void registerBenchmarks()
{
    for (const Payload& payload : payloads) {
        addTransports<Bus, Floor, Tbb, Moodycamel, InvokeMethod, PostEvent, Zmq>(payload);
        add("direct_1to1_150idle/bus", besideIdlePlugins, payload);
        for (const int receivers : {1, 8, 64})
            add("broadcast_" + std::to_string(receivers) + "/bus", broadcastMessages, payload,
                receivers);
        add("net/bus", netPath, payload);
        add("quotation/bus", quotationPath, payload);
        add("event/bus", eventPath, payload);
        add("event_relation/bus", relationPath, payload);
    }
}

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, registerBenchmarks);
}
