#include "DeskStore.h"

#include <tuple>

using lxclient::Error;

namespace lxlink {

namespace {

enum State { Open, Executed, Refused };

const QString columns =
    QStringLiteral("order_id, trace_id, symbol, quantity, sender, good_until, refusal, units, "
                   "decimals, quoted");

QVariant signedOf(quint64 number)
{
    return static_cast<qlonglong>(number);
}

lxclient::Order orderOfRow(const QSqlQuery& row)
{
    return {row.value(1).toString(), row.value(0).toULongLong(), row.value(2).toString(),
            row.value(3).toLongLong()};
}

Returned returnedOfRow(const QSqlQuery& row)
{
    return {row.value(4).toString(),
            {orderOfRow(row),
             {row.value(7).toLongLong(), row.value(8).toInt()},
             row.value(9).toLongLong()},
            row.value(6).toString()};
}

} // namespace

Error DeskStore::open(const QString& fileName)
{
    const Error error = m_file.open(
        fileName, QStringLiteral("a desk"),
        {QStringLiteral(
             "CREATE TABLE orders (order_id INTEGER PRIMARY KEY, trace_id TEXT NOT NULL, symbol "
             "TEXT NOT NULL, quantity INTEGER NOT NULL, sender TEXT NOT NULL, good_until INTEGER "
             "NOT NULL, state INTEGER NOT NULL, settled INTEGER NOT NULL DEFAULT 0, refusal TEXT "
             "NOT NULL DEFAULT '', units INTEGER, decimals INTEGER, quoted INTEGER)"),
         QStringLiteral("CREATE INDEX unsettled ON orders (order_id) WHERE settled = 0")});
    if (error)
        return error;
    QSqlQuery row = m_file.query();
    const Error counted = m_file.run(
        row,
        QStringLiteral("SELECT coalesce(max(order_id), 0) + 1, coalesce(sum(state = 0), 0), "
                       "coalesce(sum(state = 1), 0), coalesce(sum(state = 2), 0) FROM orders"));
    if (counted || !row.next())
        return counted;
    m_first_order = row.value(0).toULongLong();
    m_counts.open = row.value(1).toULongLong();
    m_counts.answered = row.value(2).toULongLong();
    m_counts.refused = row.value(3).toULongLong();
    m_counts.put = m_counts.open + m_counts.answered;
    if (const Error number = m_file.number(QStringLiteral("exchange"), m_exchange_epoch))
        return number;
    if (const Error number = m_file.number(QStringLiteral("next"), m_next_number))
        return number;
    m_next_number = qMax<quint64>(m_next_number, 1);
    return {};
}

Error DeskStore::add(const QVector<OutboxEntry>& entries)
{
    const Error error = m_file.transact([&] {
        for (const OutboxEntry& entry : entries) {
            if (const Error failed = m_file.run(
                    QStringLiteral("INSERT INTO orders (order_id, trace_id, symbol, quantity, "
                                   "sender, good_until, state) VALUES (?, ?, ?, ?, ?, ?, 0)"),
                    {signedOf(entry.order.order_id), entry.order.trace_id, entry.order.symbol,
                     entry.order.quantity, entry.sender, entry.good_until_ms}))
                return failed;
        }
        return Error();
    });
    if (!error) {
        m_counts.put += static_cast<quint64>(entries.size());
        m_counts.open += static_cast<quint64>(entries.size());
    }
    return error;
}

Error DeskStore::receive(const QVector<Answer>& answers, const Cursor& cursor,
                         QVector<Returned>& returned)
{
    const DeskCounts before = m_counts;
    const auto numbering = std::make_tuple(m_exchange_epoch, m_next_number, m_ahead);
    QVector<Returned> closed;
    const Error error = m_file.transact([&] {
        for (const Answer& answer : answers) {
            note(answer);
            if (answer.order().epoch() != epoch())
                continue; // of a store that this desk had before
            if (const Error failed = close(answer.order().order_id(), executionOf(answer),
                                           QString::fromStdString(answer.refusal()), closed))
                return failed;
        }
        if (const Error failed = m_file.setNumber(QStringLiteral("exchange"), m_exchange_epoch))
            return failed;
        if (const Error failed = m_file.setNumber(QStringLiteral("next"), m_next_number))
            return failed;
        return m_file.setCursor(cursor);
    });
    if (error) {
        m_counts = before;
        std::tie(m_exchange_epoch, m_next_number, m_ahead) = numbering;
        return error;
    }
    returned += closed;
    return {};
}

Error DeskStore::refuse(quint64 orderId, const QString& reason, QVector<Returned>& returned)
{
    const DeskCounts before = m_counts;
    QVector<Returned> closed;
    const Error error =
        m_file.transact([&] { return close(orderId, lxclient::Execution(), reason, closed); });
    if (error)
        m_counts = before;
    else
        returned += closed;
    return error;
}

Error DeskStore::openOrders(QVector<OutboxEntry>& entries)
{
    QSqlQuery row = m_file.query();
    if (const Error error =
            m_file.run(row,
                       QStringLiteral("SELECT %1 FROM orders WHERE settled = 0 AND state = 0 "
                                      "ORDER BY order_id")
                           .arg(columns)))
        return error;
    while (row.next())
        entries.append({orderOfRow(row), row.value(4).toString(), row.value(5).toLongLong()});
    return {};
}

Error DeskStore::unsettled(QVector<Returned>& returned)
{
    QSqlQuery row = m_file.query();
    if (const Error error =
            m_file.run(row,
                       QStringLiteral("SELECT %1 FROM orders WHERE settled = 0 AND state <> 0 "
                                      "ORDER BY order_id")
                           .arg(columns)))
        return error;
    while (row.next())
        returned.append(returnedOfRow(row));
    return {};
}

Error DeskStore::settle(const QVector<quint64>& orderIds)
{
    return m_file.transact([&] {
        for (const quint64 id : orderIds) {
            if (const Error error =
                    m_file.run(QStringLiteral("UPDATE orders SET settled = 1 WHERE order_id = ?"),
                               {signedOf(id)}))
                return error;
        }
        return Error();
    });
}

// The unique key: only an open order takes an answer.
Error DeskStore::close(quint64 orderId, const lxclient::Execution& execution,
                       const QString& refusal, QVector<Returned>& returned)
{
    QSqlQuery update = m_file.query();
    if (const Error error = m_file.run(
            update,
            QStringLiteral("UPDATE orders SET state = ?, refusal = ?, units = ?, decimals = ?, "
                           "quoted = ? WHERE order_id = ? AND state = 0"),
            {refusal.isEmpty() ? Executed : Refused, refusal, execution.price.units,
             execution.price.decimals, execution.time_ms, signedOf(orderId)}))
        return error;
    if (update.numRowsAffected() == 0)
        return {};
    --m_counts.open;
    if (refusal.isEmpty()) {
        ++m_counts.answered;
    } else {
        --m_counts.put;
        ++m_counts.refused;
    }
    QSqlQuery row = m_file.query();
    if (const Error error =
            m_file.run(row, QStringLiteral("SELECT %1 FROM orders WHERE order_id = ?").arg(columns),
                       {signedOf(orderId)}))
        return error;
    while (row.next())
        returned.append(returnedOfRow(row));
    return {};
}

// Follows the numbers, so that it is known from which one on to ask.
void DeskStore::note(const Answer& answer)
{
    if (answer.exchange_epoch() < m_exchange_epoch)
        return;
    if (answer.exchange_epoch() > m_exchange_epoch) {
        m_exchange_epoch = answer.exchange_epoch();
        m_next_number = 1;
        m_ahead.clear();
    }
    if (answer.number() < m_next_number)
        return;
    m_ahead.insert(answer.number());
    while (m_ahead.remove(m_next_number))
        ++m_next_number;
}

} // namespace lxlink
