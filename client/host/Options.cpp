#include "Options.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

const char description[] =
    "Plays quotes through the bus to a set of plugins (quote boards, a strategy, an order desk, a\n"
    "journal) and proves at the end that every plugin received everything exactly once.\n"
    "\n"
    "Recordings are CSV files with the header \"timestamp,symbol,bid,ask\"; timestamps look like\n"
    "2020-01-31T17:00:00.065Z. Ctrl+C ends a session early, in the same orderly way as its end.\n"
    "\n"
    "Example: two recordings, ten thousand times faster than they were made, with three boards of\n"
    "which two are linked, and a journal:\n"
    "  lxclient --quotes eurusd.csv --quotes usdjpy.csv --speed 10000 \\\n"
    "           --boards 3 --link green:board#1,board#3 --journal trades.db\n"
    "\n"
    "Exit codes:\n"
    "  0  played to the end, or interrupted, and the ledger balances\n"
    "  1  the command line is wrong\n"
    "  2  cannot start: a recording, a plugin, the journal or the recording to be written\n"
    "  3  the ledger does not balance: something was lost, doubled, reordered or not written";

constexpr const char* colorNames[] = {"red", "orange", "yellow", "green", "cyan", "blue", "violet"};

[[noreturn]] void refuse(const QString& message)
{
    std::fprintf(stderr, "lxclient: %s\n", qPrintable(message));
    std::exit(ExitBadCommandLine);
}

int wholeNumber(const QCommandLineParser& parser, const QString& option, int least, int most)
{
    bool ok = false;
    const int number = parser.value(option).toInt(&ok);
    if (!ok || number < least || number > most) {
        refuse(QStringLiteral("--%1 %2: a whole number from %3 to %4 is expected.")
                   .arg(option, parser.value(option))
                   .arg(least)
                   .arg(most));
    }
    return number;
}

double speedFrom(const QString& text)
{
    if (text == QLatin1String("max"))
        return 0;
    bool ok = false;
    const double speed = text.toDouble(&ok);
    if (!ok || !std::isfinite(speed) || speed <= 0)
        refuse(QStringLiteral("--speed %1: \"max\" or a number above 0 is expected.").arg(text));
    return speed;
}

CMessageCenter::IdlePolicy idleFrom(const QString& text)
{
    if (text == QLatin1String("park"))
        return CMessageCenter::IdlePolicy::Park;
    if (text == QLatin1String("poll"))
        return CMessageCenter::IdlePolicy::Poll;
    refuse(QStringLiteral("--idle %1: \"poll\" or \"park\" is expected.").arg(text));
}

RelationColor_t colorFrom(const QString& name, const QString& link)
{
    QStringList known;
    for (int color = RELATION_RED; color <= RELATION_VIOLET; ++color) {
        known.append(QLatin1String(colorNames[color]));
        if (name == known.last())
            return static_cast<RelationColor_t>(color);
    }
    refuse(QStringLiteral("--link %1: the colours are %2.")
               .arg(link, known.join(QLatin1String(", "))));
}

QMap<RelationColor_t, QStringList> linksFrom(const QStringList& texts)
{
    QMap<RelationColor_t, QStringList> links;
    QStringList linked;
    for (const QString& text : texts) {
        const int colon = text.indexOf(QLatin1Char(':'));
        if (colon < 0)
            refuse(QStringLiteral("--link %1: COLOR:ID,ID,... is expected.").arg(text));
        QStringList& group = links[colorFrom(text.left(colon), text)];
        const QStringList ids = text.mid(colon + 1).split(QLatin1Char(','));
        for (const QString& id : ids) {
            if (id.isEmpty() || linked.contains(id)) {
                refuse(QStringLiteral("--link %1: %2")
                           .arg(text,
                                id.isEmpty() ? QStringLiteral("an ID is missing.")
                                             : id + QLatin1String(" has a colour already.")));
            }
            linked.append(id);
            group.append(id);
        }
    }
    return links;
}

QVariantMap settingsFrom(const QStringList& texts)
{
    QVariantMap settings;
    for (const QString& text : texts) {
        const int equals = text.indexOf(QLatin1Char('='));
        if (equals < 1)
            refuse(QStringLiteral("--set %1: KEY=VALUE is expected.").arg(text));
        settings.insert(text.left(equals), text.mid(equals + 1));
    }
    return settings;
}

} // namespace

Options Options::parse(const QCoreApplication& program)
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
        {QStringLiteral("seed"),
         QStringLiteral("What the synthetic session is made from (default: 1)."),
         QStringLiteral("N"), QStringLiteral("1")},
        {QStringLiteral("synthetic-quotes"),
         QStringLiteral("Length of the synthetic session (default: 400000)."), QStringLiteral("N"),
         QStringLiteral("400000")},
        {QStringLiteral("boards"),
         QStringLiteral("Open so many quote boards, board#1, board#2, ... (default: 2)."),
         QStringLiteral("N"), QStringLiteral("2")},
        {QStringLiteral("link"),
         QStringLiteral("Link windows: those of one colour follow one another's selected symbol. "
                        "Colours: red, orange, yellow, green, cyan, blue, violet. May be given "
                        "several times. Default: red:board#1,board#2."),
         QStringLiteral("COLOR:ID,ID,...")},
        {QStringLiteral("record"),
         QStringLiteral("Write every quote that comes in to this recording, replacing it."),
         QStringLiteral("FILE")},
        {QStringLiteral("journal"),
         QStringLiteral("Add every execution to this SQLite file; it is made if it does not exist. "
                        "Default: no journal."),
         QStringLiteral("FILE")},
        {QStringLiteral("idle"),
         QStringLiteral(
             "How the threads of the bus wait for work: \"park\" (default) or \"poll\"."),
         QStringLiteral("POLICY"), QStringLiteral("park")},
        {QStringLiteral("plugins"),
         QStringLiteral("Load the plugins in this folder (default: %1).")
             .arg(defaultPluginFolder()),
         QStringLiteral("DIR"), defaultPluginFolder()},
        {QStringLiteral("set"),
         QStringLiteral("Hand a setting to the plugins; see their headers for what they take, such "
                        "as orders.max-open=20. May be given several times."),
         QStringLiteral("KEY=VALUE")},
        {QStringLiteral("verbose"),
         QStringLiteral("Show the debug records of the bus (category \"lxbase\") on stderr.")},
    });
    parser.process(program);
    if (!parser.positionalArguments().isEmpty()) {
        refuse(QStringLiteral("Unexpected argument '%1'. Recordings are named with --quotes.")
                   .arg(parser.positionalArguments().first()));
    }

    Options options;
    options.plugin_folder = parser.value(QStringLiteral("plugins"));
    options.recordings = parser.values(QStringLiteral("quotes"));
    options.speed = speedFrom(parser.value(QStringLiteral("speed")));
    options.synthetic_quotes =
        wholeNumber(parser, QStringLiteral("synthetic-quotes"), 0, 100'000'000);
    bool seedOk = false;
    options.synthetic_seed = parser.value(QStringLiteral("seed")).toULongLong(&seedOk);
    if (!seedOk)
        refuse(QStringLiteral("--seed %1: a whole number is expected.")
                   .arg(parser.value(QStringLiteral("seed"))));
    options.boards = wholeNumber(parser, QStringLiteral("boards"), 1, 100);
    options.links = linksFrom(parser.values(QStringLiteral("link")));
    options.links_by_default = !parser.isSet(QStringLiteral("link"));
    if (options.links_by_default)
        options.links = linksFrom({QStringLiteral("red:board#1,board#2")});
    options.record_file = parser.value(QStringLiteral("record"));
    options.journal_file = parser.value(QStringLiteral("journal"));
    options.idle = idleFrom(parser.value(QStringLiteral("idle")));
    options.verbose = parser.isSet(QStringLiteral("verbose"));
    options.plugin_settings = settingsFrom(parser.values(QStringLiteral("set")));
    return options;
}

QString Options::defaultPluginFolder()
{
    const QDir here(QCoreApplication::applicationDirPath());
    if (here.exists(QStringLiteral("plugins")))
        return here.filePath(QStringLiteral("plugins"));
    return QDir::cleanPath(here.filePath(QStringLiteral(LXCLIENT_PLUGINS_FROM_PROGRAM)));
}
