// The event side of the center: registration, subscriptions, publication, relation groups.
#include <lxbase/MessageCenterEvent.h>

#include <lxbase/CallGate.h>
#include <lxbase/CenterState.h>
#include <lxbase/Delivery.h>
#include <lxbase/EventWorkerThread.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageCenter.h>
#include <lxbase/Registry.h>
#include <lxbase/RelationTable.h>

#include <lxevent/EventMessageCommon.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

using namespace lxbase::detail;

namespace {

// Events of these two types come too often for the trace.
constexpr int untracedTypes[] = {0x30005, 0x30006};

bool isTraced(const QVariant& type)
{
    return std::none_of(std::begin(untracedTypes), std::end(untracedTypes),
                        [&](int untraced) { return type == QVariant(untraced); });
}

Inbox<EventQueueItem*> eventInbox(const EventRegInfo& record)
{
    return {{record.event_mutex, record.event_state}, record.event_list};
}

} // namespace

void CMessageCenter::SubEvent(QString id, QVariant type, int oper)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "SubEvent id" << id << " type" << type << " oper:" << oper;
    m_state->subscriptions +=
        eventSubscriptions().change(id, type, oper, CInboxWorkerBase::unregistering(id));
}

void CMessageCenter::PutEvent(QString srcId, CEventMessageCommon* pMsg)
{
    const std::unique_ptr<CEventMessageCommon> event(pMsg);
    const CallGate::Pass pass(centerGate);
    if (!event || !pass)
        return countTurnedAway(event.get());
    const QVariant type = event->GetType();
    const QString dst = event->GetDstid();
    try {
        if (lcLxbase().isDebugEnabled() && isTraced(type)) {
            qCDebug(lcLxbase) << event->GetSrcid() << " PutEvent type:" << type << " to:" << dst
                              << " data:" << event->GetMsg();
        }
    } catch (...) { } // a payload that cannot be copied goes untraced
    if (event->GetSrcid().isEmpty())
        event->SetSrcid(srcId);

    Delivery delivery(
        PutPath::PutEvent, m_event_reg_map, m_event_reg_mutex, eventInbox, std::move(srcId),
        QVariant(type), [&](QString&& src, QVariant&& itemType) {
            return new EventQueueItem{std::move(src), std::move(itemType), event->GetMsg()};
        });
    const Routed routed = delivery.route(dst, eventSubscriptions(), Sender::LeftOut);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << event->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find " << dst;
    } else if (routed == Routed::UnknownType) {
        qCDebug(lcLxbase) << "MsgType:" << type << " has not sub";
    }
    if (dst.isEmpty()) { // a broadcast reaches the relation groups of its sender as well
        relations().forEachRelated(delivery.srcId(), type,
                                   [&](const QString& member) { delivery.alsoTo(member); });
    }
    delivery.report(*event, LXBASE_LOG_PLACE);
}

void CMessageCenter::setRelation(const QString& from, const QString& to, int type,
                                 RelationColor_t color, int oper)
{
    const CallGate::Pass pass(centerGate);
    if (pass)
        m_state->relation_groups += relations().change(from, to, type, color, oper);
}

void CMessageCenter::printRelationMap() { }

// As InitMsgReg: the record is published with its inbox before the worker exists.
void CMessageCenter::InitEventReg(QString id, IMessageInterface* pInterface,
                                  IMessageInterface::ThreadType threadType)
{
    if (!(threadType & IMessageInterface::EventThread))
        return;

    EventRegInfo* const record =
        addRecord(m_event_reg_map, m_event_reg_mutex, id, LXBASE_LOG_PLACE, [&] {
            auto* const made = new EventRegInfo;
            made->plugin = pInterface;
            made->event_list = new QVector<EventQueueItem*>;
            made->event_mutex = new QMutex;
            made->event_state = new InboxState(fixIdlePolicy());
            beginPolicy(m_state->event_policies, {id, InboxKind::Events}, eventInbox(*made));
            return made;
        });
    if (!record)
        return;
    record->event_thread =
        makeWorker<CEventWorkerThread>(id, "_EventWorkerThread", pInterface, eventInbox(*record));
    if (!startWorker(record->event_thread))
        retireForEvent(id);
}

void CMessageCenter::FreeResourceForEvent(QString id)
{
    m_state->subscriptions -= eventSubscriptions().removeAll(id);
    retireForEvent(id);
}

void CMessageCenter::retireForEvent(const QString& id)
{
    if (const auto record = takeRecord(m_event_reg_map, m_event_reg_mutex, id))
        endWorkers({record->event_thread});
}

void CMessageCenter::setEventInboxPolicy(const QString& id, InboxPolicy policy)
{
    changePolicy(m_state->event_policies, m_event_reg_map, m_event_reg_mutex, eventInbox,
                 {id, InboxKind::Events}, std::move(policy));
}

quint64 CMessageCenter::waitingEvents(const QString& id)
{
    const QMutexLocker locker(&m_event_reg_mutex);
    const EventRegInfo* const record = m_event_reg_map.value(id);
    return record ? eventInbox(*record).size() : 0;
}

SubscriptionTable CMessageCenter::eventSubscriptions()
{
    return {m_event_sub_map, m_state->event_ids_by_int, m_event_sub_mutex, m_event_id_sub_map,
            m_event_id_sub_mutex};
}

RelationTable CMessageCenter::relations()
{
    return {m_relation_map, m_relation_mutex};
}
