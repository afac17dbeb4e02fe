// The journal's file: what it refuses, and that batches are whole.
#include <JournalFile.h>

#include <QFile>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

namespace {

JournalBatch batchOf(std::initializer_list<int> orderIds)
{
    JournalBatch batch;
    for (int id : orderIds) {
        lxclient::Execution execution;
        execution.order = {QStringLiteral("t-%1").arg(id), static_cast<quint64>(id),
                           QStringLiteral("EUR/USD"), -100};
        execution.price = {1121200, 6};
        batch.executions.append(execution);
    }
    return batch;
}

} // namespace

class tst_JournalFile : public QObject
{
    Q_OBJECT
private slots:
    void aFileThatIsNoSuchJournalIsRefusedByNameAndLeftAlone_data()
    {
        QTest::addColumn<QString>("statement"); // run in a new database; empty: not even that
        QTest::addColumn<QString>("reason");
        QTest::newRow("text") << QString() << "is no journal";
        QTest::newRow("database") << "CREATE TABLE t (a)"
                                  << "another program's database";
        QTest::newRow("mark") << "PRAGMA application_id = 7"
                              << "another program's database";
        QTest::newRow("newer") << QStringLiteral(
                                      "PRAGMA application_id = %1; PRAGMA user_version = 9")
                                      .arg(JournalFile::ApplicationId)
                               << "is a journal of version 9";
    }
    void aFileThatIsNoSuchJournalIsRefusedByNameAndLeftAlone()
    {
        QFETCH(QString, statement);
        QFETCH(QString, reason);
        const QTemporaryDir dir;
        QFile file(dir.filePath(QStringLiteral("trades.db")));
        if (statement.isEmpty()) {
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray("dear diary\n").repeated(100));
            file.close();
        } else {
            {
                auto db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), "prepare");
                db.setDatabaseName(file.fileName());
                QVERIFY(db.open());
                for (const QString& part : statement.split(QLatin1Char(';')))
                    QVERIFY(QSqlQuery(db).exec(part));
            }
            QSqlDatabase::removeDatabase("prepare");
        }
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray before = file.readAll();
        {
            JournalFile journal;
            const QString error = journal.open(file.fileName());
            QVERIFY2(error.startsWith(file.fileName() + QLatin1String(": ")), qPrintable(error));
            QVERIFY2(error.contains(reason), qPrintable(error));
        }
        file.seek(0);
        QCOMPARE(file.readAll(), before);
    }

    void sessionsAddUpAndEachCountsItsOwn()
    {
        const QTemporaryDir dir;
        const QString name = dir.filePath(QStringLiteral("trades.db"));
        for (int rows : {2, 3}) {
            JournalFile journal;
            QCOMPARE(journal.open(name), QString());
            QCOMPARE(journal.write(batchOf({1, 2})), QString());
            if (rows == 3)
                QCOMPARE(journal.write(batchOf({3})), QString());
            QCOMPARE(journal.countExecutions(), static_cast<quint64>(rows));
        }
    }

    void aBatchThatFailsLeavesNothingBehind()
    {
        const QTemporaryDir dir;
        JournalFile journal;
        QCOMPARE(journal.open(dir.filePath(QStringLiteral("trades.db"))), QString());
        QCOMPARE(journal.write(batchOf({1, 2})), QString());
        QVERIFY(journal.write(batchOf({3, 2})).contains(QLatin1String("trades.db: ")));
        QCOMPARE(journal.countExecutions(), quint64(2));
        QCOMPARE(journal.write(batchOf({3})), QString());
        QCOMPARE(journal.countExecutions(), quint64(3));
    }
};

QTEST_GUILESS_MAIN(tst_JournalFile)
#include "tst_JournalFile.moc"
