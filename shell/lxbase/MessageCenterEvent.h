// The records that the center keeps for its event side: registrations and relation groups.
#ifndef LXBASE_MESSAGECENTEREVENT_H
#define LXBASE_MESSAGECENTEREVENT_H

#include <lxbase/RelationColor.h>

#include <QMutex>
#include <QStringList>
#include <QVector>

class CEventWorkerThread;
class IMessageInterface;
class CParking;
struct EventQueueItem;

// One per plugin registered for events; made by registration, freed by unregistration. The inbox,
// its mutex and its parking belong to the worker.
struct EventRegInfo
{
    IMessageInterface* plugin = nullptr; // not owned
    QVector<EventQueueItem*>* event_list = nullptr;
    QMutex* event_mutex = nullptr;
    CEventWorkerThread* event_thread = nullptr;
    CParking* event_parking = nullptr; // null under IdlePolicy::Poll
};

// The groups of one base ID and event type. An ID stands in at most one of the lists, once.
struct RelationGroups
{
    static constexpr int ColorCount = 7; // the values of RelationColor_t
    QStringList lists[ColorCount]; // by RelationColor_t, IDs in the order in which they were added
};

#endif
