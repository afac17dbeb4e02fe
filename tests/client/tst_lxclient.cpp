// The program as its user runs it: arguments in, tables and exit code out.
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace {

constexpr int DeadlineMs = 60000;

struct Outcome
{
    int code = -1;
    QString out;
    QString err;

    // The tables without the line that tells how fast it was.
    QString tables() const { return out.section(QLatin1String("in order.\n"), 0, 0); }

    // What the ledger says of an account: its count, or UNEQUAL.
    QString count(const QString& account) const
    {
        const QRegularExpression line(QLatin1String("^") + QRegularExpression::escape(account)
                                          + QLatin1String("  +(\\S+)"),
                                      QRegularExpression::MultilineOption);
        return line.match(out.section(QLatin1String("\nLedger "), 1)).captured(1);
    }
};

class Client : public QProcess
{
public:
    explicit Client(const QStringList& arguments)
    {
        QProcess::start(QStringLiteral(LXCLIENT), arguments);
    }

    Outcome outcome()
    {
        if (!waitForFinished(DeadlineMs))
            qFatal("lxclient did not end within its deadline");
        const int code = exitStatus() == NormalExit ? exitCode() : -1;
        return {code, QString::fromUtf8(readAllStandardOutput()),
                QString::fromUtf8(readAllStandardError())};
    }
};

Outcome run(const QStringList& arguments)
{
    return Client(arguments).outcome();
}

// A short session with orders in it.
const QStringList brief{QStringLiteral("--synthetic-quotes"), QStringLiteral("20000")};

#define VERIFY_CODE(outcome, expected)                                                             \
    QVERIFY2((outcome).code == (expected), qPrintable((outcome).out + (outcome).err))

} // namespace

class tst_lxclient : public QObject
{
    Q_OBJECT
private slots:
    void everythingIsDeliveredUnderBothIdlePolicies_data()
    {
        QTest::addColumn<QString>("idle");
        QTest::newRow("park") << "park";
        QTest::newRow("poll") << "poll";
    }
    void everythingIsDeliveredUnderBothIdlePolicies()
    {
        QFETCH(QString, idle);
        const Outcome outcome = run(brief + QStringList{"--idle", idle});
        VERIFY_CODE(outcome, 0);
        QVERIFY(outcome.out.contains(QLatin1String("The ledger balances")));
        QVERIFY(outcome.count(QStringLiteral("orders")).toInt() > 0);
        QVERIFY(outcome.count(QStringLiteral("quotes EUR/USD")).size() > 3);
        QCOMPARE(outcome.err, QString());
    }

    void aRecordingReplaysToTheSameTables()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("day.csv"));
        const Outcome made = run(brief + QStringList{"--record", file});
        VERIFY_CODE(made, 0);
        const Outcome replayed = run({"--quotes", file});
        VERIFY_CODE(replayed, 0);
        QVERIFY(made.tables().contains(QLatin1String("quotes USD/JPY")));
        QCOMPARE(replayed.tables(), made.tables());
    }

    void badRowsAreNamedCountedAndSkipped()
    {
        const QTemporaryDir dir;
        QFile file(dir.filePath(QStringLiteral("day.csv")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("timestamp,symbol,bid,ask\n"
                   "2020-01-01T17:00:00.065Z,EUR/USD,1.121200,1.121720\n"
                   "nonsense\n"
                   "2020-01-01T17:00:01.065Z,EUR/USD,1.121300,1.121820\n");
        file.close();
        const Outcome outcome = run({"--quotes", file.fileName()});
        VERIFY_CODE(outcome, 0);
        QVERIFY2(outcome.err.contains(file.fileName() + ":3: 4 fields expected, 1 found"),
                 qPrintable(outcome.err));
        QVERIFY(outcome.out.contains(QLatin1String("bad rows skipped: 1")));
        QCOMPARE(outcome.count(QStringLiteral("quotes EUR/USD")), QStringLiteral("2"));
    }

    void whatCannotStartSaysWhyAndExitsWithTwo_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("named");
        QTest::newRow("no file") << QStringList{"--quotes", "/nowhere.csv"} << "/nowhere.csv: ";
        QTest::newRow("no recording") << QStringList{"--quotes", LXCLIENT} << "is no recording";
        QTest::newRow("no folder") << QStringList{"--plugins", "/nowhere"} << "/nowhere: ";
        QTest::newRow("journal") << QStringList{"--journal", "/nowhere/t.db"} << "/nowhere/t.db: ";
        QTest::newRow("no journal") << QStringList{"--journal", LXCLIENT} << "is no journal";
        QTest::newRow("record") << QStringList{"--record", "/nowhere/t.csv"} << "/nowhere/t.csv: ";
        QTest::newRow("link") << QStringList{"--link", "red:board#1,board#9"} << "board#9";
    }
    void whatCannotStartSaysWhyAndExitsWithTwo()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, named);
        const Outcome outcome = run(arguments);
        VERIFY_CODE(outcome, 2);
        QVERIFY2(outcome.err.contains(named), qPrintable(outcome.err));
        QCOMPARE(outcome.out, QString());
    }

    void aWrongCommandLineExitsWithOne_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("option") << QStringList{"--nonsense"};
        QTest::newRow("argument") << QStringList{"day.csv"};
        QTest::newRow("speed") << QStringList{"--speed", "0"};
        QTest::newRow("boards") << QStringList{"--boards", "0"};
        QTest::newRow("idle") << QStringList{"--idle", "sleep"};
        QTest::newRow("colour") << QStringList{"--link", "pink:board#1"};
        QTest::newRow("two colours") << QStringList{"--link", "red:a", "--link", "blue:a"};
        QTest::newRow("set") << QStringList{"--set", "nonsense"};
    }
    void aWrongCommandLineExitsWithOne()
    {
        QFETCH(QStringList, arguments);
        const Outcome outcome = run(arguments);
        VERIFY_CODE(outcome, 1);
        QVERIFY(outcome.err.startsWith(QLatin1String("lxclient: ")));
    }

    void exactlyTheBoardsOfTheColourFollow()
    {
        const Outcome outcome =
            run(brief
                + QStringList{"--boards", "4", "--link", "green:board#1,board#3", "--link",
                              "blue:board#2,board#4"});
        VERIFY_CODE(outcome, 0);
        const auto shown = [&](int board) {
            return QRegularExpression(QStringLiteral("^board#%1 .*shows (\\S+),").arg(board),
                                      QRegularExpression::MultilineOption)
                .match(outcome.out)
                .captured(1);
        };
        const auto selections = [&](int board) {
            return outcome.count(QStringLiteral("selections of board#%1").arg(board)).toInt();
        };
        QVERIFY(selections(1) > 1);
        QCOMPARE(selections(2), 0);
        QCOMPARE(shown(3), shown(1));
        QCOMPARE(shown(4), shown(2)); // both as they were opened
        QVERIFY(outcome.out.contains(
            QRegularExpression(QStringLiteral("selections of board#1 .*board#1 put, board#3\n"))));
    }

    void anOrderOverTheLimitIsRefusedAndTheLedgerKnows()
    {
        // the desk has no time to see one filled before the next comes, or it has: both balance
        const Outcome outcome = run(brief
                                    + QStringList{"--set", "orders.max-open=1", "--set",
                                                  "strategy.fast=10", "--set", "strategy.slow=40"});
        VERIFY_CODE(outcome, 0);
        const int requests = outcome.count(QStringLiteral("order requests of strategy"))
                                 .remove(QLatin1Char(','))
                                 .toInt();
        const int refused =
            outcome.count(QStringLiteral("refusals to strategy")).remove(QLatin1Char(',')).toInt();
        const int orders = outcome.count(QStringLiteral("orders")).remove(QLatin1Char(',')).toInt();
        QCOMPARE(orders + refused, requests);
        QVERIFY(orders > 0);
    }

    void anInterruptEndsItInOrder()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("day.csv"));
        Client client({"--speed", "100", "--record", file});
        const auto recorded = [&] {
            QFile recording(file);
            return recording.open(QIODevice::ReadOnly) ? recording.readAll().count('\n') - 1 : 0;
        };
        QTRY_VERIFY_WITH_TIMEOUT(recorded() > 20, DeadlineMs);
        QVERIFY(::kill(static_cast<pid_t>(client.processId()), SIGINT) == 0);
        const Outcome outcome = client.outcome();
        VERIFY_CODE(outcome, 0);
        QVERIFY(outcome.out.contains(QLatin1String(", interrupted")));
        QVERIFY(outcome.out.contains(QStringLiteral("%L1 quotes recorded in").arg(recorded())));
    }

    void aJournalSurvivesBeingKilledAtAnyMoment()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("trades.db"));
        auto db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"));
        db.setDatabaseName(file);
        const auto number = [&](const QString& question) {
            QSqlQuery query(db);
            return db.open() && query.exec(question) && query.next() ? query.value(0).toInt() : -1;
        };
        // whole: in each session the orders 1 to n, in the order in which they were executed
        const QString torn = QStringLiteral(
            "SELECT count(*) FROM executions e WHERE symbol = '' OR price = '' OR order_id != "
            "(SELECT count(*) FROM executions f WHERE f.session = e.session AND f.id <= e.id)");
        int rows = 0;
        for (int round = 0; round < 4; ++round) {
            Client client({"--speed", "30000", "--journal", file});
            QTRY_VERIFY_WITH_TIMEOUT(number(QStringLiteral("SELECT count(*) FROM executions"))
                                         > rows + 3 * round,
                                     DeadlineMs);
            client.kill();
            QVERIFY(client.waitForFinished(DeadlineMs));
            QSqlQuery check(db);
            QVERIFY(check.exec(QStringLiteral("PRAGMA integrity_check")) && check.next());
            QCOMPARE(check.value(0).toString(), QStringLiteral("ok"));
            QCOMPARE(number(torn), 0);
            rows = number(QStringLiteral("SELECT count(*) FROM executions"));
        }
        db.close();
        const Outcome outcome = run(brief + QStringList{"--journal", file});
        VERIFY_CODE(outcome, 0);
        QCOMPARE(number(QStringLiteral("SELECT count(*) FROM executions")) - rows,
                 outcome.count(QStringLiteral("orders")).toInt());
        QCOMPARE(number(torn), 0);
    }

    void aPluginUnknownToTheHostIsLedThroughItsLifeAndReported()
    {
        const Folder folder({QStringLiteral(STRANGER)});
        const Outcome outcome =
            run(brief + QStringList{"--plugins", folder.path(), "--set", "strangers=2"});
        VERIFY_CODE(outcome, 0);
        QVERIFY(outcome.out.contains(
            QRegularExpression(QStringLiteral("\nstranger#2 +0 +20,000 +0  a stranger's remark"))));
        QCOMPARE(outcome.err,
                 QStringLiteral("stranger#1 initialised\nstranger#2 initialised\n"
                                "stranger#2 shut down\nstranger#1 shut down\n")
                     + destroyed(outcome));
        const Outcome faulty = run(brief
                                   + QStringList{"--plugins", folder.path(), "--set", "strangers=1",
                                                 "--set", "fault=stranger#1"});
        VERIFY_CODE(faulty, 3);
        QVERIFY(faulty.out.contains(QLatin1String("FAULT  stranger#1: told to be faulty")));
    }

    void aPluginThatCannotStartShutsDownTheOthersInReverse()
    {
        const Folder folder({QStringLiteral(STRANGER)});
        const Outcome outcome =
            run({"--plugins", folder.path(), "--set", "strangers=3", "--set", "refuse=stranger#3"});
        VERIFY_CODE(outcome, 2);
        QVERIFY(outcome.err.contains(QRegularExpression(
            QStringLiteral("stranger.*\\.so: plugin stranger#3 cannot start: told to refuse"))));
        QVERIFY2(
            outcome.err.contains(QLatin1String("stranger#2 shut down\nstranger#1 shut down\n")),
            qPrintable(outcome.err));
    }

    void aLibraryThatIsNoFitPluginStopsTheStart_data()
    {
        QTest::addColumn<QString>("library");
        QTest::addColumn<QString>("reason");
        QTest::newRow("no library") << QStringLiteral(__FILE__) << "cannot be loaded";
        QTest::newRow("foreign") << QStringLiteral(FOREIGN) << "lacks the interface";
        QTest::newRow("repeated") << QStringLiteral(LXCLIENT_PLUGINS "/libboard.so")
                                  << "repeats the ID board of";
    }
    void aLibraryThatIsNoFitPluginStopsTheStart()
    {
        QFETCH(QString, library);
        QFETCH(QString, reason);
        const Folder folder({});
        const QString copy = folder.path() + QStringLiteral("/libzz.so");
        QVERIFY(QFile::copy(library, copy));
        const Outcome outcome = run({"--plugins", folder.path()});
        VERIFY_CODE(outcome, 2);
        QVERIFY2(outcome.err.startsWith(QStringLiteral("lxclient: %1: %2").arg(copy, reason)),
                 qPrintable(outcome.err));
    }

private:
    // A plugin folder with those of the build, and more.
    class Folder
    {
    public:
        explicit Folder(const QStringList& more)
        {
            const QDir built(QStringLiteral(LXCLIENT_PLUGINS));
            QStringList libraries = more;
            for (const QFileInfo& info : built.entryInfoList({QStringLiteral("*.so")}, QDir::Files))
                libraries.append(info.filePath());
            for (const QString& library : qAsConst(libraries)) {
                if (!QFile::copy(library, m_dir.filePath(QFileInfo(library).fileName())))
                    qFatal("%s cannot be copied", qPrintable(library));
            }
        }

        QString path() const { return m_dir.path(); }

    private:
        QTemporaryDir m_dir;
    };

    // The lines of the plugins' destruction, the end of stderr, which come in no promised order.
    static QString destroyed(const Outcome& outcome)
    {
        QString lines;
        for (const QString& line : outcome.err.split(QLatin1Char('\n'))) {
            if (line.endsWith(QLatin1String(" destroyed")))
                lines += line + QLatin1Char('\n');
        }
        return lines.count(QLatin1Char('\n')) == 2 ? lines : QStringLiteral("not destroyed");
    }
};

QTEST_GUILESS_MAIN(tst_lxclient)
#include "tst_lxclient.moc"
