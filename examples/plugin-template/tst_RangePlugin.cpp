// Plays the host: starts the bus, puts quotes as the net plugin does, reads the report.
#include "RangePlugin.h"

#include <lxbase/MessageCenter.h>
#include <lxclient/Protocol.h>
#include <lxdefine/PluginID.h>
#include <lxmsg/MessageCommon.h>

#include <QtTest>

class TestRangePlugin : public QObject
{
    Q_OBJECT
private slots:
    void reportsTheHighestAndTheLowestBid();
};

void TestRangePlugin::reportsTheHighestAndTheLowestBid()
{
    lxclient::registerPayloads();
    CMessageCenter::GetInstance()->Start();
    const QString symbol = QStringLiteral("EUR/USD");
    const QVariantMap settings{{lxclient::setting::Symbols, QStringList{symbol}}};
    RangePlugin plugin;
    const lxclient::Error error = plugin.initialise(QStringLiteral("range"), settings);
    QVERIFY2(!error, qPrintable(error.words()));

    quint64 sequence = 0;
    for (const qint64 bid : {11000, 10990, 11020}) {
        lxclient::Quote quote;
        quote.symbol = symbol;
        quote.sequence = ++sequence;
        quote.bid = {bid, 4};
        CRegManager::PutQuotationMsg(PluginID::PLUGINNET_GLOBALID,
                                     new CMessageCommon(PluginID::PLUGINNET_GLOBALID, QString(),
                                                        lxclient::quoteType(settings, symbol),
                                                        QVariant::fromValue(quote)));
    }
    QTRY_COMPARE_WITH_TIMEOUT(plugin.report().quotations, sequence, 30000);
    plugin.shutDown();

    const lxclient::Report report = plugin.report();
    QVERIFY(report.faults.isEmpty());
    QCOMPARE(report.cells.size(), 2);
    QCOMPARE(report.cells[0].text, QStringLiteral("1.0990"));
    QCOMPARE(report.cells[1].text, QStringLiteral("1.1020"));
}

QTEST_GUILESS_MAIN(TestRangePlugin)
#include "tst_RangePlugin.moc"
