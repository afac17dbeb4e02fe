// The ledger's arithmetic: it must not balance when anything is missing.
#include "Ledger.h"

#include <lxclient/QuoteAudit.h>

#include <QtTest>

using lxclient::Report;

namespace {

// Whether an account balances to which each of the plugins posts one of the counts.
bool balances(std::initializer_list<quint64> counts, const QString& what = QString())
{
    QVector<NamedReport> reports;
    for (quint64 count : counts) {
        Report report;
        report.postings.append({"things", what, count});
        reports.append({"plugin", report});
    }
    return Ledger(reports).balances();
}

// What an audit reports that has counted quotes of these numbers.
Report audited(std::initializer_list<quint64> sequence, bool latest = false)
{
    lxclient::QuoteAudit audit;
    if (latest)
        audit.expectLatest();
    audit.expect({"A"});
    lxclient::Quote quote;
    quote.symbol = "A";
    for (quint64 number : sequence) {
        quote.sequence = number;
        audit.count(quote);
    }
    Report report;
    audit.post(report);
    return report;
}

} // namespace

class tst_Ledger : public QObject
{
    Q_OBJECT
private slots:
    void balancesOnlyIfEveryCountIsConfirmed()
    {
        QVERIFY(balances({5, 5, 5}));
        QVERIFY(!balances({5, 4, 5})); // one lost
        QVERIFY(!balances({5, 5, 6})); // one doubled
        QVERIFY(!balances({5}));       // nobody to confirm
        QVERIFY(balances({5}, lxclient::OneSided));
        QVERIFY(!balances({5, 4}, lxclient::OneSided));
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

    void anAuditSeesLossDoublingDisorderAndSilence()
    {
        QCOMPARE(audited({1, 2, 3}).faults, QStringList());
        QCOMPARE(audited({1, 3}).faults, QStringList("A: quote 3 came where 2 was due"));
        QCOMPARE(audited({1, 2, 2}).faults, QStringList("A: quote 2 came where 3 was due"));
        QCOMPARE(audited({2, 1}).faults, QStringList("A: quote 2 came where 1 was due"));
        QCOMPARE(audited({}).postings.size(), 1); // also when nothing came
    }

    void anAuditOfTheLatestCountsWhatWasLeftOut()
    {
        const Report report = audited({2, 3, 7}, true);
        QCOMPARE(report.faults, QStringList());
        QCOMPARE(report.postings.value(0).count, quint64(7));
        QCOMPARE(report.quotations, quint64(3));
        QCOMPARE(audited({3, 2}, true).faults, QStringList("A: quote 2 came where 4 was due"));
    }
};

QTEST_APPLESS_MAIN(tst_Ledger)
#include "tst_Ledger.moc"
