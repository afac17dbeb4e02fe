// ExchangeStore: all orders that the exchange has taken or refused, which is the truth about them.
#ifndef LXCLIENT_LINK_EXCHANGESTORE_H
#define LXCLIENT_LINK_EXCHANGESTORE_H

#include "StoreFile.h"
#include "Wire.h"

#include <QMap>
#include <QVector>

namespace lxlink {

// Used on one thread. An order is known by desk, epoch of the desk's store and ID; one that is
// known gets the answer that it has got. Answers to a desk are numbered from 1 on.
class ExchangeStore
{
public:
    lxclient::Error open(const QString& fileName);

    // At which price and quote an order is filled, or why it is not (`refusal`).
    struct Fill
    {
        lxclient::Decimal price;
        qint64 time_ms = 0;
        QString refusal;
    };

    // Orders as they came, with the place in the stream: one transaction, after which they may be
    // answered. `fill` is asked once for each order that is not known.
    lxclient::Error take(const QVector<Order>& orders, const Cursor& cursor,
                         const std::function<Fill(const Order&)>& fill, QVector<Answer>& answers);

    // At most `most` answers to a desk, from this number on, in their order.
    lxclient::Error answersFrom(const QString& desk, quint64 number, int most,
                                QVector<Answer>& answers);

    lxclient::Error cursor(Cursor& cursor) { return m_file.cursor(cursor); }
    quint64 epoch() const { return m_file.epoch(); }

    // By desk: orders executed, without those refused; and those.
    const QMap<QString, quint64>& executed() const { return m_executed; }
    const QMap<QString, quint64>& refused() const { return m_refused; }

private:
    lxclient::Error find(const Order& order, QVector<Answer>& answers);
    lxclient::Error insert(const Order& order, const Fill& fill, QVector<Answer>& answers);
    Answer answerOf(const QSqlQuery& row) const;

    StoreFile m_file;
    QMap<QString, quint64> m_last_number; // by desk
    QMap<QString, quint64> m_executed;
    QMap<QString, quint64> m_refused;
};

} // namespace lxlink

#endif
