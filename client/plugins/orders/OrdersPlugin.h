// OrdersPlugin: the order desk. Checks what is asked of it, sends orders to the net, follows them
// to their execution and keeps the positions.
#ifndef LXCLIENT_ORDERSPLUGIN_H
#define LXCLIENT_ORDERSPLUGIN_H

#include <lxbase/MessageInterface.h>
#include <lxclient/Plugin.h>
#include <lxclient/QuoteAudit.h>

#include <QHash>
#include <QMap>
#include <QMutex>

// Setting of its own, for --set: "orders.max-open", how many orders may be open, 1000.
class OrdersPlugin : public IMessageInterface, public lxclient::Plugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "orders.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    bool initialise(const QString& id, const QVariantMap& settings, QString& reason) override;
    void shutDown() override;
    lxclient::Report report() const override;

    void RecvMsg(QString srcId, QVariant type, QVariant data) override;
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString srcId, QVariant type, QVariant data) override;

private:
    enum class State { Sent, Acknowledged };

    void recvRequest(const QString& customer, lxclient::OrderRequest request);
    void recvAcknowledgement(const lxclient::Order& order);
    void recvExecution(const lxclient::Execution& execution);
    QString flawOf(const lxclient::OrderRequest& request) const;

    // constant after initialise
    QString m_id;
    QStringList m_symbols;
    int m_max_open = 0;

    mutable QMutex m_mutex;
    // guarded by m_mutex
    QHash<quint64, State> m_open;            // by order ID
    QMap<QString, qint64> m_positions;       // by symbol
    QMap<QString, lxclient::Quote> m_quotes; // the last, by symbol
    lxclient::QuoteAudit m_audit;
    QMap<QString, quint64> m_requests; // by customer
    QMap<QString, quint64> m_refused;  // by customer
    quint64 m_sent = 0;
    quint64 m_acknowledged = 0;
    quint64 m_executed = 0;
    quint64 m_position_events = 0;
    QStringList m_faults;
};

#endif
