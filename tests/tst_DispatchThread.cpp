// The network paths: the two puts, the outside queues, the dispatch threads and their routing.
#include <lxtest/Counted.h>
#include <lxtest/LogCapture.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/DispatchThread.h>
#include <lxbase/MessageCenter.h>
#include <lxdefine/PluginID.h>

#include <QtTest>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

using namespace lxtest;

namespace {

constexpr auto M = IMessageInterface::MessageThread;
constexpr auto Q = IMessageInterface::QuotationThread;
constexpr auto E = IMessageInterface::EventThread;

using Reference = QSharedPointer<CMessageCommon>;
using MessageList = CMessageCenter::MessageList;
using MessageQueue = CMessageCenter::MessageQueue;

// The two paths side by side: everything in which they differ.
struct Path
{
    void (CMessageCenter::*put)(QString srcId, CMessageCommon* msg);
    void (CMessageCenter::*registerQueue)(MessageQueue* queue);
    void (CMessageCenter::*route)(Reference msg);
    IMessageInterface::ThreadType flag; // of the receivers
    IMessageInterface::ThreadType otherFlag;
    const char* threadName;
    const char* notStarted;
    const char* unknownDestination;
    bool reportsUnknownType;
    std::unique_ptr<CDispatchThread> (*makeThread)();
};

const Path net{&CMessageCenter::PutNetMsg,
               &CMessageCenter::regNetMsgQueue,
               &CMessageCenter::ProcessMsgByNetPut,
               M,
               Q,
               "ProcessSendListThread_Thread",
               "warning: net recv list is NULL,maybe no init netmodule",
               " failed!! because not find ",
               true,
               [] { return std::unique_ptr<CDispatchThread>(new CProcessMsgByNetPutThread); }};

const Path quotation{&CMessageCenter::PutQuotationMsg,
                     &CMessageCenter::regQuotationQueue,
                     &CMessageCenter::ProcessQuotationMsg,
                     Q,
                     M,
                     "ProcessQuotationThread_Thread",
                     "warning: m_quotation_list is NULL,maybe no init netmodule",
                     " failed!! because not find,maybe dstId not register",
                     false,
                     [] { return std::unique_ptr<CDispatchThread>(new CProcessQuotationThread); }};

void addPaths()
{
    QTest::addColumn<const Path*>("path");
    QTest::newRow("net") << &net;
    QTest::newRow("quotation") << &quotation;
}

CMessageCenter& center()
{
    return *CMessageCenter::GetInstance();
}

void put(const Path& path, CMessageCommon* msg, const QString& srcId = QStringLiteral("unused"))
{
    (center().*path.put)(srcId, msg);
}

CountedMessage* message(const QString& dst, const QVariant& type, const QVariant& data = {})
{
    return new CountedMessage(QStringLiteral("origin"), dst, type, data);
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
    std::atomic<bool> go{false};
    std::vector<std::thread> producers;
    for (const Path* path : {&net, &quotation, &net, &quotation}) {
        producers.emplace_back([&, path] {
            while (!go) { }
            for (int i = 0; i < PutsPerThread; ++i)
                put(*path, message(plugin.id(), 1, i));
        });
    }
    go = true;
    center().Start();
    for (std::thread& producer : producers)
        producer.join();
    const int warned = log.texts(QtWarningMsg).size();
    const int all = PutsPerThread * int(producers.size());
    const bool complete = waitUntil([&] { return plugin.count() + warned == all; });
    const bool freed = waitUntil([] { return CountedMessage::alive() == 0; });
    return complete && freed ? 0 : 1;
});

} // namespace

Q_DECLARE_METATYPE(const Path*)

class DispatchThreadTest : public QObject
{
    Q_OBJECT

private:
    std::optional<LogCapture> m_log;

private slots:
    void init() { m_log.emplace(); }
    void cleanup()
    {
        m_log.reset();
        runDeferredDeletes();
        LX_WAIT_FOR(CountedMessage::alive() == 0); // the dispatch threads have let go
    }

    // Before anything calls Start in this process: this test is the first.
    void beforeStartOnlyTheQueueIsFedAndAWarningWritten_data() { addPaths(); }
    void beforeStartOnlyTheQueueIsFedAndAWarningWritten()
    {
        QFETCH(const Path*, path);
        Plugin plugin(M | Q);
        m_log->clear();
        put(*path, message(plugin.id(), 1));
        QCOMPARE(CountedMessage::alive(), 0);
        put(*path, nullptr);
        QCOMPARE(m_log->lines(), QStringList({path->notStarted, path->notStarted}));

        MessageQueue queue;
        (center().*path->registerQueue)(&queue);
        put(*path, message(plugin.id(), 1, "queued"));
        (center().*path->registerQueue)(nullptr);
        QCOMPARE(m_log->lines().size(), 3);
        QCOMPARE(m_log->lines().last(), QString(path->notStarted));
        Reference msg;
        QVERIFY(queue.try_pop(msg));
        QCOMPARE(msg->GetMsg(), QVariant("queued"));
        QVERIFY(queue.empty());
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 0);
    }

    void putsThatRaceWithStartAreDeliveredOrWarnedAbout()
    {
        for (int i = 0; i < 5; ++i) {
            const ChildResult child = runChild("putsRaceWithStart");
            QVERIFY2(child.exitedNormally, qPrintable(child.log.join('\n')));
            QCOMPARE(child.exitCode, 0);
        }
    }

    void aSecondStartChangesNothing_data() { addPaths(); }
    void aSecondStartChangesNothing()
    {
        QFETCH(const Path*, path);
        QCOMPARE(center().Start(), 0);
        Plugin plugin(path->flag);
        put(*path, message(plugin.id(), 1, 1));
        QCOMPARE(center().Start(), 0);
        put(*path, message(plugin.id(), 1, 2));
        QVERIFY(plugin.waitForCalls(2));
        QCOMPARE(plugin.payloads(), QVariantList({1, 2}));
        QCOMPARE(m_log->texts(QtWarningMsg), QStringList());
    }

    // ---- routing

    void aMessageReachesItsDestinationWithTheNetPluginAsSender_data() { addPaths(); }
    void aMessageReachesItsDestinationWithTheNetPluginAsSender()
    {
        QFETCH(const Path*, path);
        center().Start();
        const int type = uniqueType();
        Plugin plugin(M | Q | E);
        Plugin subscriber(M | Q);
        subscriber.subscribe(type);
        CountedMessage* const msg = message(plugin.id(), type, "payload");
        msg->SetSendToNetFlag(true); // not looked at on these paths
        put(*path, msg, "sender");
        QVERIFY(plugin.waitForCalls(1));
        QVERIFY(subscriber.settle());
        const Call call = plugin.calls().first();
        QCOMPARE(call.handler, path->flag == M ? Handler::Message : Handler::Quotation);
        QCOMPARE(call.srcId, PluginID::PLUGINNET_GLOBALID);
        QCOMPARE(call.type, QVariant(type));
        QCOMPARE(call.data, QVariant("payload"));
        QCOMPARE(call.thread,
                 plugin.id()
                     + (path->flag == M ? "_MessageWorkerThread" : "_QuotationWorkerThread"));
        QCOMPARE(subscriber.count(), 0);
    }

    void aMessageReachesEverySubscriberItsSourceIncluded_data() { addPaths(); }
    void aMessageReachesEverySubscriberItsSourceIncluded()
    {
        QFETCH(const Path*, path);
        center().Start();
        const int type = uniqueType();
        Plugin source("origin", path->flag);
        Plugin netPlugin(PluginID::PLUGINNET_GLOBALID, path->flag);
        Plugin twice(M | Q | E);
        Plugin withoutInbox(path->otherFlag | E);
        for (Plugin* plugin : {&source, &netPlugin, &twice, &withoutInbox, &twice})
            plugin->subscribe(type);
        center().Sub("nobody", type, 1);
        m_log->clear();
        put(*path, message({}, type, 1), "origin");
        QVERIFY(source.waitForCalls(1));
        QVERIFY(netPlugin.waitForCalls(1));
        QVERIFY(twice.waitForCalls(2));
        LX_WAIT_FOR(CountedMessage::alive() == 0); // routed to all
        for (Plugin* plugin : {&source, &netPlugin, &twice, &withoutInbox})
            QVERIFY(plugin->settle());
        QCOMPARE(source.count(), 1);
        QCOMPARE(netPlugin.count(), 1);
        QCOMPARE(twice.count(), 2);
        QCOMPARE(withoutInbox.count(), 0);
        QCOMPARE(m_log->lines(), QStringList());
        center().Sub("nobody", type, 2);
    }

    void whatFindsNoReceiverIsReportedAsItsPathDoes_data() { addPaths(); }
    void whatFindsNoReceiverIsReportedAsItsPathDoes()
    {
        QFETCH(const Path*, path);
        const int type = uniqueType();
        const int emptied = uniqueType();
        Plugin withoutInbox(path->otherFlag);
        Plugin onlyEvents(E);
        withoutInbox.subscribe(emptied);
        withoutInbox.subscribe(emptied, 2);
        m_log->clear();
        const auto route = [&](CMessageCommon* msg) { (center().*path->route)(Reference(msg)); };
        route(nullptr);
        route(message({}, emptied));
        route(message(withoutInbox.id(), type));
        QCOMPARE(m_log->lines(), QStringList());

        route(message({}, type));
        const QString unknownType = QStringLiteral("debug: CMessageCenter::ProcessMsgByNetPut "
                                                   "MsgType:  QVariant(int, %1)  has not sub")
                                        .arg(type);
        QCOMPARE(m_log->lines(),
                 path->reportsUnknownType ? QStringList(unknownType) : QStringList());

        for (const QString& dst : {QStringLiteral("nobody"), onlyEvents.id()}) {
            m_log->clear();
            route(message(dst, type));
            QCOMPARE(m_log->lines(),
                     QStringList("warning: \"origin\"  Put msg to  \"" + dst + "\" "
                                 + path->unknownDestination + " \"" + dst + "\""));
        }
        QCOMPARE(CountedMessage::alive(), 0);
        QVERIFY(withoutInbox.settle());
        QCOMPARE(withoutInbox.count(), 0);
    }

    void aBurstArrivesInOrderAtEveryReceiver_data() { addPaths(); }
    void aBurstArrivesInOrderAtEveryReceiver()
    {
        QFETCH(const Path*, path);
        center().Start();
        const int type = uniqueType();
        Plugin a(path->flag);
        Plugin b(path->flag);
        a.subscribe(type);
        b.subscribe(type);
        QVariantList expected;
        for (int i = 0; i < 3000; ++i) {
            expected << i;
            put(*path, message({}, type, i));
        }
        QVERIFY(a.waitForCalls(3000));
        QVERIFY(b.waitForCalls(3000));
        QCOMPARE(a.payloads(), expected);
        QCOMPARE(b.payloads(), expected);
    }

    // ---- the queue and the list

    void theQueueAndTheListAreTwoConsumersOfOneMessage_data() { addPaths(); }
    void theQueueAndTheListAreTwoConsumersOfOneMessage()
    {
        QFETCH(const Path*, path);
        center().Start();
        Plugin plugin(path->flag);
        MessageQueue first;
        MessageQueue second;
        (center().*path->registerQueue)(&first);
        put(*path, message(plugin.id(), 1, 1));
        (center().*path->registerQueue)(&second); // replaces the first
        put(*path, message(plugin.id(), 1, 2));
        (center().*path->registerQueue)(nullptr);
        put(*path, message(plugin.id(), 1, 3));
        QVERIFY(plugin.waitForCalls(3));
        LX_WAIT_FOR(CountedMessage::alive() == 2); // the dispatch thread has let go of all three

        Reference msg;
        QVERIFY(first.try_pop(msg));
        QCOMPARE(msg->GetMsg(), QVariant(1));
        QVERIFY(second.try_pop(msg)); // lets go of the first message
        QCOMPARE(msg->GetMsg(), QVariant(2));
        QCOMPARE(CountedMessage::alive(), 1);
        msg.reset();
        QCOMPARE(CountedMessage::alive(), 0);
        QVERIFY(first.empty());
        QVERIFY(second.empty());
        QCOMPARE(plugin.payloads(), QVariantList({1, 2, 3}));
    }

    // The put and the dispatch thread both hold a reference for a moment: either may be the last.
    void theLastHolderDeletesTheMessage_data() { addPaths(); }
    void theLastHolderDeletesTheMessage()
    {
        QFETCH(const Path*, path);
        center().Start();
        const QString dispatchThread = path->threadName;
        const QString thisThread = QThread::currentThread()->objectName();
        QString thread = thisThread;
        LX_WAIT_FOR(([&] {
            Latch deleted;
            put(*path, new MessageWithEnd("", 1, [&] {
                thread = QThread::currentThread()->objectName();
                deleted.signal();
            }));
            deleted.wait();
            return thread != thisThread;
        }()));
        QCOMPARE(thread, dispatchThread);
    }

    void aNullMessagePassesThroughAndHoldsNothingUp_data() { addPaths(); }
    void aNullMessagePassesThroughAndHoldsNothingUp()
    {
        QFETCH(const Path*, path);
        center().Start();
        Plugin plugin(path->flag);
        MessageQueue queue;
        (center().*path->registerQueue)(&queue);
        m_log->clear();
        put(*path, nullptr);
        put(*path, message(plugin.id(), 1, 1));
        (center().*path->registerQueue)(nullptr);
        QVERIFY(plugin.waitForCalls(1));
        Reference msg;
        QVERIFY(queue.try_pop(msg));
        QVERIFY(msg.isNull());
        QVERIFY(queue.try_pop(msg));
        QVERIFY(queue.empty());
        QCOMPARE(m_log->lines(), QStringList());
    }

    // ---- a dispatch thread of our own, with a list of our own

    void aStopInTheMiddleLeavesTheRestInTheListInOrder_data() { addPaths(); }
    void aStopInTheMiddleLeavesTheRestInTheListInOrder()
    {
        QFETCH(const Path*, path);
        Plugin plugin(path->flag);
        QMutex mutex;
        MessageList list;
        const std::unique_ptr<CDispatchThread> thread = path->makeThread();
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

    void aStopBeforeTheStartTakesNothing_data() { addPaths(); }
    void aStopBeforeTheStartTakesNothing()
    {
        QFETCH(const Path*, path);
        QMutex mutex;
        MessageList list{Reference(message("nobody", 1))};
        const std::unique_ptr<CDispatchThread> thread = path->makeThread();
        thread->setList(&list);
        thread->setMutex(&mutex);
        thread->setStop(true);
        thread->start();
        QVERIFY(thread->wait(deadlineMs));
        QCOMPARE(list.size(), 1);
    }

    void withoutListOrMutexAThreadWaitsForItsStop_data()
    {
        QTest::addColumn<const Path*>("path");
        QTest::addColumn<bool>("hasList");
        QTest::addColumn<bool>("hasMutex");
        for (const Path* path : {&net, &quotation}) {
            QTest::addRow("%s, nothing", path->threadName) << path << false << false;
            QTest::addRow("%s, list only", path->threadName) << path << true << false;
            QTest::addRow("%s, mutex only", path->threadName) << path << false << true;
        }
    }
    void withoutListOrMutexAThreadWaitsForItsStop()
    {
        QFETCH(const Path*, path);
        QFETCH(bool, hasList);
        QFETCH(bool, hasMutex);
        QMutex mutex;
        MessageList list{Reference(message("nobody", 1))};
        const std::unique_ptr<CDispatchThread> thread = path->makeThread();
        thread->setList(hasList ? &list : nullptr);
        thread->setMutex(hasMutex ? &mutex : nullptr);
        thread->start();
        QThread::msleep(5); // room for many passes
        QVERIFY(thread->isRunning());
        thread->setStop(true);
        QVERIFY(thread->wait(deadlineMs));
        QCOMPARE(list.size(), 1);
        QCOMPARE(m_log->lines(), QStringList());
    }

    void aDispatchThreadHasNoMetaObjectOfItsOwn()
    {
        QCOMPARE(net.makeThread()->metaObject(), &QThread::staticMetaObject);
        QCOMPARE(quotation.makeThread()->metaObject(), &QThread::staticMetaObject);
    }
};

LXTEST_MAIN(DispatchThreadTest)
#include "tst_DispatchThread.moc"
