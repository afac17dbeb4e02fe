// ExchangeRole: takes the desks' orders and fills them at its last quote.
#ifndef LXCLIENT_LINK_EXCHANGEROLE_H
#define LXCLIENT_LINK_EXCHANGEROLE_H

#include "ExchangeStore.h"
#include "QuoteReceiver.h"
#include "Role.h"

#include <QElapsedTimer>

#include <atomic>
#include <memory>

namespace lxlink {

class ExchangeRole : public Role
{
public:
    ExchangeRole(Connection& orders, Connection& quotes, Post& post, QString storeFile);

    lxclient::Error open() override;
    void connected() override;
    void work(const Work& work) override;
    void tick() override;
    void start() override;
    void stop() override { m_stopped = true; }
    bool ended(const QVector<OtherClient>& others) const override;
    void finish() override;
    bool knowsSymbols(QVariantMap& settings) const override;
    void report(lxclient::Report& report) const override;

    // Whether an order's subject, which the server has checked, is the one of what it says.
    static bool isOwn(const QByteArray& subject, const Order& order);

private:
    struct Waiting
    {
        Order order;
        quint64 sequence;
        QElapsedTimer since;
    };

    void takeOrders();
    bool mayWait(const Waiting& waiting) const;
    ExchangeStore::Fill fill(const Order& order) const;
    void publish(const QVector<Answer>& answers);
    void answerAgain(const Letter& letter);

    Connection& m_orders;
    Post& m_post;
    const QString m_store_file;
    QuoteReceiver m_receiver;
    std::atomic<bool> m_stopped{false}; // set by the main thread

    // the link's thread
    ExchangeStore m_store;
    QVector<Waiting> m_waiting;
    QString m_stream; // which one the orders come from
    bool m_has_stream = false;

    mutable QMutex m_mutex;
    // guarded by m_mutex
    QHash<QString, lxclient::Quote> m_quotes; // the last, by symbol
    QMap<QString, quint64> m_executed;        // by desk, as the store has it
    QMap<QString, quint64> m_refused;
    Cursor m_cursor; // as the store has it

    std::unique_ptr<Reader> m_order_reader;
    std::unique_ptr<Reader> m_ask_reader;
};

} // namespace lxlink

#endif
