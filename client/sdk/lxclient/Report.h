// Report: what a plugin tells the host about itself, for the end table and the ledger.
#ifndef LXCLIENT_REPORT_H
#define LXCLIENT_REPORT_H

#include <QLocale>
#include <QString>
#include <QStringList>
#include <QVector>

namespace lxclient {

// The ledger is a set of accounts. Everybody who put, passed on or received the same things posts
// his own count of them to one account. The account balances when all its counts are equal and,
// unless they are zero, there are at least two. Nobody may copy a count from another: it is their
// independence that proves that nothing was lost or doubled.
//
// Accounts of the client's own plugins; others join them when they do the same:
//     "quotes SYMBOL"         put by the net plugin; received by who subscribed (see QuoteAudit.h)
//     "signals of ID"         put by the plugin ID; received by the first board
//     "order requests of ID"  put by the plugin ID; received by the orders plugin
//     "refusals to ID"        put by the orders plugin; received by the plugin ID
//     "orders"                orders, acknowledgements, executions, rows of the journal
//     "position events"       put by the orders plugin; received by who subscribed
//     "selections of ID"      put by the window ID if it is linked; received by those it is linked
//     to
//
// The host also uses the accounts to learn that nothing is on its way any more: it waits until two
// successive sets of reports are the same and balance. That is right only if every plugin
//  - counts what it puts before it puts it, and
//  - counts what it received after everything that its handler does because of it.
struct Posting
{
    QString account; // e.g. "quotes EUR/USD"
    QString what;    // which count of this plugin, if it posts several to the account: "sent"
    quint64 count = 0;

    bool operator==(const Posting& other) const
    {
        return account == other.account && what == other.what && count == other.count;
    }
};

// A cell of the table of symbols. Two plugins may report the same cell; the ledger does not balance
// if they differ.
struct Cell
{
    QString symbol;
    QString column;
    QString text;
};

// A number as the end table shows it: 12,345.
inline QString grouped(qint64 number)
{
    return QLocale(QLocale::English, QLocale::UnitedStates).toString(number);
}

// All of it, as of now.
struct Report
{
    // what the three handlers received
    quint64 messages = 0;
    quint64 quotations = 0;
    quint64 events = 0;

    QStringList remarks; // short phrases beside the plugin in the end table: "shows EUR/USD"
    QVector<Cell> cells;
    QVector<Posting> postings;

    // What must never happen and did, one sentence each; any unbalances the ledger.
    QStringList faults;
};

} // namespace lxclient

#endif
