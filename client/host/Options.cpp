#include "Options.h"

#include "TraceFile.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>

#include <cmath>

using lxclient::Error;

namespace {

const char description[] =
    "Plays quotes through the bus to a set of plugins (quote boards, a strategy, an order desk, a\n"
    "journal) and proves at the end that every plugin received everything exactly once.\n"
    "\n"
    "Recordings are CSV files with the header \"timestamp,symbol,bid,ask\"; timestamps look like\n"
    "2020-01-31T17:00:00.065Z. Ctrl+C ends a session early, in the same orderly way as its end;\n"
    "a second one does not wait for what is still on its way, and a third ends the program at "
    "once.\n"
    "SIGTERM and SIGHUP count as Ctrl+C.\n"
    "\n"
    "Example: two recordings, ten thousand times faster than they were made, with three boards of\n"
    "which two are linked, and a journal:\n"
    "  lxclient --quotes eurusd.csv --quotes usdjpy.csv --speed 10000 \\\n"
    "           --boards 3 --link green:board#1,board#3 --journal trades.db\n"
    "\n"
    "Exit codes:\n"
    "  0  played to the end, or interrupted, and the ledger balances\n"
    "  1  the command line is wrong\n"
    "  2  cannot start: a recording, a plugin or its settings, the journal or the recording to be\n"
    "     written, the port of the metrics, the trace\n"
    "  3  the ledger does not balance: something was lost, doubled, reordered or not written, or "
    "a\n"
    "     plugin has failed: it has thrown, or did not return in time";

constexpr const char* colorNames[] = {"red", "orange", "yellow", "green", "cyan", "blue", "violet"};

Error wholeNumber(const QCommandLineParser& parser, const QString& option, int least, int most,
                  int& number)
{
    bool ok = false;
    const int given = parser.value(option).toInt(&ok);
    if (!ok || given < least || given > most) {
        return Error(QStringLiteral("--%1 %2: a whole number from %3 to %4 is expected.")
                         .arg(option, parser.value(option))
                         .arg(least)
                         .arg(most));
    }
    number = given;
    return {};
}

Error portFrom(const QCommandLineParser& parser, const QString& option, std::optional<int>& port)
{
    if (!parser.isSet(option))
        return {};
    return wholeNumber(parser, option, 0, 65535, port.emplace());
}

Error speedFrom(const QString& text, double& speed)
{
    bool ok = false;
    const double given = text.toDouble(&ok);
    const bool max = text == QLatin1String("max");
    if (!max && (!ok || !std::isfinite(given) || given <= 0)) {
        return Error(
            QStringLiteral("--speed %1: \"max\" or a number above 0 is expected.").arg(text));
    }
    speed = max ? 0 : given;
    return {};
}

// "0", "2.5"; `longest` is in seconds as well.
Error secondsFrom(const QCommandLineParser& parser, const QString& option, double longest,
                  double& seconds)
{
    bool ok = false;
    const QString text = parser.value(option);
    const double given = text.toDouble(&ok);
    if (!ok || !(given >= 0 && given <= longest)) {
        return Error(QStringLiteral("--%1 %2: a number of seconds from 0 to %3 is expected.")
                         .arg(option, text)
                         .arg(longest, 0, 'f', 0));
    }
    seconds = given;
    return {};
}

Error skipGapsFrom(const QCommandLineParser& parser, std::optional<double>& seconds)
{
    const QString option = QStringLiteral("skip-gaps");
    if (!parser.isSet(option))
        return {};
    return secondsFrom(parser, option, 1e9, seconds.emplace());
}

Error deadlineFrom(const QCommandLineParser& parser, int& ms)
{
    double seconds = 0;
    const Error error = secondsFrom(parser, QStringLiteral("plugin-deadline"), 86'400, seconds);
    ms = static_cast<int>(std::ceil(seconds * 1000));
    return error;
}

Error seedFrom(const QString& text, quint64& seed)
{
    bool ok = false;
    const quint64 given = text.toULongLong(&ok);
    if (!ok)
        return Error(QStringLiteral("--seed %1: a whole number is expected.").arg(text));
    seed = given;
    return {};
}

Error idleFrom(const QString& text, CMessageCenter::IdlePolicy& idle)
{
    if (text == QLatin1String("park"))
        idle = CMessageCenter::IdlePolicy::Park;
    else if (text == QLatin1String("poll"))
        idle = CMessageCenter::IdlePolicy::Poll;
    else
        return Error(QStringLiteral("--idle %1: \"poll\" or \"park\" is expected.").arg(text));
    return {};
}

Error boardPolicyFrom(const QString& text, bool& keepLatest)
{
    keepLatest = text == QLatin1String("latest");
    if (keepLatest || text == QLatin1String("all"))
        return {};
    return Error(QStringLiteral("--board-policy %1: \"latest\" or \"all\" is expected.").arg(text));
}

Error colorFrom(const QString& name, RelationColor_t& color)
{
    QStringList known;
    for (const char* const colorName : colorNames)
        known.append(QLatin1String(colorName));
    if (!known.contains(name))
        return Error(QStringLiteral("the colours are %1.").arg(known.join(QLatin1String(", "))));
    color = static_cast<RelationColor_t>(RELATION_RED + known.indexOf(name));
    return {};
}

// Adds the group of one --link; `linked` has the IDs of all groups so far.
Error linkFrom(const QString& text, QMap<RelationColor_t, QStringList>& links, QStringList& linked)
{
    const int colon = text.indexOf(QLatin1Char(':'));
    if (colon < 0)
        return Error(QStringLiteral("COLOR:ID,ID,... is expected."));
    RelationColor_t color = RELATION_RED;
    if (const Error error = colorFrom(text.left(colon), color))
        return error;
    const QStringList ids = text.mid(colon + 1).split(QLatin1Char(','));
    for (const QString& id : ids) {
        if (id.isEmpty())
            return Error(QStringLiteral("an ID is missing."));
        if (linked.contains(id))
            return Error(QStringLiteral("%1 has a colour already.").arg(id));
        linked.append(id);
        links[color].append(id);
    }
    return {};
}

Error linksFrom(const QStringList& texts, QMap<RelationColor_t, QStringList>& links)
{
    QStringList linked;
    for (const QString& text : texts) {
        if (const Error error = linkFrom(text, links, linked))
            return error.about(QStringLiteral("--link %1").arg(text));
    }
    return {};
}

// What a file or folder is named by must not be empty, as an unset variable of a shell script is.
Error namesFrom(const QCommandLineParser& parser, const QString& option)
{
    const bool empty = parser.values(option).contains(QString()) && parser.isSet(option);
    return empty
        ? Error(QStringLiteral("--%1: a name is expected, what is given is empty.").arg(option))
        : Error();
}

// Both options are right by themselves.
Error exclusive(const QCommandLineParser& parser, const QString& option, const QString& other)
{
    return parser.isSet(option) && parser.isSet(other)
        ? Error(
            QStringLiteral("--%1 and --%2 exclude one another; leave one out.").arg(option, other))
        : Error();
}

// The recording replaces what is in its file.
Error recordFrom(const QCommandLineParser& parser, QString& file)
{
    file = parser.value(QStringLiteral("record"));
    const QFileInfo record(file);
    const QFileInfo journal(parser.value(QStringLiteral("journal")));
    const bool same = !file.isEmpty()
        && (record.absoluteFilePath() == journal.absoluteFilePath()
            || (record.exists() && record.canonicalFilePath() == journal.canonicalFilePath()));
    return same ? Error(QStringLiteral("--record %1: is the file of the journal.").arg(file))
                : Error();
}

Error foldersFrom(const QCommandLineParser& parser, QStringList& folders)
{
    const bool noDefault = parser.isSet(QStringLiteral("no-default-plugins"));
    QStringList given = parser.values(QStringLiteral("plugins"));
    if (noDefault && given.isEmpty()) {
        return Error(QStringLiteral("--no-default-plugins leaves no plugin folder; name one with "
                                    "--plugins."));
    }
    if (!noDefault)
        given.prepend(Options::defaultPluginFolder());
    folders = given;
    return {};
}

// Takes the server, an address with "://", out of the values of --link; the others link windows.
Error serverFrom(const QCommandLineParser& parser, QStringList& links, Options& options)
{
    QStringList servers;
    for (const QString& link : qAsConst(links)) {
        if (link.contains(QLatin1String("://")))
            servers.append(link);
    }
    for (const QString& server : qAsConst(servers))
        links.removeAll(server);
    if (servers.isEmpty()) {
        for (const char* option : {"role", "desk", "store", "credentials"}) {
            if (parser.isSet(QLatin1String(option))) {
                return Error(QStringLiteral("--%1 is of a linked client; say with --link "
                                            "nats://HOST:PORT which server links it.")
                                 .arg(QLatin1String(option)));
            }
        }
        return {};
    }
    const QString& server = servers.first();
    const QUrl url(server, QUrl::StrictMode);
    if (servers.size() > 1)
        return Error(QStringLiteral("--link names two servers, %1.").arg(servers.join(" and ")));
    if (!url.userInfo().isEmpty()) {
        return Error(QStringLiteral("--link: user and password do not belong on the command line; "
                                    "put them into a file and name it with --credentials."));
    }
    if (!url.isValid() || url.scheme() != QLatin1String("nats") || url.host().isEmpty()
        || !(url.path().isEmpty() || url.path() == QLatin1String("/"))) {
        return Error(QStringLiteral("--link %1: nats://HOST:PORT is expected.").arg(server));
    }
    options.link_server = server;
    options.link_role = parser.value(QStringLiteral("role"));
    options.link_desk = parser.value(QStringLiteral("desk"));
    options.link_store = parser.value(QStringLiteral("store"));
    options.link_credentials = parser.value(QStringLiteral("credentials"));
    const QStringList roles{QStringLiteral("feed"), QStringLiteral("exchange"),
                            QStringLiteral("desk")};
    const int role = roles.indexOf(options.link_role);
    if (role < 0) {
        return Error(QStringLiteral("--link %1 needs --role feed, --role exchange or --role desk%2")
                         .arg(server,
                              options.link_role.isEmpty()
                                  ? QStringLiteral(".")
                                  : QStringLiteral("; \"%1\" is none.").arg(options.link_role)));
    }
    static const QRegularExpression name(QStringLiteral("^[A-Za-z0-9_-]{1,32}$"));
    if (role == 2 && !name.match(options.link_desk).hasMatch()) {
        return Error(QStringLiteral("--desk %1: a linked desk needs a name of letters, digits, - "
                                    "and _, 32 at most.")
                         .arg(options.link_desk));
    }
    if (role != 2 && parser.isSet(QStringLiteral("desk")))
        return Error(QStringLiteral("--desk: a %1 has no desk's name.").arg(options.link_role));
    if (role != 0 && options.link_store.isEmpty())
        return Error(QStringLiteral("--role %1 needs --store FILE.").arg(options.link_role));
    if (role == 0 && parser.isSet(QStringLiteral("store")))
        return Error(QStringLiteral("--store: a feed keeps nothing; leave it out."));
    for (const char* option : {"quotes", "seed", "synthetic-quotes", "speed", "skip-gaps"}) {
        if (role != 0 && parser.isSet(QLatin1String(option))) {
            return Error(QStringLiteral("--%1: a linked %2 gets its quotes from the feed.")
                             .arg(QLatin1String(option), options.link_role));
        }
    }
    return {};
}

Error settingsFrom(const QStringList& texts, QMap<QString, QString>& settings)
{
    for (const QString& text : texts) {
        const int equals = text.indexOf(QLatin1Char('='));
        if (equals < 1)
            return Error(QStringLiteral("--set %1: KEY=VALUE is expected.").arg(text));
        settings.insert(text.left(equals), text.mid(equals + 1));
    }
    return {};
}

} // namespace

Error Options::parse(const QStringList& arguments, Options& options)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(description));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions({
        {QStringLiteral("quotes"),
         QStringLiteral(
             "Play this recording. May be given several times; the recordings are merged "
             "by time. Default: a synthetic session."),
         QStringLiteral("FILE")},
        {QStringLiteral("speed"),
         QStringLiteral("Play so many times faster than real time, or \"max\" (default)."),
         QStringLiteral("X"), QStringLiteral("max")},
        {QStringLiteral("skip-gaps"),
         QStringLiteral("Leave out pauses between two quotes for which one would have to wait, at "
                        "the chosen speed, longer than so many seconds. Default: wait."),
         QStringLiteral("SECONDS")},
        {QStringLiteral("seed"),
         QStringLiteral("What the synthetic session is made from (default: 1)."),
         QStringLiteral("N"), QStringLiteral("1")},
        {QStringLiteral("synthetic-quotes"),
         QStringLiteral("Length of the synthetic session (default: 400000)."), QStringLiteral("N"),
         QStringLiteral("400000")},
        {QStringLiteral("boards"),
         QStringLiteral("Open so many quote boards, board#1, board#2, ... (default: 2)."),
         QStringLiteral("N"), QStringLiteral("2")},
        {QStringLiteral("board-policy"),
         QStringLiteral(
             "What a board does with quotes that come faster than it takes them: \"all\" "
             "(default) lets every one wait, \"latest\" the newest of each symbol."),
         QStringLiteral("POLICY"), QStringLiteral("all")},
        {QStringLiteral("link"),
         QStringLiteral("Link windows: those of one colour follow one another's selected symbol. "
                        "Colours: red, orange, yellow, green, cyan, blue, violet. May be given "
                        "several times. Default: red:board#1,board#2."),
         QStringLiteral("COLOR:ID,ID,...")},
        {QStringLiteral("role"),
         QStringLiteral("With --link nats://HOST:PORT the client is part of a larger system, over "
                        "that NATS server, as \"feed\" (plays quotes to all), \"exchange\" (fills "
                        "orders) or \"desk\" (everything else)."),
         QStringLiteral("ROLE")},
        {QStringLiteral("desk"),
         QStringLiteral("The name of a linked desk: letters, digits, - and _. Only one client may "
                        "have it at a time."),
         QStringLiteral("NAME")},
        {QStringLiteral("store"),
         QStringLiteral("The SQLite file in which a linked desk keeps orders until they are "
                        "answered, and the exchange all orders; it is made if it does not exist."),
         QStringLiteral("FILE")},
        {QStringLiteral("credentials"),
         QStringLiteral("A file with two lines, user and password for the server, which only its "
                        "owner can read."),
         QStringLiteral("FILE")},
        {QStringLiteral("record"),
         QStringLiteral("Write every quote that comes in to this recording, replacing it."),
         QStringLiteral("FILE")},
        {QStringLiteral("journal"),
         QStringLiteral("Add every execution to this SQLite file; it is made if it does not exist. "
                        "What it cannot take is kept in FILE.unwritten for the next time. Default: "
                        "no journal."),
         QStringLiteral("FILE")},
        {QStringLiteral("idle"),
         QStringLiteral(
             "How the threads of the bus wait for work: \"park\" (default) or \"poll\"."),
         QStringLiteral("POLICY"), QStringLiteral("park")},
        {QStringLiteral("plugins"),
         QStringLiteral("Load the plugins in this folder too, besides those in %1. May be given "
                        "several times.")
             .arg(defaultPluginFolder()),
         QStringLiteral("DIR")},
        {QStringLiteral("no-default-plugins"),
         QStringLiteral("Load only the plugins in the folders that --plugins names.")},
        {QStringLiteral("set"),
         QStringLiteral("Give a setting of a plugin another value than its default, such as "
                        "orders.max-open=20. May be given several times."),
         QStringLiteral("KEY=VALUE")},
        {QStringLiteral("settings"), QStringLiteral("List the settings of all plugins, and end.")},
        {QStringLiteral("statistics"),
         QStringLiteral(
             "Show at the end how long items waited in each inbox, how long the handlers "
             "took, and what was lost.")},
        {QStringLiteral("stall-limit"),
         QStringLiteral("Say so when a handler, or the end of the session, takes longer than so "
                        "many milliseconds (default: 1000; 0: never)."),
         QStringLiteral("MS"), QStringLiteral("1000")},
        {QStringLiteral("plugin-deadline"),
         QStringLiteral("End the session when a call of a plugin has not returned after so many "
                        "seconds, or at the end a handler (default: 10; 0: wait for ever)."),
         QStringLiteral("SECONDS"), QStringLiteral("10")},
        {QStringLiteral("quiet"),
         QStringLiteral("Do not show on stderr how far the session has come.")},
        {QStringLiteral("trace"),
         QStringLiteral("Record what happens in the bus, and write it at the end to this file, as "
                        "a timeline: for Perfetto if it ends in .pftrace, as Chrome trace events "
                        "if it ends in .json. SIGUSR1 writes what there is so far to FILE.1, and "
                        "so does a handler that stalls; the number stands before the ending."),
         QStringLiteral("FILE")},
        {QStringLiteral("trace-size"),
         QStringLiteral("So many MiB of records are kept, the newest (default: 64)."),
         QStringLiteral("MIB"), QStringLiteral("64")},
        {QStringLiteral("follow"),
         QStringLiteral("Show at the end the way of this trace ID, such as strategy-1: each put "
                        "and handler, with its thread, how long it waited and how long it took."),
         QStringLiteral("TRACE-ID")},
        {QStringLiteral("metrics"),
         QStringLiteral("Serve the figures of the bus to Prometheus, on 127.0.0.1 alone. 0 takes a "
                        "free port and says which. Default: not served."),
         QStringLiteral("PORT")},
        {QStringLiteral("stay"),
         QStringLiteral("When everything has been played, stay until Ctrl+C: the metrics can then "
                        "still be read.")},
        {QStringLiteral("windows"),
         QStringLiteral("Load the plugins that open windows as well; needs a display.")},
        {QStringLiteral("verbose"),
         QStringLiteral("Show the debug records of the bus (category \"lxbase\") on stderr.")},
    });
    if (!parser.parse(arguments))
        return Error(parser.errorText());
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp();
    if (!parser.positionalArguments().isEmpty()) {
        return Error(QStringLiteral("Unexpected argument '%1'. Recordings are named with --quotes.")
                         .arg(parser.positionalArguments().first()));
    }

    Options read;
    read.recordings = parser.values(QStringLiteral("quotes"));
    read.journal_file = parser.value(QStringLiteral("journal"));
    read.list_settings = parser.isSet(QStringLiteral("settings"));
    read.verbose = parser.isSet(QStringLiteral("verbose"));
    read.statistics = parser.isSet(QStringLiteral("statistics"));
    read.quiet = parser.isSet(QStringLiteral("quiet"));
    read.trace_file = parser.value(QStringLiteral("trace"));
    read.follow = parser.value(QStringLiteral("follow"));
    read.stay = parser.isSet(QStringLiteral("stay"));
    read.windows = parser.isSet(QStringLiteral("windows"));
    QStringList links = parser.values(QStringLiteral("link"));
    const Error linkError = serverFrom(parser, links, read);
    read.links_by_default = links.isEmpty();
    if (read.links_by_default)
        links.append(QStringLiteral("red:board#1,board#2"));
    const Error errors[] = {
        linkError,
        namesFrom(parser, QStringLiteral("quotes")),
        namesFrom(parser, QStringLiteral("record")),
        namesFrom(parser, QStringLiteral("journal")),
        namesFrom(parser, QStringLiteral("plugins")),
        exclusive(parser, QStringLiteral("quotes"), QStringLiteral("synthetic-quotes")),
        exclusive(parser, QStringLiteral("quotes"), QStringLiteral("seed")),
        recordFrom(parser, read.record_file),
        foldersFrom(parser, read.plugin_folders),
        speedFrom(parser.value(QStringLiteral("speed")), read.speed),
        wholeNumber(parser, QStringLiteral("synthetic-quotes"), 0, 100'000'000,
                    read.synthetic_quotes),
        skipGapsFrom(parser, read.skip_gaps_s),
        deadlineFrom(parser, read.plugin_deadline_ms),
        seedFrom(parser.value(QStringLiteral("seed")), read.synthetic_seed),
        wholeNumber(parser, QStringLiteral("boards"), 1, 100, read.boards),
        boardPolicyFrom(parser.value(QStringLiteral("board-policy")), read.boards_keep_latest),
        linksFrom(links, read.links),
        idleFrom(parser.value(QStringLiteral("idle")), read.idle),
        settingsFrom(parser.values(QStringLiteral("set")), read.plugin_settings),
        wholeNumber(parser, QStringLiteral("stall-limit"), 0, 3'600'000, read.stall_limit_ms),
        portFrom(parser, QStringLiteral("metrics"), read.metrics_port),
        wholeNumber(parser, QStringLiteral("trace-size"), 1, 16'384, read.trace_mib),
        parser.isSet(QStringLiteral("trace")) ? TraceFile::check(read.trace_file) : Error(),
    };
    for (const Error& error : errors) {
        if (error)
            return error;
    }
    options = read;
    return {};
}

QString Options::defaultPluginFolder()
{
    const QDir here(QCoreApplication::applicationDirPath());
    if (here.exists(QStringLiteral("plugins")))
        return here.filePath(QStringLiteral("plugins"));
    return QDir::cleanPath(here.filePath(QStringLiteral(LXCLIENT_PLUGINS_FROM_PROGRAM)));
}
