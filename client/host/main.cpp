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

#include <cstdio>

namespace {

ExitCode refuse(const lxclient::Error& error, ExitCode code)
{
    std::fprintf(stderr, "lxclient: %s\n", qPrintable(error.words()));
    return code;
}

// Reads the metadata alone: no code of a plugin runs.
ExitCode listSettings(const QString& pluginFolder)
{
    PluginHost host;
    if (const lxclient::Error error = host.readMetaData(pluginFolder))
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

} // namespace

int main(int argc, char** argv)
{
    crashline::install();
    QCoreApplication program(argc, argv);
    QThread::currentThread()->setObjectName(QStringLiteral("main")); // in traces
    QCoreApplication::setApplicationName(QStringLiteral("lxclient"));
    QCoreApplication::setApplicationVersion(QStringLiteral(LXCLIENT_VERSION));
    Options options;
    if (const lxclient::Error error = Options::parse(QCoreApplication::arguments(), options))
        return refuse(error, ExitBadCommandLine);
    if (options.list_settings)
        return listSettings(options.plugin_folder);
    if (!options.verbose) // QT_LOGGING_RULES still has the last word
        QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));
    lxclient::registerPayloads();

    Session session(options);
    const SignalWatcher signalWatcher([&] { session.requestInterrupt(); },
                                      [&] { session.requestAbandon(); });
    QObject::connect(&session, &Session::ended, &program, &QCoreApplication::quit);
    if (const lxclient::Error error = session.start())
        return refuse(error, ExitCannotStart);
    QCoreApplication::exec();
    return session.finish();
}
