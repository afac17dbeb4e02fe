#include "RangePlugin.h"

#include <lxclient/Protocol.h>

bool RangePlugin::initialise(const QString& id, const QVariantMap& settings, QString&)
{
    m_id = id;
    const QStringList symbols = settings.value(lxclient::setting::Symbols).toStringList();
    m_audit.expect(symbols);
    Reg(m_id, this, QuotationThread); // the handler may run from here on
    for (const QString& symbol : symbols)
        Sub(m_id, lxclient::quoteType(settings, symbol), 1);
    return true;
}

void RangePlugin::shutDown()
{
    UnReg(m_id);
}

// On the quotation worker.
void RangePlugin::RecvQuotationMsg(QString, QVariant, QVariant data)
{
    const auto quote = data.value<lxclient::Quote>();
    const double bid = quote.bid.toDouble();

    const QMutexLocker locker(&m_mutex);
    const auto range = m_ranges.find(quote.symbol);
    if (range == m_ranges.end()) {
        m_ranges.insert(quote.symbol, {quote.bid, quote.bid});
    } else {
        if (bid < range->low.toDouble())
            range->low = quote.bid;
        if (bid > range->high.toDouble())
            range->high = quote.bid;
    }
    m_audit.count(quote);
}

// On the main thread, while quotes come in.
lxclient::Report RangePlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    for (auto range = m_ranges.constBegin(); range != m_ranges.constEnd(); ++range) {
        report.cells.append({range.key(), QStringLiteral("Low"), range->low.toString()});
        report.cells.append({range.key(), QStringLiteral("High"), range->high.toString()});
    }
    return report;
}
