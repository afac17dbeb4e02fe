// lxclient: the reference host of the bus. Everything it does with quotes and orders is done by
// plugins; the host loads them, links them, listens in, and keeps the ledger.
#include "CrashLine.h"
#include "Options.h"
#include "Session.h"
#include "SignalWatcher.h"
#include "TextTable.h"

#include <lxclient/Protocol.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QThread>
#ifdef LXCLIENT_WINDOWS
#include <QApplication>
#endif

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>

namespace {

ExitCode refuse(const lxclient::Error& error, ExitCode code)
{
    std::fprintf(stderr, "lxclient: %s\n", qPrintable(error.words()));
    return code;
}

// Reads the metadata alone: no code of a plugin runs.
ExitCode listSettings(const QStringList& pluginFolders)
{
    PluginHost host;
    if (const lxclient::Error error = host.readMetaData(pluginFolders))
        return refuse(error, ExitCannotStart);
    TextTable table({QStringLiteral("Plugin"), QStringLiteral("Setting"), QStringLiteral("Type"),
                     QStringLiteral("Range"), QStringLiteral("Default"),
                     QStringLiteral("Description")});
    for (int column : {1, 2, 3, 5})
        table.alignLeft(column);
    for (const MetaData& plugin : host.metaData()) {
        for (const Setting& setting : plugin.settings) {
            table.addRow({plugin.id, setting.name, setting.typeName(), setting.range(),
                          setting.default_value.toString(), setting.description});
        }
    }
    std::fputs(qPrintable(table.toString()), stdout);
    return ExitBalanced;
}

// What kind of application it is has to be known before the command line is read. Null: there is
// no display, or none was built in.
std::unique_ptr<QCoreApplication> makeApplication(int& argc, char** argv)
{
    const bool windows = std::any_of(argv, argv + argc,
                                     [](const char* text) { return !qstrcmp(text, "--windows"); });
    if (!windows)
        return std::make_unique<QCoreApplication>(argc, argv);
#ifdef LXCLIENT_WINDOWS
#ifdef Q_OS_LINUX // the framework would abort
    if (!qEnvironmentVariableIsSet("DISPLAY") && !qEnvironmentVariableIsSet("WAYLAND_DISPLAY")
        && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        return nullptr;
#endif
    auto application = std::make_unique<QApplication>(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false); // the session has an end of its own
    return application;
#else
    return nullptr;
#endif
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow is then an error like a full disk
    crashline::install();
    const std::unique_ptr<QCoreApplication> program = makeApplication(argc, argv);
    if (!program) {
        return refuse(lxclient::Error(QStringLiteral(
                          "--windows: there is no display (DISPLAY is not set), or the client was "
                          "built without Qt Widgets; leave it out")),
                      ExitCannotStart);
    }
    QThread::currentThread()->setObjectName(QStringLiteral("main")); // in traces
    QCoreApplication::setApplicationName(QStringLiteral("lxclient"));
    QCoreApplication::setApplicationVersion(QStringLiteral(LXCLIENT_VERSION));
    Options options;
    if (const lxclient::Error error = Options::parse(QCoreApplication::arguments(), options))
        return refuse(error, ExitBadCommandLine);
    if (options.list_settings)
        return listSettings(options.plugin_folders);
    if (!options.verbose) // QT_LOGGING_RULES still has the last word
        QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));
    lxclient::registerPayloads();

    Session session(options);
    const SignalWatcher signalWatcher([&] { session.requestInterrupt(); },
                                      [&] { session.requestAbandon(); });
    QObject::connect(&session, &Session::ended, program.get(), &QCoreApplication::quit);
    if (const lxclient::Error error = session.start())
        return refuse(error, ExitCannotStart);
    QCoreApplication::exec();
    return session.finish();
}
