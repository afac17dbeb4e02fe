#include "SpreadAlertPlugin.h"

SpreadAlertPlugin::SpreadAlertPlugin()
    : PluginBase(QuotationThread | MessageThread)
{
    connect(&m_timer, &QTimer::timeout, this, [this] { m_seconds += m_spread > m_threshold; });
}

lxclient::Error SpreadAlertPlugin::onInitialise(const QVariantMap& settings)
{
    m_first = ownSetting(settings, "first").toString();
    m_second = ownSetting(settings, "second").toString();
    m_threshold = ownSetting(settings, "threshold").toDouble();
    for (const QString& symbol : {m_first, m_second}) {
        if (lxclient::quoteType(settings, symbol) < 0)
            return lxclient::Error(symbol + " is not among the symbols of this session");
    }
    subscribeQuotes(settings, {m_first, m_second});
    m_timer.start(1000);
    return {};
}

void SpreadAlertPlugin::onQuote(const lxclient::Quote& quote)
{
    if (quote.symbol == m_first)
        m_bid = quote.bid.toDouble();
    else
        m_ask = quote.ask.toDouble();
    const double before = m_spread;
    m_spread = m_bid > 0 && m_ask > 0 ? m_bid - m_ask : 0;
    if (before <= m_threshold && m_spread > m_threshold) {
        ++m_alerts; // counted before it is put, and the quote when all is done: see Report.h
        publish(SpreadWidened, m_spread.load());
    }
    ++m_quotes;
}

void SpreadAlertPlugin::onRequest(const lxclient::Request& request)
{
    if (request.type == SpreadWanted)
        reply(request, m_spread.load());
    else
        PluginBase::onRequest(request); // refuses it
}

lxclient::Report SpreadAlertPlugin::report() const
{
    lxclient::Report report;
    report.quotations = m_quotes;
    report.postOneSided("alerts of " + id(), m_alerts); // for whoever cares: nobody needs to count
    report.remarks << QString("alerts: %1, wide for %2 s").arg(m_alerts).arg(m_seconds);
    return report;
}
