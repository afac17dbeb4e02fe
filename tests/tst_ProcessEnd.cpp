// The end of the center: each test runs a process of its own to its end and reads what it left.
#include <lxtest/BusTest.h>

#include <QLoggingCategory>

#include <atomic>
#include <cstdio>
#include <thread>

using namespace lxtest;

namespace {

bool isChild = false;
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
        if (isChild) {
            std::fprintf(stderr, "records alive: %d, handlers running: %d\n",
                         CountedMessage::alive() + CountedEvent::alive(), handlersRunning.load());
        }
    }
};
Ledger ledger BEFORE_THE_CENTER(101);
const char balanced[] = "records alive: 0, handlers running: 0";

// Calls everything there is once the center is gone.
struct LateCaller
{
    ~LateCaller()
    {
        if (!isChild)
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
};
LateCaller lateCaller BEFORE_THE_CENTER(102);

CMessageCenter::MessageQueue netQueue BEFORE_THE_CENTER(103);
CMessageCenter::MessageQueue quotationQueue BEFORE_THE_CENTER(104);

// Never destroyed: they stay registered until the center is gone.
Plugin* plugins[2];

const ChildScenario endWithTraffic("endWithTraffic", [] {
    isChild = true;
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    center().Start();
    center().regNetMsgQueue(&netQueue);
    center().regQuotationQueue(&quotationQueue);
    int number = 0;
    for (Plugin*& plugin : plugins) {
        plugin = new Plugin("stays" + QString::number(++number), All);
        plugin->onCall([](const Call&) {
            ++handlersRunning;
            QThread::usleep(100);
            --handlersRunning;
        });
        plugin->subscribe(1);
        plugin->subscribeEvent(1);
    }
    for (int i = 0; i < 5000; ++i) {
        center().PutNetMsg("", toNet({}));
        center().PutQuotationMsg("", toNet({}));
        center().Put("", toNet({}));
        center().PutEvent("", makeEvent("", 1, 1));
    }
    center().PutNetMsg("", nullptr);
    return 0;
});

// The workers of `second` belong to a worker of the first, which the center deletes before them.
const ChildScenario registeredByAHandler("registeredByAHandler", [] {
    isChild = true;
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    plugins[0] = new Plugin("first", All);
    static Latch registered;
    plugins[0]->onCall([](const Call&) {
        plugins[1] = new Plugin("second", All);
        registered.signal();
    });
    deliverTo("first", M, 1);
    registered.wait();
    return 0;
});

// A handler goes on putting until it is told that the path is gone: the center waits for it.
std::atomic<bool> turnedAway{false};
QtMessageHandler nextHandler = nullptr;

const ChildScenario putUntilTurnedAway("putUntilTurnedAway", [] {
    isChild = true;
    nextHandler = qInstallMessageHandler(
        [](QtMsgType level, const QMessageLogContext& context, const QString& text) {
            nextHandler(level, context, text);
            if (text.startsWith(QStringLiteral("net recv list is NULL")))
                turnedAway = true;
        });
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    center().Start();
    plugins[0] = new Plugin("stays", M);
    static Latch entered;
    plugins[0]->onCall([](const Call&) {
        ++handlersRunning;
        entered.signal();
        while (!turnedAway) {
            center().PutNetMsg("", toNet({}));
            QThread::usleep(100);
        }
        center().Put("", toNet("nobody")); // turned away too: not even reported
        --handlersRunning;
    });
    deliverTo("stays", M, 1);
    entered.wait();
    return 0;
});

// A call is inside the center when its end comes: the end waits for it.
const ChildScenario callInProgress("callInProgress", [] {
    isChild = true;
    static Latch entered;
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {
        ++handlersRunning;
        entered.signal();
        QThread::msleep(50); // room for an end that does not wait
        --handlersRunning;
    });
    std::thread([] { center().UnReg("nobody"); }).detach();
    entered.wait();
    return 0;
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
        const QString stopped = "warning lxbase: plugins still registered at the end, stopped: ";
        QTest::newRow("lists full, plugins registered")
            << QByteArray("endWithTraffic")
            << QStringList{stopped + "(\"stays1\", \"stays2\")", balanced};
        QTest::newRow("a plugin registered by a handler")
            << QByteArray("registeredByAHandler")
            << QStringList{stopped + "(\"first\", \"second\")", balanced};
        QTest::newRow("a call in progress")
            << QByteArray("callInProgress") << QStringList{balanced};
        QTest::newRow("a put that comes too late")
            << QByteArray("putUntilTurnedAway")
            << QStringList{"warning lxbase: net recv list is NULL,maybe no init netmodule",
                           stopped + "(\"stays\")", balanced};
    }
    void aProcessEndsCleanly()
    {
        QFETCH(QByteArray, scenario);
        QFETCH(QStringList, log);
        ChildResult child = runChild(scenario);
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
        child.log.sort(); // two threads may have written it
        log.sort();
        QCOMPARE(child.log, log);
    }
};

LXTEST_MAIN(ProcessEndTest)
#include "tst_ProcessEnd.moc"
