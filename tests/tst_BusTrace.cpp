// What the bus records: the way of each item, the newest where there is no room for all, and sound
// records while recording starts, stops and is read in the middle of traffic.
#include <lxtest/BusTest.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/BusTrace.h>
#include <lxdefine/PluginID.h>

#include <QHash>
#include <QLoggingCategory>
#include <QMap>
#include <QSet>

#include <algorithm>
#include <random>

using namespace lxtest;

namespace {

struct Entry
{
    TraceRecord record;
    QString thread;
};

// Of all threads, by time.
QVector<Entry> entriesOf(const BusTrace& trace)
{
    QVector<Entry> entries;
    for (const TraceThread& thread : trace.threads) {
        for (const TraceRecord& record : thread.records)
            entries.append({record, thread.name});
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return a.record.timeNs < b.record.timeNs;
    });
    return entries;
}

// What is wrong with the records themselves; empty: nothing.
QString faultOf(const BusTrace& trace)
{
    for (const TraceThread& thread : trace.threads) {
        qint64 last = 0;
        for (const TraceRecord& record : thread.records) {
            if (record.timeNs <= last)
                return thread.name + ": time stands still";
            last = record.timeNs;
            if (record.kind > TraceKind::Stall || record.durationNs < 0)
                return thread.name + ": a record that nobody wrote";
            for (const quint32 text :
                 {record.type, record.source, record.destination, record.traceId}) {
                if (text >= quint32(trace.texts.size()))
                    return thread.name + ": a string that is not there";
            }
        }
    }
    return {};
}

} // namespace

class BusTraceTest : public BusTest
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QLoggingCategory::setFilterRules("lxbase.debug=false");
        center().Start();
    }
    void cleanupTestCase() { QLoggingCategory::setFilterRules({}); }

    // Each handler call is preceded by the append of its item to its inbox, which lies in a put or
    // a route, and there are as many as the plugins were called.
    void everyHandlerCallHasItsWay()
    {
        const unsigned seed = std::random_device()();
        qInfo("seed %u", seed);
        std::mt19937 random(seed);
        CBusMonitor::startTrace(64);
        const int type = uniqueType();
        const QString traceId = QString(uniqueId()).repeated(4); // longer than a record
        int calls = 0;
        {
            Plugin one(All);
            Plugin two(All);
            for (Plugin* plugin : {&one, &two}) {
                plugin->subscribe(type);
                plugin->subscribeEvent(type);
            }
            constexpr int puts = 2000;
            int expected = 0;
            for (int i = 0; i < puts; ++i) {
                const QString dst = random() % 2 ? QString() : one.id();
                expected += dst.isEmpty() ? 2 : 1;
                auto msg = std::make_unique<CountedMessage>("origin", dst, type, i);
                msg->setTraceId(traceId);
                switch (random() % 4) {
                case 0:
                    center().Put("tester", msg.release());
                    break;
                case 1:
                    center().PutEvent("tester", makeEvent(dst, type, i));
                    break;
                case 2:
                    center().PutNetMsg("tester", msg.release());
                    break;
                default:
                    center().PutQuotationMsg("tester", msg.release());
                }
            }
            LX_WAIT_FOR(one.count() + two.count() == expected);
            calls = expected;
        }
        CBusMonitor::stopTrace();
        const BusTrace trace = CBusMonitor::takeTrace();
        QCOMPARE(faultOf(trace), QString());
        QCOMPARE(trace.overwritten, quint64(0));

        QHash<quint64, TraceRecord> waiting; // by item
        QHash<QString, TraceRecord> inHand;  // by thread
        QHash<QString, qint64> busyUntil;    // by thread: the end of its last put or route
        QSet<quint64> handedIn;              // messages on the network paths
        QMap<TraceKind, int> count;
        for (const auto& [record, thread] : entriesOf(trace)) {
            ++count[record.kind];
            switch (record.kind) {
            case TraceKind::Put:
            case TraceKind::Route:
                busyUntil[thread] = record.timeNs + record.durationNs;
                QCOMPARE(trace.text(record.type), QString::number(type));
                if (record.path != PutPath::PutEvent)
                    QCOMPARE(trace.text(record.traceId), traceId);
                QVERIFY((record.item != 0) != (record.path < PutPath::PutNetMsg));
                if (record.kind == TraceKind::Put && record.item)
                    handedIn.insert(record.item);
                if (record.kind == TraceKind::Route)
                    QVERIFY(handedIn.contains(record.item));
                break;
            case TraceKind::Append:
                QVERIFY(!waiting.contains(record.item));
                QVERIFY(record.timeNs < busyUntil.value(thread));
                waiting[record.item] = record;
                break;
            case TraceKind::HandlerBegin: {
                const TraceRecord append = waiting.take(record.item);
                QCOMPARE(append.destination, record.destination);
                QCOMPARE(append.inbox, record.inbox);
                QVERIFY(!inHand.contains(thread));
                inHand[thread] = record;
                break;
            }
            case TraceKind::HandlerEnd:
                QCOMPARE(inHand.take(thread).item, record.item);
                break;
            default:
                break;
            }
        }
        QVERIFY(waiting.isEmpty());
        QCOMPARE(count[TraceKind::Append], calls);
        QCOMPARE(count[TraceKind::HandlerEnd], calls);
        QCOMPARE(count[TraceKind::BatchBegin], count[TraceKind::BatchEnd]);
        QCOMPARE(count[TraceKind::Reg], 2);
        QCOMPARE(count[TraceKind::UnRegEnd], 2);
    }

    void whatHasNoRoomMakesRoom()
    {
        CBusMonitor::startTrace(1);
        Plugin plugin(M);
        for (int i = 0; i < 20000; ++i) // types without end
            center().Put("tester", message(plugin.id(), QString("type %1").arg(i)));
        center().Put("tester", message(uniqueId(), "the last"));
        QVERIFY(plugin.waitForCalls(20000));
        CBusMonitor::stopTrace();
        const BusTrace trace = CBusMonitor::takeTrace();
        QCOMPARE(faultOf(trace), QString());
        int records = 0;
        int last = 0;
        for (const auto& [record, thread] : entriesOf(trace)) {
            ++records;
            if (trace.text(record.type) == "the last")
                last += record.kind == TraceKind::Put || record.kind == TraceKind::Lost;
        }
        QCOMPARE(last, 2);
        QVERIFY(trace.overwritten > 0);
        QVERIFY(records > 2000 && records * 32 <= 1 << 20);

        CBusMonitor::startTrace(0); // refused, and nothing is forgotten
        QCOMPARE(m_log->lines("critical").size(), 1);
        QCOMPARE(CBusMonitor::takeTrace().overwritten, trace.overwritten);
    }

    void recordingStartsAndStopsAtAnyTime()
    {
        const int type = uniqueType();
        std::atomic<bool> stop{false};
        auto producers = onThreads(2, [&](int) {
            while (!stop) {
                center().Put("tester", message({}, type));
                center().PutEvent("tester", makeEvent({}, type));
            }
        });
        auto visitors = onThreads(2, [&](int) {
            while (!stop) {
                Plugin plugin(M | E);
                plugin.subscribe(type);
                plugin.subscribeEvent(type);
                if (!waitUntil([&] { return stop || plugin.count() > 50; }))
                    qFatal("a plugin received nothing");
            }
        });
        QMutex mutex;
        QString fault;
        int records = 0;
        auto controls = onThreads(3, [&](int number) {
            std::mt19937 random(static_cast<unsigned>(number));
            for (int i = 0; i < 30; ++i) {
                if (random() % 3 == 0)
                    CBusMonitor::startTrace(1);
                else if (random() % 8 == 0)
                    CBusMonitor::stopTrace();
                const BusTrace trace = CBusMonitor::takeTrace();
                const QMutexLocker locker(&mutex);
                fault += faultOf(trace);
                for (const TraceThread& thread : trace.threads)
                    records += thread.records.size();
            }
        });
        controls.clear();
        stop = true;
        producers.clear();
        visitors.clear();
        CBusMonitor::stopTrace();
        QCOMPARE(fault, QString());
        QVERIFY(records > 0);
    }
};

LXTEST_MAIN(BusTraceTest)
#include "tst_BusTrace.moc"
