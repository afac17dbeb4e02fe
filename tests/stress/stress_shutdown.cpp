// Shutdown under load: processes end, and a library with the bus in it is unloaded, with producers
// that have just stopped or are still putting, lists full, handlers slow, plugins registered or
// not. Each has to end in time, normally and without a word but the warning that names the plugins
// which were still registered.
#include "BusLoad.h"

#include <lxtest/TestMain.h>

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

// The bus stops the plugins. Threads that the host forgot go on putting meanwhile, and after.
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
    void aBusWithMuchToDoEndsCleanly()
    {
        const QString stopped = "warning lxbase: plugins still registered at the end, stopped: "
                                "(\"slow0\", \"slow1\", \"slow2\", \"slow3\"";
        const std::pair<const char*, QString> cases[] = {
            {"exitUnderFire", stopped + ", \"slow4\")"},
            {"exitInAHandler", stopped + ", \"slow4\")"},
            {"unloadLibrary", stopped + ')'},
        };
        for (const auto& [scenario, expected] : cases) {
            lxtest::ChildResult child = lxtest::runChild(scenario);
            QVERIFY2(child.succeeded, scenario + ('\n' + child.log.join('\n').toLocal8Bit()));
            // a put on the network paths may find them gone
            child.log.removeAll("warning lxbase: net recv list is NULL,maybe no init netmodule");
            child.log.removeAll("warning lxbase: m_quotation_list is NULL,maybe no init netmodule");
            QCOMPARE(child.log.join('\n'), expected);
        }
    }
};

LXTEST_MAIN(ShutdownTest)
#include "stress_shutdown.moc"
