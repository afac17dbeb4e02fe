#include "Wire.h"

#include <limits>

using lxclient::Error;

namespace lxlink {

namespace {

bool isSane(const Price& price)
{
    constexpr qint64 most = 1'000'000'000'000'000; // MaxDigits
    return price.decimals() <= lxclient::Decimal::MaxDecimals && price.units() > -most
        && price.units() < most;
}

} // namespace

lxclient::Decimal decimalOf(const Price& price)
{
    return {price.units(), static_cast<int>(price.decimals())};
}

void set(Price& price, const lxclient::Decimal& decimal)
{
    price.set_units(decimal.units);
    price.set_decimals(static_cast<quint32>(decimal.decimals));
}

lxclient::Order orderOf(const Order& order)
{
    return {QString::fromStdString(order.trace_id()), order.order_id(),
            QString::fromStdString(order.symbol()), order.quantity()};
}

lxclient::Execution executionOf(const Answer& answer)
{
    return {orderOf(answer.order()), decimalOf(answer.price()), answer.time_ms()};
}

Error check(const Order& order)
{
    constexpr auto most = static_cast<quint64>(std::numeric_limits<qint64>::max());
    if (order.desk().empty() || order.order_id() == 0 || order.order_id() > most)
        return Error(QStringLiteral("names no desk, or no order"));
    if (order.symbol().empty() || order.quantity() == 0)
        return Error(QStringLiteral("names no symbol, or no quantity"));
    return {};
}

Error check(const Quote& quote)
{
    if (quote.symbol().empty() || quote.sequence() == 0 || !isSane(quote.bid())
        || !isSane(quote.ask()))
        return Error(QStringLiteral("is no quote"));
    return {};
}

} // namespace lxlink
