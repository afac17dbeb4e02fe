// Summary: what lxclient prints at the end of a session.
#ifndef LXCLIENT_SUMMARY_H
#define LXCLIENT_SUMMARY_H

#include "Ledger.h"
#include "PluginHost.h"

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
};

// The tables of symbols and plugins, the ledger and its verdict, and how fast it was.
QString summary(const QVector<NamedReport>& reports, const Ledger& ledger,
                const SessionFigures& figures);

#endif
