#include "BusCollector.h"

#include <lxbase/BusMonitor.h>
#include <lxclient/Inboxes.h>

#include <limits>
#include <utility>

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace {

using Labels = std::vector<ClientMetric::Label>;

double seconds(qint64 ns)
{
    return static_cast<double>(ns) / 1e9;
}

ClientMetric number(Labels labels, MetricType type, double value)
{
    ClientMetric metric;
    metric.label = std::move(labels);
    if (type == MetricType::Counter)
        metric.counter.value = value;
    else
        metric.gauge.value = value;
    return metric;
}

ClientMetric histogram(Labels labels, const DurationHistogram& durations)
{
    // From a handler that only counts to one that hangs. With the last, which has no end, they are
    // twelve series for each inbox.
    constexpr qint64 limitsNs[] = {1'000,         5'000,           20'000,          100'000,
                                   500'000,       2'000'000,       10'000'000,      50'000'000,
                                   200'000'000LL, 1'000'000'000LL, 10'000'000'000LL};
    ClientMetric metric;
    metric.label = std::move(labels);
    metric.histogram.sample_count = durations.count();
    metric.histogram.sample_sum = seconds(durations.sum());
    for (const qint64 limit : limitsNs)
        metric.histogram.bucket.push_back({durations.countUpTo(limit), seconds(limit)});
    metric.histogram.bucket.push_back({durations.count(), std::numeric_limits<double>::infinity()});
    return metric;
}

// ---- one family of metrics for each figure of an inbox

struct InboxFigure
{
    const char* name;
    const char* help;
    MetricType type;
    double (*value)(const InboxStatistics&);
};

constexpr InboxFigure inboxFigures[] = {
    {"lxbase_items_put_total", "Items put into the inbox.", MetricType::Counter,
     [](const InboxStatistics& inbox) { return static_cast<double>(inbox.put); }},
    {"lxbase_items_handled_total", "Items that a handler call has returned from.",
     MetricType::Counter,
     [](const InboxStatistics& inbox) { return static_cast<double>(inbox.handled); }},
    {"lxbase_items_dropped_total", "Items freed undelivered when the plugin was unregistered.",
     MetricType::Counter,
     [](const InboxStatistics& inbox) { return static_cast<double>(inbox.dropped); }},
    {"lxbase_items_superseded_total", "Items that a newer one replaced in the inbox.",
     MetricType::Counter,
     [](const InboxStatistics& inbox) { return static_cast<double>(inbox.superseded); }},
    {"lxbase_inbox_items", "Items that wait in the inbox.", MetricType::Gauge,
     [](const InboxStatistics& inbox) { return static_cast<double>(inbox.waiting); }},
    {"lxbase_inbox_items_peak", "The most items that ever waited in the inbox at once.",
     MetricType::Gauge,
     [](const InboxStatistics& inbox) { return static_cast<double>(inbox.peak); }},
    {"lxbase_handler_busy_seconds",
     "How long the handler call in progress has lasted; 0 if there is none.", MetricType::Gauge,
     [](const InboxStatistics& inbox) { return seconds(inbox.busyForNs); }},
};

struct InboxDurations
{
    const char* name;
    const char* help;
    DurationHistogram InboxStatistics::*durations;
};

constexpr InboxDurations inboxDurations[] = {
    {"lxbase_inbox_wait_seconds", "From put to handler; of a sample of the items.",
     &InboxStatistics::waitTime},
    {"lxbase_handler_seconds", "How long a handler call takes; of a sample of the calls.",
     &InboxStatistics::handlerTime},
};

Labels labelsOf(const InboxStatistics& inbox)
{
    return {{"plugin", lxclient::pluginName(inbox).toStdString()},
            {"kind", inboxKindName(inbox.kind).toStdString()}};
}

// ---- the lists of the network paths

struct ListFigure
{
    const char* name;
    const char* help;
    MetricType type;
    quint64 NetworkListStatistics::*value;
};

constexpr ListFigure listFigures[] = {
    {"lxbase_network_items_put_total", "Items that the net plugin put into the list.",
     MetricType::Counter, &NetworkListStatistics::put},
    {"lxbase_network_items_routed_total", "Items of the list that were routed to the inboxes.",
     MetricType::Counter, &NetworkListStatistics::handled},
    {"lxbase_network_items_dropped_total",
     "Items of the list that were freed without being routed.", MetricType::Counter,
     &NetworkListStatistics::dropped},
    {"lxbase_network_list_items", "Items that wait in the list.", MetricType::Gauge,
     &NetworkListStatistics::waiting},
    {"lxbase_network_list_items_peak", "The most items that ever waited in the list at once.",
     MetricType::Gauge, &NetworkListStatistics::peak},
};

// ---- the bus as a whole

struct BusFigure
{
    const char* name;
    const char* help;
    int BusStatistics::*value;
};

constexpr BusFigure busFigures[] = {
    {"lxbase_pool_records", "Records that the record pool has made.",
     &BusStatistics::poolRecordsMade},
    {"lxbase_pool_records_on_loan", "Records of the pool that were not given back.",
     &BusStatistics::poolRecordsOnLoan},
    {"lxbase_threads", "Threads of the bus.", &BusStatistics::threads},
    {"lxbase_subscriptions", "Subscriptions, each counted as often as it was made.",
     &BusStatistics::subscriptions},
    {"lxbase_relation_groups", "Relation groups with a member.", &BusStatistics::relationGroups},
};

} // namespace

std::vector<MetricFamily> BusCollector::Collect() const
{
    const BusStatistics bus = CBusMonitor::statistics();
    std::vector<MetricFamily> families;
    for (const InboxFigure& figure : inboxFigures) {
        MetricFamily family{figure.name, figure.help, figure.type, {}};
        for (const InboxStatistics& inbox : bus.inboxes)
            family.metric.push_back(number(labelsOf(inbox), figure.type, figure.value(inbox)));
        families.push_back(std::move(family));
    }
    for (const InboxDurations& figure : inboxDurations) {
        MetricFamily family{figure.name, figure.help, MetricType::Histogram, {}};
        for (const InboxStatistics& inbox : bus.inboxes)
            family.metric.push_back(histogram(labelsOf(inbox), inbox.*figure.durations));
        families.push_back(std::move(family));
    }
    for (const ListFigure& figure : listFigures) {
        const auto metricOf = [&](InboxKind kind, const NetworkListStatistics& list) {
            return number({{"kind", inboxKindName(kind).toStdString()}}, figure.type,
                          static_cast<double>(list.*figure.value));
        };
        families.push_back({figure.name,
                            figure.help,
                            figure.type,
                            {metricOf(InboxKind::Messages, bus.netList),
                             metricOf(InboxKind::Quotations, bus.quotationList)}});
    }
    for (const BusFigure& figure : busFigures) {
        families.push_back({figure.name,
                            figure.help,
                            MetricType::Gauge,
                            {number({}, MetricType::Gauge, bus.*figure.value)}});
    }
    MetricFamily lost{"lxbase_items_lost_total",
                      "What was put and did not reach a handler.",
                      MetricType::Counter,
                      {}};
    for (int reason = 0; reason < bus.lost.size(); ++reason) {
        lost.metric.push_back(
            number({{"reason", lostReasonName(static_cast<LostReason>(reason)).toStdString()}},
                   MetricType::Counter, static_cast<double>(bus.lost[reason])));
    }
    families.push_back(std::move(lost));
    return families;
}
