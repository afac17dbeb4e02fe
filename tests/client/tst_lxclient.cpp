// The program as its user runs it: arguments in, tables and exit code out.
#include "Database.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <csignal>
#include <sys/resource.h>

namespace {

constexpr int DeadlineMs = 60000;

struct Outcome
{
    int code = -1;
    QString out;
    QString err;

    // The first capture of a line behind `heading` on stdout; empty: there is no such line.
    QString captured(const QString& heading, const QString& line) const
    {
        const QRegularExpression expression('^' + line, QRegularExpression::MultilineOption);
        return expression.match(out.section('\n' + heading + ' ', 1)).captured(1);
    }

    // What the ledger says of an account. -1: nothing, or UNEQUAL.
    int count(const QString& account) const
    {
        bool ok = false;
        const int number = captured("Ledger", account + "  +(\\S+)").remove(',').toInt(&ok);
        return ok ? number : -1;
    }
};

class Client : public QProcess
{
public:
    // `bad` is what BadPlugin does; no file that the client writes may grow beyond `fileLimit`
    // bytes.
    explicit Client(const QStringList& arguments, const QString& bad = QString(),
                    rlim_t fileLimit = RLIM_INFINITY)
        : m_file_limit(fileLimit)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LX_BAD", bad);
        setProcessEnvironment(environment);
        start(LXCLIENT, arguments);
    }

    // The first capture of what the client has said on stderr so far; null: it has not said that.
    QString said(const QString& expression)
    {
        QCoreApplication::processEvents();
        m_err += QString::fromUtf8(readAllStandardError());
        return QRegularExpression(expression).match(m_err).captured(1);
    }

    void interrupt(int signal = SIGINT)
    {
        if (::kill(static_cast<pid_t>(processId()), signal) != 0)
            qFatal("lxclient cannot be interrupted");
    }

    Outcome outcome()
    {
        if (!waitForFinished(DeadlineMs))
            qFatal("lxclient did not end within its deadline");
        return {exitStatus() == NormalExit ? exitCode() : -1,
                QString::fromUtf8(readAllStandardOutput()),
                m_err + QString::fromUtf8(readAllStandardError())};
    }

protected:
    void setupChildProcess() override
    {
        ::signal(SIGHUP, SIG_DFL); // also under nohup
        const rlimit limit = {m_file_limit, m_file_limit};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }

private:
    const rlim_t m_file_limit;
    QString m_err; // as far as it was looked at
};

Outcome run(const QStringList& arguments)
{
    return Client(arguments).outcome();
}

// A short session with orders in it. However slow the machine, it does not complain.
const QStringList brief{"--synthetic-quotes", "20000", "--stall-limit", "0", "--quiet"};

Outcome runBriefly(const QStringList& arguments)
{
    return run(brief + arguments);
}

// What a client serves: values by series, "lxbase_threads" or "lxbase_inbox_items{plugin=...}".
QMap<QString, double> scrape(int port)
{
    QTcpSocket socket;
    socket.connectToHost("127.0.0.1", static_cast<quint16>(port));
    if (!socket.waitForConnected(DeadlineMs) || socket.write("GET /metrics HTTP/1.0\r\n\r\n") < 0)
        return {};
    while (socket.waitForReadyRead(DeadlineMs)) { }
    QMap<QString, double> values;
    for (const QByteArray& line : socket.readAll().split('\n')) {
        const int space = line.lastIndexOf(' ');
        if (line.startsWith("lxbase_"))
            values.insert(QString::fromUtf8(line.left(space)), line.mid(space + 1).toDouble());
    }
    return values;
}

#define VERIFY_CODE(outcome, expected)                                                             \
    QVERIFY2((outcome).code == (expected), qPrintable((outcome).out + (outcome).err))

// A trace in JSON.
struct Timeline
{
    explicit Timeline(const QString& name)
    {
        QFile file(name);
        if (!file.open(QIODevice::ReadOnly))
            return;
        const QJsonObject read = QJsonDocument::fromJson(file.readAll()).object();
        overwritten = read["otherData"]["overwritten"].toString();
        const QJsonArray events = read["traceEvents"].toArray();
        for (const QJsonValue event : events) {
            const QString phase = event["ph"].toString();
            const double ts = event["ts"].toDouble();
            if (phase == "s")
                arrows[event["id"].toInt()].first = ts;
            else if (phase == "f")
                arrows[event["id"].toInt()].second = ts;
            else if (phase == "X" || phase == "i")
                ++names[event["name"].toString() + ' ' + event["args"]["destination"].toString()];
            if (phase == "M")
                continue;
            const QString track =
                phase == "C" ? event["name"].toString() : QString::number(event["tid"].toInt());
            timesGoBack |= ts < last.value(track, -1e18);
            last[track] = ts;
        }
    }

    // Times never go back on a track, and every arrow has both ends, the first one first.
    bool isSound() const
    {
        return !last.isEmpty() && !timesGoBack
            && std::all_of(arrows.begin(), arrows.end(), [](const auto& ends) {
                   return ends.first > 0 && ends.first <= ends.second;
               });
    }

    // Of the slices and instants whose name and destination begin like this.
    int count(const QString& name) const
    {
        int number = 0;
        for (auto it = names.begin(); it != names.end(); ++it)
            number += it.key().startsWith(name) ? *it : 0;
        return number;
    }

    QString overwritten;
    QMap<int, std::pair<double, double>> arrows{}; // where they begin and end
    QMap<QString, int> names{};
    QMap<QString, double> last{}; // time of each track
    bool timesGoBack = false;
};

// A plugin folder beside that of the build, with one library.
class Folder
{
public:
    explicit Folder(const QString& library)
    {
        if (!QFile::copy(library, added()))
            qFatal("%s cannot be copied", qPrintable(library));
    }

    QString path() const { return m_dir.path(); }
    QString added() const { return m_dir.filePath("libzz.so"); }

private:
    QTemporaryDir m_dir;
};

QString writeFile(const QString& name, const QByteArray& text)
{
    QFile file(name);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        qFatal("%s cannot be written", qPrintable(name));
    return name;
}

} // namespace

class tst_lxclient : public QObject
{
    Q_OBJECT
private slots:
    void boardsThatKeepTheLatestAccountForEveryQuote()
    {
        const Outcome outcome = runBriefly({"--board-policy", "latest"});
        VERIFY_CODE(outcome, 0);
        QVERIFY(outcome.count("quotes superseded at board#2")
                >= 0); // the bus says so, and the board
        QVERIFY(outcome.count("quotes EUR/USD") > 1000);
        const Outcome wrong = runBriefly({"--board-policy", "some"});
        VERIFY_CODE(wrong, 1);
        QVERIFY(wrong.err.contains("--board-policy some"));
    }

    void everythingIsDeliveredUnderBothIdlePolicies()
    {
        const QStringList sessions[] = {
            {"--idle", "park"},
            {"--idle", "poll"},
            // more orders than the desk lets through
            {"--set", "orders.max-open=1", "--set", "strategy.fast=10", "--set",
             "strategy.slow=40"},
        };
        for (const QStringList& arguments : sessions) {
            const Outcome outcome = runBriefly(arguments);
            VERIFY_CODE(outcome, 0);
            QVERIFY(outcome.out.contains("The ledger balances"));
            const int orders = outcome.count("orders");
            QVERIFY(orders > 0);
            QCOMPARE(orders + outcome.count("refusals to strategy"),
                     outcome.count("order requests of strategy"));
            QVERIFY(outcome.count("quotes EUR/USD") > 1000);
            QCOMPARE(outcome.err, QString());
            QCOMPARE(outcome.captured("Plugin", "(metrics)"), QString()); // not asked for
        }
    }

    void aRecordingReplaysToTheSameTablesAndABadRowIsSkipped()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("day.csv");
        const Outcome made = runBriefly({"--record", file});
        const Outcome replayed = run({"--quotes", file});
        VERIFY_CODE(made, 0);
        VERIFY_CODE(replayed, 0);
        // without what tells how fast it was: the backlogs of the plugins and the last lines
        const auto tables = [](const Outcome& outcome) {
            return outcome.out.section("\nPlugin ", 0, 0)
                + outcome.out.section("\nLedger ", 1).section("in order.\n", 0, 0);
        };
        QVERIFY(tables(made).contains("quotes USD/JPY"));
        QCOMPARE(tables(replayed), tables(made));

        QFile recording(file);
        QVERIFY(recording.open(QIODevice::Append) && recording.write("nonsense\n"));
        recording.close();
        const Outcome spoilt = run({"--quotes", file});
        VERIFY_CODE(spoilt, 0);
        QVERIFY(spoilt.err.contains(file + ":20002: 4 fields expected, 1 found"));
        QVERIFY(spoilt.out.contains("bad rows skipped: 1"));
    }

    void whatCannotStartSaysWhy()
    {
        const QTemporaryDir dir;
        const QByteArray header = "timestamp,symbol,bid,ask\n";
        const QString empty = writeFile(dir.filePath("empty.csv"), header);
        const QString bad = writeFile(dir.filePath("bad.csv"), header + "a,b\n");
        const QString locked = dir.filePath("locked.db");
        Database lock(locked);
        QVERIFY(lock.execute("BEGIN EXCLUSIVE"));
        const std::tuple<int, QStringList, QString> cases[] = {
            {1, {"--nonsense"}, "Unknown option"},
            {1, {"--speed", "0"}, "--speed 0"},
            {1, {"--boards", "0"}, "--boards 0"},
            {1, {"--metrics", "65536"}, "--metrics 65536"},
            {1, {"--stall-limit", "-1"}, "--stall-limit -1"},
            {1, {"--skip-gaps", "-1"}, "--skip-gaps -1: a number of seconds from 0"},
            {1, {"--plugin-deadline", "soon"}, "--plugin-deadline soon"},
            {1, {"--link", "red:a", "--link", "blue:a"}, "--link blue:a"},
            {1, {"--role", "desk"}, "--role is of a linked client"},
            {1, {"--link", "nats://a:1"}, "needs --role feed"},
            {1,
             {"--link", "nats://u:p@a:1", "--role", "feed"},
             "do not belong on the command line"},
            {1, {"--link", "http://a:1", "--role", "feed"}, "nats://HOST:PORT is expected"},
            {1, {"--link", "nats://a:1", "--role", "desk", "--store", "x"}, "needs a name"},
            {1, {"--link", "nats://a:1", "--role", "exchange"}, "needs --store FILE"},
            {1, {"--journal", ""}, "--journal: a name is expected"},
            {1, {"--record", ""}, "--record: a name is expected"},
            {1, {"--quotes", empty, "--quotes", ""}, "--quotes: a name is expected"},
            {1, {"--quotes", empty, "--synthetic-quotes", "5"}, "--quotes and --synthetic-quotes"},
            {1, {"--quotes", empty, "--seed", "5"}, "--quotes and --seed exclude"},
            {1, {"--record", bad, "--journal", bad}, "--record " + bad + ": is the file of"},
            {1, {"--no-default-plugins"}, "--no-default-plugins leaves no plugin folder"},
            {2, {"--quotes", empty}, empty + ": has no row that can be played; its header"},
            {2, {"--quotes", bad}, bad + ": has no row that can be played; line 2: 4 fields"},
            {2, {"--journal", locked}, locked + ": is locked by another program"},
            {2, {"--journal", bad}, bad + ": is no journal"},
            {2, {"--no-default-plugins", "--plugins", dir.path()}, dir.path() + ": no plugin"},
            {2, {"--set", "a=9"}, "--set a: no plugin has this setting; there are orders.max-open"},
            {2, {"--set", "orders.max-open=0"}, "--set orders.max-open=0: a whole number from 1"},
            {2, {"--set", "linked=board#1"}, "--set linked: is set by the client itself"},
            {2, {"--quotes", "/nowhere.csv"}, "/nowhere.csv: cannot be read"},
            {2, {"--quotes", LXCLIENT}, LXCLIENT ": is no recording"},
            {2, {"--plugins", "/nowhere"}, "/nowhere: "},
            {1, {"--trace", "t.txt"}, "--trace t.txt: a name that ends in .pftrace"},
            {1, {"--trace-size", "0"}, "--trace-size 0"},
            {2, {"--trace", "/nowhere/t.json"}, "/nowhere/t.json: cannot be written"},
            {2, {"--journal", "/nowhere/t.db"}, "/nowhere/t.db: "},
            {2, {"--record", "/dev/full"}, "/dev/full: cannot be written: No space left"},
            {2, {"--record", "/nowhere/t.csv"}, "/nowhere/t.csv: "},
            {2, {"--link", "red:board#1,board#9"}, "--link: there is no plugin board#9"},
        };
        for (const auto& [code, arguments, said] : cases) {
            const Outcome outcome = run(arguments);
            VERIFY_CODE(outcome, code);
            QVERIFY2(outcome.err.startsWith("lxclient: ") && outcome.err.contains(' ' + said),
                     qPrintable(arguments.join(' ') + " -> " + outcome.err));
            QCOMPARE(outcome.out, QString());
        }
    }

    void pluginFoldersAddUpAndWhatIsNoLibraryInThemIsPassedOver()
    {
        const Folder folder(STRANGER);
        const QDir dir(folder.path());
        QVERIFY(dir.mkdir("folder.so") && QFile::link("/nowhere", dir.filePath("broken.so"))
                && QFile::link(folder.added(), dir.filePath("again.so")));
        const QStringList all{"--no-default-plugins", "--plugins", folder.path(), "--plugins",
                              LXCLIENT_PLUGINS};
        const Outcome outcome = runBriefly(all);
        VERIFY_CODE(outcome, 0);
        QVERIFY(!outcome.captured("Plugin", "(stranger#1) ").isEmpty());
        for (const char* const said : {"/broken.so: is a broken link to /nowhere; passed over",
                                       "/folder.so: is a folder, not a library; passed over"})
            QVERIFY2(outcome.err.contains("lxclient: " + dir.path() + said),
                     qPrintable(outcome.err));
        QVERIFY(!outcome.err.contains("again.so"));
    }

    void theManualHasTheOptionsOfHelp()
    {
        const auto options = [](const QString& text, const QString& line) {
            QStringList found;
            const QRegularExpression expression(line, QRegularExpression::MultilineOption);
            for (auto match = expression.globalMatch(text); match.hasNext();)
                found.append(match.next().captured(1));
            found.sort();
            return found;
        };
        QFile manual(LXCLIENT_MANUAL);
        QVERIFY(manual.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(manual.readAll()).remove('\\');
        const QStringList help = options(run({"--help"}).out, "^  (?:-\\w, )?--([\\w-]+)");
        QVERIFY(help.contains("journal"));
        QCOMPARE(options(text, "^\\.TP\\n\\.BI?R? (?:-\\w \", \" )?--([\\w-]+)"), help);
    }

    void exactlyTheBoardsOfTheColourFollow()
    {
        const Outcome outcome = runBriefly(
            {"--boards", "4", "--link", "green:board#1,board#3", "--link", "blue:board#2,board#4"});
        VERIFY_CODE(outcome, 0);
        const auto shown = [&](int board) {
            return outcome.captured("Plugin", QString("board#%1 .*shows (\\S+),").arg(board));
        };
        QVERIFY(outcome.count("selections of board#1") > 1);
        QCOMPARE(outcome.count("selections of board#2"), 0);
        QCOMPARE(shown(3), shown(1));
        QCOMPARE(shown(4), shown(2)); // both as they were opened
        QCOMPARE(outcome.captured("Ledger", "selections of board#1 .*  (.*)$"),
                 QString("board#1 put, board#3"));
    }

    void anInterruptEndsItInOrder()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("day.csv");
        Client client({"--speed", "100", "--record", file});
        const auto recorded = [&] {
            QFile recording(file);
            return recording.open(QIODevice::ReadOnly) ? recording.readAll().count('\n') - 1 : 0;
        };
        QTRY_VERIFY_WITH_TIMEOUT(recorded() > 20, DeadlineMs);
        client.interrupt();
        const Outcome outcome = client.outcome();
        VERIFY_CODE(outcome, 0);
        QVERIFY(outcome.out.contains(", interrupted"));
        QVERIFY(outcome.out.contains(QString("%L1 quotes recorded in").arg(recorded())));
    }

    void aJournalSurvivesBeingKilledAtAnyMoment()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("trades.db");
        Database db(file);
        const auto rows = [&] { return db.ask("SELECT count(*) FROM executions").toInt(); };
        // in each session the orders 1 to n, in the order in which they were executed
        const auto torn = [&] {
            return db.ask("SELECT count(*) FROM executions e WHERE symbol = '' OR price = '' OR "
                          "order_id != (SELECT count(*) FROM executions f WHERE f.session = "
                          "e.session AND f.id <= e.id)");
        };
        int before = 0;
        for (int round = 0; round < 4; ++round) {
            Client client({"--speed", "30000", "--journal", file});
            QTRY_VERIFY_WITH_TIMEOUT(rows() > before + 3 * round, DeadlineMs);
            client.kill();
            QVERIFY(client.waitForFinished(DeadlineMs));
            QCOMPARE(db.ask("PRAGMA integrity_check"), QString("ok"));
            QCOMPARE(torn(), QString("0"));
            before = rows();
        }
        const Outcome outcome = runBriefly({"--journal", file});
        VERIFY_CODE(outcome, 0);
        QCOMPARE(rows() - before, outcome.count("orders"));
        QCOMPARE(torn(), QString("0"));
    }

    void aLockedJournalIsSaidAtOnceAndFilledLater()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("trades.db");
        Database db(file);
        const auto rows = [&] { return db.ask("SELECT count(*) FROM executions").toInt(); };
        Client client({"--speed", "5000", "--journal", file});
        QTRY_VERIFY_WITH_TIMEOUT(rows() > 0, DeadlineMs);
        QVERIFY(db.execute("BEGIN EXCLUSIVE")); // waits some seconds for its turn
        const QString said = "lxclient.journal: (\\S+): is locked by another program";
        QTRY_COMPARE_WITH_TIMEOUT(client.said(said), file, DeadlineMs);
        client.interrupt();
        const Outcome outcome = client.outcome();
        VERIFY_CODE(outcome, 3);
        QVERIFY(db.execute("COMMIT"));
        const QString fault =
            "FAULT  journal: \\d+ of \\d+ .* not in the journal, (\\d+) of them in ";
        const int left = outcome.captured("Ledger", fault).toInt();
        QVERIFY(left > 0);
        QCOMPARE(rows() + left, outcome.count("orders"));

        const Outcome next = runBriefly({"--journal", file});
        VERIFY_CODE(next, 0);
        QCOMPARE(next.captured("Plugin", "journal .*of earlier sessions: (\\d+)").toInt(), left);
        QCOMPARE(rows(), outcome.count("orders") + next.count("orders"));
    }

    void aFullDiskCostsNoExecutionAndTheRecordingEndsWithAWholeRow()
    {
        const QTemporaryDir dir;
        const QString journal = dir.filePath("trades.db");
        const QString recording = dir.filePath("day.csv");
        Client client({"--synthetic-quotes", "200000", "--stall-limit", "0", "--journal", journal,
                       "--record", recording},
                      {}, 30 * 1024); // for what is written like a disk that is full
        const Outcome full = client.outcome();
        VERIFY_CODE(full, 3);
        QVERIFY2(
            full.err.contains(recording + ": cannot be written: File too large; the recording "),
            qPrintable(full.err));
        QVERIFY2(full.err.contains("lxclient.journal: " + journal + ": "), qPrintable(full.err));
        const Outcome replayed = run({"--quotes", recording, "--stall-limit", "0"});
        VERIFY_CODE(replayed, 0);
        const QString counted =
            QRegularExpression("\n(\\S+) quotes recorded in").match(full.out).captured(1);
        QVERIFY2(replayed.out.contains("\n" + counted + " quotes in "), qPrintable(replayed.out));
        QCOMPARE(replayed.err, QString());

        const Outcome next = runBriefly({"--journal", journal});
        VERIFY_CODE(next, 0);
        const QString rows = "SELECT count(*) FROM executions WHERE session = 1";
        QCOMPARE(Database(journal).ask(rows).toInt(), full.count("orders"));
    }

    void aPluginUnknownToTheHostIsLedThroughItsLifeAndReported()
    {
        const Folder folder(STRANGER);
        const Outcome outcome = runBriefly({"--plugins", folder.path(), "--set", "strangers=2"});
        VERIFY_CODE(outcome, 0);
        QCOMPARE(
            outcome.captured("Plugin", "stranger#2 +0 +20,000 +0 +[\\d,]+ +(?:\\d+ %)?  (.*)$"),
            QString("a stranger's remark"));
        QStringList said = outcome.err.split('\n');
        std::sort(said.end() - 3, said.end()); // destroyed in no promised order, and the last end
        QCOMPARE(said.join(", "),
                 QString(" asked for its payload types, stranger#1 initialised, "
                         "stranger#2 initialised, stranger#1 started, stranger#2 started, "
                         "stranger#2 shut down, stranger#1 shut down, , stranger#1 destroyed, "
                         "stranger#2 destroyed"));
        const Outcome listed = run({"--plugins", folder.path(), "--settings"});
        VERIFY_CODE(listed, 0);
        QVERIFY(
            listed.out.contains(QRegularExpression("\nstranger +strangers +int +from 1 +1  H")));
        QCOMPARE(listed.err, QString()); // nothing ran
        const Outcome faulty = runBriefly(
            {"--plugins", folder.path(), "--set", "strangers=1", "--set", "fault=stranger#1"});
        VERIFY_CODE(faulty, 3);
        QVERIFY(faulty.out.contains("FAULT  stranger#1: told to be faulty"));
        QVERIFY(faulty.out.contains("The bus lost nothing."));
        const Outcome forgetful =
            runBriefly({"--plugins", folder.path(), "--set", "forget=stranger#1"});
        VERIFY_CODE(forgetful, 3);
        QVERIFY(forgetful.out.contains("FAULT  stranger#1: was still registered"));
        QVERIFY(forgetful.out.contains("FAULT  window of stranger#1: was still registered"));
    }

    void aCountThatNobodySharesAndASettingOfAPluginOfTheExamples()
    {
        if (QByteArray(SPREAD_ALERT).isEmpty())
            QSKIP("built without the examples");
        const Folder folder(SPREAD_ALERT);
        const auto alerts = [&](const QString& threshold) {
            return runBriefly({"--plugins", folder.path(), "--set", "spread-alert." + threshold});
        };
        const Outcome many = alerts("threshold=0.157");
        VERIFY_CODE(many, 0);
        QVERIFY(many.count("alerts of spread-alert") > 0);
        QVERIFY(!many.captured("Plugin", "(spread-alert .*alerts: \\d+, wide)").isEmpty());
        const Outcome none = alerts("threshold=9");
        VERIFY_CODE(none, 0);
        QCOMPARE(none.count("alerts of spread-alert"), 0);
        QVERIFY(alerts("first=?").err.contains(": plugin spread-alert cannot start: ? is not"));
    }

    void aPluginOfTheInterfacesFormerVersionIsLedThroughTheLifeItKnows()
    {
        const Folder folder(VERSION2);
        const Outcome outcome = runBriefly({"--plugins", folder.path()});
        VERIFY_CODE(outcome, 0);
        QCOMPARE(outcome.captured("Plugin", "(version2) +0 +0 +0"), QString("version2"));
    }

    void aDisplayIsNeededForWindowsAlone()
    {
        auto environment = QProcessEnvironment::systemEnvironment();
        for (const char* const name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            environment.remove(name);
        QProcess client;
        client.setProcessEnvironment(environment);
        client.start(LXCLIENT, {"--windows"});
        QVERIFY(client.waitForFinished(DeadlineMs));
        QCOMPARE(client.exitCode(), 2);
        QVERIFY(
            client.readAllStandardError().startsWith("lxclient: --windows: there is no display"));
    }

    void whoHoldsUpTheEndIsNamed()
    {
        const QStringList cases[] = {
            {"hang=stranger#1", "(waiting for stranger#1: quotations handler busy for )"},
            {"late=stranger#1", "(shutting down stranger#1 for )"},
        };
        const Folder folder(STRANGER);
        for (const QStringList& names : cases) {
            Client client({"--plugins", folder.path(), "--synthetic-quotes", "2000",
                           "--stall-limit", "50", "--plugin-deadline", "0", "--set", names[0]});
            QTRY_VERIFY_WITH_TIMEOUT(!client.said(names[1]).isNull(), DeadlineMs);
            client.closeWriteChannel();
            const Outcome outcome = client.outcome();
            VERIFY_CODE(outcome, 0);
        }
    }

    void theTraceHasEveryHandlerCallAndTheArrowThatLedToIt()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("day.json");
        const Outcome outcome =
            runBriefly({"--synthetic-quotes", "5000", "--trace", file, "--follow", "strategy-1"});
        VERIFY_CODE(outcome, 0);
        QCOMPARE(outcome.captured("Way of strategy-1", "(strategy: Put \\S+) to orders "),
                 QString("strategy: Put 266241"));
        QVERIFY(outcome.out.contains(": RecvEvent 270337 from orders "));
        const Timeline timeline(file);
        QVERIFY(timeline.isSound());
        QCOMPARE(timeline.overwritten, QString("0"));
        int deliveries = 0;
        for (const QString plugin :
             {"PluginNet", "board#1", "board#2", "journal", "orders", "strategy"}) {
            const QString calls = QString("%L1 +%L2 +%L3 ")
                                      .arg(timeline.count("RecvMsg " + plugin))
                                      .arg(timeline.count("RecvQuotationMsg " + plugin))
                                      .arg(timeline.count("RecvEvent " + plugin));
            QVERIFY2(!outcome.captured("Plugin", plugin + " +(" + calls + ')').isNull(),
                     qPrintable(plugin + ": " + calls + " slices\n" + outcome.out));
            deliveries += timeline.count("RecvMsg " + plugin)
                + timeline.count("RecvQuotationMsg " + plugin)
                + timeline.count("RecvEvent " + plugin);
        }
        QVERIFY(deliveries > 20000);
        QCOMPARE(timeline.arrows.size(), deliveries + timeline.count("Route"));
    }

    void aSmallTraceHasTheNewest()
    {
        const QTemporaryDir dir;
        const QString file = dir.filePath("day.json");
        const Outcome outcome = runBriefly({"--trace", file, "--trace-size", "1", "--follow", "x"});
        VERIFY_CODE(outcome, 0);
        const Timeline timeline(file);
        QVERIFY(timeline.isSound());
        QVERIFY(timeline.overwritten.toInt() > 0);
        QVERIFY(outcome.err.contains("older ones were overwritten"));
        QVERIFY(outcome.out.contains("No put has the trace ID x. But "));
        QCOMPARE(timeline.count("UnReg "), 6);
        QVERIFY(timeline.arrows.size() > 1000);
    }

    void whatTheBusDoesIsWrittenWhileTheSessionLasts()
    {
        const QTemporaryDir dir;
        const Folder folder(STRANGER);
        Client client({"--plugins", folder.path(), "--synthetic-quotes", "2000", "--stall-limit",
                       "50", "--plugin-deadline", "0", "--set", "hang=stranger#1", "--trace",
                       dir.filePath("a.day.json")});
        QTRY_VERIFY_WITH_TIMEOUT(
            !client.said("(/a.day.1.json: trace of .*, for a handler stalls)").isNull(),
            DeadlineMs);
        QVERIFY(Timeline(dir.filePath("a.day.1.json")).count("Stall ") > 0);
        client.interrupt(SIGUSR1);
        QTRY_VERIFY_WITH_TIMEOUT(!client.said("(/a.day.2.json: trace of .*, for SIGUSR1)").isNull(),
                                 DeadlineMs);
        client.closeWriteChannel();
        const Outcome outcome = client.outcome();
        VERIFY_CODE(outcome, 0);
        QVERIFY(Timeline(dir.filePath("a.day.json")).isSound());
    }

    void aPluginThatFailsIsNamedAndTheSessionEnds_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("said"); // behind the plugin's name
        const std::tuple<const char*, int, QString> rows[] = {
            {"throw constructor", 2,
             ": plugin bad cannot start: its constructor has thrown: told to"},
            {"throw initialise", 2, ": plugin bad cannot start: initialise has thrown: told to"},
            {"throw registerPayloads", 2,
             ": plugin bad cannot start: registerPayloads has thrown: told to"},
            {"wordless", 2, ": plugin bad cannot start: no reason was given"},
            {"throw started", 3, "): started has thrown: told to"},
            {"throw onRequest", 3, "): onRequest has thrown: told to"},
            {"throw answered", 3, "): the callback of a request has thrown: told to"},
            {"throw onQuote", 3, "): onQuote has thrown: told to"},
            {"throw report", 3, "): report has thrown: told to"},
            {"throw shutDown", 3, "): shutDown has thrown: told to"},
            {"hang constructor", 3, "): has been in its constructor for "},
            {"hang initialise", 3, "): has been in initialise for "},
            {"hang started", 3, "): has been in started for "},
            {"hang onQuote", 3, "): its handler for quotations has not returned for "},
            {"hang report", 3, "): has been in report for "},
            {"hang shutDown", 3, "): has been in shutDown for "},
            {"crash initialise", -1, "): initialise\n"},
            {"crash started", -1, "): started\n"},
            {"crash answered", -1, "): the callback of a request\n"},
            {"crash onQuote", -1, "): onQuote\n"},
            {"overflow onQuote", -1, "): onQuote\n"},
        };
        for (const auto& [bad, code, said] : rows)
            QTest::newRow(bad) << code << said;
    }

    void aPluginThatFailsIsNamedAndTheSessionEnds()
    {
        QFETCH(int, code);
        QFETCH(QString, said);
        const Folder folder(BAD);
        const QString bad = QTest::currentDataTag();
        const QStringList deadline{"--plugin-deadline", bad.startsWith("hang") ? "2" : "0"};
        const Outcome outcome =
            Client(brief + QStringList{"--plugins", folder.path()} + deadline, bad).outcome();
        if (code >= 0)
            VERIFY_CODE(outcome, code);
        else // a sanitizer may make an exit of it
            QVERIFY(outcome.code != 0 && outcome.code != 2 && outcome.code != 3);
        const QString named = said.startsWith(')') ? "plugin bad (library %1" : "lxclient: %1";
        QVERIFY2(outcome.err.contains(named.arg(folder.added()) + said), qPrintable(outcome.err));
        // a table where there can be one, with the fault, but for what failed without anybody else
        QCOMPARE(outcome.out.contains("\nFAULT  bad: "), code == 3);
        if (bad == "throw onQuote" || bad == "hang onQuote" || bad == "throw shutDown")
            QVERIFY(outcome.count("orders") > 0); // the others went on, and were shut down
        if (bad == "throw shutDown" || bad == "hang shutDown")
            QVERIFY(outcome.count("quotes EUR/USD") > 1000);
    }

    void theSecondSignalDoesNotWait()
    {
        const std::tuple<QString, QString, QString, QString> cases[] = {
            {"slow onQuote", "(settling for )", "(waiting for bad: [\\d,]+ quotes.*; press again)",
             "\nNot finished: bad: quotations "},
            {"hang shutDown", "(hangs)", "(hangs)", "\nFAULT  bad: has been in shutDown for "},
            {"hang initialise", "(hangs)", "(hangs)", "\nFAULT  bad: has been in initialise for "},
        };
        const Folder folder(BAD);
        for (const auto& [bad, before, waits, missing] : cases) {
            Client client({"--synthetic-quotes", "20000", "--plugins", folder.path(),
                           "--plugin-deadline", "0", "--stall-limit", "50"},
                          bad);
            QTRY_VERIFY_WITH_TIMEOUT(!client.said(before).isNull(), DeadlineMs);
            client.interrupt(SIGHUP);
            QTRY_VERIFY_WITH_TIMEOUT(!client.said(waits).isNull(), DeadlineMs);
            client.interrupt(SIGTERM); // another one: two that are the same may come as one
            const Outcome outcome = client.outcome();
            VERIFY_CODE(outcome, 3);
            QVERIFY2(outcome.out.contains(missing), qPrintable(outcome.out));
        }
    }

    void aSessionSaysHowFarItIsAndWhatItWaitsFor()
    {
        const QTemporaryDir dir;
        QFile recording(dir.filePath("years.csv"));
        QVERIFY(recording.open(QIODevice::WriteOnly)
                && recording.write("timestamp,symbol,bid,ask\n"
                                   "2017-01-31T17:00:00.000Z,EUR/USD,1.1000,1.1001\n"
                                   "2024-01-31T17:00:00.000Z,EUR/USD,1.1000,1.1001\n"));
        recording.close();
        const QStringList years{"--quotes", recording.fileName(), "--speed", "10000"};
        Client waiting(years);
        QTRY_VERIFY_WITH_TIMEOUT(!waiting
                                      .said("(no quotes from 2017-01-31 .* 6 h 8 min at this "
                                            "speed: waiting; --skip-gaps)")
                                      .isNull(),
                                 DeadlineMs);
        QTRY_VERIFY_WITH_TIMEOUT(
            !waiting.said("\nlxclient: \\d+ s, (1 quotes), 0/s, up to 2017-01-31 17:00:00 UTC; ")
                 .isNull(),
            DeadlineMs);
        waiting.interrupt();
        const Outcome interrupted = waiting.outcome();
        VERIFY_CODE(interrupted, 0);
        QVERIFY(!interrupted.out.contains("Slower than asked"));

        const Outcome skipped = run(years + QStringList{"--skip-gaps", "5"});
        VERIFY_CODE(skipped, 0);
        QVERIFY(skipped.out.contains("gaps skipped: 1\n"));

        const Folder folder(BAD);
        const Outcome slow =
            Client({"--synthetic-quotes", "200", "--speed", "100000", "--plugins", folder.path()},
                   "slow onQuote")
                .outcome();
        VERIFY_CODE(slow, 0);
        QVERIFY2(slow.out.contains(QRegularExpression("\nSlower than asked, .*: because of bad, ")),
                 qPrintable(slow.out));
        QVERIFY(!slow.captured("Plugin", "bad .* (\\d+ %)$").isEmpty());
    }

    void whatIsScrapedAddsUpAndIsWhatTheEndTableShows()
    {
        if (!LXCLIENT_METRICS)
            QSKIP("built without the plugin metrics");
        Client client({"--metrics", "0", "--statistics", "--stay", "--stall-limit", "0", "--speed",
                       "1000", "--synthetic-quotes", "20000"});
        const auto port = [&] { return client.said("metrics: http://127.0.0.1:(\\d+)/").toInt(); };
        QTRY_VERIFY_WITH_TIMEOUT(port() > 0, DeadlineMs);
        const Outcome second = run({"--metrics", QString::number(port())});
        VERIFY_CODE(second, 2);
        QVERIFY2(second.err.contains(QString("127.0.0.1:%1: cannot be listened on").arg(port())),
                 qPrintable(second.err));

        const QString put = "lxbase_items_put_total";
        QMap<QString, double> last;
        QStringList inboxes; // {plugin="board#1",kind="events"}
        double inHand = 0;
        const auto scrapeOnce = [&] {
            const QMap<QString, double> now = scrape(port());
            for (auto before = last.constBegin(); before != last.constEnd(); ++before) {
                if (before.key().contains("_total"))
                    QVERIFY2(now.value(before.key(), -1) >= *before, qPrintable(before.key()));
            }
            last = now;
            inboxes = last.keys().filter(put).replaceInStrings(put, QString());
            inHand = 0;
            for (const QString& inbox : inboxes) {
                const double left = last[put + inbox] - last["lxbase_items_handled_total" + inbox]
                    - last["lxbase_items_dropped_total" + inbox]
                    - last["lxbase_inbox_items" + inbox];
                QVERIFY2(left >= 0, qPrintable(inbox));
                inHand += left;
            }
            QVERIFY(!inboxes.isEmpty());
        };
        const auto isAtRest = [&] {
            const bool received = !client.said("(everything was received)").isNull();
            scrapeOnce();
            return QTest::currentTestFailed() || (received && inHand == 0);
        };
        scrapeOnce(); // as it begins
        QTRY_VERIFY_WITH_TIMEOUT(isAtRest(), DeadlineMs);
        client.interrupt();
        const Outcome outcome = client.outcome();
        VERIFY_CODE(outcome, 0);
        int plugins = 0;
        for (const QString& inbox : inboxes) {
            const QStringList labels = inbox.split('"');
            if (labels[1] == "(gone)")
                continue;
            QCOMPARE(outcome.captured("Inbox", labels[1] + " +" + labels[3] + " +(\\S+ +\\S+)")
                         .remove(',')
                         .simplified(),
                     QString("%1 %2")
                         .arg(last["lxbase_items_handled_total" + inbox])
                         .arg(last["lxbase_inbox_items_peak" + inbox]));
            ++plugins;
        }
        QVERIFY(plugins > 6);
    }

    void aLibraryThatIsNoFitPluginStopsTheStart()
    {
        const char* const cases[][3] = {
            {LXCLIENT, "cannot be loaded", ""},
            {FOREIGN, "lacks the interface", ""},
            {LXCLIENT_PLUGINS "/libboard.so", "repeats the ID board of", ""},
            {STRANGER, "plugin stranger#3 cannot start: told to refuse\n",
             "stranger#2 shut down\nstranger#1 shut down\n"},
        };
        for (const auto& [library, reason, then] : cases) {
            const Folder folder(library);
            const Outcome outcome = run(
                {"--plugins", folder.path(), "--set", "strangers=3", "--set", "refuse=stranger#3"});
            VERIFY_CODE(outcome, 2);
            QVERIFY2(outcome.err.contains("lxclient: " + folder.added() + ": " + reason)
                         && outcome.err.contains(then),
                     qPrintable(outcome.err));
        }
    }
};

QTEST_GUILESS_MAIN(tst_lxclient)
#include "tst_lxclient.moc"
