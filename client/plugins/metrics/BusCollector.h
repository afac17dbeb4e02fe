// BusCollector: the figures of the bus in the form that Prometheus scrapes.
#ifndef LXCLIENT_BUSCOLLECTOR_H
#define LXCLIENT_BUSCOLLECTOR_H

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <vector>

// Keeps no figures of its own: each scrape is one CBusMonitor::statistics(), on the thread that
// serves it. Labels are the plugin's ID and the kind of traffic, or the reason of a loss: nothing
// of which there may be as many as there are symbols or orders.
class BusCollector final : public prometheus::Collectable
{
public:
    std::vector<prometheus::MetricFamily> Collect() const override;
};

#endif
