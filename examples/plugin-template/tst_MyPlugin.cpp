// The bench plays the host and the net plugin, the stub another plugin that asks.
#include "MyPlugin.h"

#include <lxclient/TestBench.h>

#include <QtTest>

class tst_MyPlugin : public QObject
{
    Q_OBJECT
private slots:
    void tellsTheLowestAndTheHighestBidToWhoeverAsks()
    {
        MyPlugin plugin;
        lxclient::StubPlugin other;
        lxclient::TestBench bench({"A", "B"});
        const lxclient::Error error = bench.start(plugin, PLUGIN_ID, {{PLUGIN_ID ".skip", 1}});
        QVERIFY2(!error, qPrintable(error.words()));
        QVERIFY(!bench.start(other, "other"));

        for (const qint64 bid : {9, 11000, 10990, 11020})
            bench.quote("A", {bid, 4}, {bid + 2, 4});
        QVERIFY(bench.waitUntil([&] { return plugin.report().quotations == 4; }));
        QCOMPARE(plugin.report().cells.size(), 2);
        QCOMPARE(plugin.report().cells[0].text, QString("1.0990"));
        QCOMPARE(plugin.report().cells[1].text, QString("1.1020"));

        QSemaphore answers;
        QStringList answered;
        for (const char* const symbol : {"A", "B"}) {
            other.request(PLUGIN_ID, ExtremesWanted, symbol,
                          [&](const lxclient::Error& error, const QVariant& answer) {
                              answered << answer.toMap().value("high").toString() + error.words();
                              answers.release();
                          });
        }
        QVERIFY(bench.waitUntil([&] { return answers.tryAcquire(2); }));
        QCOMPARE(answered, (QStringList{"1.1020", "there is no quote of B yet"}));
    }
};

QTEST_GUILESS_MAIN(tst_MyPlugin)
#include "tst_MyPlugin.moc"
