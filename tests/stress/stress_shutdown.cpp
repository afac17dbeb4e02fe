// Shutdown under load: processes end, and a library with the bus in it is unloaded, with producers
// that have just stopped or are still putting, lists full, handlers slow, plugins registered or
// not. Each has to end in time, normally and without a word but the warning that names the plugins
// which were still registered.
#include "BusLoad.h"

#include <lxtest/TestMain.h>

#include <QCoreApplication>
#include <QLibrary>
#include <QtTest>

using namespace lxstress;
using lxtest::ChildScenario;

namespace {

// Reachable to the end of the process and beyond the statics of the bus, as the bus needs them.
void* volatile keptForEver = nullptr;

void loadWithPluginsThatStay()
{
    keptForEver = new SlowPlugins(loadBus(lxtest::idlePolicy()));
}

// The bus stops the plugins.
const ChildScenario exitWithPlugins("exitWithPlugins", [] {
    loadWithPluginsThatStay();
    return 0;
});

// Orderly, but with everything full.
const ChildScenario exitWithoutPlugins("exitWithoutPlugins", [] {
    for (const auto& plugin : loadBus(lxtest::idlePolicy()))
        plugin->leave();
    lxtest::runDeferredDeletes();
    return 0;
});

// Threads that the host forgot go on putting while the bus is destroyed, and after.
const ChildScenario exitUnderFire("exitUnderFire", [] {
    loadWithPluginsThatStay();
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            for (;;)
                putOnEveryPath(100);
        }).detach();
    }
    return 0;
});

// The bus is destroyed on a plugin's own thread, while the main thread waits in vain.
const ChildScenario exitInAHandler("exitInAHandler", [] {
    loadWithPluginsThatStay();
    exitInHandler = true;
    lxtest::Latch().wait();
    return 1;
});

const ChildScenario unloadLibrary("unloadLibrary", [] {
    std::thread([] {}).join(); // a sanitizer has started its own thread by now
    const int threadsBefore = threadCount();
    QLibrary library(QCoreApplication::applicationDirPath() + "/libunload_host.so");
    const auto loadTheBus = reinterpret_cast<LoadTheBus>(library.resolve("loadTheBus"));
    if (!loadTheBus)
        qFatal("%s", qPrintable(library.errorString()));
    keptForEver = loadTheBus(lxtest::idlePolicy());
    if (!library.unload() || isMapped(library.fileName()))
        qFatal("the library is still there after its unloading");
    QLoggingCategory::setFilterRules(QString()); // looks at every category there is
    lxtest::runDeferredDeletes();                // finds no object of the library left to delete
    // A thread that has been waited for may still be on its way out of the framework.
    waitFor("the threads of the library to end", [&] { return threadCount() == threadsBefore; });
    return 0;
});

} // namespace

class ShutdownTest : public QObject
{
    Q_OBJECT

private slots:
    void aBusWithMuchToDoEndsCleanly_data()
    {
        QTest::addColumn<int>("stillRegistered");
        QTest::newRow("exitWithPlugins") << slowPluginCount;
        QTest::newRow("exitWithoutPlugins") << 0;
        QTest::newRow("exitUnderFire") << slowPluginCount;
        QTest::newRow("exitInAHandler") << slowPluginCount;
        QTest::newRow("unloadLibrary") << slowPluginCount - 1;
    }
    void aBusWithMuchToDoEndsCleanly()
    {
        QFETCH(int, stillRegistered);
        const lxtest::ChildResult child = lxtest::runChild(QTest::currentDataTag());
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
        QStringList log = child.log;
        // a put on the network paths may find them gone
        log.removeAll("warning lxbase: net recv list is NULL,maybe no init netmodule");
        log.removeAll("warning lxbase: m_quotation_list is NULL,maybe no init netmodule");
        QStringList ids;
        for (int i = 0; i < stillRegistered; ++i)
            ids << '"' + slowId(i) + '"';
        QStringList expected;
        if (!ids.isEmpty()) {
            expected << "warning lxbase: plugins still registered at the end, stopped: ("
                    + ids.join(", ") + ')';
        }
        QCOMPARE(log, expected);
    }
};

LXTEST_MAIN(ShutdownTest)
#include "stress_shutdown.moc"
