#include "OrdersPlugin.h"

#include <lxclient/Accounts.h>
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

using lxclient::Error;
using lxclient::Execution;
using lxclient::Order;
using lxclient::OrderRequest;
using lxclient::Quote;
namespace account = lxclient::account;
namespace counted = lxclient::counted;
namespace setting = lxclient::setting;

namespace {

// Position times price, exact, in the currency of the price: -12,345.60.
QString valueOf(qint64 position, const lxclient::Decimal& price)
{
    lxclient::Decimal value{0, price.decimals};
    if (__builtin_mul_overflow(position, price.units, &value.units))
        return QString::number(static_cast<double>(position) * price.toDouble(), 'e', 6);
    QString text = value.toString();
    const int digitsEnd = text.indexOf(QLatin1Char('.')) < 0 ? text.size() : text.indexOf('.');
    for (int i = digitsEnd - 3; i > (value.units < 0 ? 1 : 0); i -= 3)
        text.insert(i, QLatin1Char(','));
    return text;
}

} // namespace

OrdersPlugin::OrdersPlugin()
    : PluginBase(MessageThread | QuotationThread)
{ }

Error OrdersPlugin::onInitialise(const QVariantMap& settings)
{
    m_symbols = settings.value(setting::Symbols).toStringList();
    m_max_open = settings.value(QStringLiteral("orders.max-open")).toLongLong();
    m_first_order = settings.value(setting::FirstOrder, 1).toULongLong();
    m_audit.expect(m_symbols);
    subscribeQuotes(settings);
    subscribe(lxclient::ExecutionType); // acknowledgements are addressed to us
    return {};
}

lxclient::Report OrdersPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    for (const Quote& quote : m_quotes) {
        const qint64 position = m_positions.value(quote.symbol);
        // what closing it now would bring
        const lxclient::Decimal& price = position > 0 ? quote.bid : quote.ask;
        report.show(quote.symbol, lxclient::column::Position, lxclient::grouped(position));
        report.show(quote.symbol, QStringLiteral("Value"), valueOf(position, price));
    }
    report.messages = m_acknowledged + m_executed;
    quint64 refusals = 0;
    for (auto it = m_requests.constBegin(); it != m_requests.constEnd(); ++it) {
        const quint64 refused = m_refused.value(it.key());
        report.messages += it.value();
        refusals += refused;
        report.post(account::orderRequestsOf(it.key()), it.value());
        report.post(account::refusalsTo(it.key()), counted::Put, refused);
    }
    report.post(account::Orders, counted::Put,
                m_sent + m_carried - (m_rejected - m_rejected_of_earlier));
    if (m_rejected > 0)
        report.messages += m_rejected;
    if (m_first_order > 1 || m_rejected > 0)
        report.post(account::RejectedOrders, counted::Received, m_rejected);
    report.post(account::Orders, counted::Acknowledged, m_acknowledged);
    report.post(account::Orders, counted::Executed, m_executed);
    report.post(account::PositionEvents, counted::Put, m_position_events);
    report.remarks.append(QStringLiteral("orders: %1, acknowledged: %2, executed: %3, refused: %4")
                              .arg(m_sent)
                              .arg(m_acknowledged)
                              .arg(m_executed)
                              .arg(refusals));
    report.faults = m_faults;
    return report;
}

void OrdersPlugin::onMessage(const QString& sender, int type, const QVariant& payload)
{
    switch (type) {
    case lxclient::OrderRequestType:
        recvRequest(sender, payload.value<OrderRequest>());
        break;
    case lxclient::AcknowledgementType:
        recvAcknowledgement(payload.value<Order>());
        break;
    case lxclient::OrderRejectedType:
        recvRejection(payload.value<lxclient::OrderRejection>());
        break;
    case lxclient::ExecutionType:
        recvExecution(payload.value<Execution>());
        break;
    }
}

void OrdersPlugin::onQuote(const Quote& quote)
{
    const QMutexLocker locker(&m_mutex);
    m_quotes[quote.symbol] = quote;
    m_audit.count(quote);
}

void OrdersPlugin::recvRequest(const QString& customer, OrderRequest request)
{
    CMessageCommon* answer = nullptr;
    const Error error = check(request);
    if (!error) {
        Order order{request.trace_id, 0, request.symbol,
                    request.side == OrderRequest::Buy ? request.quantity : -request.quantity};
        {
            const QMutexLocker locker(&m_mutex);
            order.order_id = m_first_order + m_sent++;
            m_open.insert(order.order_id, {State::Sent, customer, request});
        }
        answer =
            new CMessageCommon(id(), QString(), lxclient::OrderType, QVariant::fromValue(order));
        answer->SetSendToNetFlag(true);
    } else {
        {
            const QMutexLocker locker(&m_mutex);
            ++m_refused[customer];
        }
        request.reason = error.words();
        answer = new CMessageCommon(id(), customer, lxclient::OrderRefusedType,
                                    QVariant::fromValue(request));
    }
    answer->setTraceId(request.trace_id);
    Put(id(), answer);

    const QMutexLocker locker(&m_mutex);
    ++m_requests[customer];
}

void OrdersPlugin::recvAcknowledgement(const Order& order)
{
    const QMutexLocker locker(&m_mutex);
    const auto open = m_open.find(order.order_id);
    if (open != m_open.end() && open->state == State::Sent) {
        open->state = State::Acknowledged;
    } else if (order.order_id < m_first_order) {
        m_open.insert(order.order_id, {State::Acknowledged, QString(), OrderRequest()});
        ++m_carried;
    } else {
        m_faults.append(
            QStringLiteral("order %1 was acknowledged without being open").arg(order.order_id));
    }
    ++m_acknowledged;
}

// Who asked for it is told; of an earlier session's nobody waits any more.
void OrdersPlugin::recvRejection(const lxclient::OrderRejection& rejection)
{
    const quint64 orderId = rejection.order.order_id;
    Open open;
    {
        const QMutexLocker locker(&m_mutex);
        const auto found = m_open.find(orderId);
        if (found != m_open.end() && found->state == State::Sent) {
            open = *found;
            m_open.erase(found);
            ++m_refused[open.customer];
        } else if (orderId < m_first_order) {
            ++m_rejected_of_earlier;
        } else {
            m_faults.append(
                QStringLiteral("order %1 was rejected without being open").arg(orderId));
        }
    }
    if (!open.customer.isEmpty()) {
        open.request.reason = rejection.reason;
        auto* const refusal = new CMessageCommon(id(), open.customer, lxclient::OrderRefusedType,
                                                 QVariant::fromValue(open.request));
        refusal->setTraceId(open.request.trace_id);
        Put(id(), refusal);
    }
    const QMutexLocker locker(&m_mutex);
    ++m_rejected;
}

void OrdersPlugin::recvExecution(const Execution& execution)
{
    const Order& order = execution.order;
    lxclient::Position position{order.trace_id, order.symbol, 0};
    {
        const QMutexLocker locker(&m_mutex);
        const auto open = m_open.find(order.order_id);
        if (open == m_open.end() || open->state != State::Acknowledged)
            m_faults.append(QStringLiteral("order %1 was executed without being acknowledged")
                                .arg(order.order_id));
        m_open.remove(order.order_id);
        position.quantity = m_positions[order.symbol] += order.quantity;
        ++m_position_events;
    }
    PutEvent(id(),
             new CEventMessageCommon(id(), QString(), lxclient::PositionType,
                                     QVariant::fromValue(position)));
    const QMutexLocker locker(&m_mutex);
    ++m_executed;
}

Error OrdersPlugin::check(const OrderRequest& request) const
{
    if (!m_symbols.contains(request.symbol))
        return Error(QStringLiteral("unknown symbol %1").arg(request.symbol));
    if (request.quantity <= 0)
        return Error(QStringLiteral("the quantity %1 is not positive").arg(request.quantity));
    const QMutexLocker locker(&m_mutex);
    if (m_open.size() >= m_max_open)
        return Error(QStringLiteral("%1 orders are open, the limit").arg(m_open.size()));
    return {};
}
