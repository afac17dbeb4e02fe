// Shutdown under load: processes end with producers that have just stopped or are still putting,
// lists full, handlers slow, plugins registered. Each has to end in time, normally and without a
// word but the warning that names the plugins which were still registered.
#include "Stress.h"

#include <lxtest/TestMain.h>

#include <QLoggingCategory>
#include <QtTest>

#include <cstdlib>
#include <memory>
#include <thread>

using namespace lxstress;
using lxtest::ChildScenario;

namespace {

// Whether the next handler ends the process.
std::atomic<bool> exitInHandler{false};

constexpr int slowPluginCount = 5;
using SlowPlugins = std::vector<std::unique_ptr<lxtest::Plugin>>;

void putOnEveryPath(int count)
{
    for (int i = 0; i < count * PathCount; ++i)
        put(Path(i % PathCount), "producer", QString(), 1, i);
}

// Returns when the producers have just stopped: plugins registered and in the middle of receiving,
// inboxes and lists full. The plugins are "slow0", "slow1", ...
SlowPlugins loadBus()
{
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    lxtest::center().Start();
    SlowPlugins plugins;
    for (int i = 0; i < slowPluginCount; ++i) {
        const QString id = QString("slow%1").arg(i);
        plugins.push_back(std::make_unique<lxtest::Plugin>(id, lxtest::All));
        plugins.back()->onCall([id](const lxtest::Call& call) {
            if (exitInHandler.exchange(false))
                std::exit(0);
            QThread::msleep(2); // slow against the putting
            if (call.kind == lxtest::M)
                put(Direct, id, QString(), 1, call.data); // never ends by itself
        });
        plugins.back()->subscribe(1);
        plugins.back()->subscribeEvent(1);
    }
    lxtest::onThreads(3, [](int) { putOnEveryPath(5000); }).clear();
    for (const auto& plugin : plugins)
        waitFor("a plugin to receive", [&] { return plugin->count() > 0; });
    return plugins;
}

// Reachable to the end of the process and beyond the statics of the bus, as the bus needs them.
SlowPlugins* volatile keptForEver = nullptr;

void loadWithPluginsThatStay()
{
    keptForEver = new SlowPlugins(loadBus());
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

} // namespace

class ShutdownTest : public QObject
{
    Q_OBJECT

private slots:
    void aBusWithMuchToDoEndsCleanly()
    {
        const QString expected = "warning lxbase: plugins still registered at the end, stopped: "
                                 "(\"slow0\", \"slow1\", \"slow2\", \"slow3\", \"slow4\")";
        for (const char* scenario : {"exitUnderFire", "exitInAHandler"}) {
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
