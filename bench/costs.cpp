// What single steps cost, and how that grows: a put against the number of plugins and of types and
// with the log on, the draining of a backlog, registration.
#include "Bench.h"
#include "Payload.h"
#include "Peers.h"
#include "Receiver.h"

#include <benchmark/benchmark.h>

#include <lxbase/MessageCenter.h>
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;

constexpr int PutsPerBatch = 20000;

template<class Work>
double secondsOf(Work work)
{
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The plugins of a benchmark of the put alone: while a batch is put and measured, every plugin is
// held in its handler, so that no worker runs, is woken or takes a lock.
class BlockedPlugins
{
public:
    BlockedPlugins(int count, IMessageInterface::ThreadType flag)
    {
        for (int k = 0; k < count; ++k) {
            m_ids.push_back(QStringLiteral("Plugin%1").arg(k));
            m_plugins.push_back(std::make_unique<GatedReceiver>());
            m_registrations.push_back(
                std::make_unique<Registration>(m_ids.back(), *m_plugins.back(), flag));
        }
    }

    ~BlockedPlugins()
    {
        m_registrations.clear();
        Registration::deleteRetiredWorkers();
    }

    const QString& id(int number) const { return m_ids[number]; }
    int count() const { return static_cast<int>(m_ids.size()); }

    // Blocks every plugin with a message that `putTo` puts to it, measures PutsPerBatch calls of
    // `put`, spread evenly over the plugins, and has everything delivered, or so many puts as
    // `delivered` says. Returns seconds.
    template<class PutTo, class Put>
    double measure(PutTo putTo, Put put, int delivered = PutsPerBatch)
    {
        Countdown done(count());
        for (int k = 0; k < count(); ++k) {
            m_plugins[k]->expect(1 + delivered / count(), done);
            m_plugins[k]->shut();
            putTo(k);
        }
        for (const auto& plugin : m_plugins)
            plugin->waitUntilBlocked();
        const double seconds = secondsOf([&] {
            for (int k = 0; k < PutsPerBatch; ++k)
                put(k);
        });
        for (const auto& plugin : m_plugins)
            plugin->open();
        done.wait("not every message that was put to the blocked plugins was delivered");
        return seconds;
    }

private:
    std::vector<QString> m_ids;
    std::vector<std::unique_ptr<GatedReceiver>> m_plugins;
    std::vector<std::unique_ptr<Registration>> m_registrations;
};

void putTo(const QString& id, int type, int number)
{
    CRegManager::Put(senderId,
                     new CMessageCommon(senderId, id, QVariant(type), doublePayload.make(number)));
}

template<class PutTo, class Put>
void measurePuts(benchmark::State& state, BlockedPlugins& plugins, PutTo putTo, Put put,
                 int delivered = PutsPerBatch)
{
    for (auto _ : state)
        state.SetIterationTime(plugins.measure(putTo, put, delivered));
    state.SetItemsProcessed(state.iterations() * PutsPerBatch);
}

// Direct puts to one plugin, while others are registered.
void putAmongPlugins(benchmark::State& state, int count)
{
    const IdlePlugins others(count - 1, IMessageInterface::MessageThread);
    IdlePlugins::settle();
    BlockedPlugins plugins(1, IMessageInterface::MessageThread);
    const auto put = [&](int number) { putTo(plugins.id(0), messageType, number); };
    measurePuts(state, plugins, put, put);
}

// Direct puts that go round all plugins, so that every put meets an inbox that is not in the cache.
void putRoundPlugins(benchmark::State& state, int count)
{
    BlockedPlugins plugins(count, IMessageInterface::MessageThread);
    const auto put = [&](int k) { putTo(plugins.id(k % count), messageType, k); };
    measurePuts(state, plugins, put, put);
}

// Broadcasts to one subscriber, of types that jump about among all that are subscribed.
void putAgainstTypes(benchmark::State& state, int count)
{
    constexpr int Stride = 7919; // a prime, so that every type comes
    BlockedPlugins plugins(1, IMessageInterface::MessageThread);
    for (int type = 0; type < count; ++type)
        CRegManager::Sub(plugins.id(0), QVariant(type), 1);
    measurePuts(
        state, plugins, [&](int plugin) { putTo(plugins.id(plugin), 0, 0); },
        [&](int k) {
            putTo(QString(), static_cast<int>(static_cast<qint64>(k) * Stride % count), k);
        });
}

// Direct puts of types in turn, to an inbox that takes all of them or keeps the latest of each.
void putUnderPolicy(benchmark::State& state, int types, InboxPolicy::Mode mode)
{
    BlockedPlugins plugins(1, IMessageInterface::MessageThread);
    const auto setMode = [&](InboxPolicy::Mode chosen) {
        InboxPolicy policy;
        policy.mode = chosen;
        CMessageCenter::GetInstance()->setInboxPolicy(plugins.id(0),
                                                      IMessageInterface::MessageThread, policy);
    };
    setMode(mode);
    const auto put = [&](int k) { putTo(plugins.id(0), k % types, k); };
    measurePuts(state, plugins, put, put, mode == InboxPolicy::KeepLatest ? types : PutsPerBatch);
    setMode(InboxPolicy::Unbounded);
}

// The trace of an event is written, to a handler that does nothing with it, or switched off.
void putEventTraced(benchmark::State& state, bool log)
{
    BlockedPlugins plugins(1, IMessageInterface::EventThread);
    const auto put = [&](int number) {
        CRegManager::PutEvent(senderId,
                              new CEventMessageCommon(senderId, plugins.id(0),
                                                      QVariant(messageType),
                                                      doublePayload.make(number)));
    };
    setBusDebug(log);
    measurePuts(state, plugins, put, put);
    setBusDebug(false);
}

void putMessageTraced(benchmark::State& state, bool log)
{
    BlockedPlugins plugins(1, IMessageInterface::MessageThread);
    const auto put = [&](int number) { putTo(plugins.id(0), messageType, number); };
    setBusDebug(log);
    measurePuts(state, plugins, put, put);
    setBusDebug(false);
}

// A message whose deletion waits. The dispatch thread deletes what it has routed, so that this
// holds it, with no lock, while its list fills.
class Plug : public CMessageCommon
{
public:
    struct Signals
    {
        Countdown reached{1};
        Countdown pulled{1};
        std::thread::id putter = std::this_thread::get_id();
        bool missed = false; // touched by the putter alone
    };

    explicit Plug(Signals& signals)
        : m_signals(signals)
    { }
    ~Plug() override
    {
        if (std::this_thread::get_id() == m_signals.putter) {
            m_signals.missed = true;
            return;
        }
        m_signals.reached.countDown();
        m_signals.pulled.wait("the dispatch thread was never released");
    }

private:
    Signals& m_signals;
};

using PutOperation = void (*)(QString, CMessageCommon*);

// Returns when the dispatch thread is held. Where the dispatch thread was so quick that the put
// itself had the last reference to the plug, another is tried.
void holdDispatchThread(PutOperation put, Plug::Signals& signals)
{
    do {
        signals.missed = false;
        put(senderId, new Plug(signals));
    } while (signals.missed);
    signals.reached.wait("the dispatch thread never deleted the message that was to hold it");
}

// The time from the release of the dispatch thread to the last delivery of the backlog.
void drainBacklog(benchmark::State& state, PutOperation put, IMessageInterface::ThreadType flag,
                  int backlog)
{
    Receiver receiver;
    {
        const Registration registration(receiverId, receiver, flag);
        for (auto _ : state) {
            Plug::Signals plug;
            Countdown done(1);
            receiver.expect(backlog, done);
            holdDispatchThread(put, plug);
            for (int k = 0; k < backlog; ++k) {
                put(senderId,
                    new CMessageCommon(senderId, receiverId, QVariant(messageType),
                                       doublePayload.make(k)));
            }
            state.SetIterationTime(secondsOf([&] {
                plug.pulled.countDown();
                done.wait("not every message of the backlog was delivered");
            }));
        }
    }
    Registration::deleteRetiredWorkers();
    state.SetItemsProcessed(state.iterations() * backlog);
}

// Plugins with all three workers come and go. `unregister` says which half is measured.
void registerPlugins(benchmark::State& state, int count, bool unregister)
{
    for (auto _ : state) {
        std::unique_ptr<IdlePlugins> plugins;
        const double toRegister =
            secondsOf([&] { plugins = std::make_unique<IdlePlugins>(count); });
        const double toUnregister = secondsOf([&] { plugins.reset(); });
        state.SetIterationTime(unregister ? toUnregister : toRegister);
    }
    state.SetItemsProcessed(state.iterations() * count);
}

template<class Function, class... Arguments>
benchmark::internal::Benchmark* add(const std::string& name, Function function,
                                    Arguments... arguments)
{
    return benchmark::RegisterBenchmark(
               (name + "/bus").c_str(),
               [=](benchmark::State& state) { function(state, arguments...); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

void registerBenchmarks()
{
    for (const int plugins : {10, 100, 1000}) {
        add("put_among_" + std::to_string(plugins), putAmongPlugins, plugins);
        add("put_round_" + std::to_string(plugins), putRoundPlugins, plugins);
    }
    for (const int types : {10, 1000, 100000})
        add("put_types_" + std::to_string(types), putAgainstTypes, types);
    for (const int types : {10, 1000}) {
        const std::string suffix = "_" + std::to_string(types) + "_types";
        add("put_unbounded" + suffix, putUnderPolicy, types, InboxPolicy::Unbounded);
        add("put_latest" + suffix, putUnderPolicy, types, InboxPolicy::KeepLatest);
    }
    for (const bool log : {false, true}) {
        const std::string suffix = log ? "_log_on" : "_log_off";
        add("put_message" + suffix, putMessageTraced, log);
        add("put_event" + suffix, putEventTraced, log);
    }
    for (const int backlog : {2000, 200000}) {
        add("drain_net_" + std::to_string(backlog), drainBacklog, &CRegManager::PutNetMsg,
            IMessageInterface::MessageThread, backlog);
        add("drain_quotation_" + std::to_string(backlog), drainBacklog,
            &CRegManager::PutQuotationMsg, IMessageInterface::QuotationThread, backlog);
    }
    add("register_300", registerPlugins, 300, false)->Iterations(3);
    add("unregister_300", registerPlugins, 300, true)->Iterations(3);
}

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, registerBenchmarks);
}
