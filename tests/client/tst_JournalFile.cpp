// The journal's file: what it refuses, and that batches are whole.
#include <JournalFile.h>

#include <QFile>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

namespace {

JournalBatch batchOf(std::initializer_list<quint64> orderIds)
{
    JournalBatch batch;
    for (quint64 id : orderIds) {
        lxclient::Execution execution;
        execution.order = {QString("t-%1").arg(id), id, "EUR/USD", -100};
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
        QTest::newRow("newer") << QString("PRAGMA application_id = %1; PRAGMA user_version = 9")
                                      .arg(JournalFile::ApplicationId)
                               << "is a journal of version 9";
    }
    void aFileThatIsNoSuchJournalIsRefusedByNameAndLeftAlone()
    {
        QFETCH(QString, statement);
        QFETCH(QString, reason);
        const QTemporaryDir dir;
        QFile file(dir.filePath("trades.db"));
        if (statement.isEmpty()) {
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray("dear diary\n").repeated(100));
            file.close();
        } else {
            auto db = QSqlDatabase::addDatabase("QSQLITE", statement);
            db.setDatabaseName(file.fileName());
            QVERIFY(db.open());
            for (const QString& part : statement.split(';'))
                QVERIFY(QSqlQuery(db).exec(part));
            db.close();
        }
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray before = file.readAll();
        const QString error = JournalFile().open(file.fileName());
        QVERIFY2(error.startsWith(file.fileName() + ": ") && error.contains(reason),
                 qPrintable(error));
        file.seek(0);
        QCOMPARE(file.readAll(), before);
    }

    void batchesAreWholeAndEachSessionCountsItsOwn()
    {
        const QTemporaryDir dir;
        for (int session = 0; session < 2; ++session) {
            JournalFile journal;
            QCOMPARE(journal.open(dir.filePath("trades.db")), QString());
            QCOMPARE(journal.write(batchOf({1, 2})), QString());
            QVERIFY(journal.write(batchOf({3, 2})).contains("trades.db: ")); // 2 is there
            QCOMPARE(journal.countExecutions(), quint64(2));
            QCOMPARE(journal.write(batchOf({3})), QString());
            QCOMPARE(journal.countExecutions(), quint64(3));
        }
    }
};

QTEST_GUILESS_MAIN(tst_JournalFile)
#include "tst_JournalFile.moc"
