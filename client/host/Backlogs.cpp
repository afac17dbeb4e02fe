#include "Backlogs.h"

#include <lxclient/Inboxes.h>
#include <lxclient/Report.h>

#include <algorithm>

QString Backlog::toString() const
{
    const QString what =
        kind == InboxKind::Quotations ? QStringLiteral("quotes") : inboxKindName(kind);
    QString text =
        QStringLiteral("%1: %2 %3").arg(plugin, lxclient::grouped(static_cast<qint64>(most)), what);
    if (items > most)
        text += QStringLiteral(" and %1 others")
                    .arg(lxclient::grouped(static_cast<qint64>(items - most)));
    return text;
}

void Backlogs::look(const BusStatistics& bus)
{
    m_now.clear();
    for (const InboxStatistics& inbox : bus.inboxes) {
        // handled is counted late, never early
        const quint64 items = inbox.put - inbox.handled - inbox.dropped;
        if (inbox.plugin.isEmpty() || items == 0)
            continue;
        if (m_now.isEmpty() || m_now.last().plugin != inbox.plugin)
            m_now.append({inbox.plugin, inbox.kind, 0, 0});
        Backlog& backlog = m_now.last();
        backlog.items += items;
        if (items > backlog.most) {
            backlog.kind = inbox.kind;
            backlog.most = items;
        }
    }
    std::sort(m_now.begin(), m_now.end(),
              [](const Backlog& a, const Backlog& b) { return a.items > b.items; });
    for (const Backlog& backlog : qAsConst(m_now)) {
        quint64& largest = m_largest[backlog.plugin];
        largest = std::max(largest, backlog.items);
    }
    if (!m_now.isEmpty() && m_now.first().items >= Noticeable) {
        ++m_times_slowest[m_now.first().plugin];
        ++m_times;
    }
}

int Backlogs::slowestShare(const QString& plugin) const
{
    return m_times > 0 ? qRound(100.0 * m_times_slowest.value(plugin) / m_times) : 0;
}

QString Backlogs::slowest() const
{
    const auto most = std::max_element(m_times_slowest.begin(), m_times_slowest.end());
    return most == m_times_slowest.end() ? QString() : most.key();
}
