#include "StrategyPlugin.h"

#include <lxmsg/MessageCommon.h>

#include <utility>

using lxclient::OrderRequest;
using lxclient::Quote;

bool StrategyPlugin::initialise(const QString& id, const QVariantMap& settings, QString& reason)
{
    m_id = id;
    m_fast = settings.value(QStringLiteral("strategy.fast"), 100).toInt();
    m_slow = settings.value(QStringLiteral("strategy.slow"), 500).toInt();
    m_lot = settings.value(QStringLiteral("strategy.lot"), 10000).toLongLong();
    if (m_fast < 1 || m_slow <= m_fast || m_lot < 1) {
        reason =
            QStringLiteral("strategy.fast, strategy.slow and strategy.lot must be whole numbers "
                           "from 1 on, and fast less than slow");
        return false;
    }
    const QStringList symbols = settings.value(lxclient::setting::Symbols).toStringList();
    m_audit.expect(symbols);
    Reg(m_id, this, MessageThread | QuotationThread);
    for (const QString& symbol : symbols)
        Sub(m_id, lxclient::quoteType(settings, symbol), 1);
    return true;
}

void StrategyPlugin::shutDown()
{
    UnReg(m_id);
}

lxclient::Report StrategyPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    report.messages = m_refusals;
    const auto post = [&](const QString& account, const QString& what, quint64 count) {
        report.postings.append({account + m_id, what, count});
    };
    post(QStringLiteral("signals of "), QStringLiteral("put"), m_signals);
    post(QStringLiteral("order requests of "), QStringLiteral("put"), m_requests);
    post(QStringLiteral("refusals to "), QString(), m_refusals);
    report.remarks.append(QStringLiteral("signals: %1").arg(m_signals));
    report.remarks.append(QStringLiteral("order requests: %1").arg(m_requests));
    return report;
}

// A refused request changes nothing that is held.
void StrategyPlugin::RecvMsg(QString, QVariant type, QVariant data)
{
    if (type.toInt() != lxclient::OrderRefusedType)
        return;
    const auto refused = data.value<OrderRequest>();
    const QMutexLocker locker(&m_mutex);
    m_targets[refused.symbol] -=
        refused.side == OrderRequest::Buy ? refused.quantity : -refused.quantity;
    ++m_refusals;
}

void StrategyPlugin::RecvQuotationMsg(QString, QVariant, QVariant data)
{
    const auto quote = data.value<Quote>();
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
    const double lead = trend.fast_sum / m_fast - trend.slow_sum / m_slow;
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
    Put(m_id,
        new CMessageCommon(m_id, lxclient::FirstBoardId, lxclient::SignalType,
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
        request.trace_id = QStringLiteral("%1-%2").arg(m_id).arg(++m_requests);
    }
    auto* const msg = new CMessageCommon(m_id, lxclient::OrdersId, lxclient::OrderRequestType,
                                         QVariant::fromValue(request));
    msg->setTraceId(request.trace_id);
    Put(m_id, msg);
}
