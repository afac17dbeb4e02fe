// BusTables: the figures of the bus, in words for the user.
#ifndef LXCLIENT_BUSTABLES_H
#define LXCLIENT_BUSTABLES_H

#include <lxbase/BusMonitor.h>

#include <QString>
#include <QStringList>

// How long items waited in each inbox and how long its handler took.
QString inboxTable(const BusStatistics& bus);

// What was lost, by reason.
QString lostTable(const BusStatistics& bus);

// The inboxes in which something waits or is handled, each with what:
// "board#1: quotations handler busy for 12 s, 3,200 waiting".
QStringList unfinishedInboxes(const BusStatistics& bus);

// With its unit, and to two digits at least: "1.2 us", "340 ms".
QString durationText(qint64 ns);

#endif
