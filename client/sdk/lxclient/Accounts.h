/// \file
/// The accounts of the ledger to which more than one plugin posts, and the names of what is counted
/// there. See Report.h for what an account is.
#ifndef LXCLIENT_ACCOUNTS_H
#define LXCLIENT_ACCOUNTS_H

#include <QString>

namespace lxclient {

/// Accounts of the client's own plugins; others join them when they do the same.
namespace account {

/// Orders, their acknowledgements and executions, and the rows of the journal.
inline const QString Orders = QStringLiteral("orders");

/// Put by the orders plugin; received by who subscribed.
inline const QString PositionEvents = QStringLiteral("position events");

/// Borrowed from the bus's pool by the net plugin, and returned.
inline const QString PoolRecords = QStringLiteral("pool records");

/// Put by the net plugin; received by who subscribed (see QuoteAudit.h).
inline QString quotesOf(const QString& symbol)
{
    return QStringLiteral("quotes ") + symbol;
}

/// Superseded by newer ones in the inbox of the plugin `id`, as the bus counts them, and as the
/// plugin finds from the numbers of those that it received.
inline QString supersededQuotesAt(const QString& id)
{
    return QStringLiteral("quotes superseded at ") + id;
}

/// Put by the plugin `id`; received by the first board.
inline QString signalsOf(const QString& id)
{
    return QStringLiteral("signals of ") + id;
}

/// Put by the window `id` if it is linked; received by those that it is linked to.
inline QString selectionsOf(const QString& id)
{
    return QStringLiteral("selections of ") + id;
}

/// Put by the plugin `id`; received by the orders plugin.
inline QString orderRequestsOf(const QString& id)
{
    return QStringLiteral("order requests of ") + id;
}

/// Put by the orders plugin; received by the plugin `id`.
inline QString refusalsTo(const QString& id)
{
    return QStringLiteral("refusals to ") + id;
}

/// Begins the names of accounts between processes: what one posts there, another confirms, so
/// `lxledger` makes one account of those of all files. All others are of one process alone. Such a
/// count is of the life of a store, not of a session: a process may be killed and go on.
inline const QString BetweenProcesses = QStringLiteral("link: ");

/// Put by the desk of this name, acknowledged and executed as it has stored them; received,
/// acknowledged and executed as the exchange has stored them. Without those that were refused.
inline QString linkedOrdersOf(const QString& desk)
{
    return BetweenProcesses + QStringLiteral("orders of ") + desk;
}

/// Refused by the exchange, or by the link before they went out; put by the net plugin, received by
/// who had put the order.
inline const QString RejectedOrders = QStringLiteral("rejected orders");

} // namespace account

/// Which of its counts a plugin posts. A plain receiver needs none of these names.
namespace counted {

inline const QString Put = QStringLiteral("put");           ///< sent by this plugin
inline const QString Received = QStringLiteral("received"); ///< sent to this plugin
inline const QString ReceivedOrSuperseded = QStringLiteral("received+superseded"); ///< together
inline const QString Acknowledged = QStringLiteral("acknowledged"); ///< taken by the exchange
inline const QString Executed = QStringLiteral("executed");         ///< filled by the exchange
inline const QString Rows = QStringLiteral("rows");                 ///< written to the journal
inline const QString Borrowed = QStringLiteral("borrowed");         ///< taken from the pool
inline const QString Returned = QStringLiteral("returned");         ///< given back to the pool

} // namespace counted

/// Columns of the table of symbols that more than one plugin fills.
namespace column {

inline const QString Position = QStringLiteral("Position"); ///< what is held of the symbol

} // namespace column

} // namespace lxclient

#endif
