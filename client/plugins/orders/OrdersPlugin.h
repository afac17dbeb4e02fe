// OrdersPlugin: the order desk. Checks what is asked of it, sends orders to the net, follows them
// to their execution and keeps the positions.
#ifndef LXCLIENT_ORDERSPLUGIN_H
#define LXCLIENT_ORDERSPLUGIN_H

#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QHash>
#include <QMap>
#include <QMutex>

// Threads: requests, acknowledgements and executions come on the message worker, quotes on the
// quotation worker.
class OrdersPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "orders.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    OrdersPlugin();

    lxclient::Report report() const override;

private:
    enum class State { Sent, Acknowledged };

    struct Open
    {
        State state = State::Sent;
        QString customer;
        lxclient::OrderRequest request;
    };

    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onMessage(const QString& sender, int type, const QVariant& payload) override;
    void onQuote(const lxclient::Quote& quote) override;

    void recvRequest(const QString& customer, lxclient::OrderRequest request);
    void recvAcknowledgement(const lxclient::Order& order);
    void recvRejection(const lxclient::OrderRejection& rejection);
    void recvExecution(const lxclient::Execution& execution);
    lxclient::Error check(const lxclient::OrderRequest& request) const;

    // constant after initialise
    QStringList m_symbols;
    qint64 m_max_open = 0;
    quint64 m_first_order = 1; // of this session

    mutable QMutex m_mutex;
    // guarded by m_mutex
    QHash<quint64, Open> m_open;             // by order ID
    QMap<QString, qint64> m_positions;       // by symbol
    QMap<QString, lxclient::Quote> m_quotes; // the last, by symbol
    lxclient::QuoteAudit m_audit;
    QMap<QString, quint64> m_requests; // by customer
    QMap<QString, quint64> m_refused;  // by customer
    quint64 m_sent = 0;
    quint64 m_carried = 0;  // sent in an earlier session, acknowledged in this one
    quint64 m_rejected = 0; // by the exchange or on the way to it
    quint64 m_rejected_of_earlier = 0;
    quint64 m_acknowledged = 0;
    quint64 m_executed = 0;
    quint64 m_position_events = 0;
    QStringList m_faults;
};

#endif
