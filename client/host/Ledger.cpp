#include "Ledger.h"

#include <QMap>

#include <algorithm>

bool Ledger::Account::balances() const
{
    const quint64 count = entries.first().count;
    const bool alone = entries.size() == 1;
    return (!alone || count == 0 || entries.first().what == lxclient::OneSided)
        && std::all_of(entries.begin(), entries.end(),
                       [count](const Entry& entry) { return entry.count == count; });
}

Ledger::Ledger(const QVector<NamedReport>& reports)
{
    struct Claim
    {
        QString text;
        QString who;
    };
    QMap<QPair<QString, QString>, Claim> claims; // by symbol and column
    for (const NamedReport& named : reports) {
        for (const lxclient::Posting& posting : named.report.postings)
            account(posting.account).entries.append({named.id, posting.what, posting.count});
        for (const QString& fault : named.report.faults)
            m_faults.append(QStringLiteral("%1: %2").arg(named.id, fault));
        for (const lxclient::Cell& cell : named.report.cells) {
            auto& claim = claims[{cell.symbol, cell.column}];
            if (claim.who.isEmpty()) {
                claim = {cell.text, named.id};
            } else if (claim.text != cell.text) {
                m_faults.append(QStringLiteral("%1: %2 says %3 %4, %5 says %6")
                                    .arg(cell.symbol, claim.who, cell.column.toLower(), claim.text,
                                         named.id, cell.text));
            }
        }
    }
}

bool Ledger::accountsBalance() const
{
    return std::all_of(m_accounts.begin(), m_accounts.end(),
                       [](const Account& account) { return account.balances(); });
}

Ledger::Account& Ledger::account(const QString& name)
{
    const auto known = std::find_if(m_accounts.begin(), m_accounts.end(),
                                    [&](const Account& account) { return account.name == name; });
    if (known != m_accounts.end())
        return *known;
    m_accounts.append({name, {}});
    return m_accounts.last();
}
