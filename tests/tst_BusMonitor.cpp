// What the bus tells of itself: figures that add up, what was lost and why, and who hangs.
#include <lxtest/BusTest.h>

#include <lxbase/BusMonitor.h>
#include <lxdefine/PluginID.h>

#include <QLoggingCategory>

#include <algorithm>
#include <random>
#include <stdexcept>

using namespace lxtest;

namespace {

const PutPath allPaths[] = {PutPath::Put, PutPath::PutEvent, PutPath::PutNetMsg,
                            PutPath::PutQuotationMsg};

void put(PutPath path, const QString& dst, int type, const QVariant& data = {}, bool toNet = false)
{
    CountedMessage* const msg = path == PutPath::PutEvent ? nullptr : message(dst, type, data);
    if (msg)
        msg->SetSendToNetFlag(toNet);
    switch (path) {
    case PutPath::Put:
        return center().Put("tester", msg);
    case PutPath::PutEvent:
        return center().PutEvent("tester", makeEvent(dst, type, data));
    case PutPath::PutNetMsg:
        return center().PutNetMsg("tester", msg);
    case PutPath::PutQuotationMsg:
        return center().PutQuotationMsg("tester", msg);
    }
}

// Everything that was lost since the last time, as "reason path destination".
QStringList lostSince(quint64& sequence)
{
    QStringList result;
    for (const LostItem& lost : CBusMonitor::lostItems(sequence)) {
        result << lostReasonName(lost.reason) + ' ' + QString::number(int(lost.path)) + ' '
                + lost.destination;
        sequence = lost.sequence;
    }
    return result;
}

InboxStatistics figuresOf(const QString& id, InboxKind kind = InboxKind::Messages)
{
    for (const InboxStatistics& inbox : CBusMonitor::statistics().inboxes) {
        if (inbox.plugin == id && inbox.kind == kind)
            return inbox;
    }
    return {};
}

struct Visitor final : Handler
{
    void handle(const Call&) override { ++calls; }
    std::atomic<int> calls{0};
};

struct Throwing
{
    Throwing() = default;
    Throwing(const Throwing&)
    {
        if (armed)
            throw std::runtime_error("no copy");
    }
    inline static bool armed = false;
};

// A plugin whose handler has one item in hand and keeps it.
struct Held
{
    Held()
    {
        plugin.onCall([this](const Call& call) {
            if (call.data == 0) {
                entered.signal();
                goOn.wait();
            }
        });
        hold();
    }
    ~Held() { goOn.signal(); } // where a test has failed
    void hold()
    {
        deliverTo(plugin.id(), M, 0);
        entered.wait();
    }

    Latch entered;
    Latch goOn;
    Plugin plugin{M}; // last: its handler uses the others
};

// Is stopped as a whole in the middle of a handler call, for longer than the limit.
const ChildScenario standsStill("standsStill", [] {
    CBusMonitor::setStallLimit(1500);
    Held held;
    const auto busyForMs = [&] { return figuresOf(held.plugin.id()).busyForNs / 1'000'000; };
    bool asExpected = waitUntil([&] { return busyForMs() > 300; }); // the watching thread saw it
    const QString stop = "kill -STOP $PPID; sleep 2; kill -CONT $PPID";
    asExpected &= QProcess::execute("/bin/sh", {"-c", stop}) == 0;
    const qint64 afterwardsMs = busyForMs();
    asExpected &= waitUntil([&] { return busyForMs() > afterwardsMs + 300; }); // and looked again
    held.goOn.signal();
    return asExpected && afterwardsMs > 2000 ? 0 : 1;
});

} // namespace

Q_DECLARE_METATYPE(Throwing)
Q_DECLARE_TYPEINFO(Throwing, Q_MOVABLE_TYPE);

class BusMonitorTest : public BusTest
{
    Q_OBJECT

private slots:
    void aHistogramIsRightToAnEighth()
    {
        const unsigned seed = std::random_device()();
        qInfo("seed %u", seed);
        std::mt19937_64 random(seed);
        DurationHistogram histogram;
        std::vector<qint64> samples;
        qint64 sum = 0;
        for (int i = 0; i < 20000; ++i) {
            samples.push_back(qint64(random() >> (24 + random() % 40))); // 0 to 18 minutes
            histogram.add(samples.back());
            sum += samples.back();
        }
        std::sort(samples.begin(), samples.end());
        QCOMPARE(histogram.count(), quint64(samples.size()));
        QCOMPARE(histogram.sum(), sum);
        QCOMPARE(histogram.max(), samples.back());
        for (const double fraction : {0.0, 0.001, 0.25, 0.5, 0.9, 0.99, 1.0}) {
            const auto rank = std::max<std::size_t>(std::size_t(std::ceil(fraction * 20000)), 1);
            const qint64 exact = samples[rank - 1];
            const qint64 found = histogram.quantile(fraction);
            const bool inLastStep =
                DurationHistogram::stepOf(exact) == DurationHistogram::Steps - 1;
            QVERIFY2(found >= exact && (found <= exact + exact / 8 || inLastStep),
                     qPrintable(QString("%1: %2, not %3").arg(fraction).arg(found).arg(exact)));
        }
        QCOMPARE(histogram.countUpTo(histogram.max()), histogram.count());
    }

    // Producers, plugins that come and go, changes of the level: at every moment the figures of an
    // inbox add up, totals never go back, and at rest nothing is in hand.
    void theFiguresAddUpAtEveryMoment()
    {
        QLoggingCategory::setFilterRules("lxbase.debug=false");
        center().Start();
        const int type = uniqueType();
        std::atomic<bool> stop{false};
        auto threads = onThreads(3, [&](int number) {
            for (int i = 0; !stop; ++i) {
                put(allPaths[(i + number) % 4], {}, type);
                if (i % 16 == 0)
                    QThread::usleep(200); // else the two lists grow without end
            }
        });
        std::atomic<int> visits{0};
        auto visitors = onThreads(2, [&](int) {
            for (; !stop; ++visits) {
                Visitor visitor;
                const QString id = uniqueId();
                visitor.Reg(id, &visitor, All);
                visitor.Sub(id, type, 1);
                visitor.SubEvent(id, type, 1);
                if (!waitUntil([&] { return stop || visitor.calls > 50; }))
                    qFatal("a plugin received nothing");
                visitor.UnReg(id);
            }
        });
        QVector<quint64> last(6);
        QString wrong;
        std::mt19937 random(1);
        for (int look = 0; wrong.isEmpty() && (look < 300 || visits < 10); ++look) {
            CBusMonitor::setLevel(StatisticsLevel(random() % 4));
            QVector<quint64> sums(6); // put and handled, by kind
            for (const InboxStatistics& inbox : CBusMonitor::statistics().inboxes) {
                const qint64 inHand =
                    qint64(inbox.put - inbox.waiting - inbox.handled - inbox.dropped);
                if (inHand < 0 || inHand > qint64(inbox.peak))
                    wrong = QString("%1 in hand of %2").arg(inHand).arg(inbox.peak);
                sums[int(inbox.kind)] += inbox.put;
                sums[3 + int(inbox.kind)] += inbox.handled;
            }
            for (int k = 0; k < sums.size(); ++k) {
                if (sums[k] < last[k])
                    wrong = QString("sum %1: %2 after %3").arg(k).arg(sums[k]).arg(last[k]);
            }
            last = sums;
        }
        stop = true;
        threads.clear();
        visitors.clear();
        QCOMPARE(wrong, QString());
        CBusMonitor::setLevel(StatisticsLevel::Counts);
        LX_WAIT_FOR(CBusMonitor::statistics().netList.waiting == 0
                    && CBusMonitor::statistics().quotationList.waiting == 0);
        const BusStatistics atRest = CBusMonitor::statistics();
        QCOMPARE(atRest.inboxes.size(), 3);
        QCOMPARE(atRest.inboxes[0].plugin, QString());
        for (const InboxStatistics& inbox : atRest.inboxes)
            QCOMPARE(inbox.put, inbox.handled + inbox.dropped);
        QCOMPARE(atRest.subscriptions, 0);
        QCOMPARE(atRest.threads, 2);
        QLoggingCategory::setFilterRules({});
    }

    void aHandlersDurationIsMeasuredAndItsWaitingTimeToo()
    {
        CBusMonitor::setLevel(StatisticsLevel::Full);
        Plugin plugin(M);
        Latch entered;
        Latch goOn;
        qint64 tookNs = 0;
        plugin.onCall([&](const Call& call) {
            QElapsedTimer timer;
            timer.start();
            entered.signal();
            goOn.wait();
            QThread::msleep(call.data.toInt()); // what is measured
            if (tookNs == 0)
                tookNs = timer.nsecsElapsed();
        });
        QElapsedTimer atMost;
        atMost.start();
        deliverTo(plugin.id(), M, 30);
        deliverTo(plugin.id(), M, 0);
        entered.wait();
        LX_WAIT_FOR(figuresOf(plugin.id()).busyForNs > 0);
        goOn.signal();
        entered.wait();
        goOn.signal();
        QVERIFY(plugin.waitForCalls(2));
        LX_WAIT_FOR(figuresOf(plugin.id()).busyForNs == 0);
        const qint64 atMostNs = atMost.nsecsElapsed();
        const InboxStatistics figures = figuresOf(plugin.id());
        CBusMonitor::setLevel(StatisticsLevel::Counts);
        QCOMPARE(figures.handlerTime.count(), quint64(2));
        QVERIFY(figures.handlerTime.max() >= tookNs);
        QVERIFY(figures.handlerTime.sum() >= figures.handlerTime.max());
        QVERIFY(figures.handlerTime.sum() <= atMostNs);
        QVERIFY(figures.waitTime.count() >= 1);
        QCOMPARE(figures.handled, quint64(2));
    }

    void whateverVanishesIsCountedOnceWithItsReason()
    {
        center().Start();
        const int type = uniqueType();
        Plugin messages("messages", M);
        Plugin quotations("quotations", Q);
        quint64 sequence = 0;
        lostSince(sequence);
        const QVector<quint64> before = CBusMonitor::statistics().lost;
        QStringList expected;
        QStringList lost;
        const auto allLost = [&] {
            return (lost += lostSince(sequence)).size() == expected.size();
        };
        for (const PutPath path : allPaths) {
            const QString p = QString(" %1 ").arg(int(path));
            const bool event = path == PutPath::PutEvent;
            put(path, "nobody", type);
            expected << "unknown_destination" + p + "nobody";
            if (!event) {
                put(path, path == PutPath::PutQuotationMsg ? "messages" : "quotations", type);
                expected << "no_inbox" + p
                        + (path == PutPath::PutQuotationMsg ? "messages" : "quotations");
            }
            put(path, {}, type);
            expected << "no_subscriber" + p;
            center().Sub("gone", type + 1, 1);
            center().SubEvent("gone", type + 1, 1);
            put(path, {}, type + 1);
            expected << "subscriber_not_registered" + p + "gone";
            LX_WAIT_FOR(allLost()); // a dispatch thread may have some of it
            center().UnReg("gone");
        }
        put(PutPath::Put, {}, type, {}, true);
        expected << "no_net_plugin 0 " + PluginID::PLUGINNET_GLOBALID;
        const QVariant payload = QVariant::fromValue(Throwing());
        CountedMessage* const uncopied = message("messages", type, payload);
        Throwing::armed = true;
        center().Put("tester", uncopied);
        Throwing::armed = false;
        expected << "not_copied 0 messages";
        center().Reg("null", nullptr, M);
        put(PutPath::Put, "null", type);
        expected << "no_plugin 0 null";
        Latch entered;
        Latch goOn;
        messages.onCall([&](const Call&) {
            entered.signal();
            goOn.wait();
            QThread::msleep(
                5); // room for UnReg to ask for the stop; if it is late, more is handled
        });
        put(PutPath::Put, "messages", type);
        entered.wait();
        for (int i = 0; i < 2; ++i)
            put(PutPath::Put, "messages", type);
        LX_WAIT_FOR(CBusMonitor::lostItems().last().reason == LostReason::NoPlugin);
        std::thread leaving([&] { messages.leave(); });
        LX_WAIT_FOR(CBusMonitor::waiting("messages", InboxKind::Messages) == 0);
        goOn.signal();
        leaving.join();
        for (int handled = messages.count(); handled < 3; ++handled)
            expected << "unregistered 0 messages";
        center().UnReg("null");
        LX_WAIT_FOR(allLost());
        expected.sort();
        lost.sort();
        QCOMPARE(lost, expected);
        quint64 counted = 0;
        const QVector<quint64> after = CBusMonitor::statistics().lost;
        for (int reason = 0; reason < LostReasonCount; ++reason)
            counted += after[reason] - before[reason];
        QCOMPARE(counted, quint64(expected.size()));
    }

    void aTypeOfAClassIsListedByItsName()
    {
        for (const QVariant& type : {QVariant::fromValue(Throwing()), QVariant(7), QVariant("t")})
            center().Put("tester", message("nobody", type));
        QVariantList listed;
        for (const LostItem& lost : CBusMonitor::lostItems())
            listed << lost.type;
        QCOMPARE(listed.mid(listed.size() - 3), QVariantList({"Throwing", 7, "t"}));
    }

    void anObserverMayLoseAgain()
    {
        std::atomic<int> observed{0};
        CBusMonitor::setLostItemObserver([&](const LostItem& lost) {
            ++observed;
            put(PutPath::Put, lost.destination, 1);
            center().PutEvent("observer", makeEvent(lost.destination, 1));
            CBusMonitor::statistics();
        });
        quint64 sequence = 0;
        lostSince(sequence);
        for (int i = 0; i < 1000; ++i)
            put(PutPath::Put, "nobody", 1);
        CBusMonitor::setLostItemObserver({});
        QCOMPARE(observed.load(), 1000);
        QCOMPARE(lostSince(sequence).size(), 1024);
        put(PutPath::Put, "nobody", 1);
        QCOMPARE(observed.load(), 1000);
        CBusMonitor::setLevel(StatisticsLevel::Off);
        put(PutPath::Put, "nobody", 1);
        QCOMPARE(lostSince(sequence).size(), 1);
        CBusMonitor::setLevel(StatisticsLevel::Counts);
    }

    void aHandlerThatHangsIsReportedAndItsReturnToo()
    {
        constexpr int limitMs = 250;
        CBusMonitor::setStallLimit(limitMs);
        Plugin busy(E); // has much to do, and hangs nowhere
        busy.onCall([](const Call&) { QThread::msleep(1); });
        Plugin stuck(M);
        Latch goOn;
        stuck.onCall([&](const Call& call) {
            if (call.data == 1)
                goOn.wait();
        });
        for (int i = 0; i < 600; ++i)
            deliverTo(busy.id(), E, i);
        for (int i = 1; i < 4; ++i)
            deliverTo(stuck.id(), M, i);
        LX_WAIT_FOR(!CBusMonitor::stalls().isEmpty());
        const Stall stall = CBusMonitor::stalls().value(0);
        QCOMPARE(stall.plugin, stuck.id());
        QCOMPARE(stall.sender, QString("tester"));
        QCOMPARE(stall.type, QVariant(1));
        QCOMPARE(stall.thread, stuck.id() + "_MessageWorkerThread");
        QVERIFY(stall.threadId != 0);
        LX_WAIT_FOR(m_log->lines("warning").size() == 2); // at the limit, and at its double
        QVERIFY(m_log->lines("warning")[0].contains(
            QRegularExpression('"' + stuck.id()
                               + "\" for messages has not returned for (\\d+) ms, "
                                 "type: QVariant\\(int, 1\\) , sender: \"tester\"")));
        const QRegularExpression said("for (\\d+) ms");
        const int forMs = said.match(m_log->lines("warning")[0]).captured(1).toInt();
        QVERIFY2(forMs >= limitMs && forMs <= limitMs + 200, qPrintable(QString::number(forMs)));
        goOn.signal();
        LX_WAIT_FOR(m_log->lines("warning").size() == 3);
        QVERIFY(m_log->lines("warning")[2].contains("stall over"));
        QVERIFY(busy.waitForCalls(600) && stuck.waitForCalls(3));
        QCOMPARE(CBusMonitor::stalls().size(), 0);
        CBusMonitor::setStallLimit(0);
        QCOMPARE(m_log->lines("warning").size(), 3);
    }

    void aPluginIsReportedFiveTimesAMinuteAtMost()
    {
        CBusMonitor::setStallLimit(1);
        Held held;
        LX_WAIT_FOR(CBusMonitor::stalls().value(0).forMs >= 2048); // a sixth was due
        double last = 0; // a report comes with the first look after a power of two
        for (const QString& line : m_log->lines("warning")) {
            const int ms = QRegularExpression("for (\\d+) ms").match(line).captured(1).toInt();
            QVERIFY2(std::floor(std::log2(ms)) > last, qPrintable(line));
            last = std::floor(std::log2(ms));
        }
        QCOMPARE(m_log->lines("warning").size(), 5);
        held.goOn.signal();
        LX_WAIT_FOR(m_log->lines("warning").size() == 6);
        QVERIFY(m_log->lines("warning")[5].contains("stall over"));
        CBusMonitor::setStallLimit(0);
    }

    void aProcessThatStoodStillReportsNothing()
    {
        const ChildResult child = runChild("standsStill");
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
        QCOMPARE(child.log.filter("stall"), QStringList());
    }

    void anInboxThatGrowsIsReportedAtEachDoublingAndNotAnewWhenItFillsAgain()
    {
        CBusMonitor::setStallLimit(60 * 1000);
        Held held;
        Held other;
        int reports = 0;
        const auto fill = [&](Held& filled, int items, int reported) {
            while (items-- > 0)
                deliverTo(filled.plugin.id(), M, 1);
            reports += reported;
            return waitUntil([&] { return m_log->lines("warning").size() >= reports; })
                && m_log->lines("warning").size() == reports;
        };
        QVERIFY(fill(held, 12000, 1) && fill(held, 12000, 1));
        held.goOn.signal();
        QVERIFY(held.plugin.waitForCalls(24001));
        QVERIFY(fill(other, 12000, 1) && fill(other, 12000, 1)); // the watching thread looked twice
        held.hold();
        QVERIFY(fill(held, 12000, 0) && fill(other, 24000, 1));
        held.goOn.signal();
        other.goOn.signal();
        CBusMonitor::setStallLimit(0);
        QVERIFY(held.plugin.waitForCalls(36002) && other.plugin.waitForCalls(48001));
        QCOMPARE(m_log->lines("warning").size(), reports);
    }
};

LXTEST_MAIN(BusMonitorTest)
#include "tst_BusMonitor.moc"
