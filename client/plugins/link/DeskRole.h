// DeskRole: quotes in, orders out, answers back, each once.
#ifndef LXCLIENT_LINK_DESKROLE_H
#define LXCLIENT_LINK_DESKROLE_H

#include "DeskStore.h"
#include "QuoteReceiver.h"
#include "Role.h"

#include <QElapsedTimer>
#include <QMutex>

#include <atomic>
#include <memory>

namespace lxlink {

// An order is stored, then published, and stays in the outbox until the exchange has answered it,
// whatever the server says. Whenever the desk is connected again all that are open are published
// again, and the answers from the first missing one on are asked for; the same where an answer
// takes longer than a second.
class DeskRole : public Role
{
public:
    struct Settings
    {
        QString desk;
        QString store_file;
        qint64 good_for_ms;
        QByteArray inbox; // subject of its own for the server's receipts
    };

    DeskRole(Connection& orders, Connection& quotes, Post& post, Settings settings);

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
    void describe(lxclient::LinkState& state) const override;

private:
    struct Sent
    {
        OutboxEntry entry;
        QElapsedTimer since; // it was put
        QElapsedTimer published;
        bool has_receipt = false; // the server has it
    };

    void takeOrders(const QVector<PutOrder>& orders);
    void takeAnswers(const QVector<Letter>& letters);
    void takeReceipt(const Letter& letter);
    void takeRefusal(const QByteArray& subject);
    void publish(Sent& sent);
    void ask();
    void giveBack(const QVector<Returned>& returned);
    void reject(const QString& sender, const lxclient::Order& order, const QString& reason);
    void settle();
    void noteFigures();

    Connection& m_orders;
    Post& m_post;
    const Settings m_settings;
    QuoteReceiver m_receiver;
    std::atomic<bool> m_stopped{false}; // set by the main thread

    // the link's thread, after open
    DeskStore m_store;
    QMap<quint64, Sent> m_sent; // without an answer, by order ID
    QVector<Returned> m_left;   // by the session before: for the plugins of this one
    QVector<quint64> m_to_settle;
    QVector<quint64> m_settling; // given to the plugins for a while
    QElapsedTimer m_settled;
    QElapsedTimer m_asked;
    bool m_has_stream = false;

    mutable QMutex m_mutex;
    // guarded by m_mutex
    DeskCounts m_counts;
    Cursor m_cursor;
    quint64 m_accepted = 0;   // orders of this session that are in the store
    quint64 m_carried = 0;    // of sessions before, whose answer was returned in this one
    quint64 m_taken_back = 0; // of both that were refused later
    quint64 m_returned = 0;   // acknowledgements, and as many executions
    quint64 m_rejected = 0;
    qint64 m_round_trip_us = -1;

    std::unique_ptr<Reader> m_answer_reader;
    std::unique_ptr<Reader> m_receipt_reader;
};

} // namespace lxlink

#endif
