// The bench plays the host and the net plugin, the stub another window.
#include "MyPlugin.h"

#include <lxclient/TestBench.h>

#include <QtTest>

class tst_MyPlugin : public QObject
{
    Q_OBJECT
private slots:
    void showsTheQuoteOfTheSymbolThatALinkedWindowHasSelected()
    {
        MyPlugin plugin;
        lxclient::StubPlugin other;
        lxclient::linkWindows({PLUGIN_ID, "other"}, RELATION_BLUE);
        lxclient::TestBench bench({"A", "B"});
        const lxclient::Error error = bench.start(
            plugin, PLUGIN_ID,
            {{PLUGIN_ID ".frame", 10}, {lxclient::setting::Linked, QStringList("other")}});
        QVERIFY2(!error, qPrintable(error.words()));
        QVERIFY(!bench.start(other, "other"));

        bench.quote("A", {11000, 4}, {11002, 4});
        bench.quote("B", {1300, 1}, {1301, 1});
        QVERIFY(bench.waitUntil([&] { return plugin.window()->text() == "1.1000 / 1.1002"; }));
        other.publish(lxclient::SelectionType, QVariant::fromValue(lxclient::Selection{"B"}));
        QVERIFY(bench.waitUntil([&] { return plugin.window()->text() == "130.0 / 130.1"; }));

        plugin.window()->choose("A"); // the user: the other window follows
        QVERIFY(bench.waitUntil([&] { return other.events().size() == 1; }));
        QCOMPARE(other.events()[0].payload.value<lxclient::Selection>().symbol, QString("A"));
        bench.stop(plugin);
        QVERIFY(plugin.report().faults.isEmpty());
    }
};

QTEST_MAIN(tst_MyPlugin)
#include "tst_MyPlugin.moc"
