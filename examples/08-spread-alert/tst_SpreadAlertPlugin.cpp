#include "SpreadAlertPlugin.h"

#include <lxclient/TestBench.h>

#include <QtTest>

class tst_SpreadAlertPlugin : public QObject
{
    Q_OBJECT
private slots:
    void saysOnceThatTheSpreadHasWidenedAndTellsItWhenAsked()
    {
        SpreadAlertPlugin plugin;
        lxclient::StubPlugin other({}, {SpreadWidened});
        lxclient::TestBench bench({"A", "B"});
        QVERIFY(bench.start(plugin, "spread-alert", {{"spread-alert.first", "C"}})); // refused
        QVERIFY(!bench.start(other, "other"));
        QVERIFY(!bench.start(plugin, "spread-alert",
                             {{"spread-alert.first", "A"},
                              {"spread-alert.second", "B"},
                              {"spread-alert.threshold", 0.05}}));

        for (const qint64 bid : {104, 106, 107, 104, 108}) {
            bench.quote("A", {bid, 2}, {bid, 2});
            bench.quote("B", {100, 2}, {100, 2});
        }
        const auto quotes = [&] { return plugin.report().quotations; };
        QVERIFY(bench.waitUntil([&] { return quotes() == 10 && other.events().size() == 2; }));
        QCOMPARE(other.events()[0].payload.toDouble(), 1.06 - 1);
        QCOMPARE(other.events()[1].payload.toDouble(), 1.08 - 1);

        QSemaphore answered;
        double spread = 0;
        other.request("spread-alert", SpreadWanted, {}, [&](const auto&, const QVariant& answer) {
            spread = answer.toDouble();
            answered.release();
        });
        QVERIFY(bench.waitUntil([&] { return answered.tryAcquire(); }));
        QCOMPARE(spread, 1.08 - 1);
        QVERIFY(bench.waitUntil([&] { return !plugin.report().remarks[0].contains("for 0 s"); }));
    }
};

QTEST_GUILESS_MAIN(tst_SpreadAlertPlugin)
#include "tst_SpreadAlertPlugin.moc"
