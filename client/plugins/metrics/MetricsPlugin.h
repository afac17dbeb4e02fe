// MetricsPlugin: serves the figures of the bus to Prometheus, and whatever reads its text format.
#ifndef LXCLIENT_METRICSPLUGIN_H
#define LXCLIENT_METRICSPLUGIN_H

#include <lxbase/MessageInterface.h>
#include <lxclient/Plugin.h>

#include <QObject>

#include <memory>

namespace prometheus {
class Exposer;
}
class BusCollector;

// At http://127.0.0.1:PORT/metrics, PORT being the setting "metrics.port" of the host; 0 takes a
// free one. Which it is stands on stderr. The client loads the plugin only if there is that
// setting.
//
// It has no traffic and does not register. Scrapes come on threads of the exposer, which shutDown
// ends.
class MetricsPlugin : public IMessageInterface, public lxclient::Plugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "metrics.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    MetricsPlugin();
    ~MetricsPlugin() override;

    lxclient::Error initialise(const QString& id, const QVariantMap& settings) override;
    void shutDown() override;
    lxclient::Report report() const override;

private:
    void RecvMsg(QString, QVariant, QVariant) override { }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

    QString m_url;                             // constant after initialise
    std::shared_ptr<BusCollector> m_collector; // the exposer holds a weak reference
    std::unique_ptr<prometheus::Exposer> m_exposer;
};

#endif
