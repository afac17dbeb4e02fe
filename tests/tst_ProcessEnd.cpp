// The end of the center: each test runs a process of its own to its end and reads what it left.
#include <lxtest/BusTest.h>

#include <QLoggingCategory>

#include <atomic>
#include <cstdio>
#include <thread>

using namespace lxtest;

namespace {

std::atomic<int> handlersRunning{0};

CountedMessage* toNet(const QString& dst, const QVariant& type = 1)
{
    CountedMessage* const msg = message(dst, type, 1);
    msg->SetSendToNetFlag(true);
    return msg;
}

// The center is made before main. What is made before the center is destroyed after it, the last
// one first.
#define BEFORE_THE_CENTER(order) __attribute__((init_priority(order)))

// Writes what is left when everything else is gone.
struct Ledger
{
    ~Ledger()
    {
        if (armed) {
            std::fprintf(stderr, "records alive: %d, handlers running: %d\n",
                         CountedMessage::alive() + CountedEvent::alive(), handlersRunning.load());
        }
    }

    bool armed = false;
};
Ledger ledger BEFORE_THE_CENTER(101);
const char balanced[] = "records alive: 0, handlers running: 0";

// Calls everything there is once the center is gone.
struct LateCaller
{
    ~LateCaller()
    {
        if (!armed)
            return;
        center().setIdlePolicy(CMessageCenter::IdlePolicy::Park);
        center().Start();
        center().Reg("late", nullptr, All);
        center().Sub("late", 1, 1);
        center().SubEvent("late", 1, 1);
        center().setRelation("late", "late", 1, RELATION_RED, 1);
        center().printRelationMap();
        for (const QString& dst : {QString(), QStringLiteral("late")}) {
            center().Put("late", toNet(dst));
            center().PutEvent("late", makeEvent(dst, 1, 1));
            center().PutNetMsg("late", toNet(dst));
            center().PutQuotationMsg("late", toNet(dst));
            center().ProcessMsgByNetPut(Reference(toNet(dst)));
            center().ProcessQuotationMsg(Reference(toNet(dst)));
        }
        center().regNetMsgQueue(nullptr);
        center().regQuotationQueue(nullptr);
        center().UnReg("late");
    }

    bool armed = false;
};
LateCaller lateCaller BEFORE_THE_CENTER(102);

CMessageCenter::MessageQueue netQueue BEFORE_THE_CENTER(103);
CMessageCenter::MessageQueue quotationQueue BEFORE_THE_CENTER(104);

// Never destroyed: they stay registered until the center is gone.
Plugin* makePluginThatStays(const QString& id)
{
    auto* const plugin = new Plugin(id, All);
    plugin->onCall([](const Call&) {
        ++handlersRunning;
        QThread::usleep(100);
        --handlersRunning;
    });
    plugin->subscribe(1);
    plugin->subscribeEvent(1);
    return plugin;
}

Plugin* plugins[2];

const ChildScenario endWithTraffic("endWithTraffic", [] {
    ledger.armed = true;
    center().Start();
    center().regNetMsgQueue(&netQueue);
    center().regQuotationQueue(&quotationQueue);
    plugins[0] = makePluginThatStays("staysB");
    plugins[1] = makePluginThatStays("staysA");
    for (int i = 0; i < 5000; ++i) {
        center().PutNetMsg("", toNet({}));
        center().PutQuotationMsg("", toNet({}));
        center().Put("", toNet({}));
    }
    center().PutNetMsg("", nullptr);
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    for (int i = 0; i < 5000; ++i)
        center().PutEvent("", makeEvent("", 1, 1));
    return 0;
});

const ChildScenario endQuietly("endQuietly", [] {
    ledger.armed = true;
    center().Start();
    // a thread without an event loop: its workers wait for the center to delete them
    std::thread([] { const Plugin plugin(All); }).join();
    const Plugin plugin(All);
    return 0;
});

const ChildScenario callAfterTheEnd("callAfterTheEnd", [] {
    ledger.armed = true;
    lateCaller.armed = true;
    return 0;
});

// The workers of `second` belong to a worker of the first, which the center deletes before them.
const ChildScenario registeredByAHandler("registeredByAHandler", [] {
    ledger.armed = true;
    plugins[0] = makePluginThatStays("first");
    static Latch registered;
    plugins[0]->onCall([](const Call&) {
        plugins[1] = makePluginThatStays("second");
        registered.signal();
    });
    center().Put("", toNet("first"));
    registered.wait();
    return 0;
});

// A handler goes on putting until it is told that the path is gone: the center waits for it.
std::atomic<bool> turnedAway{false};
QtMessageHandler nextHandler = nullptr;

const ChildScenario putUntilTurnedAway("putUntilTurnedAway", [] {
    ledger.armed = true;
    nextHandler = qInstallMessageHandler(
        [](QtMsgType level, const QMessageLogContext& context, const QString& text) {
            nextHandler(level, context, text);
            if (text.startsWith(QStringLiteral("net recv list is NULL")))
                turnedAway = true;
        });
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    center().Start();
    plugins[0] = makePluginThatStays("stays");
    static Latch entered;
    plugins[0]->onCall([](const Call&) {
        ++handlersRunning;
        entered.signal();
        while (!turnedAway) {
            center().PutNetMsg("", toNet({}, 2));
            QThread::usleep(100);
        }
        center().Put("", toNet("nobody")); // turned away too: not even reported
        --handlersRunning;
    });
    center().Put("", toNet("stays", 2));
    entered.wait();
    return 0;
});

// The host forgets threads that go on putting, and handlers that put as well.
const ChildScenario putWhileEnding("putWhileEnding", [] {
    QLoggingCategory::setFilterRules("lxbase.debug=false\nlxbase.warning=false");
    center().Start();
    plugins[0] = makePluginThatStays("stays");
    plugins[0]->onCall([](const Call&) {
        center().Put("", toNet("stays"));
        center().PutEvent("", makeEvent("stays", 1, 1));
    });
    static std::atomic<int> rounds{0};
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            for (;;) {
                center().Put("", toNet("stays"));
                center().PutEvent("", makeEvent("stays", 1, 1));
                center().PutNetMsg("", toNet("stays"));
                center().PutQuotationMsg("", toNet("stays"));
                center().Sub("forgotten", 2, 1);
                center().UnReg("forgotten");
                QThread::usleep(10); // the backlog is not what this is about
                ++rounds;
            }
        }).detach();
    }
    return waitUntil([] { return rounds > 100; }) ? 0 : 1;
});

} // namespace

class ProcessEndTest : public QObject
{
    Q_OBJECT

private slots:
    void aProcessEndsCleanly_data()
    {
        QTest::addColumn<QByteArray>("scenario");
        QTest::addColumn<QStringList>("log");
        const auto row = [](const char* name, const char* scenario, const QStringList& log) {
            QTest::newRow(name) << QByteArray(scenario) << log;
        };
        const QString stopped = "warning lxbase: plugins still registered at the end, stopped: ";
        row("lists full, plugins registered", "endWithTraffic",
            {stopped + "(\"staysA\", \"staysB\")", balanced});
        row("everybody has left", "endQuietly", {balanced});
        row("a plugin registered by a handler", "registeredByAHandler",
            {stopped + "(\"first\", \"second\")", balanced});
        row("calls after the end", "callAfterTheEnd", {balanced});
        row("a put that comes too late", "putUntilTurnedAway",
            {"warning lxbase: net recv list is NULL,maybe no init netmodule",
             stopped + "(\"stays\")", balanced});
        row("puts on all sides meanwhile", "putWhileEnding", {});
    }
    void aProcessEndsCleanly()
    {
        QFETCH(QByteArray, scenario);
        QFETCH(QStringList, log);
        const ChildResult child = runChild(scenario);
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
        QStringList records;
        for (const QString& line : child.log) {
            if (!line.startsWith("debug "))
                records << line;
        }
        records.sort(); // two threads may have written them
        log.sort();
        QCOMPARE(records, log);
    }
};

LXTEST_MAIN(ProcessEndTest)
#include "tst_ProcessEnd.moc"
