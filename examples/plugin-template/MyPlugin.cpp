#include "MyPlugin.h"

MyPlugin::MyPlugin()
    : PluginBase(QuotationThread | MessageThread) // what it receives
{ }

lxclient::Error MyPlugin::onInitialise(const QVariantMap& settings)
{
    m_skip = ownSetting(settings, QStringLiteral("skip")).toULongLong();
    m_audit.expect(settings.value(lxclient::setting::Symbols).toStringList());
    subscribeQuotes(settings);
    return {};
}

// On the quotation worker.
void MyPlugin::onQuote(const lxclient::Quote& quote)
{
    const QMutexLocker locker(&m_mutex);
    if (quote.sequence > m_skip) {
        const auto known = m_extremes.find(quote.symbol);
        const double bid = quote.bid.toDouble();
        if (known == m_extremes.end())
            m_extremes.insert(quote.symbol, {quote.bid, quote.bid});
        else if (bid < known->low.toDouble())
            known->low = quote.bid;
        else if (bid > known->high.toDouble())
            known->high = quote.bid;
    }
    m_audit.count(quote); // last: see lxclient/Report.h
}

// On the message worker.
void MyPlugin::onRequest(const lxclient::Request& request)
{
    if (request.type != ExtremesWanted)
        return PluginBase::onRequest(request); // refuses it
    const QString symbol = request.payload.toString();
    QVariantMap answer;
    {
        const QMutexLocker locker(&m_mutex);
        const auto known = m_extremes.constFind(symbol);
        if (known != m_extremes.constEnd())
            answer = {{"low", known->low.toString()}, {"high", known->high.toString()}};
    }
    if (answer.isEmpty()) // no lock is held while it is answered
        refuse(request, QStringLiteral("there is no quote of %1 yet").arg(symbol));
    else
        reply(request, answer);
}

// On the main thread, while quotes come in.
lxclient::Report MyPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    for (auto it = m_extremes.constBegin(); it != m_extremes.constEnd(); ++it) {
        report.show(it.key(), QStringLiteral("Low"), it->low.toString());
        report.show(it.key(), QStringLiteral("High"), it->high.toString());
    }
    return report;
}
