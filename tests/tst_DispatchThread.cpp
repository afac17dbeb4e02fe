// The network paths: the two puts, the outside queues, and the dispatch threads.
#include <lxtest/BusTest.h>

#include <lxbase/DispatchThread.h>

#include <thread>

using namespace lxtest;

namespace {

using MessageQueue = CMessageCenter::MessageQueue;

// Everything in which the two paths differ.
const struct Path
{
    void (CMessageCenter::*put)(QString srcId, CMessageCommon* msg);
    void (CMessageCenter::*registerQueue)(MessageQueue* queue);
    Kind kind; // of the receivers
} paths[] = {{&CMessageCenter::PutNetMsg, &CMessageCenter::regNetMsgQueue, M},
             {&CMessageCenter::PutQuotationMsg, &CMessageCenter::regQuotationQueue, Q}};

// Puts that race with Start: each is either warned about or delivered, and none is lost.
const ChildScenario putsRaceWithStart("putsRaceWithStart", [] {
    LogCapture log;
    Plugin plugin(M | Q);
    constexpr int PutsPerThread = 2000;
    std::atomic<int> puts{0};
    auto producers = onThreads(4, [&](int number) {
        for (int i = 0; i < PutsPerThread; ++i, ++puts)
            (center().*paths[number % 2].put)("unused", message(plugin.id(), 1, i));
    });
    while (puts < PutsPerThread) // Start comes in the middle
        std::this_thread::yield();
    center().Start();
    producers.clear();
    const int delivered = 4 * PutsPerThread - log.lines("warning").size();
    const bool complete = waitUntil([&] { return plugin.count() == delivered; });
    const bool freed = waitUntil([] { return CountedMessage::alive() == 0; });
    return complete && freed ? 0 : 1;
});

} // namespace

class DispatchThreadTest : public BusTest
{
    Q_OBJECT

private slots:
    void putsThatRaceWithStartAreDeliveredOrWarnedAbout()
    {
        for (int i = 0; i < 20; ++i) {
            const ChildResult child = runChild("putsRaceWithStart");
            QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
        }
    }

    // Before Start, which nothing else in this process calls, there are no lists.
    void theQueueAndTheListAreTwoConsumersOfOneMessage()
    {
        for (const QVariantList& expected : {QVariantList(), QVariantList({0, 1, 2})}) {
            for (const Path& path : paths) {
                Plugin plugin(path.kind);
                MessageQueue queues[2];
                for (int number = 0; number < 2; ++number) { // the second queue replaces the first
                    (center().*path.registerQueue)(&queues[number]);
                    (center().*path.put)("unused", message(plugin.id(), 1, number));
                }
                (center().*path.put)("unused", nullptr); // passes through and holds nothing up
                (center().*path.registerQueue)(nullptr);
                (center().*path.put)("unused", message(plugin.id(), 1, 2));
                QVERIFY(plugin.waitForCalls(expected.size()) && plugin.settle());
                QCOMPARE(plugin.payloads(), expected);

                LX_WAIT_FOR(CountedMessage::alive() == 2); // those in the queues
                Reference msg;
                for (int number = 0; number < 2; ++number) {
                    QVERIFY(queues[number].try_pop(msg));
                    QCOMPARE(msg->GetMsg(), QVariant(number));
                }
                QVERIFY(queues[1].try_pop(msg) && !msg && queues[0].empty() && queues[1].empty());
            }
            center().Start(); // the second time it changes nothing
        }
    }

    void aStopInTheMiddleLeavesTheRestInTheListInOrder()
    {
        Plugin plugin(M);
        QMutex mutex;
        CMessageCenter::MessageList list;
        CProcessMsgByNetPutThread thread;
        const auto queued = [&](int number) { return Reference(message(plugin.id(), 1, number)); };
        list << queued(1) << Reference() << queued(2);
        list << Reference(message(plugin.id(), 1, 3), [&](CMessageCommon* routed) {
            delete routed;
            thread.setStop(true);
            const QMutexLocker locker(&mutex);
            list << queued(6); // put while the backlog is being routed
        });
        list << queued(4) << queued(5);
        thread.setList(&list);
        thread.setMutex(&mutex);
        thread.start();
        QVERIFY(thread.wait(deadlineMs) && plugin.settle());
        QVariantList rest;
        for (const Reference& msg : qAsConst(list))
            rest << msg->GetMsg();
        QCOMPARE(rest, QVariantList({4, 5, 6}));
        QCOMPARE(plugin.payloads(), QVariantList({1, 2, 3}));
    }
};

LXTEST_MAIN(DispatchThreadTest)
#include "tst_DispatchThread.moc"
