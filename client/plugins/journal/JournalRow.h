// JournalBatch and JournalRow: what is to be written to the journal.
#ifndef LXCLIENT_JOURNALROW_H
#define LXCLIENT_JOURNALROW_H

#include <lxclient/Protocol.h>

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

// What is written in one transaction: all of it or, if the process dies meanwhile, nothing.
struct JournalBatch
{
    QVector<lxclient::Execution> executions;
    QMap<QString, lxclient::Position> positions; // by symbol: of each only the newest stays anyway

    bool isEmpty() const { return executions.isEmpty() && positions.isEmpty(); }

    // Takes over what came later.
    void add(const JournalBatch& later)
    {
        executions += later.executions;
        for (const lxclient::Position& position : later.positions)
            positions.insert(position.symbol, position);
    }
};

// A row of one of the journal's tables, in text.
struct JournalRow
{
    enum Table { Executions, Positions };

    Table table = Executions;
    QString started;    // of the session, which tells it from one of the same number elsewhere
    QStringList values; // by column; the first is the session's number
};

#endif
