// Churn: plugins are loaded, register, subscribe, receive, unregister and are unloaded, code and
// all, over and over and from several threads, while others put to them on every path. No handler
// runs after UnReg, the bus holds nothing of an unloaded library, and threads and memory are
// afterwards what they were before.
#include "ChurnPlugin.h"
#include "Stress.h"

#include <lxtest/TestMain.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QPluginLoader>

#include <mutex>

#include <malloc.h>

namespace {

using namespace lxstress;
using lxtest::CountedPayload;

constexpr int churnerCount = 2; // each with a library of its own
constexpr int putterCount = 2;
constexpr int inFlightLimit = 100;
constexpr int rounds = 50; // of each churner in a phase
constexpr int phaseCount = 6;

// What the batch statistics and the allocator may take in all but the first two phases; a
// registration that leaves anything behind takes more.
constexpr std::size_t allowedGrowthBytes = 16384 + 40 * (phaseCount - 2) * rounds * churnerCount;

// Stays while the others come and go.
class Home final : public lxtest::Handler
{
    void handle(const lxtest::Call&) override { }
};

void visitOnce(int churner)
{
    QPluginLoader loader(QString("%1/libchurn_plugin_%2.so")
                             .arg(QCoreApplication::applicationDirPath())
                             .arg(churner));
    loader.setLoadHints({}); // by default unload() would leave the code where it is
    // The dynamic linker does one thing at a time, which a sanitizer does not see; it would take
    // one library for racing with another that had its addresses before.
    static std::mutex linkerMutex;
    std::unique_lock<std::mutex> linkerLock(linkerMutex);
    auto* const visitor = qobject_cast<ChurnVisitor*>(loader.instance());
    linkerLock.unlock();
    if (!visitor)
        qFatal("%s", qPrintable(loader.errorString()));
    visitor->enter();
    waitFor("a loaded plugin to receive everything",
            [&] { return visitor->received == (lxtest::All | ChurnVisitor::RelatedEvents); });
    visitor->leave();
    linkerLock.lock();
    if (!loader.unload() || isMapped(loader.fileName()))
        qFatal("%s is still there", qPrintable(loader.fileName()));
    linkerLock.unlock();
    lxtest::runDeferredDeletes(); // the workers outlive the library
}

void putUntil(const std::atomic<bool>& stop)
{
    const QString destinations[] = {"churn#0", "churn#1", QString()};
    for (int i = 0; !stop; ++i) {
        while (CountedPayload::alive() > inFlightLimit && !stop)
            std::this_thread::yield();
        const auto path = Path(i % PathCount);
        const auto payload = QVariant::fromValue(CountedPayload());
        put(path, "churn.putter", destinations[i / PathCount % 3], CHURN_TYPE, payload);
        if (path == Event)
            put(Event, CHURN_HOME, QString(), churnRelatedType, payload);
    }
}

// Some rounds of all churners under load; returns the bytes that the process has allocated once
// everything is quiet again (0: not known, a sanitizer's allocator).
std::size_t churn(int threadsAtRest)
{
    std::atomic<bool> stop{false};
    auto putters = lxtest::onThreads(putterCount, [&](int) { putUntil(stop); });
    lxtest::onThreads(churnerCount, [](int churner) {
        for (int round = 0; round < rounds; ++round)
            visitOnce(churner);
    }).clear();
    stop = true;
    putters.clear();
    waitForRecords();
    // A thread that has been waited for may still be on its way out.
    waitFor("the threads of the phase to go", [&] { return threadCount() == threadsAtRest; });
    return mallinfo2().uordblks;
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules("lxbase.debug=false\nlxbase.warning=false");
    // The framework keeps this once it is known, but must not learn it from two threads at once.
    QCoreApplication::applicationDirPath();
    lxtest::center().setIdlePolicy(lxtest::idlePolicy());
    lxtest::center().Start();
    Home home;
    CRegManager::Reg(CHURN_HOME, &home, lxtest::M);
    const int threadsAtRest = threadCount();
    std::size_t allocated[phaseCount];
    for (std::size_t& bytes : allocated)
        bytes = churn(threadsAtRest);
    CRegManager::UnReg(CHURN_HOME);
    // The first phase fills what is kept: statistics, vectors, caches of the allocator.
    std::printf("%zu bytes became %zu\n", allocated[1], allocated[phaseCount - 1]);
    return allocated[phaseCount - 1] > allocated[1] + allowedGrowthBytes;
}
