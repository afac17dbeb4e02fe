#include "ExchangeStore.h"

using lxclient::Error;

namespace lxlink {

namespace {

const QString columns = QStringLiteral("desk, epoch, order_id, trace_id, symbol, quantity, number, "
                                       "units, decimals, quoted, refusal");

QVariant signedOf(quint64 number)
{
    return static_cast<qlonglong>(number);
}

} // namespace

Error ExchangeStore::open(const QString& fileName)
{
    if (const Error error = m_file.open(
            fileName, QStringLiteral("an exchange"),
            {QStringLiteral(
                "CREATE TABLE orders (desk TEXT NOT NULL, epoch INTEGER NOT NULL, order_id INTEGER "
                "NOT NULL, trace_id TEXT NOT NULL, symbol TEXT NOT NULL, quantity INTEGER NOT "
                "NULL, number INTEGER NOT NULL, units INTEGER NOT NULL, decimals INTEGER NOT NULL, "
                "quoted INTEGER NOT NULL, refusal TEXT NOT NULL, PRIMARY KEY (desk, epoch, "
                "order_id), UNIQUE (desk, number))")}))
        return error;
    QSqlQuery row = m_file.query();
    if (const Error error = m_file.run(
            row,
            QStringLiteral("SELECT desk, max(number), sum(refusal = ''), sum(refusal <> '') FROM "
                           "orders GROUP BY desk")))
        return error;
    while (row.next()) {
        const QString desk = row.value(0).toString();
        m_last_number[desk] = row.value(1).toULongLong();
        m_executed[desk] = row.value(2).toULongLong();
        m_refused[desk] = row.value(3).toULongLong();
    }
    return {};
}

Error ExchangeStore::take(const QVector<Order>& orders, const Cursor& cursor,
                          const std::function<Fill(const Order&)>& fill, QVector<Answer>& answers)
{
    const auto numbers = m_last_number;
    const auto executed = m_executed;
    const auto refused = m_refused;
    QVector<Answer> made;
    const Error error = m_file.transact([&] {
        for (const Order& order : orders) {
            const int before = made.size();
            Error failed = find(order, made);
            if (!failed && made.size() == before)
                failed = insert(order, fill(order), made);
            if (failed)
                return failed;
        }
        return m_file.setCursor(cursor);
    });
    if (error) {
        m_last_number = numbers;
        m_executed = executed;
        m_refused = refused;
        return error;
    }
    answers += made;
    return {};
}

Error ExchangeStore::answersFrom(const QString& desk, quint64 number, int most,
                                 QVector<Answer>& answers)
{
    QSqlQuery row = m_file.query();
    if (const Error error = m_file.run(row,
                                       QStringLiteral("SELECT %1 FROM orders WHERE desk = ? AND "
                                                      "number >= ? ORDER BY number LIMIT ?")
                                           .arg(columns),
                                       {desk, signedOf(number), most}))
        return error;
    while (row.next())
        answers.append(answerOf(row));
    return {};
}

Error ExchangeStore::find(const Order& order, QVector<Answer>& answers)
{
    QSqlQuery row = m_file.query();
    if (const Error error = m_file.run(row,
                                       QStringLiteral("SELECT %1 FROM orders WHERE desk = ? AND "
                                                      "epoch = ? AND order_id = ?")
                                           .arg(columns),
                                       {QString::fromStdString(order.desk()),
                                        signedOf(order.epoch()), signedOf(order.order_id())}))
        return error;
    if (row.next())
        answers.append(answerOf(row));
    return {};
}

Error ExchangeStore::insert(const Order& order, const Fill& fill, QVector<Answer>& answers)
{
    const QString desk = QString::fromStdString(order.desk());
    if (const Error error = m_file.run(
            QStringLiteral("INSERT INTO orders (%1) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
                .arg(columns),
            {desk, signedOf(order.epoch()), signedOf(order.order_id()),
             QString::fromStdString(order.trace_id()), QString::fromStdString(order.symbol()),
             static_cast<qlonglong>(order.quantity()), signedOf(++m_last_number[desk]),
             fill.price.units, fill.price.decimals, fill.time_ms, fill.refusal}))
        return error;
    ++(fill.refusal.isEmpty() ? m_executed : m_refused)[desk];
    return find(order, answers);
}

Answer ExchangeStore::answerOf(const QSqlQuery& row) const
{
    Answer answer;
    stamp(answer);
    answer.set_exchange_epoch(epoch());
    answer.set_number(row.value(6).toULongLong());
    Order& order = *answer.mutable_order();
    stamp(order);
    order.set_desk(row.value(0).toString().toStdString());
    order.set_epoch(row.value(1).toULongLong());
    order.set_order_id(row.value(2).toULongLong());
    order.set_trace_id(row.value(3).toString().toStdString());
    order.set_symbol(row.value(4).toString().toStdString());
    order.set_quantity(row.value(5).toLongLong());
    set(*answer.mutable_price(), {row.value(7).toLongLong(), row.value(8).toInt()});
    answer.set_time_ms(row.value(9).toLongLong());
    answer.set_refusal(row.value(10).toString().toStdString());
    return answer;
}

} // namespace lxlink
