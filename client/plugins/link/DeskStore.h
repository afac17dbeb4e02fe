// DeskStore: a desk's outbox, and what became of its orders.
#ifndef LXCLIENT_LINK_DESKSTORE_H
#define LXCLIENT_LINK_DESKSTORE_H

#include "StoreFile.h"
#include "Wire.h"

#include <QMap>
#include <QSet>
#include <QVector>

namespace lxlink {

// An order in the outbox, and who has put it: the answer goes to him.
struct OutboxEntry
{
    lxclient::Order order;
    QString sender;
    qint64 good_until_ms = 0; // UTC
};

// An answer, for the plugins.
struct Returned
{
    QString sender;
    lxclient::Execution execution; // of an order that was refused only the order
    QString refusal;               // empty: it was executed
};

// What the store has seen in its life, of orders that were not refused.
struct DeskCounts
{
    quint64 put = 0;
    quint64 answered = 0; // acknowledged and executed, which come together
    quint64 open = 0;     // without an answer
    quint64 refused = 0;
};

// Used on one thread. The key of an order is the number that its plugin gave it, for sessions of
// one desk number their orders on (firstOrder).
//
// An answer is received once: what has one takes no other. It is given to the plugins, and stays
// unsettled until the next session would gain nothing from getting it again. So one that was stored
// when the process was killed, and of which the plugins may have kept nothing, is returned to those
// of the next session.
class DeskStore
{
public:
    lxclient::Error open(const QString& fileName);

    quint64 epoch() const { return m_file.epoch(); }
    quint64 firstOrder() const { return m_first_order; }

    // One transaction. After an error none of them is in the outbox.
    lxclient::Error add(const QVector<OutboxEntry>& entries);

    // Answers as they came, duplicates and strangers among them, with the place in the stream:
    // one transaction. `returned` are those that are to be given to the plugins.
    lxclient::Error receive(const QVector<Answer>& answers, const Cursor& cursor,
                            QVector<Returned>& returned);

    // The server has not let it out.
    lxclient::Error refuse(quint64 orderId, const QString& reason, QVector<Returned>& returned);

    // The first number that has not come of the answers of the exchange's epoch.
    quint64 exchangeEpoch() const { return m_exchange_epoch; }
    quint64 nextNumber() const { return m_next_number; }
    bool hasGap() const { return !m_ahead.isEmpty(); }

    lxclient::Error openOrders(QVector<OutboxEntry>& entries);

    // All that are not settled: at the beginning of a session those that were left.
    lxclient::Error unsettled(QVector<Returned>& returned);
    lxclient::Error settle(const QVector<quint64>& orderIds);

    lxclient::Error cursor(Cursor& cursor) { return m_file.cursor(cursor); }
    const DeskCounts& counts() const { return m_counts; }

private:
    lxclient::Error close(quint64 orderId, const lxclient::Execution& execution,
                          const QString& refusal, QVector<Returned>& returned);
    void note(const Answer& answer);

    StoreFile m_file;
    quint64 m_first_order = 1;
    quint64 m_exchange_epoch = 0;
    quint64 m_next_number = 1;
    QSet<quint64> m_ahead; // numbers behind a gap
    DeskCounts m_counts;
};

} // namespace lxlink

#endif
