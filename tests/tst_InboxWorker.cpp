// The three per-plugin workers, driven directly: a worker with an inbox of its own, no center.
#include <lxtest/Counted.h>
#include <lxtest/LogCapture.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestClock.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/EventWorkerThread.h>
#include <lxbase/MessageWorkerThread.h>
#include <lxbase/Parking.h>
#include <lxbase/QuotationWorkerThread.h>

#include <QtTest>

#include <memory>

using namespace lxtest;

namespace {

enum class Kind { Message, Quotation, Event };

} // namespace

Q_DECLARE_METATYPE(Kind)

namespace {

// What a rig leaves out.
enum class Missing { Nothing, Plugin, Mutex };

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
    explicit RigOf(Missing missing)
        : m_missing(missing)
    {
        m_worker.setObjectName(QStringLiteral("theWorker"));
        m_worker.setId(QStringLiteral("thePlugin"));
        m_worker.setInterface(missing == Missing::Plugin ? nullptr : &plugin);
        m_worker.setList(m_list);
        m_worker.setMutex(missing == Missing::Mutex ? nullptr : m_mutex);
        m_worker.setParking(m_parking);
    }
    ~RigOf() override
    {
        if (!stop())
            qFatal("a worker did not stop in time");
        if (m_missing == Missing::Mutex)
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
    const Missing m_missing;

    // given to the worker
    QVector<Item*>* const m_list = new QVector<Item*>;
    QMutex* const m_mutex = new QMutex;
    CParking* const m_parking =
        idlePolicy() == CMessageCenter::IdlePolicy::Park ? new CParking : nullptr;

    Worker m_worker;
};

void addKinds()
{
    QTest::addColumn<Kind>("kind");
    QTest::newRow("message") << Kind::Message;
    QTest::newRow("quotation") << Kind::Quotation;
    QTest::newRow("event") << Kind::Event;
}

// A rig of the kind in the test's row.
std::unique_ptr<Rig> makeRig(Missing missing = Missing::Nothing)
{
    QFETCH(Kind, kind);
    switch (kind) {
    case Kind::Message:
        return std::make_unique<RigOf<CMessageWorkerThread, MsgQueueItem>>(missing);
    case Kind::Quotation:
        return std::make_unique<RigOf<CQuotationWorkerThread, MsgQueueItem>>(missing);
    case Kind::Event:
        break;
    }
    return std::make_unique<RigOf<CEventWorkerThread, EventQueueItem>>(missing);
}

} // namespace

class InboxWorkerTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { setTickCountMs(0); }

    void itemsReachTheHandlerOfTheirKindInOrderOnTheWorkersThread_data() { addKinds(); }
    void itemsReachTheHandlerOfTheirKindInOrderOnTheWorkersThread()
    {
        QFETCH(Kind, kind);
        const auto rig = makeRig();
        rig->queue({1, 2, 3});
        rig->start();
        QVERIFY(rig->plugin.waitForCalls(3));
        rig->queue({4});
        QVERIFY(rig->plugin.waitForCalls(4));
        QCOMPARE(rig->plugin.payloads(), QVariantList({1, 2, 3, 4}));
        const Handler expected = kind == Kind::Message ? Handler::Message
            : kind == Kind::Event                      ? Handler::Event
                                                       : Handler::Quotation;
        for (const Call& call : rig->plugin.calls()) {
            QCOMPARE(call.handler, expected);
            QCOMPARE(call.srcId, QStringLiteral("sender"));
            QCOMPARE(call.type, QVariant(7));
            QCOMPARE(call.thread, QStringLiteral("theWorker"));
        }
    }

    // The handlers of four batches, none with an empty look before it, walk through two intervals.
    void aRecordFollowsTheBatchThatEndsTheInterval_data()
    {
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<quint32>("intervalMs");
        QTest::addColumn<quint32>("startMs");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("secondStatistics");
        const QString accumulated = QStringLiteral("QMap((1, 1)(2, 1)(3, 1))");
        const QString anew = QStringLiteral("QMap((2, 1))");
        for (const quint32 start : {0u, 0xffffffffu - 1000u, 0xffffffffu - 300000u}) {
            QTest::addRow("message worker from %u", start)
                << Kind::Message << 300000u << start << "MessageWorkerThread" << accumulated;
            QTest::addRow("quotation worker from %u", start)
                << Kind::Quotation << 60000u << start << "QuotationWorkerThread" << anew;
            QTest::addRow("event worker from %u", start)
                << Kind::Event << 300000u << start << "EventWorkerThread" << accumulated;
        }
    }
    void aRecordFollowsTheBatchThatEndsTheInterval()
    {
        QFETCH(quint32, intervalMs);
        QFETCH(quint32, startMs);
        QFETCH(QString, name);
        QFETCH(QString, secondStatistics);
        setTickCountMs(startMs);
        const LogCapture log;
        const auto rig = makeRig();
        QVector<int> recordsSeen;
        rig->plugin.onCall([&](const Call& call) {
            switch (call.data.toInt()) {
            case 3: // the last of the first batch: one millisecond too early
                advanceTickCountMs(intervalMs - 1);
                rig->queue({4});
                break;
            case 4: // the second batch
                recordsSeen << log.records().size();
                advanceTickCountMs(1);
                rig->queue({5, 6});
                break;
            case 6: // the last of the third batch
                recordsSeen << log.records().size();
                advanceTickCountMs(intervalMs);
                rig->queue({7});
                break;
            case 7: // the fourth batch
                recordsSeen << log.records().size();
                break;
            }
        });
        rig->queue({1, 2, 3});
        rig->start();
        QVERIFY(rig->plugin.waitForCalls(7));
        QVERIFY(rig->stop());

        QCOMPARE(recordsSeen, QVector<int>({0, 1, 2}));
        const QString className = QLatin1Char('C') + name;
        const QVector<LogRecord> records = log.records();
        QCOMPARE(records.size(), 2);
        QCOMPARE(records[0].text, className + QStringLiteral("::run QMap((1, 1)(3, 1))"));
        QCOMPARE(records[1].text, className + QStringLiteral("::run ") + secondStatistics);
        for (const LogRecord& record : records) {
            QCOMPARE(record.level, QtDebugMsg);
            QCOMPARE(record.file, QStringLiteral("shell/lxbase/") + name + QStringLiteral(".cpp"));
            QVERIFY(record.line > 0);
            QVERIFY2(record.function.contains(className + QStringLiteral("::run")),
                     qPrintable(record.function));
        }
    }

    void anIdleWorkerWritesNoRecord_data() { addKinds(); }
    void anIdleWorkerWritesNoRecord()
    {
        const LogCapture log;
        const auto rig = makeRig();
        int recordsWhileIdle = 0;
        rig->plugin.onCall([&](const Call& call) {
            if (call.data == 1)
                advanceTickCountMs(300000);
            else
                recordsWhileIdle = log.records().size() - 1;
        });
        rig->queue({1});
        rig->start();
        LX_WAIT_FOR(log.records().size() == 1); // the first batch and its record are done
        for (int i = 0; i < 50; ++i) {          // room for many looks, each at a later time
            QThread::msleep(1);
            advanceTickCountMs(300000);
        }
        rig->queue({2});
        LX_WAIT_FOR(log.records().size() == 2);
        QCOMPARE(recordsWhileIdle, 0);
    }

    void emptyLooksAreCountedUnderZero_data() { addKinds(); }
    void emptyLooksAreCountedUnderZero()
    {
        const LogCapture log;
        const auto rig = makeRig();
        rig->plugin.onCall([](const Call&) { advanceTickCountMs(300000); });
        rig->start();
        LX_WAIT_FOR((rig->queue({1}), !log.records().isEmpty())
                    && log.records().last().text.contains(QStringLiteral("::run QMap((0, ")));
    }

    void anItemQueuedByAHandlerWaitsForTheBatchToEnd_data() { addKinds(); }
    void anItemQueuedByAHandlerWaitsForTheBatchToEnd()
    {
        const auto rig = makeRig();
        rig->plugin.onCall([&](const Call& call) {
            if (call.data == 1)
                rig->queue({3});
        });
        rig->queue({1, 2});
        rig->start();
        QVERIFY(rig->plugin.waitForCalls(3));
        QCOMPARE(rig->plugin.payloads(), QVariantList({1, 2, 3}));
    }

    void aStopLetsTheHandlerInProgressEndAndFreesTheRest_data() { addKinds(); }
    void aStopLetsTheHandlerInProgressEndAndFreesTheRest()
    {
        const auto rig = makeRig();
        rig->plugin.onCall([&](const Call& call) {
            if (call.data.value<CountedPayload>().value == 2) {
                rig->worker().setStop(true);
                rig->queue({QVariant::fromValue(CountedPayload(6))}); // in the inbox, not the batch
            }
        });
        QVariantList items;
        for (int i = 1; i <= 5; ++i)
            items << QVariant::fromValue(CountedPayload(i));
        rig->queue(items);
        items.clear();
        rig->start();
        QVERIFY(rig->join());
        QCOMPARE(rig->plugin.count(), 2);
        QCOMPARE(CountedPayload::alive(), 2); // the recorded ones
        QCOMPARE(rig->queued(), 0);
    }

    void aWorkerFreesWhatIsInItsInboxWhenItIsDeleted_data() { addKinds(); }
    void aWorkerFreesWhatIsInItsInboxWhenItIsDeleted()
    {
        makeRig()->queue({QVariant::fromValue(CountedPayload()), QVariant()});
        QCOMPARE(CountedPayload::alive(), 0);
    }

    void aStopEndsAnIdleWorker_data() { addKinds(); }
    void aStopEndsAnIdleWorker()
    {
        const auto rig = makeRig();
        rig->start();
        rig->queue({1});
        QVERIFY(rig->plugin.waitForCalls(1));
        QVERIFY(rig->stop());
        QCOMPARE(rig->plugin.count(), 1);
    }

    void aWorkerStoppedBeforeItStartsNeverLooksAtItsInbox_data() { addKinds(); }
    void aWorkerStoppedBeforeItStartsNeverLooksAtItsInbox()
    {
        const auto rig = makeRig();
        rig->queue({1});
        rig->worker().setStop(true);
        rig->start();
        QVERIFY(rig->join());
        QCOMPARE(rig->plugin.count(), 0);
        QCOMPARE(rig->queued(), 1);
    }

    void aNullItemIsPassedOver_data() { addKinds(); }
    void aNullItemIsPassedOver()
    {
        const auto rig = makeRig();
        rig->queue({QVariant(), 1, QVariant(), 2, QVariant()});
        rig->start();
        QVERIFY(rig->plugin.waitForCalls(2));
        QVERIFY(rig->stop());
        QCOMPARE(rig->plugin.payloads(), QVariantList({1, 2}));
    }

    void withoutAPluginItemsAreTakenOutAndFreed_data() { addKinds(); }
    void withoutAPluginItemsAreTakenOutAndFreed()
    {
        const auto rig = makeRig(Missing::Plugin);
        rig->queue({QVariant::fromValue(CountedPayload(1)), QVariant(),
                    QVariant::fromValue(CountedPayload(2))});
        rig->start();
        LX_WAIT_FOR(CountedPayload::alive() == 0);
        QVERIFY(rig->stop());
        QCOMPARE(rig->queued(), 0);
    }

    void withoutAMutexAWorkerTouchesNothingAndStops_data() { addKinds(); }
    void withoutAMutexAWorkerTouchesNothingAndStops()
    {
        const auto rig = makeRig(Missing::Mutex);
        rig->queue({1});
        rig->start();
        QVERIFY(rig->stop());
        QCOMPARE(rig->queued(), 1);
        QCOMPARE(rig->plugin.count(), 0);
    }

    void settersIgnoreNull_data() { addKinds(); }
    void settersIgnoreNull()
    {
        const auto rig = makeRig();
        rig->worker().setInterface(nullptr);
        rig->worker().setMutex(nullptr);
        rig->worker().setParking(nullptr);
        rig->setNullList();
        rig->start();
        rig->queue({1});
        QVERIFY(rig->plugin.waitForCalls(1));
    }

    void aWorkerDescribesItselfAsAPlainThread_data() { addKinds(); }
    void aWorkerDescribesItselfAsAPlainThread()
    {
        QFETCH(Kind, kind);
        const auto rig = makeRig();
        const QMetaObject* const meta = rig->worker().metaObject();
        const char* const name = kind == Kind::Message ? "CMessageWorkerThread"
            : kind == Kind::Event                      ? "CEventWorkerThread"
                                                       : "CQuotationWorkerThread";
        QCOMPARE(meta->className(), name);
        QCOMPARE(meta->superClass(), &QThread::staticMetaObject);
        QCOMPARE(meta->methodCount(), QThread::staticMetaObject.methodCount());
        QCOMPARE(meta->propertyCount(), QThread::staticMetaObject.propertyCount());
        QVERIFY(rig->worker().inherits(name));
    }
};

LXTEST_MAIN(InboxWorkerTest)
#include "tst_InboxWorker.moc"
