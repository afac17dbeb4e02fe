// The network paths: the two puts, the outside queues, the dispatch threads and their routing.
#include <lxtest/BusTest.h>

#include <lxbase/DispatchThread.h>
#include <lxdefine/PluginID.h>

#include <atomic>
#include <functional>
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
    void (CMessageCenter::*route)(Reference msg);
    Kind kind; // of the receivers
    const char* threadName;
    const char* notStarted;
    const char* unknownDestination;
    bool reportsUnknownType;
    std::unique_ptr<CDispatchThread> (*makeThread)();
};

} // namespace

Q_DECLARE_METATYPE(const Path*)

namespace {

const Path net{&CMessageCenter::PutNetMsg,
               &CMessageCenter::regNetMsgQueue,
               &CMessageCenter::ProcessMsgByNetPut,
               M,
               "ProcessSendListThread_Thread",
               "warning: net recv list is NULL,maybe no init netmodule",
               " failed!! because not find ",
               true,
               [] { return std::unique_ptr<CDispatchThread>(new CProcessMsgByNetPutThread); }};

const Path quotation{&CMessageCenter::PutQuotationMsg,
                     &CMessageCenter::regQuotationQueue,
                     &CMessageCenter::ProcessQuotationMsg,
                     Q,
                     "ProcessQuotationThread_Thread",
                     "warning: m_quotation_list is NULL,maybe no init netmodule",
                     " failed!! because not find,maybe dstId not register",
                     false,
                     [] { return std::unique_ptr<CDispatchThread>(new CProcessQuotationThread); }};

// The path of the present run.
const Path& path()
{
    QFETCH_GLOBAL(const Path*, path);
    return *path;
}

Kind otherKind()
{
    return path().kind == M ? Q : M;
}

void put(CMessageCommon* msg, const QString& srcId = QStringLiteral("unused"))
{
    (center().*path().put)(srcId, msg);
}

void registerQueue(MessageQueue* queue)
{
    (center().*path().registerQueue)(queue);
}

// Does something where and when it is deleted.
class MessageWithEnd : public CountedMessage
{
public:
    MessageWithEnd(const QString& dst, const QVariant& data, std::function<void()> end)
        : CountedMessage(QStringLiteral("origin"), dst, QVariant(1), data)
        , m_end(std::move(end))
    { }
    ~MessageWithEnd() override { m_end(); }

private:
    const std::function<void()> m_end;
};

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
    void beforeStartOnlyTheQueueIsFedAndAWarningWritten()
    {
        Plugin plugin(M | Q);
        m_log->clear();
        put(message(plugin.id(), 1));
        QCOMPARE(CountedMessage::alive(), 0);
        put(nullptr);
        MessageQueue queue;
        registerQueue(&queue);
        put(message(plugin.id(), 1, "queued"));
        registerQueue(nullptr);
        const QString warning = path().notStarted;
        QCOMPARE(m_log->lines(), QStringList({warning, warning, warning}));
        Reference msg;
        QVERIFY(queue.try_pop(msg));
        QCOMPARE(msg->GetMsg(), QVariant("queued"));
        QVERIFY(queue.empty());
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 0);
    }

    void putsThatRaceWithStartAreDeliveredOrWarnedAbout()
    {
        for (int i = 0; i < 20; ++i) {
            const ChildResult child = runChild("putsRaceWithStart");
            QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
        }
    }

    // ---- routing

    void aMessageReachesItsDestinationWithTheNetPluginAsSender()
    {
        center().Start();
        const int type = uniqueType();
        Plugin plugin(All);
        Plugin subscriber(M | Q);
        subscriber.subscribe(type);
        CountedMessage* const msg = message(plugin.id(), type, "payload");
        msg->SetSendToNetFlag(true); // not looked at on these paths
        put(msg, "sender");
        QVERIFY(plugin.waitForCalls(1));
        QVERIFY(subscriber.settle());
        const Call call = plugin.calls().first();
        QCOMPARE(call.kind, path().kind);
        QCOMPARE(call.srcId, PluginID::PLUGINNET_GLOBALID);
        QCOMPARE(call.type, QVariant(type));
        QCOMPARE(call.data, QVariant("payload"));
        QCOMPARE(subscriber.count(), 0);
    }

    void aMessageReachesEverySubscriberItsSourceIncluded()
    {
        center().Start();
        const int type = uniqueType();
        Plugin source("origin", path().kind);
        Plugin netPlugin(PluginID::PLUGINNET_GLOBALID, path().kind);
        Plugin twice(All);
        Plugin withoutInbox(otherKind() | E);
        for (Plugin* plugin : {&source, &netPlugin, &twice, &withoutInbox, &twice})
            plugin->subscribe(type);
        center().Sub("nobody", type, 1);
        m_log->clear();
        put(message({}, type, 1), "origin");
        QVERIFY(twice.waitForCalls(2));
        LX_WAIT_FOR(CountedMessage::alive() == 0); // routed to all
        for (Plugin* plugin : {&source, &netPlugin, &twice, &withoutInbox})
            QVERIFY(plugin->settle());
        QCOMPARE(source.count(), 1);
        QCOMPARE(netPlugin.count(), 1);
        QCOMPARE(twice.count(), 2);
        QCOMPARE(withoutInbox.count(), 0);
        QCOMPARE(m_log->lines(), QStringList());
    }

    void whatFindsNoReceiverIsReportedAsItsPathDoes()
    {
        const int type = uniqueType();
        const int emptied = uniqueType();
        Plugin withoutInbox(otherKind());
        Plugin onlyEvents(E);
        withoutInbox.subscribe(emptied);
        withoutInbox.subscribe(emptied, 2);
        m_log->clear();
        const auto route = [&](CMessageCommon* msg) { (center().*path().route)(Reference(msg)); };
        route(nullptr);
        route(message({}, emptied));
        route(message(withoutInbox.id(), type));
        QCOMPARE(m_log->lines(), QStringList());

        route(message({}, type));
        const QString unknownType = QStringLiteral("debug: CMessageCenter::ProcessMsgByNetPut "
                                                   "MsgType:  QVariant(int, %1)  has not sub")
                                        .arg(type);
        QCOMPARE(m_log->lines(),
                 path().reportsUnknownType ? QStringList(unknownType) : QStringList());

        for (const QString& dst : {QStringLiteral("nobody"), onlyEvents.id()}) {
            m_log->clear();
            route(message(dst, type));
            QCOMPARE(m_log->lines(),
                     QStringList("warning: \"origin\"  Put msg to  \"" + dst + "\" "
                                 + path().unknownDestination + " \"" + dst + "\""));
        }
        QCOMPARE(CountedMessage::alive(), 0);
        QVERIFY(withoutInbox.settle());
        QCOMPARE(withoutInbox.count(), 0);
    }

    void aBurstArrivesInOrderAtEveryReceiver()
    {
        center().Start();
        const int type = uniqueType();
        Plugin a(path().kind);
        Plugin b(path().kind);
        a.subscribe(type);
        b.subscribe(type);
        QVariantList expected;
        for (int i = 0; i < 3000; ++i) {
            expected << i;
            put(message({}, type, i));
            if (i == 1000)
                QCOMPARE(center().Start(), 0); // changes nothing
        }
        QVERIFY(a.waitForCalls(3000));
        QVERIFY(b.waitForCalls(3000));
        QCOMPARE(a.payloads(), expected);
        QCOMPARE(b.payloads(), expected);
        QCOMPARE(m_log->lines("warning"), QStringList());
    }

    // ---- the queue and the list

    void theQueueAndTheListAreTwoConsumersOfOneMessage()
    {
        center().Start();
        Plugin plugin(path().kind);
        MessageQueue first;
        MessageQueue second;
        m_log->clear();
        registerQueue(&first);
        put(message(plugin.id(), 1, 1));
        registerQueue(&second); // replaces the first
        put(message(plugin.id(), 1, 2));
        put(nullptr); // passes through and holds nothing up
        registerQueue(nullptr);
        put(message(plugin.id(), 1, 3));
        QVERIFY(plugin.waitForCalls(3));
        LX_WAIT_FOR(CountedMessage::alive() == 2); // the dispatch thread has let go of all three

        Reference msg;
        QVERIFY(first.try_pop(msg));
        QCOMPARE(msg->GetMsg(), QVariant(1));
        QVERIFY(second.try_pop(msg)); // lets go of the first message
        QCOMPARE(msg->GetMsg(), QVariant(2));
        QCOMPARE(CountedMessage::alive(), 1);
        QVERIFY(second.try_pop(msg));
        QVERIFY(msg.isNull());
        QCOMPARE(CountedMessage::alive(), 0);
        QVERIFY(first.empty());
        QVERIFY(second.empty());
        QCOMPARE(plugin.payloads(), QVariantList({1, 2, 3}));
        QCOMPARE(m_log->lines(), QStringList());
    }

    // The put and the dispatch thread both hold a reference for a moment: either may be the last.
    void theLastHolderDeletesTheMessage()
    {
        center().Start();
        const QString thisThread = QThread::currentThread()->objectName();
        QString thread = thisThread;
        LX_WAIT_FOR(([&] {
            Latch deleted;
            put(new MessageWithEnd("", 1, [&] {
                thread = QThread::currentThread()->objectName();
                deleted.signal();
            }));
            deleted.wait();
            return thread != thisThread;
        }()));
        QCOMPARE(thread, QString(path().threadName));
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
        list << Reference(new MessageWithEnd(plugin.id(), 3, [&] {
            thread->setStop(true);
            const QMutexLocker locker(&mutex);
            list << queued(6); // put while the backlog is being routed
        }));
        list << queued(4) << queued(5);
        thread->setList(&list);
        thread->setMutex(&mutex);
        thread->setList(nullptr); // ignored, these three
        thread->setMutex(nullptr);
        thread->setParking(nullptr);
        thread->start();
        QVERIFY(thread->wait(deadlineMs));
        QVariantList rest;
        for (const Reference& msg : qAsConst(list))
            rest << msg->GetMsg();
        QCOMPARE(rest, QVariantList({4, 5, 6}));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.payloads(), QVariantList({1, 2, 3}));
    }

    void aThreadThatLacksSomethingOrIsStoppedTakesNothing_data()
    {
        QTest::addColumn<bool>("hasList");
        QTest::addColumn<bool>("hasMutex");
        QTest::newRow("nothing") << false << false;
        QTest::newRow("list only") << true << false;
        QTest::newRow("mutex only") << false << true;
        QTest::newRow("both, but stopped before") << true << true;
    }
    void aThreadThatLacksSomethingOrIsStoppedTakesNothing()
    {
        QFETCH(bool, hasList);
        QFETCH(bool, hasMutex);
        QMutex mutex;
        MessageList list{Reference(message("nobody", 1))};
        const std::unique_ptr<CDispatchThread> thread = path().makeThread();
        thread->setList(hasList ? &list : nullptr);
        thread->setMutex(hasMutex ? &mutex : nullptr);
        thread->setStop(hasList && hasMutex);
        thread->start();
        QThread::msleep(5); // room for many passes
        if (!hasList || !hasMutex)
            QVERIFY(thread->isRunning());
        thread->setStop(true);
        QVERIFY(thread->wait(deadlineMs));
        QCOMPARE(list.size(), 1);
        QCOMPARE(m_log->lines(), QStringList());
    }
};

LXTEST_MAIN(DispatchThreadTest)
#include "tst_DispatchThread.moc"
