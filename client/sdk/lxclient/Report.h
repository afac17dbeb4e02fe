/// \file
/// Report: what a plugin tells the host about itself, for the end table and the ledger.
#ifndef LXCLIENT_REPORT_H
#define LXCLIENT_REPORT_H

#include <QLocale>
#include <QString>
#include <QStringList>
#include <QVector>

namespace lxclient {

/// One entry in the ledger.
///
/// The ledger is a set of accounts, one for each kind of thing that travels (Accounts.h names those
/// of the client's own plugins). Everybody who put, passed on or received such things posts the
/// number that he counted himself. The account balances when all its counts are equal and, unless
/// they are zero, there are at least two. Nobody may copy a count from another: it is their
/// independence that proves that nothing was lost or doubled. What may have no receiver, an alert
/// that is for whoever cares, is posted one-sided (Report::postOneSided): its count needs no other,
/// but has to be equal to those that there are.
///
/// The host also learns from the accounts that nothing is on its way any more: it waits until two
/// successive sets of reports are the same and balance. That is right only if every plugin
///  - counts what it puts before it puts it, and
///  - counts what it receives at the end of the handler, when it has done and put all that follows.
struct Posting
{
    QString account;   ///< "quotes EUR/USD"
    QString what;      ///< which of this plugin's counts, if it posts several to the account: "put"
    quint64 count = 0; ///< so many, up to now

    /// Same in every field.
    bool operator==(const Posting& other) const
    {
        return account == other.account && what == other.what && count == other.count;
    }
};

/// What a one-sided posting says instead of "put" or "received".
inline const QString OneSided = QStringLiteral("one-sided");

/// A cell of the table of symbols. Two plugins may report the same cell; the ledger does not
/// balance if they differ.
struct Cell
{
    QString symbol; ///< names the row
    QString column; ///< heads the column
    QString text;   ///< what stands there
};

/// A number as the end table shows it: 12,345.
inline QString grouped(qint64 number)
{
    return QLocale(QLocale::English, QLocale::UnitedStates).toString(number);
}

/// All of it, as of now.
struct Report
{
    /// \{
    /// What the three handlers received.
    quint64 messages = 0;
    quint64 quotations = 0;
    quint64 events = 0;
    /// \}

    QStringList remarks; ///< short phrases beside the plugin in the end table: "shows EUR/USD"
    QVector<Cell> cells; ///< for the table of symbols
    QVector<Posting> postings; ///< for the ledger

    /// What must never happen and did, one sentence each; any unbalances the ledger.
    QStringList faults;

    /// \{
    /// Adds a posting.
    void post(const QString& account, const QString& what, quint64 count)
    {
        postings.append({account, what, count});
    }
    void post(const QString& account, quint64 count) { post(account, QString(), count); }
    /// \}

    /// Adds a posting to an account to which nobody else needs to post.
    void postOneSided(const QString& account, quint64 count) { post(account, OneSided, count); }

    /// Adds a cell.
    void show(const QString& symbol, const QString& column, const QString& text)
    {
        cells.append({symbol, column, text});
    }
};

} // namespace lxclient

#endif
