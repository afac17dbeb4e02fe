#include "BusTables.h"

#include "TextTable.h"

#include <lxclient/Inboxes.h>
#include <lxclient/Report.h>

using lxclient::grouped;

namespace {

QString grouped64(quint64 number)
{
    return grouped(static_cast<qint64>(number));
}

// Half of them, all but one in a hundred, and all; empty if there were none.
QStringList quantiles(const DurationHistogram& durations)
{
    if (durations.count() == 0)
        return {QString(), QString(), QString()};
    return {durationText(durations.quantile(0.5)), durationText(durations.quantile(0.99)),
            durationText(durations.max())};
}

} // namespace

QString inboxTable(const BusStatistics& bus)
{
    TextTable table({QStringLiteral("Inbox"), QString(), QStringLiteral("Handled"),
                     QStringLiteral("Peak"), QStringLiteral("Wait p50"), QStringLiteral("p99"),
                     QStringLiteral("max"), QStringLiteral("Handler p50"), QStringLiteral("p99"),
                     QStringLiteral("max")});
    table.alignLeft(1);
    for (const InboxStatistics& inbox : bus.inboxes) {
        if (inbox.plugin.isEmpty() && inbox.put == 0)
            continue; // no plugin has gone, or none that received anything
        table.addRow(QStringList{lxclient::pluginName(inbox), inboxKindName(inbox.kind),
                                 grouped64(inbox.handled), grouped64(inbox.peak)}
                     + quantiles(inbox.waitTime) + quantiles(inbox.handlerTime));
    }
    return table.toString();
}

QString lostTable(const BusStatistics& bus)
{
    TextTable table({QStringLiteral("Lost"), QStringLiteral("Items")});
    for (int reason = 0; reason < bus.lost.size(); ++reason) {
        if (bus.lost[reason] > 0)
            table.addRow(
                {lostReasonName(static_cast<LostReason>(reason)), grouped64(bus.lost[reason])});
    }
    return table.isEmpty() ? QStringLiteral("The bus lost nothing.\n") : table.toString();
}

QStringList unfinishedInboxes(const BusStatistics& bus)
{
    QStringList inboxes;
    for (const InboxStatistics& inbox : bus.inboxes) {
        QStringList words;
        if (inbox.busyForNs > 0)
            words.append(QStringLiteral("handler busy for ") + durationText(inbox.busyForNs));
        if (inbox.waiting > 0)
            words.append(grouped64(inbox.waiting) + QStringLiteral(" waiting"));
        if (!words.isEmpty()) {
            inboxes.append(QStringLiteral("%1: %2 %3")
                               .arg(lxclient::pluginName(inbox), inboxKindName(inbox.kind),
                                    words.join(QLatin1String(", "))));
        }
    }
    return inboxes;
}

QString durationText(qint64 ns)
{
    if (ns < 1'000)
        return QStringLiteral("%1 ns").arg(ns);
    auto number = static_cast<double>(ns) / 1e3;
    const char* unit = "us";
    for (const char* const longer : {"ms", "s"}) {
        if (number < 1'000)
            break;
        number /= 1'000;
        unit = longer;
    }
    return QStringLiteral("%1 %2")
        .arg(number, 0, 'f', number < 10 ? 1 : 0)
        .arg(QLatin1String(unit));
}
