// The three per-plugin workers, driven directly: a worker with an inbox of its own, no center.
#include <lxtest/BusTest.h>
#include <lxtest/TestClock.h>

#include <lxbase/EventWorkerThread.h>
#include <lxbase/MessageWorkerThread.h>
#include <lxbase/Parking.h>
#include <lxbase/QuotationWorkerThread.h>

#include <atomic>
#include <memory>

using namespace lxtest;

namespace {

QVariant counted(int value = 0)
{
    return QVariant::fromValue(CountedPayload(value));
}

MsgQueueItem* makeItem(const QVariant& data, MsgQueueItem*)
{
    return new MsgQueueItem{QStringLiteral("sender"), 7, QStringLiteral("trace"), data};
}

EventQueueItem* makeItem(const QVariant& data, EventQueueItem*)
{
    return new EventQueueItem{QStringLiteral("sender"), 7, data};
}

// A worker with its inbox and a plugin that records; everything ends with the rig.
class Rig
{
public:
    virtual ~Rig() = default;

    virtual CInboxWorkerBase& worker() = 0;
    // Queues one item per element, in one go; an invalid variant stands for a null item pointer.
    virtual void queue(const QVariantList& items) = 0;
    virtual int queued() = 0;
    virtual void setNullList() = 0;

    void start() { worker().start(QThread::InheritPriority); }

    // False: the loop has not ended in time.
    bool stop()
    {
        worker().setStop(true);
        return join();
    }
    bool join() { return worker().wait(deadlineMs); }

    Recorder plugin;
};

template<class Worker, class Item>
class RigOf : public Rig
{
public:
    explicit RigOf(bool withMutex)
        : m_with_mutex(withMutex)
    {
        m_worker.setObjectName(QStringLiteral("theWorker"));
        m_worker.setInterface(&plugin);
        m_worker.setList(m_list);
        m_worker.setMutex(withMutex ? m_mutex : nullptr);
        m_worker.setParking(m_parking);
    }
    ~RigOf() override
    {
        if (!stop())
            qFatal("a worker did not stop in time");
        if (!m_with_mutex)
            delete m_mutex;
    }

    CInboxWorkerBase& worker() override { return m_worker; }

    void queue(const QVariantList& items) override
    {
        m_mutex->lock();
        for (const QVariant& data : items)
            m_list->append(data.isValid() ? makeItem(data, static_cast<Item*>(nullptr)) : nullptr);
        m_mutex->unlock();
        wake(*m_mutex, m_parking);
    }

    int queued() override
    {
        const QMutexLocker locker(m_mutex);
        return m_list->size();
    }

    void setNullList() override { m_worker.setList(nullptr); }

private:
    const bool m_with_mutex;

    // given to the worker
    QVector<Item*>* const m_list = new QVector<Item*>;
    QMutex* const m_mutex = new QMutex;
    CParking* const m_parking =
        idlePolicy() == CMessageCenter::IdlePolicy::Park ? new CParking : nullptr;

    Worker m_worker;
};

Kind kind()
{
    QFETCH_GLOBAL(Kind, kind);
    return kind;
}

// A rig of the kind of the present run.
std::unique_ptr<Rig> makeRig(bool withMutex = true)
{
    if (kind() == M)
        return std::make_unique<RigOf<CMessageWorkerThread, MsgQueueItem>>(withMutex);
    if (kind() == Q)
        return std::make_unique<RigOf<CQuotationWorkerThread, MsgQueueItem>>(withMutex);
    return std::make_unique<RigOf<CEventWorkerThread, EventQueueItem>>(withMutex);
}

} // namespace

// Every test runs once for each kind of worker.
class InboxWorkerTest : public BusTest
{
    Q_OBJECT

private slots:
    void initTestCase_data()
    {
        QTest::addColumn<Kind>("kind");
        QTest::newRow("message") << M;
        QTest::newRow("quotation") << Q;
        QTest::newRow("event") << E;
    }

    void itemsReachTheHandlerOfTheirKindInOrderOnTheWorkersThread()
    {
        const auto rig = makeRig();
        rig->worker().setInterface(nullptr); // ignored, these four
        rig->worker().setMutex(nullptr);
        rig->worker().setParking(nullptr);
        rig->setNullList();
        rig->queue({QVariant(), 1, 2, QVariant(), 3, QVariant()}); // null items are passed over
        rig->start();
        QVERIFY(rig->plugin.waitForCalls(3));
        rig->queue({4});
        QVERIFY(rig->plugin.waitForCalls(4));
        QVERIFY(rig->stop());
        QCOMPARE(rig->plugin.payloads(), QVariantList({1, 2, 3, 4}));
        for (const Call& call : rig->plugin.calls()) {
            QCOMPARE(call.kind, kind());
            QCOMPARE(call.srcId, QStringLiteral("sender"));
            QCOMPARE(call.type, QVariant(7));
            QCOMPARE(call.thread, QStringLiteral("theWorker"));
        }
    }

    // The handlers of four batches, none with an empty look before it, walk through two intervals.
    void aRecordFollowsTheBatchThatEndsTheInterval_data()
    {
        QTest::addColumn<quint32>("startMs");
        for (const quint32 start : {0u, 0xffffffffu - 1000u, 0xffffffffu - 300000u})
            QTest::addRow("from %u", start) << start;
    }
    void aRecordFollowsTheBatchThatEndsTheInterval()
    {
        QFETCH(quint32, startMs);
        setTickCountMs(startMs);
        const quint32 intervalMs = kind() == Q ? 60000 : 300000;
        const auto rig = makeRig();
        QVector<int> recordsSeen;
        rig->plugin.onCall([&](const Call& call) {
            switch (call.data.toInt()) {
            case 3: // the last of the first batch: one millisecond too early
                advanceTickCountMs(intervalMs - 1);
                rig->queue({4});
                break;
            case 4: // the second batch
                recordsSeen << m_log->records().size();
                advanceTickCountMs(1);
                rig->queue({5, 6});
                break;
            case 6: // the last of the third batch
                recordsSeen << m_log->records().size();
                advanceTickCountMs(intervalMs);
                rig->queue({7});
                break;
            case 7: // the fourth batch
                recordsSeen << m_log->records().size();
                break;
            }
        });
        rig->queue({1, 2, 3});
        rig->start();
        QVERIFY(rig->plugin.waitForCalls(7));
        QVERIFY(rig->stop());

        QCOMPARE(rig->plugin.payloads(), QVariantList({1, 2, 3, 4, 5, 6, 7}));
        QCOMPARE(recordsSeen, QVector<int>({0, 1, 2}));
        const QString name = kind() == M ? "MessageWorkerThread"
            : kind() == Q                ? "QuotationWorkerThread"
                                         : "EventWorkerThread";
        const QString text = "debug: C" + name + "::run QMap(";
        QCOMPARE(m_log->lines(),
                 QStringList({text + "(1, 1)(3, 1))",
                              text + (kind() == Q ? "(2, 1))" : "(1, 1)(2, 1)(3, 1))")}));
        for (const LogRecord& record : m_log->records()) {
            QCOMPARE(record.file, "shell/lxbase/" + name + ".cpp");
            QVERIFY(record.line > 0);
            QVERIFY2(record.function.contains("C" + name + "::run"), qPrintable(record.function));
        }
    }

    void anIdleWorkerCountsItsLooksButWritesNoRecord()
    {
        const auto rig = makeRig();
        int recordsWhileIdle = 0;
        rig->plugin.onCall([&](const Call& call) {
            if (call.data == 1)
                advanceTickCountMs(300000);
            else
                recordsWhileIdle = m_log->records().size() - 1;
        });
        rig->queue({1});
        rig->start();
        LX_WAIT_FOR(m_log->records().size() == 1); // the first batch and its record are done
        for (int i = 0; i < 50; ++i) {             // room for many looks, each at a later time
            QThread::msleep(1);
            advanceTickCountMs(300000);
        }
        rig->queue({2});
        LX_WAIT_FOR(m_log->records().size() == 2);
        QCOMPARE(recordsWhileIdle, 0);
        LX_WAIT_FOR((rig->queue({1}), m_log->lines().last().contains("::run QMap((0, ")));
    }

    // A stop that comes between a worker's look at its flag and its wait finds nobody to wake.
    void aWorkerThatIsToStopDoesNotBeginToWait()
    {
        QMutex mutex;
        CParking parking;
        const std::atomic<bool> stop{true};
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            ListPace pace;
            for (int look = 0; look < 100; ++look) { // more than it makes before it waits
                mutex.lock();
                idle(mutex, &parking, stop, pace);
            }
        }));
        thread->start();
        const bool ended = thread->wait(deadlineMs);
        while (!thread->wait(1))
            wake(mutex, &parking);
        QVERIFY(ended);
    }

    void aStopLetsTheHandlerInProgressEndAndFreesTheRestOfTheBatch()
    {
        const auto rig = makeRig();
        rig->plugin.onCall([&](const Call& call) {
            if (call.data.value<CountedPayload>().value == 2) {
                rig->worker().setStop(true);
                rig->queue({counted(6)}); // in the inbox, not the batch
            }
        });
        rig->queue({counted(1), counted(2), counted(3), counted(4), counted(5)});
        rig->start();
        QVERIFY(rig->join());
        QCOMPARE(rig->plugin.count(), 2);
        QCOMPARE(CountedPayload::alive(), 3); // the recorded ones, and the one in the inbox
        rig->worker().freeInbox();
        QCOMPARE(CountedPayload::alive(), 2);
    }

    void aWorkerStoppedBeforeItStartsLeavesItsInboxToItsEnd()
    {
        {
            const auto rig = makeRig();
            rig->queue({counted(), QVariant()});
            rig->worker().setStop(true);
            rig->start();
            QVERIFY(rig->join());
            QCOMPARE(rig->plugin.count(), 0);
            QCOMPARE(rig->queued(), 2);
        }
        QCOMPARE(CountedPayload::alive(), 0);
    }

    void withoutAMutexAWorkerTouchesNothingAndStops()
    {
        const auto rig = makeRig(false);
        rig->queue({1});
        rig->start();
        QVERIFY(rig->stop());
        QCOMPARE(rig->queued(), 1);
        QCOMPARE(rig->plugin.count(), 0);
    }
};

LXTEST_MAIN(InboxWorkerTest)
#include "tst_InboxWorker.moc"
