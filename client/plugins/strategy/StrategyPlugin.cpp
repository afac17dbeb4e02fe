#include "StrategyPlugin.h"

#include <lxclient/Accounts.h>
#include <lxmsg/MessageCommon.h>

#include <utility>

using lxclient::Error;
using lxclient::OrderRequest;
using lxclient::Quote;
namespace account = lxclient::account;
namespace counted = lxclient::counted;
namespace setting = lxclient::setting;

StrategyPlugin::StrategyPlugin()
    : PluginBase(MessageThread | QuotationThread)
{ }

Error StrategyPlugin::onInitialise(const QVariantMap& settings)
{
    m_fast = settings.value(QStringLiteral("strategy.fast")).toLongLong();
    m_slow = settings.value(QStringLiteral("strategy.slow")).toLongLong();
    m_lot = settings.value(QStringLiteral("strategy.lot")).toLongLong();
    if (m_slow <= m_fast)
        return Error(QStringLiteral("strategy.slow must be more than strategy.fast"));
    m_audit.expect(settings.value(setting::Symbols).toStringList());
    subscribeQuotes(settings);
    return {};
}

lxclient::Report StrategyPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    report.messages = m_refusals;
    report.post(account::signalsOf(id()), counted::Put, m_signals);
    report.post(account::orderRequestsOf(id()), counted::Put, m_requests);
    report.post(account::refusalsTo(id()), m_refusals);
    report.remarks.append(QStringLiteral("signals: %1").arg(m_signals));
    report.remarks.append(QStringLiteral("order requests: %1").arg(m_requests));
    return report;
}

// A refused request changes nothing that is held.
void StrategyPlugin::onMessage(const QString&, int type, const QVariant& payload)
{
    if (type != lxclient::OrderRefusedType)
        return;
    const auto refused = payload.value<OrderRequest>();
    const QMutexLocker locker(&m_mutex);
    m_targets[refused.symbol] -=
        refused.side == OrderRequest::Buy ? refused.quantity : -refused.quantity;
    ++m_refusals;
}

void StrategyPlugin::onQuote(const Quote& quote)
{
    if (const int direction = turn(m_trends[quote.symbol], quote)) {
        signalTurn(quote.symbol, direction > 0);
        qint64 quantity = direction * m_lot;
        {
            const QMutexLocker locker(&m_mutex);
            quantity -= m_targets.value(quote.symbol);
        }
        if (quantity != 0)
            request(quote.symbol, quantity);
    }
    const QMutexLocker locker(&m_mutex);
    m_audit.count(quote);
}

// The new direction if the quote turns the trend, else 0. A crossing by less than the spread would
// not earn what a trade costs.
int StrategyPlugin::turn(Trend& trend, const Quote& quote) const
{
    const double bid = quote.bid.toDouble();
    const double ask = quote.ask.toDouble();
    const double mid = (bid + ask) / 2;
    const auto fast = static_cast<std::size_t>(m_fast);
    const auto slow = static_cast<std::size_t>(m_slow);

    trend.mids.push_back(mid);
    trend.fast_sum += mid;
    trend.slow_sum += mid;
    if (trend.mids.size() > fast)
        trend.fast_sum -= trend.mids[trend.mids.size() - 1 - fast];
    if (trend.mids.size() > slow) {
        trend.slow_sum -= trend.mids.front();
        trend.mids.pop_front();
    }
    if (trend.mids.size() < slow)
        return 0;
    const double lead =
        trend.fast_sum / static_cast<double>(m_fast) - trend.slow_sum / static_cast<double>(m_slow);
    if (qAbs(lead) <= ask - bid)
        return 0;
    const int direction = lead > 0 ? 1 : -1;
    return std::exchange(trend.direction, direction) == direction ? 0 : direction;
}

void StrategyPlugin::signalTurn(const QString& symbol, bool rising)
{
    {
        const QMutexLocker locker(&m_mutex);
        ++m_signals;
    }
    Put(id(),
        new CMessageCommon(id(), lxclient::FirstBoardId, lxclient::SignalType,
                           QVariant::fromValue(lxclient::Signal{symbol, rising})));
}

// The trace ID begins here and goes on to the execution.
void StrategyPlugin::request(const QString& symbol, qint64 quantity)
{
    OrderRequest request;
    request.symbol = symbol;
    request.side = quantity > 0 ? OrderRequest::Buy : OrderRequest::Sell;
    request.quantity = qAbs(quantity);
    {
        const QMutexLocker locker(&m_mutex);
        m_targets[symbol] += quantity;
        request.trace_id = QStringLiteral("%1-%2").arg(id()).arg(++m_requests);
    }
    auto* const msg = new CMessageCommon(id(), lxclient::OrdersId, lxclient::OrderRequestType,
                                         QVariant::fromValue(request));
    msg->setTraceId(request.trace_id);
    Put(id(), msg);
}
