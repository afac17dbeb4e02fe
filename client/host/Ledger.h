// Ledger: whether everything that was put has been received exactly once, from independent counts.
#ifndef LXCLIENT_LEDGER_H
#define LXCLIENT_LEDGER_H

#include "PluginHost.h"

#include <QString>
#include <QStringList>
#include <QVector>

// A value, made from one set of reports. See <lxclient/Report.h> for accounts and postings.
class Ledger
{
public:
    struct Entry
    {
        QString who;
        QString what;
        quint64 count;

        bool operator==(const Entry& other) const
        {
            return who == other.who && what == other.what && count == other.count;
        }
    };
    struct Account
    {
        QString name;
        QVector<Entry> entries;

        bool balances() const;
        bool operator==(const Account& other) const
        {
            return name == other.name && entries == other.entries;
        }
    };

    Ledger() = default;
    explicit Ledger(const QVector<NamedReport>& reports);

    bool accountsBalance() const;

    // The accounts balance and nobody reported a fault.
    bool balances() const { return m_faults.isEmpty() && accountsBalance(); }

    const QVector<Account>& accounts() const { return m_accounts; }

    // What plugins reported, with their IDs, and cells of the table of symbols on which they
    // disagree.
    const QStringList& faults() const { return m_faults; }

    // Same counts everywhere: nothing has moved in between.
    bool operator==(const Ledger& other) const { return m_accounts == other.m_accounts; }

private:
    Account& account(const QString& name);

    QVector<Account> m_accounts; // in the order in which they were first posted to
    QStringList m_faults;
};

#endif
