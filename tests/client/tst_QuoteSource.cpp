// Reading, merging and making up quotes.
#include <QuoteText.h>
#include <Recordings.h>
#include <SyntheticSession.h>

#include <QBuffer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QByteArray header = quotetext::Header + '\n';
const QByteArray goodRow = "2020-01-01T17:00:00.065Z,EUR/USD,1.121200,1.121720\n";

QByteArray rowsOf(QuoteSource&& source)
{
    QByteArray rows;
    while (const auto timed = source.next())
        rows += quotetext::formatRow(timed->quote);
    return rows;
}

// What a reader makes of a recording: rows as they would be recorded, and complaints.
struct Reading
{
    explicit Reading(QByteArray text)
    {
        QBuffer buffer(&text);
        buffer.open(QIODevice::ReadOnly);
        QuoteReader reader(buffer, "day.csv", [this](QString where, QString why) {
            complaints.append(where + ": " + why);
        });
        isRecording = reader.readHeader();
        rows = rowsOf(std::move(reader));
    }

    bool isRecording = false;
    QByteArray rows;
    QStringList complaints;
};

} // namespace

class tst_QuoteSource : public QObject
{
    Q_OBJECT
private slots:
    void aBadRowIsReportedWithItsLineAndSkipped()
    {
        const QByteArray time = "2020-01-01T17:00:00.065Z,";
        const std::pair<QByteArray, QString> cases[] = {
            {time + "EUR/USD,1.1", "4 fields expected, 3 found"},
            {"2020-01-01T17:00:00Z,EUR/USD,1,2", "timestamp \"2020-01-01T17:00:00Z\""},
            {"2020-02-30T17:00:00.065Z,EUR/USD,1,2", "timestamp"},
            {time + " ,1,2", "symbol \" \" is empty"},
            {time + "EUR\x01,1,2", "symbol \"EUR?\" holds characters"},
            {time + QByteArray(33, 'E') + ",1,2", "is longer than 32 characters"},
            {time + "E,1,2x", "ask \"2x\" is not a price"},
            {time + "E,1e5,2", "bid"},
            {time + "E,1234567890123456,2", "bid"},
            {time + "E,0.1234567890,2", "bid"},
            {QByteArray(100'000, 'x'), "longer than 4096 bytes"},
        };
        for (const auto& [row, reason] : cases) {
            const Reading reading(header + goodRow + row + '\n' + goodRow);
            const QString complaint = reading.complaints.value(0);
            QVERIFY2(complaint.startsWith("day.csv:3: ") && complaint.contains(reason),
                     row.left(100) + " -> " + complaint.toUtf8());
            QCOMPARE(reading.complaints.size(), 1);
            QCOMPARE(reading.rows, goodRow + goodRow);
        }
    }

    void aGoodRowIsReadAsItIsRecordedWhateverItsLineEnd()
    {
        const QByteArray strange = "2020-04-20T18:08:00.000Z,B\xc3\xb6rse,-37.630,0.000000001\n";
        const Reading reading("\xEF\xBB\xBF" + quotetext::Header + "\r\n\r\n" + goodRow.trimmed()
                              + "\r\n\n" + strange.trimmed());
        QVERIFY(reading.isRecording);
        QCOMPARE(reading.rows, goodRow + strange);
        QCOMPARE(reading.complaints, QStringList());
        QVERIFY(!Reading("").isRecording);
        QVERIFY(!Reading("time;symbol;bid;ask\n").isRecording);
    }

    void recordingsAreMergedByTimeAndTiesInTheOrderOfTheFiles()
    {
        const QTemporaryDir dir;
        const auto write = [&](const char* name, const QByteArray& rows) {
            QFile file(dir.filePath(name));
            file.open(QIODevice::WriteOnly);
            file.write(header + rows);
            return file.fileName();
        };
        const QStringList files{write("a.csv",
                                      "2020-01-01T00:00:01.000Z,A,1,1\n"
                                      "2020-01-01T00:00:04.000Z,A,2,2\n"
                                      "2020-01-01T00:00:00.000Z,A,3,3\n"), // a step back
                                write("b.csv",
                                      "2020-01-01T00:00:01.000Z,B,1,1\n"
                                      "2020-01-01T00:00:03.000Z,B,2,2\n"
                                      "2020-01-01T00:00:05.000Z,B,3,3\n")};
        QuoteMerger merger({});
        QCOMPARE(merger.open(files).words(), QString());
        QStringList order;
        qint64 start = 0;
        while (const auto timed = merger.next()) {
            start = start ? start : timed->due_ms;
            order << QString("%1 %2 %3 s")
                         .arg(timed->quote.symbol, timed->quote.bid.toString())
                         .arg((timed->due_ms - start) / 1000);
        }
        QCOMPARE(order.join(", "), QString("A 1 0 s, B 1 0 s, B 2 2 s, A 2 3 s, A 3 3 s, B 3 4 s"));
        QStringList symbols;
        QCOMPARE(scanSymbols(files, symbols).words(), QString());
        QCOMPARE(symbols, QStringList({"A", "B"}));
    }

    void theScanForSymbolsCanBeStopped()
    {
        const QTemporaryDir dir;
        QFile file(dir.filePath("long.csv"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(header + QByteArray("2020-01-01T00:00:01.000Z,A,1,1\n").repeated(10000));
        file.close();
        int asked = 0;
        QStringList symbols;
        const auto error = scanSymbols({file.fileName()}, symbols, [&] { return ++asked == 2; });
        QCOMPARE(error.words(), QString());
        QCOMPARE(asked, 2); // to the end it would have asked more often
    }

    void aSyntheticSessionRepeatsWithItsSeed()
    {
        const QByteArray session = rowsOf(SyntheticSession(7, 5000));
        QCOMPARE(session.count('\n'), 5000);
        QCOMPARE(rowsOf(SyntheticSession(7, 5000)), session);
        QVERIFY(rowsOf(SyntheticSession(8, 5000)) != session);
    }
};

QTEST_APPLESS_MAIN(tst_QuoteSource)
#include "tst_QuoteSource.moc"
