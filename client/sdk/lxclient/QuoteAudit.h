/// \file
/// QuoteAudit: a subscriber's proof that it received every quote once and in order.
#ifndef LXCLIENT_QUOTEAUDIT_H
#define LXCLIENT_QUOTEAUDIT_H

#include <lxclient/Accounts.h>
#include <lxclient/Protocol.h>
#include <lxclient/Report.h>

#include <QMap>

namespace lxclient {

/// For whoever receives the quotes of a symbol from the first one on. No lock of its own: guard it
/// with that of the plugin, since the handler counts while the host's thread asks for the report.
class QuoteAudit
{
public:
    /// These are to come: they are posted even if none does, so that a loss of all shows. While the
    /// plugin is initialised, with the symbols that it subscribes to.
    void expect(const QStringList& symbols)
    {
        for (const QString& symbol : symbols)
            m_counts.insert(symbol, 0);
    }

    /// Last in the handler, see Report.h.
    void count(const Quote& quote)
    {
        const quint64 expected = ++m_counts[quote.symbol];
        ++m_total;
        if (quote.sequence != expected && m_fault.isEmpty()) {
            m_fault = QStringLiteral("%1: quote %2 came where %3 was due")
                          .arg(quote.symbol)
                          .arg(quote.sequence)
                          .arg(expected);
        }
    }

    /// All quotes so far.
    quint64 total() const { return m_total; }

    /// Adds the counts, and the first fault, to a report.
    void post(Report& report) const
    {
        report.quotations = m_total;
        for (auto count = m_counts.constBegin(); count != m_counts.constEnd(); ++count)
            report.post(account::quotesOf(count.key()), count.value());
        if (!m_fault.isEmpty())
            report.faults.append(m_fault);
    }

private:
    QMap<QString, quint64> m_counts; // by symbol
    quint64 m_total = 0;
    QString m_fault; // the first one
};

} // namespace lxclient

#endif
