// Summary: what lxclient prints at the end of a session.
#ifndef LXCLIENT_SUMMARY_H
#define LXCLIENT_SUMMARY_H

#include "Backlogs.h"
#include "Ledger.h"
#include "PluginHost.h"

#include <lxbase/BusMonitor.h>

#include <QString>
#include <QVector>

#include <optional>

// What the reports do not tell.
struct SessionFigures
{
    quint64 quotes = 0;
    qint64 played_ns = 0;
    std::optional<double> due_s; // so long it should have taken; none: as short as possible
    QString ending;              // "interrupted"; empty: it was played to the end
    QString record_file;         // empty: none was written
    quint64 recorded = 0;
    Backlogs backlogs;
    BusStatistics bus;       // inboxes as they were before the plugins were shut down
    bool statistics = false; // asked for
};

// The tables of symbols and plugins, the ledger and its verdict, how fast it was, and the
// statistics if they were asked for. If the ledger does not balance, it is said where items were
// left.
QString summary(const QVector<NamedReport>& reports, const Ledger& ledger,
                const SessionFigures& figures);

#endif
