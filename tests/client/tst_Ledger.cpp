// The ledger's arithmetic: it must not balance when anything is missing.
#include "Ledger.h"

#include <lxclient/QuoteAudit.h>

#include <QtTest>

using lxclient::Report;

class tst_Ledger : public QObject
{
    Q_OBJECT
private slots:
    void balancesOnlyIfEveryCountIsConfirmed_data()
    {
        QTest::addColumn<QVector<quint64>>("counts");
        QTest::addColumn<bool>("balances");
        QTest::newRow("equal") << QVector<quint64>{5, 5, 5} << true;
        QTest::newRow("one lost") << QVector<quint64>{5, 4, 5} << false;
        QTest::newRow("one doubled") << QVector<quint64>{5, 5, 6} << false;
        QTest::newRow("all lost") << QVector<quint64>{5, 0} << false;
        QTest::newRow("nobody to confirm") << QVector<quint64>{5} << false;
        QTest::newRow("nothing happened") << QVector<quint64>{0} << true;
    }
    void balancesOnlyIfEveryCountIsConfirmed()
    {
        QFETCH(QVector<quint64>, counts);
        QVector<NamedReport> reports;
        for (quint64 count : counts) {
            Report report;
            report.postings.append({"things", QString(), count});
            reports.append({"plugin", report});
        }
        QTEST(Ledger(reports).balances(), "balances");
    }

    void aFaultOrADisagreementAboutASymbolUnbalancesIt()
    {
        Report a;
        a.cells.append({"EUR/USD", "Bid", "1.1"});
        Report b = a;
        QVERIFY(Ledger({{"a", a}, {"b", b}}).balances());
        b.cells[0].text = "1.2";
        QVERIFY(!Ledger({{"a", a}, {"b", b}}).balances());
        a.faults.append("disk full");
        const Ledger ledger({{"a", a}});
        QVERIFY(!ledger.balances());
        QCOMPARE(ledger.faults(), QStringList("a: disk full"));
    }

    void anAuditSeesLossDoublingDisorderAndSilence_data()
    {
        QTest::addColumn<QVector<quint64>>("sequence");
        QTest::addColumn<bool>("faultless");
        QTest::newRow("in order") << QVector<quint64>{1, 2, 3} << true;
        QTest::newRow("lost") << QVector<quint64>{1, 3} << false;
        QTest::newRow("doubled") << QVector<quint64>{1, 2, 2} << false;
        QTest::newRow("swapped") << QVector<quint64>{2, 1} << false;
        QTest::newRow("silent") << QVector<quint64>{} << true;
    }
    void anAuditSeesLossDoublingDisorderAndSilence()
    {
        QFETCH(QVector<quint64>, sequence);
        lxclient::QuoteAudit audit;
        audit.expect({"A"});
        lxclient::Quote quote;
        quote.symbol = "A";
        for (quint64 number : sequence) {
            quote.sequence = number;
            audit.count(quote);
        }
        Report report;
        audit.post(report);
        QTEST(report.faults.isEmpty(), "faultless");
        QCOMPARE(report.postings.size(), 1); // also when nothing came
        QCOMPARE(report.postings[0].count, quint64(sequence.size()));
    }
};

QTEST_APPLESS_MAIN(tst_Ledger)
#include "tst_Ledger.moc"
