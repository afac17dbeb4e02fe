#include "RangePlugin.h"

RangePlugin::RangePlugin()
    : PluginBase(QuotationThread) // what it receives
{ }

lxclient::Error RangePlugin::onInitialise(const QVariantMap& settings)
{
    m_audit.expect(settings.value(lxclient::setting::Symbols).toStringList());
    subscribeQuotes(settings);
    return {};
}

// On the quotation worker.
void RangePlugin::onQuote(const lxclient::Quote& quote)
{
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
        report.show(range.key(), QStringLiteral("Low"), range->low.toString());
        report.show(range.key(), QStringLiteral("High"), range->high.toString());
    }
    return report;
}
