// Summary: what lxclient prints at the end of a session.
#ifndef LXCLIENT_SUMMARY_H
#define LXCLIENT_SUMMARY_H

#include "Ledger.h"
#include "PluginHost.h"

#include <lxbase/BusMonitor.h>

#include <QString>
#include <QVector>

// What the reports do not tell.
struct SessionFigures
{
    quint64 quotes = 0;
    qint64 played_ns = 0;
    bool interrupted = false;
    QString record_file; // empty: none was written
    quint64 recorded = 0;
    BusStatistics bus;       // inboxes as they were before the plugins were shut down
    bool statistics = false; // asked for
};

// The tables of symbols and plugins, the ledger and its verdict, how fast it was, and the
// statistics if they were asked for. If the ledger does not balance, it is said where items were
// left.
QString summary(const QVector<NamedReport>& reports, const Ledger& ledger,
                const SessionFigures& figures);

#endif
