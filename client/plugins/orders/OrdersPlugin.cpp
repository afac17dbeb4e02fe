#include "OrdersPlugin.h"

#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

using lxclient::Execution;
using lxclient::Order;
using lxclient::OrderRequest;
using lxclient::Quote;

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

bool OrdersPlugin::initialise(const QString& id, const QVariantMap& settings, QString& reason)
{
    m_id = id;
    m_symbols = settings.value(lxclient::setting::Symbols).toStringList();
    m_max_open = settings.value(QStringLiteral("orders.max-open"), 1000).toInt();
    if (m_max_open < 1) {
        reason = QStringLiteral("orders.max-open must be a whole number from 1 on");
        return false;
    }
    m_audit.expect(m_symbols);
    Reg(m_id, this, MessageThread | QuotationThread);
    Sub(m_id, lxclient::ExecutionType, 1); // acknowledgements are addressed to us
    for (const QString& symbol : qAsConst(m_symbols))
        Sub(m_id, lxclient::quoteType(settings, symbol), 1);
    return true;
}

void OrdersPlugin::shutDown()
{
    UnReg(m_id);
}

lxclient::Report OrdersPlugin::report() const
{
    const QString orders = QStringLiteral("orders");
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    for (const Quote& quote : m_quotes) {
        const qint64 position = m_positions.value(quote.symbol);
        // what closing it now would bring
        const lxclient::Decimal& price = position > 0 ? quote.bid : quote.ask;
        report.cells.append(
            {quote.symbol, QStringLiteral("Position"), lxclient::grouped(position)});
        report.cells.append({quote.symbol, QStringLiteral("Value"), valueOf(position, price)});
    }
    report.messages = m_acknowledged + m_executed;
    quint64 refusals = 0;
    for (auto it = m_requests.constBegin(); it != m_requests.constEnd(); ++it) {
        const quint64 refused = m_refused.value(it.key());
        report.messages += it.value();
        refusals += refused;
        report.postings.append(
            {QStringLiteral("order requests of ") + it.key(), QString(), it.value()});
        report.postings.append(
            {QStringLiteral("refusals to ") + it.key(), QStringLiteral("put"), refused});
    }
    report.postings.append({orders, QStringLiteral("put"), m_sent});
    report.postings.append({orders, QStringLiteral("acknowledged"), m_acknowledged});
    report.postings.append({orders, QStringLiteral("executed"), m_executed});
    report.postings.append(
        {QStringLiteral("position events"), QStringLiteral("put"), m_position_events});
    report.remarks.append(QStringLiteral("orders: %1, acknowledged: %2, executed: %3, refused: %4")
                              .arg(m_sent)
                              .arg(m_acknowledged)
                              .arg(m_executed)
                              .arg(refusals));
    report.faults = m_faults;
    return report;
}

void OrdersPlugin::RecvMsg(QString srcId, QVariant type, QVariant data)
{
    switch (type.toInt()) {
    case lxclient::OrderRequestType:
        recvRequest(srcId, data.value<OrderRequest>());
        break;
    case lxclient::AcknowledgementType:
        recvAcknowledgement(data.value<Order>());
        break;
    case lxclient::ExecutionType:
        recvExecution(data.value<Execution>());
        break;
    }
}

void OrdersPlugin::RecvQuotationMsg(QString, QVariant, QVariant data)
{
    const auto quote = data.value<Quote>();
    const QMutexLocker locker(&m_mutex);
    m_quotes[quote.symbol] = quote;
    m_audit.count(quote);
}

void OrdersPlugin::recvRequest(const QString& customer, OrderRequest request)
{
    CMessageCommon* answer = nullptr;
    request.reason = flawOf(request);
    if (request.reason.isEmpty()) {
        Order order{request.trace_id, 0, request.symbol,
                    request.side == OrderRequest::Buy ? request.quantity : -request.quantity};
        {
            const QMutexLocker locker(&m_mutex);
            order.order_id = ++m_sent;
            m_open.insert(order.order_id, State::Sent);
        }
        answer =
            new CMessageCommon(m_id, QString(), lxclient::OrderType, QVariant::fromValue(order));
        answer->SetSendToNetFlag(true);
    } else {
        {
            const QMutexLocker locker(&m_mutex);
            ++m_refused[customer];
        }
        answer = new CMessageCommon(m_id, customer, lxclient::OrderRefusedType,
                                    QVariant::fromValue(request));
    }
    answer->setTraceId(request.trace_id);
    Put(m_id, answer);

    const QMutexLocker locker(&m_mutex);
    ++m_requests[customer];
}

void OrdersPlugin::recvAcknowledgement(const Order& order)
{
    const QMutexLocker locker(&m_mutex);
    const auto open = m_open.find(order.order_id);
    if (open != m_open.end() && *open == State::Sent)
        *open = State::Acknowledged;
    else
        m_faults.append(
            QStringLiteral("order %1 was acknowledged without being open").arg(order.order_id));
    ++m_acknowledged;
}

void OrdersPlugin::recvExecution(const Execution& execution)
{
    const Order& order = execution.order;
    lxclient::Position position{order.trace_id, order.symbol, 0};
    {
        const QMutexLocker locker(&m_mutex);
        const auto open = m_open.find(order.order_id);
        if (open == m_open.end() || *open != State::Acknowledged)
            m_faults.append(QStringLiteral("order %1 was executed without being acknowledged")
                                .arg(order.order_id));
        m_open.remove(order.order_id);
        position.quantity = m_positions[order.symbol] += order.quantity;
        ++m_position_events;
    }
    PutEvent(m_id,
             new CEventMessageCommon(m_id, QString(), lxclient::PositionType,
                                     QVariant::fromValue(position)));
    const QMutexLocker locker(&m_mutex);
    ++m_executed;
}

// What is wrong with the request; empty if nothing is.
QString OrdersPlugin::flawOf(const OrderRequest& request) const
{
    if (!m_symbols.contains(request.symbol))
        return QStringLiteral("unknown symbol %1").arg(request.symbol);
    if (request.quantity <= 0)
        return QStringLiteral("the quantity %1 is not positive").arg(request.quantity);
    const QMutexLocker locker(&m_mutex);
    if (m_open.size() >= m_max_open)
        return QStringLiteral("%1 orders are open, the limit").arg(m_open.size());
    return QString();
}
