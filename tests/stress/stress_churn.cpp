// Churn: plugins are loaded, register, subscribe, receive, unregister and are unloaded, code and
// all, over and over and from several threads, while others put to them on every path. No handler
// runs after UnReg, and threads and memory are afterwards what they were before.
#include "ChurnPlugin.h"
#include "Stress.h"

#include <lxbase/MessageCenter.h>

#include <lxtest/Counted.h>
#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QPluginLoader>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

namespace {

using lxstress::fail;
using lxtest::CountedEvent;
using lxtest::CountedMessage;
using lxtest::CountedPayload;

constexpr int churnerCount = 2; // each with a library of its own
constexpr int putterCount = 2;
constexpr int messageType = 1;
constexpr int inFlightLimit = 100;
constexpr std::uint64_t phaseCount = 6;

// What the batch statistics and the allocator may take; a registration that leaves anything behind
// takes more.
constexpr std::size_t allowedGrowthBytes(std::uint64_t visits)
{
    return 16384 + 40 * visits;
}

const QString home = QStringLiteral("churn.home");

// The same ID is registered anew in every round.
QString idOf(int churner)
{
    return QStringLiteral("churn#%1").arg(churner);
}

QString libraryOf(int churner)
{
    return QCoreApplication::applicationDirPath()
        + QStringLiteral("/libchurn_plugin_%1.so").arg(churner);
}

// Stays while the others come and go.
class Home final : public IMessageInterface
{
public:
    Home() { Reg(home, this, MessageThread | EventThread | QuotationThread); }
    ~Home() override { UnReg(home); }

    void RecvMsg(QString, QVariant, QVariant) override { ++m_received; }
    void RecvEvent(QString, QVariant, QVariant) override { ++m_received; }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { ++m_received; }

    std::uint64_t received() const { return m_received; }

private:
    std::atomic<std::uint64_t> m_received{0};
};

void visitOnce(int churner)
{
    const QString library = libraryOf(churner);
    QPluginLoader loader(library);
    loader.setLoadHints({}); // by default unload() would leave the code where it is
    auto* const visitor = qobject_cast<ChurnVisitor*>(loader.instance());
    if (!visitor) {
        fail(QStringLiteral("%1 cannot be loaded: %2").arg(library, loader.errorString()));
        return;
    }
    visitor->enter(idOf(churner), home, messageType);
    lxstress::waitFor(
        "a loaded plugin to receive on every path",
        [&] { return visitor->messages() && visitor->events() && visitor->quotations(); },
        [&] {
            return std::uint64_t(visitor->messages()) + std::uint64_t(visitor->events())
                + std::uint64_t(visitor->quotations());
        });
    visitor->leave();
    lxtest::runDeferredDeletes();
    if (!loader.unload())
        fail(QStringLiteral("%1 cannot be unloaded: %2").arg(library, loader.errorString()));
    if (lxstress::isCodeMapped(library))
        fail(QStringLiteral("%1 is still there after its unloading").arg(library));
}

void putUntil(const std::atomic<bool>& stop, std::uint64_t seed, int putter)
{
    const QString srcId = QStringLiteral("churn.putter%1").arg(putter);
    for (std::uint64_t i = 0; !stop; ++i) {
        while (CountedPayload::alive() > inFlightLimit && !stop)
            std::this_thread::yield();
        const std::uint64_t bits = lxstress::mixed(seed, std::uint64_t(putter), i);
        const QString dstId = (bits & 1) ? idOf(int((bits >> 8 & 0xff) % churnerCount)) : QString();
        const QVariant payload = QVariant::fromValue(CountedPayload(int(i)));
        switch (bits >> 16 & 3) {
        case 0:
            CRegManager::Put(srcId, new CountedMessage(srcId, dstId, messageType, payload));
            break;
        case 1:
            CRegManager::PutNetMsg(srcId, new CountedMessage(srcId, dstId, messageType, payload));
            break;
        case 2:
            CRegManager::PutQuotationMsg(srcId,
                                         new CountedMessage(srcId, dstId, messageType, payload));
            break;
        case 3:
            CRegManager::PutEvent(srcId, new CountedEvent(srcId, dstId, messageType, payload));
            break;
        }
    }
}

// Some rounds of all churners under load; returns the bytes that the process has allocated once
// everything is quiet again and every thread of the churners, the putters and the bus has gone.
std::size_t churn(std::uint64_t rounds, std::uint64_t seed, const Home& homePlugin,
                  int threadsAtRest)
{
    std::atomic<bool> stop{false};
    {
        std::vector<lxstress::Joined> putters;
        for (int putter = 0; putter < putterCount; ++putter)
            putters.emplace_back([&, putter] { putUntil(stop, seed, putter); });
        {
            std::vector<lxstress::Joined> churners;
            for (int churner = 0; churner < churnerCount; ++churner) {
                churners.emplace_back([=] {
                    for (std::uint64_t round = 0; round < rounds; ++round)
                        visitOnce(churner);
                });
            }
        }
        stop = true;
    }
    lxstress::waitFor(
        "every record and payload to be handled or freed",
        [] {
            return CountedMessage::alive() == 0 && CountedEvent::alive() == 0
                && CountedPayload::alive() == 0;
        },
        [&] { return homePlugin.received(); });
    // A thread that has been waited for may still be on its way out.
    lxstress::waitFor(
        "the threads of the phase to be gone",
        [&] { return lxstress::threadCount() == threadsAtRest; }, [] { return std::uint64_t(0); });
    return lxstress::allocatedBytes();
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const lxstress::Options options(
        "Loads and unloads plugins while others put to them.",
        {{QStringLiteral("rounds"), QStringLiteral("Rounds of each churner in a phase."),
          QStringLiteral("number"), QStringLiteral("50")}});
    const std::uint64_t rounds = options.number("rounds");
    // The framework keeps this once it is known, but must not learn it from two threads at once.
    QCoreApplication::applicationDirPath();
    CMessageCenter::GetInstance()->Start();

    const Home homePlugin;
    CRegManager::Sub(home, messageType, 1);
    CRegManager::SubEvent(home, messageType, 1);
    const int threadsAtRest = lxstress::threadCount(); // this one, the home's, the dispatch threads
    std::vector<std::size_t> allocated;
    for (std::uint64_t phase = 0; phase < phaseCount; ++phase) {
        allocated.push_back(churn(rounds, options.seed() + phase, homePlugin, threadsAtRest));
        std::printf("%d threads, %zu bytes\n", threadsAtRest, allocated.back());
    }
    // The first phase fills what is kept: statistics, vectors, caches of the allocator.
    const std::size_t settled = allocated.at(1);
    const std::size_t last = allocated.back();
    const std::uint64_t visits = (phaseCount - 2) * rounds * churnerCount;
    if (last > settled + allowedGrowthBytes(visits))
        fail(QStringLiteral("%1 bytes became %2 in %3 visits").arg(settled).arg(last).arg(visits));
    return lxstress::verdict(QStringLiteral("%1 plugins came and went while %2 records were put")
                                 .arg(rounds * phaseCount * churnerCount)
                                 .arg(CountedMessage::made() + CountedEvent::made()));
}
