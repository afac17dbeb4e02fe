// The journal's file: what it refuses, that batches are whole, and what becomes of executions that
// it cannot take.
#include "Database.h"

#include <JournalKeeper.h>

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

JournalBatch batchOf(quint64 first, quint64 last)
{
    JournalBatch batch;
    for (quint64 id = first; id <= last; ++id) {
        lxclient::Execution execution;
        execution.order = {QString("t-%1").arg(id), id, "EUR/USD", -100};
        execution.price = {1121200, 6};
        batch.executions.append(execution);
    }
    return batch;
}

QString openedBy(JournalFile& journal, const QString& file)
{
    UnwrittenFile unwritten(file + ".unwritten");
    quint64 taken = 0;
    return journal.open(file, unwritten, taken).words();
}

// Where the executions of a session stand: "rows kept unwritten nowhere taken-in".
QString standing(const JournalKeeper& keeper)
{
    const JournalKeeper::Standing s = keeper.standing();
    return QString("%1 %2 %3 %4 %5")
        .arg(s.rows)
        .arg(s.kept)
        .arg(s.unwritten)
        .arg(s.nowhere)
        .arg(s.taken_in);
}

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class tst_JournalFile : public QObject
{
    Q_OBJECT
private slots:
    void aDatabaseThatIsNoSuchJournalIsRefusedByNameAndLeftAlone()
    {
        const QString ours = QString("PRAGMA application_id = %1").arg(JournalFile::ApplicationId);
        const std::pair<QStringList, QString> cases[] = {
            {{"CREATE TABLE t (a)"}, "another program's database"},
            {{"PRAGMA application_id = 7"}, "another program's database"},
            {{ours, "PRAGMA user_version = 9"}, "is a journal of version 9"},
        };
        for (const auto& [statements, reason] : cases) {
            const QTemporaryDir dir;
            const QString file = dir.filePath("trades.db");
            Database db(file);
            for (const QString& statement : statements)
                QVERIFY(db.execute(statement));
            const QByteArray before = contentOf(file);
            JournalFile journal;
            const QString error = openedBy(journal, file);
            QVERIFY2(error.startsWith(file + ": ") && error.contains(reason), qPrintable(error));
            QCOMPARE(contentOf(file), before);
        }
    }

    void batchesAreWholeAndEachSessionCountsItsOwn()
    {
        const QTemporaryDir dir;
        for (int session = 0; session < 2; ++session) {
            JournalFile journal;
            quint64 rows = 0;
            QCOMPARE(openedBy(journal, dir.filePath("trades.db")), QString());
            QCOMPARE(journal.write(batchOf(1, 2)).words(), QString());
            JournalBatch torn = batchOf(3, 3);
            torn.add(batchOf(2, 2));
            QVERIFY(journal.write(torn).words().contains("trades.db: ")); // 2 is there
            QVERIFY(!journal.countExecutions(rows));
            QCOMPARE(rows, quint64(2));
            QCOMPARE(journal.write(batchOf(3, 3)).words(), QString());
            QVERIFY(!journal.countExecutions(rows));
            QCOMPARE(rows, quint64(3));
        }
    }

    void whatIsKeptComesIntoTheJournalInOrderAndOnce()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("trades.db");
        const QString aside = file + ".unwritten";
        const quint64 limit = JournalKeeper::KeptLimit;
        Database other(file);
        {
            JournalKeeper keeper(file);
            QVERIFY(!keeper.open());
            QVERIFY(!keeper.write(batchOf(1, 1)));
            QVERIFY(other.execute("BEGIN EXCLUSIVE"));
            QCOMPARE(keeper.write(batchOf(2, 2)).words(), file + ": is locked by another program");
            QCOMPARE(standing(keeper), QString("1 1 0 0 0"));
            QVERIFY(other.execute("COMMIT"));
            QVERIFY(!keeper.write({}));
            QCOMPARE(standing(keeper), QString("2 0 0 0 0"));

            QVERIFY(other.execute("BEGIN EXCLUSIVE"));
            QVERIFY(keeper.write(batchOf(3, limit + 2)));
            QCOMPARE(standing(keeper), QString("2 %1 0 0 0").arg(limit));
            QVERIFY(keeper.write(batchOf(limit + 3, limit + 3)));
            QCOMPARE(standing(keeper), QString("2 0 %1 0 0").arg(limit + 1));
            QVERIFY(keeper.write(batchOf(limit + 4, limit + 4)));
            QVERIFY(other.execute("COMMIT"));
            QVERIFY(!keeper.write(batchOf(limit + 5, limit + 5)));
            QCOMPARE(standing(keeper), QString("%1 0 0 0 0").arg(limit + 5));
            QVERIFY(!QFile::exists(aside));

            QVERIFY(other.execute("BEGIN EXCLUSIVE"));
            QVERIFY(keeper.finish(batchOf(limit + 6, limit + 6)));
            QCOMPARE(standing(keeper), QString("%1 0 1 0 0").arg(limit + 5));
            QVERIFY(other.execute("COMMIT"));
        }
        const QByteArray left = contentOf(aside);
        QCOMPARE(left.count('\n'), 1);
        for (int round : {0, 1}) { // the second as after a crash before the file was removed
            QFile again(aside);
            QVERIFY(again.open(QIODevice::WriteOnly) && again.write(left) == left.size());
            again.close();
            JournalKeeper next(file);
            QVERIFY(!next.open());
            QCOMPARE(next.standing().taken_in, quint64(round == 0 ? 1 : 0));
            QVERIFY(!QFile::exists(aside));
        }
        QStringList orders;
        for (quint64 id = 1; id <= limit + 6; ++id)
            orders.append(QString::number(id));
        QCOMPARE(other.ask("SELECT group_concat(order_id) FROM (SELECT order_id FROM executions "
                           "WHERE session = 1 ORDER BY id)"),
                 orders.join(','));
    }

    void whatCannotBeTakenInStaysWhereItIs()
    {
        const QByteArray cases[][2] = {
            {R"(["executions","2020-01-01T00:00:00.000Z","1","t","1","A","1","1","x"])",
             "trades.db: has no session 1 of 2020"}, // another journal's
            {R"(["executions","2020-01-01T00:00:00.000Z","1","t","1",)", ".unwritten:1: is no row"},
            {R"(["executions","2020-01-01T00:00:00.000Z","1","t","x","A","1","1","x"])",
             ".unwritten:1: is no row"},
        };
        for (const auto& [line, said] : cases) {
            const QTemporaryDir dir;
            const QString file = dir.filePath("trades.db");
            QFile aside(file + ".unwritten");
            QVERIFY(aside.open(QIODevice::WriteOnly) && aside.write(line) == line.size());
            aside.close();
            JournalFile journal;
            const QString error = openedBy(journal, file);
            QVERIFY2(error.contains(said), qPrintable(error));
            QCOMPARE(contentOf(aside.fileName()), line);
        }
    }

    // With nothing that can be written at all, what was kept is printed.
    void whatCanBeWrittenNowhereIsCountedAsSuch()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("trades.db");
        JournalKeeper keeper(file);
        QVERIFY(!keeper.open());
        QVERIFY(QDir(dir.path()).mkdir("trades.db.unwritten"));
        Database other(file);
        QVERIFY(other.execute("BEGIN EXCLUSIVE"));
        const QString error = keeper.finish(batchOf(1, 2)).words();
        QVERIFY2(error.contains("trades.db.unwritten: cannot be written: "), qPrintable(error));
        QCOMPARE(standing(keeper), QString("0 0 0 2 0"));
    }
};

QTEST_GUILESS_MAIN(tst_JournalFile)
#include "tst_JournalFile.moc"
