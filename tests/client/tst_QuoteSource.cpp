// Reading, merging, making up and recording quotes.
#include <QuoteSource.h>
#include <QuoteText.h>
#include <RecordingWriter.h>

#include <QBuffer>
#include <QTemporaryDir>
#include <QtTest>

using lxclient::Quote;

namespace {

const QByteArray header = quotetext::Header + '\n';
const QByteArray goodRow = "2020-01-01T17:00:00.065Z,EUR/USD,1.121200,1.121720\n";

// What a reader makes of a recording: rows as they would be recorded, and complaints.
struct Reading
{
    explicit Reading(QByteArray text)
    {
        QBuffer buffer(&text);
        buffer.open(QIODevice::ReadOnly);
        QuoteReader reader(buffer, QStringLiteral("day.csv"), [this](QString where, QString why) {
            complaints.append(where + QLatin1String(": ") + why);
        });
        isRecording = reader.readHeader();
        while (const auto timed = reader.next()) {
            rows += quotetext::formatRow(timed->quote);
            dueMs.append(timed->due_ms);
        }
    }

    bool isRecording = false;
    QByteArray rows;
    QVector<qint64> dueMs;
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
        const auto row = [](const char* text, const char* reason) {
            QTest::newRow(text) << QByteArray(text) << QString(QLatin1String(reason));
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
        row("2020-01-01T17:00:00.065Z,E,1.,2", "bid");
        row("2020-01-01T17:00:00.065Z,E,.5,2", "bid");
        row("2020-01-01T17:00:00.065Z,E,1.2.3,2", "bid");
        row("2020-01-01T17:00:00.065Z,E,1e5,2", "bid");
        row("2020-01-01T17:00:00.065Z,E,-,2", "bid");
        row("2020-01-01T17:00:00.065Z,E,1234567890123456,2", "bid");
        row("2020-01-01T17:00:00.065Z,E,0.1234567890,2", "bid");
        QTest::newRow("endless") << QByteArray(100'000, 'x') << "longer than 4096 bytes";
    }
    void aBadRowIsReportedWithItsLineAndSkipped()
    {
        QFETCH(QByteArray, row);
        QFETCH(QString, reason);
        const Reading reading(header + goodRow + row + '\n' + goodRow);
        QCOMPARE(reading.rows, goodRow + goodRow);
        QCOMPARE(reading.complaints.size(), 1);
        QVERIFY2(reading.complaints[0].startsWith(QLatin1String("day.csv:3: ")),
                 qPrintable(reading.complaints[0]));
        QVERIFY2(reading.complaints[0].contains(reason), qPrintable(reading.complaints[0]));
    }

    void aGoodRowIsReadAsItIsRecorded_data()
    {
        QTest::addColumn<QByteArray>("row");
        for (const char* row : {"2020-01-01T17:00:00.065Z,EUR/USD,1.121200,1.121720\n",
                                "2013-12-31T23:59:59.999Z,USD/JPY,86.650,87\n",
                                "2020-04-20T18:08:00.000Z,OIL,-37.63,-0.01\n",
                                "2020-04-20T18:08:00.000Z,B\xc3\xb6rse,0.000000001,0\n"})
            QTest::newRow(row) << QByteArray(row);
    }
    void aGoodRowIsReadAsItIsRecorded()
    {
        QFETCH(QByteArray, row);
        const Reading reading(header + row);
        QCOMPARE(reading.rows, row);
        QVERIFY(reading.complaints.isEmpty());
    }

    void otherLineEndsBlankLinesAndAMissingLastOneAreTaken()
    {
        const Reading reading("\xEF\xBB\xBF" + quotetext::Header + "\r\n\r\n" + goodRow.trimmed()
                              + "\r\n\n" + goodRow.trimmed());
        QVERIFY(reading.isRecording);
        QCOMPARE(reading.rows, goodRow + goodRow);
        QVERIFY(reading.complaints.isEmpty());
    }

    void whatIsNoRecordingIsRefusedByName()
    {
        const QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("notes.txt"));
        const auto refusal = [&] {
            QString error;
            return QuoteMerger::open({name}, {}, error) ? QString() : error;
        };
        QVERIFY(refusal().startsWith(name + QLatin1String(": cannot be read")));
        QFile file(name);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(refusal().startsWith(name + QLatin1String(": is no recording")));
        file.write("time;symbol;bid;ask\n");
        file.close();
        QVERIFY(refusal().startsWith(name + QLatin1String(": is no recording")));
    }

    void aStepBackInTimeIsKeptAndDueAtOnce()
    {
        const Reading reading(header
                              + "2020-01-01T00:00:05.000Z,A,1,2\n"
                                "2020-01-01T00:00:01.000Z,A,3,4\n"
                                "2020-01-01T00:00:06.000Z,A,5,6\n");
        QCOMPARE(reading.dueMs.size(), 3);
        QCOMPARE(reading.dueMs[1], reading.dueMs[0]);
        QCOMPARE(reading.dueMs[2], reading.dueMs[0] + 1000);
        QVERIFY(reading.rows.contains("00:00:01.000Z,A,3,4"));
    }

    void recordingsAreMergedByTimeAndTiesInTheOrderOfTheFiles()
    {
        const QTemporaryDir dir;
        const auto write = [&](const char* name, const QByteArray& rows) {
            QFile file(dir.filePath(QLatin1String(name)));
            file.open(QIODevice::WriteOnly);
            file.write(header + rows);
            return file.fileName();
        };
        const QStringList files{write("a.csv",
                                      "2020-01-01T00:00:01.000Z,A,1,1\n"
                                      "2020-01-01T00:00:04.000Z,A,2,2\n"
                                      "2020-01-01T00:00:00.000Z,A,3,3\n"),
                                write("b.csv",
                                      "2020-01-01T00:00:01.000Z,B,1,1\n"
                                      "2020-01-01T00:00:03.000Z,B,2,2\n"
                                      "2020-01-01T00:00:05.000Z,B,3,3\n")};
        QString error;
        const auto merger = QuoteMerger::open(files, {}, error);
        QVERIFY2(merger, qPrintable(error));
        QString order;
        while (const auto timed = merger->next())
            order += timed->quote.symbol + timed->quote.bid.toString() + QLatin1Char(' ');
        QCOMPARE(order, QStringLiteral("A1 B1 B2 A2 A3 B3 "));
        QCOMPARE(scanSymbols(files, error).value(), QStringList({"A", "B"}));
    }

    void aSyntheticSessionRepeatsWithItsSeedAndSurvivesRecording()
    {
        const QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("session.csv"));
        const auto text = [](QuoteSource&& source) {
            QByteArray rows;
            while (const auto timed = source.next())
                rows += quotetext::formatRow(timed->quote);
            return rows;
        };
        const QByteArray session = text(SyntheticSession(7, 5000));
        QCOMPARE(session.count('\n'), 5000);
        QCOMPARE(text(SyntheticSession(7, 5000)), session);
        QVERIFY(text(SyntheticSession(8, 5000)) != session);
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
        QCOMPARE(text(std::move(*merger)), session);
    }

    void aRecordingThatCannotBeWrittenSaysSo()
    {
        RecordingWriter writer;
        QVERIFY(!writer.open(QStringLiteral("/nowhere/day.csv")));
        QVERIFY(writer.errorString().startsWith(QLatin1String("/nowhere/day.csv: ")));
    }
};

QTEST_APPLESS_MAIN(tst_QuoteSource)
#include "tst_QuoteSource.moc"
