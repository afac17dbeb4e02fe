// Churn: plugins are loaded, register, subscribe, receive, unregister and are unloaded, code and
// all, over and over and from several threads, while others put to them on every path. No handler
// runs after UnReg, the bus holds nothing of an unloaded library, and threads and memory are
// afterwards what they were before.
#include "ChurnPlugin.h"
#include "Stress.h"
#include "Traffic.h"

#include <lxbase/MessageCenter.h>

#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QPluginLoader>

#include <vector>

namespace {

using namespace lxstress;
using lxtest::CountedPayload;

constexpr int churnerCount = 2; // each with a library of its own
constexpr int putterCount = 2;
constexpr int inFlightLimit = 100;
constexpr quint64 phaseCount = 6;

// What the batch statistics and the allocator may take; a registration that leaves anything behind
// takes more.
constexpr std::size_t allowedGrowthBytes(quint64 visits)
{
    return 16384 + 40 * visits;
}

// Stays while the others come and go.
class Home final : public Receiver
{
public:
    Home() { Reg(CHURN_HOME, this, MessageThread); }
    ~Home() override { UnReg(CHURN_HOME); }

    std::atomic<quint64> received{0};

private:
    void receive(Path, const QString&, const QVariant&, const QVariant&) override { ++received; }
};

void visitOnce(int churner)
{
    const QString library = QString("%1/libchurn_plugin_%2.so")
                                .arg(QCoreApplication::applicationDirPath())
                                .arg(churner);
    QPluginLoader loader(library);
    loader.setLoadHints({}); // by default unload() would leave the code where it is
    auto* const visitor = qobject_cast<ChurnVisitor*>(loader.instance());
    if (!visitor)
        qFatal("%s", qPrintable(loader.errorString()));
    visitor->enter();
    waitFor("a loaded plugin to receive on every path", [&] {
        return visitor->messages && visitor->quotations && visitor->events
            && visitor->relatedEvents;
    });
    visitor->leave();
    if (!loader.unload() || isMapped(library))
        fail("%s is still there after its unloading", qPrintable(library));
    lxtest::runDeferredDeletes(); // the workers outlive the library
}

void putUntil(const std::atomic<bool>& stop, quint64 seed, int putter)
{
    for (quint64 i = 0; !stop; ++i) {
        while (CountedPayload::alive() > inFlightLimit && !stop)
            std::this_thread::yield();
        const quint64 bits = mixed(seed, quint64(putter), i);
        const auto path = Path(bits % PathCount);
        const QString dstId = (bits >> 8 & 1)
            ? QString("churn#%1").arg((bits >> 16 & 0xff) % churnerCount)
            : QString();
        const auto payload = QVariant::fromValue(CountedPayload(int(i)));
        if (path == Event && (bits >> 24 & 1))
            put(path, CHURN_HOME, QString(), churnRelatedType, payload);
        else
            put(path, "churn.putter", dstId, CHURN_TYPE, payload);
    }
}

// Some rounds of all churners under load; returns the bytes that the process has allocated once
// everything is quiet again and every thread of the churners, the putters and the bus has gone.
std::size_t churn(quint64 rounds, quint64 seed, const Home& home, int threadsAtRest)
{
    std::atomic<bool> stop{false};
    {
        std::vector<Joined> putters;
        for (int putter = 0; putter < putterCount; ++putter)
            putters.emplace_back([&, putter] { putUntil(stop, seed, putter); });
        {
            std::vector<Joined> churners;
            for (int churner = 0; churner < churnerCount; ++churner) {
                churners.emplace_back([=] {
                    for (quint64 round = 0; round < rounds; ++round)
                        visitOnce(churner);
                });
            }
        }
        stop = true;
    }
    waitForRecords([&] { return home.received.load(); });
    // A thread that has been waited for may still be on its way out.
    waitFor("the threads of the phase to go", [&] { return threadCount() == threadsAtRest; });
    return allocatedBytes();
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const Options options("Loads and unloads plugins while others put to them.",
                          {{"rounds", "Rounds of each churner in a phase.", "number", "50"}});
    const quint64 rounds = options.number("rounds");
    // The framework keeps this once it is known, but must not learn it from two threads at once.
    QCoreApplication::applicationDirPath();
    CMessageCenter::GetInstance()->Start();

    const Home home;
    const int threadsAtRest = threadCount(); // this one, the home's, the dispatch threads
    std::vector<std::size_t> allocated;
    for (quint64 phase = 0; phase < phaseCount; ++phase) {
        allocated.push_back(churn(rounds, options.number("seed") + phase, home, threadsAtRest));
        std::printf("%d threads, %zu bytes\n", threadsAtRest, allocated.back());
    }
    // The first phase fills what is kept: statistics, vectors, caches of the allocator.
    const quint64 visits = (phaseCount - 2) * rounds * churnerCount;
    if (allocated.back() > allocated[1] + allowedGrowthBytes(visits))
        fail("%zu bytes became %zu in %llu visits", allocated[1], allocated.back(), visits);
    return verdict(QString("%1 plugins came and went while %2 records were put")
                       .arg(rounds * phaseCount * churnerCount)
                       .arg(lxtest::CountedMessage::made() + lxtest::CountedEvent::made()));
}
