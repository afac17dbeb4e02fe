// The network paths: the two puts, the outside queues, the dispatch threads and their routing.
#include <lxtest/BusTest.h>

#include <lxbase/DispatchThread.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace lxtest;

namespace {

using MessageList = CMessageCenter::MessageList;
using MessageQueue = CMessageCenter::MessageQueue;

// Everything in which the two paths differ.
struct Path
{
    void (CMessageCenter::*put)(QString srcId, CMessageCommon* msg);
    void (CMessageCenter::*registerQueue)(MessageQueue* queue);
    Kind kind; // of the receivers
    const char* threadName;
    std::unique_ptr<CDispatchThread> (*makeThread)();
};

} // namespace

Q_DECLARE_METATYPE(const Path*)

namespace {

const Path net{&CMessageCenter::PutNetMsg, &CMessageCenter::regNetMsgQueue, M,
               "ProcessSendListThread_Thread",
               [] { return std::unique_ptr<CDispatchThread>(new CProcessMsgByNetPutThread); }};

const Path quotation{&CMessageCenter::PutQuotationMsg, &CMessageCenter::regQuotationQueue, Q,
                     "ProcessQuotationThread_Thread",
                     [] { return std::unique_ptr<CDispatchThread>(new CProcessQuotationThread); }};

// The path of the present run.
const Path& path()
{
    QFETCH_GLOBAL(const Path*, path);
    return *path;
}

void put(CMessageCommon* msg)
{
    (center().*path().put)("unused", msg);
}

void registerQueue(MessageQueue* queue)
{
    (center().*path().registerQueue)(queue);
}

// Puts that race with Start: each is either warned about or delivered, and none is lost.
const ChildScenario putsRaceWithStart("putsRaceWithStart", [] {
    LogCapture log;
    Plugin plugin(M | Q);
    constexpr int PutsPerThread = 2000;
    std::atomic<int> puts{0};
    std::vector<std::thread> producers;
    for (const Path* path : {&net, &quotation, &net, &quotation}) {
        producers.emplace_back([&, path] {
            for (int i = 0; i < PutsPerThread; ++i, ++puts)
                (center().*path->put)("unused", message(plugin.id(), 1, i));
        });
    }
    while (puts < PutsPerThread) // Start comes in the middle
        std::this_thread::yield();
    center().Start();
    for (std::thread& producer : producers)
        producer.join();
    const int warned = log.lines("warning").size();
    const int all = PutsPerThread * int(producers.size());
    const bool complete = waitUntil([&] { return plugin.count() + warned == all; });
    const bool freed = waitUntil([] { return CountedMessage::alive() == 0; });
    return complete && freed ? 0 : 1;
});

} // namespace

// Every test runs once for each path.
class DispatchThreadTest : public BusTest
{
    Q_OBJECT

private slots:
    void initTestCase_data()
    {
        QTest::addColumn<const Path*>("path");
        QTest::newRow("net") << &net;
        QTest::newRow("quotation") << &quotation;
    }

    // Before anything calls Start in this process: this test is the first.
    void beforeStartOnlyTheQueueIsFed()
    {
        Plugin plugin(M | Q);
        MessageQueue queue;
        registerQueue(&queue);
        put(message(plugin.id(), 1, "queued"));
        registerQueue(nullptr);
        put(message(plugin.id(), 1));
        Reference msg;
        QVERIFY(queue.try_pop(msg));
        QCOMPARE(msg->GetMsg(), QVariant("queued"));
        QVERIFY(queue.empty());
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 0);
        QCOMPARE(CountedMessage::alive(), 1);
        QCOMPARE(m_log->lines("warning").size(), 2);
    }

    void putsThatRaceWithStartAreDeliveredOrWarnedAbout()
    {
        for (int i = 0; i < 20; ++i) {
            const ChildResult child = runChild("putsRaceWithStart");
            QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
        }
    }

    void eachPathHasOneThreadThatRoutesInOrder()
    {
        center().Start();
        Plugin plugin(path().kind);
        QVariantList expected;
        for (int i = 0; i < 3000; ++i) {
            expected << i;
            put(message(plugin.id(), 1, i));
            if (i == 1000)
                QCOMPARE(center().Start(), 0); // changes nothing
        }
        QVERIFY(plugin.waitForCalls(3000));
        QCOMPARE(plugin.payloads(), expected);
        QCOMPARE(m_log->lines("warning"), QStringList());
        put(message("nobody", 1));
        LX_WAIT_FOR(m_log->lines("warning").size() == 1);
        QCOMPARE(m_log->records().last().thread, QString(path().threadName));
    }

    void theQueueAndTheListAreTwoConsumersOfOneMessage()
    {
        center().Start();
        Plugin plugin(path().kind);
        MessageQueue first;
        MessageQueue second;
        registerQueue(&first);
        put(message(plugin.id(), 1, 1));
        registerQueue(&second); // replaces the first
        put(message(plugin.id(), 1, 2));
        put(nullptr); // passes through and holds nothing up
        registerQueue(nullptr);
        put(message(plugin.id(), 1, 3));
        QVERIFY(plugin.waitForCalls(3));
        QCOMPARE(plugin.payloads(), QVariantList({1, 2, 3}));
        LX_WAIT_FOR(CountedMessage::alive() == 2); // the dispatch thread has let go of all three

        Reference msg;
        QVERIFY(first.try_pop(msg));
        QCOMPARE(msg->GetMsg(), QVariant(1));
        QVERIFY(second.try_pop(msg)); // lets go of the first message
        QCOMPARE(msg->GetMsg(), QVariant(2));
        QCOMPARE(CountedMessage::alive(), 1);
        QVERIFY(second.try_pop(msg));
        QVERIFY(msg.isNull());
        QVERIFY(first.empty());
        QVERIFY(second.empty());
    }

    // ---- a dispatch thread of our own, with a list of our own

    void aStopInTheMiddleLeavesTheRestInTheListInOrder()
    {
        Plugin plugin(path().kind);
        QMutex mutex;
        MessageList list;
        const std::unique_ptr<CDispatchThread> thread = path().makeThread();
        const auto queued = [&](int number) { return Reference(message(plugin.id(), 1, number)); };
        list << queued(1) << Reference() << queued(2);
        list << Reference(message(plugin.id(), 1, 3), [&](CMessageCommon* routed) {
            delete routed;
            thread->setStop(true);
            const QMutexLocker locker(&mutex);
            list << queued(6); // put while the backlog is being routed
        });
        list << queued(4) << queued(5);
        thread->setList(&list);
        thread->setMutex(&mutex);
        thread->setList(nullptr); // ignored, these three
        thread->setMutex(nullptr);
        thread->setState(nullptr);
        thread->start();
        QVERIFY(thread->wait(deadlineMs));
        QVariantList rest;
        for (const Reference& msg : qAsConst(list))
            rest << msg->GetMsg();
        QCOMPARE(rest, QVariantList({4, 5, 6}));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.payloads(), QVariantList({1, 2, 3}));
    }

    void aThreadThatLacksSomethingTakesNothingAndStops()
    {
        QMutex mutex;
        MessageList list{Reference(message("nobody", 1))};
        for (const bool hasList : {false, true}) {
            const std::unique_ptr<CDispatchThread> thread = path().makeThread();
            thread->setList(hasList ? &list : nullptr);
            thread->setMutex(hasList ? nullptr : &mutex);
            thread->start();
            QThread::msleep(5); // room for many passes
            QVERIFY(thread->isRunning());
            thread->setStop(true);
            QVERIFY(thread->wait(deadlineMs));
        }
        QCOMPARE(list.size(), 1);
    }
};

LXTEST_MAIN(DispatchThreadTest)
#include "tst_DispatchThread.moc"
