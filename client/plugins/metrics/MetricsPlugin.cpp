#include "MetricsPlugin.h"

#include "BusCollector.h"

#include <lxbase/BusMonitor.h>
#include <lxclient/Protocol.h>

#include <prometheus/exposer.h>

#include <cstdio>
#include <exception>

using lxclient::Error;

MetricsPlugin::MetricsPlugin()
    : m_collector(std::make_shared<BusCollector>())
{ }

MetricsPlugin::~MetricsPlugin() = default;

Error MetricsPlugin::initialise(const QString&, const QVariantMap& settings)
{
    const int port = settings.value(lxclient::setting::MetricsPort).toInt();
    const QString address = QStringLiteral("127.0.0.1:%1");
    try {
        m_exposer = std::make_unique<prometheus::Exposer>(address.arg(port).toStdString());
    } catch (const std::exception&) { // its words tell nothing of the port
        return Error(QStringLiteral("cannot be listened on; is another program using it?"))
            .about(address.arg(port));
    }
    m_exposer->RegisterCollectable(m_collector);
    if (CBusMonitor::level() < StatisticsLevel::Sampled)
        CBusMonitor::setLevel(StatisticsLevel::Sampled); // for the histograms
    m_url = QStringLiteral("http://%1/metrics")
                .arg(address.arg(m_exposer->GetListeningPorts().front()));
    std::fprintf(stderr, "metrics: %s\n", qPrintable(m_url));
    return {};
}

// Waits for the scrape in progress.
void MetricsPlugin::shutDown()
{
    m_exposer.reset();
}

lxclient::Report MetricsPlugin::report() const
{
    lxclient::Report report;
    report.remarks.append(m_url);
    return report;
}
