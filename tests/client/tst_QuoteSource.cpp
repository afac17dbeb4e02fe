// Reading, merging, making up and recording quotes.
#include <QuoteSource.h>
#include <QuoteText.h>
#include <RecordingWriter.h>

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
    void aBadRowIsReportedWithItsLineAndSkipped_data()
    {
        QTest::addColumn<QByteArray>("row");
        QTest::addColumn<QString>("reason");
        const auto row = [](const QByteArray& text, const char* reason) {
            QTest::newRow(text.left(100)) << text << QString(reason);
        };
        row("2020-01-01T17:00:00.065Z,EUR/USD,1.1", "4 fields expected, 3 found");
        row("2020-01-01T17:00:00.065Z,EUR/USD,1,2,3", "4 fields expected, 5 found");
        row("2020-01-01T17:00:00Z,EUR/USD,1,2", "timestamp \"2020-01-01T17:00:00Z\"");
        row("2020-01-01T17:00:00.065,EUR/USD,1,2", "timestamp");
        row("2020-02-30T17:00:00.065Z,EUR/USD,1,2", "timestamp");
        row("2020-01-01T24:00:00.065Z,EUR/USD,1,2", "timestamp");
        row("2020-01-01T17:00:00.065Z, ,1,2", "symbol \" \" is empty");
        row("2020-01-01T17:00:00.065Z,\"EUR\",1,2", "symbol \"\"EUR\"\" is quoted");
        row("2020-01-01T17:00:00.065Z,EUR\x01,1,2", "symbol \"EUR?\" holds characters");
        row("2020-01-01T17:00:00.065Z,\xff\xfe,1,2", "holds characters");
        row("2020-01-01T17:00:00.065Z,E,,2", "bid \"\" is not a price");
        row("2020-01-01T17:00:00.065Z,E,1,2x", "ask \"2x\" is not a price");
        for (const char* bid :
             {"1.", ".5", "1.2.3", "1e5", "-", "1234567890123456", "0.1234567890"})
            row(QByteArray("2020-01-01T17:00:00.065Z,E,") + bid + ",2", "bid");
        row(QByteArray(100'000, 'x'), "longer than 4096 bytes");
    }
    void aBadRowIsReportedWithItsLineAndSkipped()
    {
        QFETCH(QByteArray, row);
        QFETCH(QString, reason);
        const Reading reading(header + goodRow + row + '\n' + goodRow);
        QCOMPARE(reading.rows, goodRow + goodRow);
        QCOMPARE(reading.complaints.size(), 1);
        QVERIFY2(reading.complaints[0].startsWith("day.csv:3: ")
                     && reading.complaints[0].contains(reason),
                 qPrintable(reading.complaints[0]));
    }

    void aGoodRowIsReadAsItIsRecorded()
    {
        for (const QByteArray row : {"2020-01-01T17:00:00.065Z,EUR/USD,1.121200,1.121720\n",
                                     "2013-12-31T23:59:59.999Z,USD/JPY,86.650,87\n",
                                     "2020-04-20T18:08:00.000Z,OIL,-37.63,-0.01\n",
                                     "2020-04-20T18:08:00.000Z,B\xc3\xb6rse,0.000000001,0\n"})
            QCOMPARE(Reading(header + row).rows, row);
    }

    void otherLineEndsBlankLinesAndAMissingLastOneAreTaken()
    {
        const Reading reading("\xEF\xBB\xBF" + quotetext::Header + "\r\n\r\n" + goodRow.trimmed()
                              + "\r\n\n" + goodRow.trimmed());
        QVERIFY(reading.isRecording);
        QCOMPARE(reading.rows, goodRow + goodRow);
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
        QString error;
        const auto merger = QuoteMerger::open(files, {}, error);
        QVERIFY2(merger, qPrintable(error));
        QStringList order;
        qint64 start = 0;
        while (const auto timed = merger->next()) {
            start = start ? start : timed->due_ms;
            order << QString("%1 %2 %3 s")
                         .arg(timed->quote.symbol, timed->quote.bid.toString())
                         .arg((timed->due_ms - start) / 1000);
        }
        QCOMPARE(order.join(", "), QString("A 1 0 s, B 1 0 s, B 2 2 s, A 2 3 s, A 3 3 s, B 3 4 s"));
        QCOMPARE(scanSymbols(files, error).value(), QStringList({"A", "B"}));
    }

    void aSyntheticSessionRepeatsWithItsSeedAndSurvivesRecording()
    {
        const QByteArray session = rowsOf(SyntheticSession(7, 5000));
        QCOMPARE(session.count('\n'), 5000);
        QCOMPARE(rowsOf(SyntheticSession(7, 5000)), session);
        QVERIFY(rowsOf(SyntheticSession(8, 5000)) != session);
        const QTemporaryDir dir;
        const QString name = dir.filePath("session.csv");
        {
            RecordingWriter writer;
            QVERIFY(writer.open(name));
            SyntheticSession source(7, 5000);
            while (const auto timed = source.next())
                QVERIFY(writer.write(timed->quote));
        }
        QString error;
        const auto merger = QuoteMerger::open({name}, {}, error);
        QVERIFY2(merger, qPrintable(error));
        QCOMPARE(rowsOf(std::move(*merger)), session);
    }
};

QTEST_APPLESS_MAIN(tst_QuoteSource)
#include "tst_QuoteSource.moc"
