/// \file
/// The records that the center keeps for its event side: registrations and relation groups.
#ifndef LXBASE_MESSAGECENTEREVENT_H
#define LXBASE_MESSAGECENTEREVENT_H

#include <lxbase/RelationColor.h>

#include <QMutex>
#include <QStringList>
#include <QVector>

class CEventWorkerThread;
class IMessageInterface;
struct EventQueueItem;

namespace lxbase::detail {
class InboxState;
}

/// One per plugin registered for events; made by registration, freed by unregistration. The inbox,
/// its mutex and its state belong to the worker.
struct EventRegInfo
{
    IMessageInterface* plugin = nullptr;               ///< not owned
    QVector<EventQueueItem*>* event_list = nullptr;    ///< the event inbox
    QMutex* event_mutex = nullptr;                     ///< guards event_list
    CEventWorkerThread* event_thread = nullptr;        ///< drains the event inbox
    lxbase::detail::InboxState* event_state = nullptr; ///< ours
};

/// The groups of one base ID and event type. An ID stands in at most one of the lists, once.
struct RelationGroups
{
    static constexpr int ColorCount = 7; ///< the values of RelationColor_t
    QStringList lists[ColorCount];       ///< by RelationColor_t, IDs in the order of their adding
};

#endif
