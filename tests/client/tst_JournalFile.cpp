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
            auto db = QSqlDatabase::addDatabase("QSQLITE", statements.join(';'));
            db.setDatabaseName(file);
            QVERIFY(db.open());
            for (const QString& statement : statements)
                QVERIFY(QSqlQuery(db).exec(statement));
            db.close();
            const QByteArray before = contentOf(file);
            const QString error = JournalFile().open(file).words();
            QVERIFY2(error.startsWith(file + ": ") && error.contains(reason), qPrintable(error));
            QCOMPARE(contentOf(file), before);
        }
    }

    void batchesAreWholeAndEachSessionCountsItsOwn()
    {
        const QTemporaryDir dir;
        for (int session = 0; session < 2; ++session) {
            JournalFile journal;
            QCOMPARE(journal.open(dir.filePath("trades.db")).words(), QString());
            QCOMPARE(journal.write(batchOf({1, 2})).words(), QString());
            QVERIFY(journal.write(batchOf({3, 2})).words().contains("trades.db: ")); // 2 is there
            QCOMPARE(journal.countExecutions(), quint64(2));
            QCOMPARE(journal.write(batchOf({3})).words(), QString());
            QCOMPARE(journal.countExecutions(), quint64(3));
        }
    }
};

QTEST_GUILESS_MAIN(tst_JournalFile)
#include "tst_JournalFile.moc"
