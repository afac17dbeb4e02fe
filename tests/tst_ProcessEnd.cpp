// The end of the center: each test runs a process of its own to its end and reads what it left.
#include <lxtest/Counted.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>

#include <QLoggingCategory>
#include <QtTest>

#include <atomic>
#include <cstdio>
#include <thread>

using namespace lxtest;

namespace {

constexpr auto M = IMessageInterface::MessageThread;
constexpr auto Q = IMessageInterface::QuotationThread;
constexpr auto E = IMessageInterface::EventThread;

std::atomic<int> handlersRunning{0};

CMessageCenter& center()
{
    return *CMessageCenter::GetInstance();
}

CMessageCommon* message(const QString& dst, const QVariant& type)
{
    auto* const msg = new CountedMessage(QStringLiteral("origin"), dst, type, QVariant(1));
    msg->SetSendToNetFlag(true);
    return msg;
}

// The center is made before main. What is made before the center is destroyed after it, the last
// one first.
#define BEFORE_THE_CENTER(order) __attribute__((init_priority(order)))

// Writes what is left when everything else is gone.
class Ledger
{
public:
    void arm() { m_armed = true; }
    ~Ledger()
    {
        if (m_armed) {
            std::fprintf(stderr, "records alive: %d, handlers running: %d\n",
                         CountedMessage::alive() + CountedEvent::alive(), handlersRunning.load());
        }
    }

private:
    bool m_armed = false;
};
Ledger ledger BEFORE_THE_CENTER(101);
const char balanced[] = "records alive: 0, handlers running: 0";

// Calls everything there is once the center is gone.
class LateCaller
{
public:
    void arm() { m_armed = true; }
    ~LateCaller()
    {
        if (!m_armed)
            return;
        center().setIdlePolicy(CMessageCenter::IdlePolicy::Park);
        center().Start();
        center().Reg("late", nullptr, M | Q | E);
        center().Sub("late", 1, 1);
        center().SubEvent("late", 1, 1);
        center().setRelation("late", "late", 1, RELATION_RED, 1);
        center().printRelationMap();
        for (const QString& dst : {QString(), QStringLiteral("late")}) {
            center().Put("late", message(dst, 1));
            center().PutEvent("late", new CountedEvent("late", dst, 1, 1));
            center().PutNetMsg("late", message(dst, 1));
            center().PutQuotationMsg("late", message(dst, 1));
            center().ProcessMsgByNetPut(QSharedPointer<CMessageCommon>(message(dst, 1)));
            center().ProcessQuotationMsg(QSharedPointer<CMessageCommon>(message(dst, 1)));
        }
        center().regNetMsgQueue(nullptr);
        center().regQuotationQueue(nullptr);
        center().UnReg("late");
    }

private:
    bool m_armed = false;
};
LateCaller lateCaller BEFORE_THE_CENTER(102);

CMessageCenter::MessageQueue netQueue BEFORE_THE_CENTER(103);
CMessageCenter::MessageQueue quotationQueue BEFORE_THE_CENTER(104);

// Never destroyed: they stay registered until the center is gone.
Plugin* makePluginThatStays(const QString& id)
{
    auto* const plugin = new Plugin(id, M | Q | E);
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
    ledger.arm();
    center().Start();
    center().regNetMsgQueue(&netQueue);
    center().regQuotationQueue(&quotationQueue);
    plugins[0] = makePluginThatStays("staysB");
    plugins[1] = makePluginThatStays("staysA");
    for (int i = 0; i < 5000; ++i) {
        center().PutNetMsg("", message({}, 1));
        center().PutQuotationMsg("", message({}, 1));
        center().Put("", message({}, 1));
    }
    center().PutNetMsg("", nullptr);
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    for (int i = 0; i < 5000; ++i)
        center().PutEvent("", new CountedEvent("", "", 1, 1));
    return 0;
});

const ChildScenario endQuietly("endQuietly", [] {
    ledger.arm();
    center().Start();
    // a thread without an event loop: its workers wait for the center to delete them
    std::thread([] { const Plugin plugin(M | Q | E); }).join();
    const Plugin plugin(M | Q | E);
    return 0;
});

const ChildScenario callAfterTheEnd("callAfterTheEnd", [] {
    ledger.arm();
    lateCaller.arm();
    return 0;
});

// A handler goes on putting until it is told that the path is gone: the center waits for it.
std::atomic<bool> turnedAway{false};
QtMessageHandler nextHandler = nullptr;

const ChildScenario putUntilTurnedAway("putUntilTurnedAway", [] {
    ledger.arm();
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
            center().PutNetMsg("", message({}, 2));
            QThread::usleep(100);
        }
        --handlersRunning;
    });
    center().Put("", message("stays", 2));
    entered.wait();
    return 0;
});

// The host forgets threads that go on putting, and handlers that put as well.
const ChildScenario putWhileEnding("putWhileEnding", [] {
    QLoggingCategory::setFilterRules("lxbase.debug=false\nlxbase.warning=false");
    center().Start();
    plugins[0] = makePluginThatStays("stays");
    plugins[0]->onCall([](const Call&) {
        center().Put("", message("stays", 1));
        center().PutEvent("", new CountedEvent("", "stays", 1, 1));
    });
    static std::atomic<int> rounds{0};
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            for (;;) {
                center().Put("", message("stays", 1));
                center().PutEvent("", new CountedEvent("", "stays", 1, 1));
                center().PutNetMsg("", message("stays", 1));
                center().PutQuotationMsg("", message("stays", 1));
                center().Sub("forgotten", 2, 1);
                center().UnReg("forgotten");
                QThread::usleep(10); // the backlog is not what this is about
                ++rounds;
            }
        }).detach();
    }
    return waitUntil([] { return rounds > 100; }) ? 0 : 1;
});

QStringList withoutDebug(const QStringList& log)
{
    QStringList result;
    for (const QString& line : log) {
        if (!line.startsWith(QStringLiteral("debug ")))
            result << line;
    }
    return result;
}

} // namespace

class ProcessEndTest : public QObject
{
    Q_OBJECT

private slots:
    void aProcessEndsCleanly_data()
    {
        QTest::addColumn<QByteArray>("scenario");
        QTest::addColumn<QStringList>("log");
        QTest::newRow("lists full, plugins registered")
            << QByteArray("endWithTraffic")
            << QStringList({"warning lxbase: plugins still registered at the end, stopped: "
                            "(\"staysA\", \"staysB\")",
                            balanced});
        QTest::newRow("everybody has left") << QByteArray("endQuietly") << QStringList(balanced);
        QTest::newRow("calls after the end")
            << QByteArray("callAfterTheEnd") << QStringList(balanced);
        QTest::newRow("a put that comes too late")
            << QByteArray("putUntilTurnedAway")
            << QStringList({"warning lxbase: net recv list is NULL,maybe no init netmodule",
                            "warning lxbase: plugins still registered at the end, stopped: "
                            "(\"stays\")",
                            balanced});
        QTest::newRow("puts on all sides meanwhile")
            << QByteArray("putWhileEnding") << QStringList();
    }
    void aProcessEndsCleanly()
    {
        QFETCH(QByteArray, scenario);
        QFETCH(QStringList, log);
        const ChildResult child = runChild(scenario);
        QVERIFY2(child.exitedNormally, qPrintable(child.log.join('\n')));
        QCOMPARE(child.exitCode, 0);
        QStringList records = withoutDebug(child.log);
        records.sort(); // two threads may have written them
        log.sort();
        QCOMPARE(records, log);
    }
};

LXTEST_MAIN(ProcessEndTest)
#include "tst_ProcessEnd.moc"
