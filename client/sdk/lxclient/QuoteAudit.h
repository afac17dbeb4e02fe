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

    /// The plugin's inbox keeps the latest quote of each symbol, so that numbers may be left out:
    /// those are counted as superseded. Before the first quote.
    void expectLatest() { m_latest = true; }

    /// Last in the handler, see Report.h.
    void count(const Quote& quote)
    {
        quint64& count = m_counts[quote.symbol];
        ++m_total;
        if (m_latest && quote.sequence > count + 1) {
            m_superseded += quote.sequence - (count + 1);
            count = quote.sequence - 1;
        }
        const quint64 expected = ++count;
        if (quote.sequence != expected && m_fault.isEmpty()) {
            m_fault = QStringLiteral("%1: quote %2 came where %3 was due")
                          .arg(quote.symbol)
                          .arg(quote.sequence)
                          .arg(expected);
        }
    }

    /// All quotes so far that came.
    quint64 total() const { return m_total; }

    /// Those that did not come because a newer one did.
    quint64 superseded() const { return m_superseded; }

    /// Adds the counts, and the first fault, to a report.
    void post(Report& report) const
    {
        report.quotations = m_total;
        for (auto count = m_counts.constBegin(); count != m_counts.constEnd(); ++count)
            report.post(account::quotesOf(count.key()),
                        m_latest ? counted::ReceivedOrSuperseded : QString(), count.value());
        if (!m_fault.isEmpty())
            report.faults.append(m_fault);
    }

private:
    QMap<QString, quint64> m_counts; // by symbol, with those superseded
    bool m_latest = false;
    quint64 m_total = 0;
    quint64 m_superseded = 0;
    QString m_fault; // the first one
};

} // namespace lxclient

#endif
