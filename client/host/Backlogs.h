// Backlogs: how far the plugins are behind, looked at again and again while a session runs.
#ifndef LXCLIENT_BACKLOGS_H
#define LXCLIENT_BACKLOGS_H

#include <lxbase/BusMonitor.h>

#include <QMap>
#include <QString>
#include <QVector>

// What one plugin has been put and has not handled yet: what waits in its inboxes, and what its
// workers have in hand.
struct Backlog
{
    QString plugin;
    InboxKind kind = InboxKind::Messages; // of the inbox that holds most of it
    quint64 items = 0;                    // in all of its inboxes
    quint64 most = 0;                     // in that one

    QString toString() const; // "board#1: 388,000 quotes"
};

// On one thread.
class Backlogs
{
public:
    // So many items are behind; fewer are on their way.
    static constexpr quint64 Noticeable = 100;

    void look(const BusStatistics& bus);

    // As of the last look, the largest first; none is empty.
    const QVector<Backlog>& now() const { return m_now; }

    // Of a plugin, the largest that was seen.
    quint64 largest(const QString& plugin) const { return m_largest.value(plugin); }

    // In how many of the looks at which anybody was behind this one was the furthest, in per cent.
    int slowestShare(const QString& plugin) const;

    // Who was so most often; empty: nobody was ever behind.
    QString slowest() const;

private:
    QVector<Backlog> m_now;
    QMap<QString, quint64> m_largest;
    QMap<QString, int> m_times_slowest;
    int m_times = 0;
};

#endif
