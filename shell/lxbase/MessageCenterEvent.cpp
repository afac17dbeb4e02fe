// The event side of the center: registration, subscriptions, publication, relation groups.
#include <lxbase/MessageCenterEvent.h>

#include <lxbase/CallGate.h>
#include <lxbase/Delivery.h>
#include <lxbase/EventWorkerThread.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageCenter.h>
#include <lxbase/Owned.h>
#include <lxbase/SubscriptionTable.h>

#include <lxevent/EventMessageCommon.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

namespace {

// Events of these two types come too often for the trace.
constexpr int untracedTypes[] = {0x30005, 0x30006};

bool isTraced(const QVariant& type)
{
    return std::none_of(std::begin(untracedTypes), std::end(untracedTypes),
                        [&](int untraced) { return type == QVariant(untraced); });
}

Inbox<EventQueueItem> eventInbox(const EventRegInfo& record)
{
    return {record.event_list, record.event_mutex, record.event_parking};
}

// The part before the first "#"; the whole ID if there is none.
QString baseId(const QString& id)
{
    return id.left(id.indexOf(QLatin1Char('#'))); // -1 stands for all of it
}

} // namespace

void CMessageCenter::SubEvent(QString id, QVariant type, int oper)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "SubEvent id" << id << " type" << type << " oper:" << oper;
    eventSubscriptions().change(id, type, oper);
}

void CMessageCenter::PutEvent(QString srcId, CEventMessageCommon* pMsg)
{
    const std::unique_ptr<CEventMessageCommon> event(pMsg);
    const CallGate::Pass pass(centerGate);
    if (!event || !pass)
        return;
    const QVariant type = event->GetType();
    const QString dst = event->GetDstid();
    if (lcLxbase().isDebugEnabled() && isTraced(type)) {
        qCDebug(lcLxbase) << event->GetSrcid() << " PutEvent type:" << type << " to:" << dst
                          << " data:" << event->GetMsg();
    }
    if (event->GetSrcid().isEmpty())
        event->SetSrcid(srcId);

    EventQueueItem values{srcId, type, event->GetMsg()};
    const Delivery deliverTo{m_event_reg_map, m_event_reg_mutex, eventInbox};
    const Routed routed = route(dst, values, &srcId, eventSubscriptions(), deliverTo);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << event->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find " << dst;
    } else if (routed == Routed::UnknownType) {
        qCDebug(lcLxbase) << "MsgType:" << type << " has not sub";
    }
    if (!dst.isEmpty())
        return;

    // a broadcast reaches the relation groups that the sender itself belongs to as well
    const QString base = baseId(srcId);
    if (base.isEmpty())
        return;
    const QMutexLocker locker(&m_relation_mutex);
    const auto groupsByType = m_relation_map.constFind(base);
    if (groupsByType == m_relation_map.constEnd())
        return;
    const RelationGroups* const groups = groupsByType->value(type);
    if (!groups)
        return;
    for (const QStringList& group : groups->lists) {
        if (!group.contains(srcId))
            continue;
        for (const QString& member : group) {
            if (member != srcId)
                deliverTo(member, qAsConst(values));
        }
    }
}

void CMessageCenter::setRelation(const QString& from, const QString& to, int type,
                                 RelationColor_t color, int oper)
{
    const CallGate::Pass pass(centerGate);
    const bool knownColor = color >= 0 && color < RelationGroups::ColorCount;
    if (!pass || from.isEmpty() || !knownColor)
        return;
    const QVariant eventType(type);
    if (oper == 1) {
        const QMutexLocker locker(&m_relation_mutex);
        RelationGroups*& groups = m_relation_map[owned(from)][eventType];
        if (!groups)
            groups = new RelationGroups;
        for (QStringList& group : groups->lists)
            group.removeOne(to);
        groups->lists[color].append(owned(to));
    } else if (oper == 2) {
        const QMutexLocker locker(&m_relation_mutex);
        if (RelationGroups* const groups = m_relation_map.value(from).value(eventType))
            groups->lists[color].removeOne(to);
    }
}

void CMessageCenter::printRelationMap() { }

// As InitMsgReg: the record is published with its inbox before the worker exists.
void CMessageCenter::InitEventReg(QString id, IMessageInterface* pInterface,
                                  IMessageInterface::ThreadType threadType)
{
    if (!(threadType & IMessageInterface::EventThread))
        return;

    QMutexLocker locker(&m_event_reg_mutex);
    if (m_event_reg_map.contains(id)) {
        locker.unlock();
        qCCritical(lcLxbase) << "!!!!!!!!  plugin ID duplicate,ID:" << id;
        return;
    }
    if (id.isEmpty()) {
        locker.unlock();
        qCCritical(lcLxbase) << "!!!!!!!!  plugin ID is null";
        return;
    }
    auto* const record = new EventRegInfo;
    record->plugin = pInterface;
    record->event_list = new QVector<EventQueueItem*>;
    record->event_mutex = new QMutex;
    record->event_parking = makeParking().release();
    m_event_reg_map.insert(id, record);
    locker.unlock();

    record->event_thread =
        startWorker<CEventWorkerThread>(id, "_EventWorkerThread", pInterface, eventInbox(*record));
}

void CMessageCenter::FreeResourceForEvent(QString id)
{
    eventSubscriptions().removeAll(id);

    QMutexLocker locker(&m_event_reg_mutex);
    const std::unique_ptr<EventRegInfo> record(m_event_reg_map.take(id));
    locker.unlock();
    if (record)
        retire({record->event_thread});
}

CSubscriptionTable CMessageCenter::eventSubscriptions()
{
    return {m_event_sub_map, m_event_sub_by_int, m_event_sub_mutex, m_event_id_sub_map,
            m_event_id_sub_mutex};
}
