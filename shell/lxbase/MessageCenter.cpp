#include <lxbase/MessageCenter.h>

#include <lxbase/CallGate.h>
#include <lxbase/CenterState.h>
#include <lxbase/Delivery.h>
#include <lxbase/DispatchThread.h>
#include <lxbase/EventWorkerThread.h>
#include <lxbase/LiveWorkers.h>
#include <lxbase/LostItems.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageCommonManage.h>
#include <lxbase/MessageWorkerThread.h>
#include <lxbase/NetworkPath.h>
#include <lxbase/Owned.h>
#include <lxbase/Probes.h>
#include <lxbase/QuotationWorkerThread.h>
#include <lxbase/Registry.h>
#include <lxbase/StallWatch.h>
#include <lxbase/TraceRecorder.h>

#include <lxdefine/PluginID.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QStringList>

#include <memory>
#include <utility>

using namespace lxbase::detail;

namespace {

// How long the end of the center waits for the calls inside, and for its threads.
constexpr int MaxEndMs = 5000;

// How long it then waits for a mutex that a call may have for ever.
constexpr int MaxLockMs = 1000;

Inbox<MsgQueueItem*> messageInbox(const MsgRegInfo& record)
{
    return {{record.msg_mutex, record.msg_state}, record.msg_list};
}

Inbox<MsgQueueItem*> quotationInbox(const MsgRegInfo& record)
{
    return {{record.quotation_mutex, record.quotation_state}, record.quotation_list};
}

// What a network put loses that finds no list: the center has not been started, or is gone.
void noteNotHandedIn(CMessageCommon* msg, PutPath path, bool inside)
{
    if (!inside)
        return countTurnedAway(msg);
    if (!msg)
        return;
    LostItem lost;
    lost.reason = LostReason::BeforeStart;
    lost.path = path;
    lost.source = PluginID::PLUGINNET_GLOBALID;
    lost.destination = msg->GetDstid();
    lost.type = msg->GetType();
    lost.traceId = msg->traceId();
    LostItems::instance().note(std::move(lost));
}

void traceUnReg(TraceKind kind, const QString& id)
{
    if (!isTracing())
        return;
    TraceEntry entry{kind};
    entry.destination = &id;
    TraceRecorder::record(entry);
}

// Hands a message from the network in, and records that. False: there is no list.
template<class Thread>
bool handIn(const NetworkPath<Thread>& network, const QSharedPointer<CMessageCommon>& msg,
            PutPath path, const QString& srcId)
{
    LXBASE_PROBE(hand_in, static_cast<int>(path), msg.get());
    if (!msg || !isTracing())
        return network.handIn(msg);
    TracedPut traced(path, srcId, msg->GetType());
    traced.begin();
    const bool handedIn = network.handIn(msg);
    traced.end(TraceKind::Put, msg->GetDstid(), msg->traceId(), msg.get());
    return handedIn;
}

// Both singletons are made while the library is loaded. The pool is made first, so it outlives the
// workers that the center stops at its end.
[[maybe_unused]] const auto* const thePool = CMessageCommonManage::GetInstance();
[[maybe_unused]] const auto* const theCenter = CMessageCenter::GetInstance();

} // namespace

CMessageCenter::CMessageCenter()
    : m_state(new CenterState)
{
    lcLxbase(); // made before the center, so that it is there until the center is gone
}

CMessageCenter::~CMessageCenter()
{
    const qint64 process = m_state->process_of_threads;
    const bool forked = process != 0 && process != QCoreApplication::applicationPid();
    if (!forked && endOrderly())
        delete m_state;
    else
        keepRemains(forked ? 0 : MaxLockMs);
    centerGate.seal(QDeadlineTimer(forked ? 0 : MaxEndMs));
}

void CMessageCenter::Reg(QString id, IMessageInterface* pInterface,
                         IMessageInterface::ThreadType type)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "reg id:" << id;
    LXBASE_PROBE(reg_begin);
    const qint64 begin = isTracing() ? TraceRecorder::stamp() : 0;
    ProcessReg(owned(id), pInterface, type);
    LXBASE_PROBE(reg_end);
    if (begin) {
        TraceEntry entry{TraceKind::Reg};
        entry.timeNs = begin;
        entry.number = static_cast<quint64>(TraceRecorder::stamp() - begin);
        entry.destination = &id;
        TraceRecorder::record(entry);
    }
}

// A handler that would wait for itself, directly or over other handlers in UnReg, is refused.
void CMessageCenter::UnReg(QString id)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "UnReg id:" << id;
    const auto* const worker = CInboxWorkerBase::current();
    if (worker && worker->id() == id) {
        qCCritical(lcLxbase) << "UnReg from a handler of the plugin itself, refused, ID:" << id;
        return;
    }
    WaitGraph& unregs = m_state->unregs;
    if (worker && !unregs.begin(worker->id(), id)) {
        qCCritical(lcLxbase) << "UnReg from a handler of" << worker->id()
                             << "that a handler of the plugin waits for, refused, ID:" << id;
        return;
    }
    LXBASE_PROBE(unreg_begin);
    traceUnReg(TraceKind::UnRegBegin, id);
    FreeOneResouce(id);
    LXBASE_PROBE(unreg_end);
    traceUnReg(TraceKind::UnRegEnd, id);
    if (worker)
        unregs.end(worker->id(), id);
}

void CMessageCenter::Sub(QString id, QVariant type, int oper)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "sub id" << id << " type" << type << " oper:" << oper;
    m_state->subscriptions +=
        msgSubscriptions().change(id, type, oper, CInboxWorkerBase::unregistering(id));
}

void CMessageCenter::Put(QString srcId, CMessageCommon* pMsg)
{
    const std::unique_ptr<CMessageCommon> msg(pMsg);
    const CallGate::Pass pass(centerGate);
    if (!msg || !pass)
        return countTurnedAway(msg.get());
    const QString dst = msg->GetDstid();
    Delivery delivery(
        PutPath::Put, m_msg_reg_hash, m_msg_reg_mutex, messageInbox, std::move(srcId),
        msg->GetType(), [&](QString&& src, QVariant&& type) {
            return new MsgQueueItem{std::move(src), std::move(type), msg->traceId(), msg->GetMsg()};
        });
    const Routed routed = delivery.route(dst, msgSubscriptions(), Sender::LeftOut);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << msg->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find " << dst;
    }
    if (dst.isEmpty() && msg->GetSendToNetFlag())
        delivery.alsoTo(PluginID::PLUGINNET_GLOBALID, LostReason::NoNetPlugin,
                        LostReason::NoNetPlugin);
    delivery.report(*msg, LXBASE_LOG_PLACE);
}

void CMessageCenter::PutNetMsg(QString srcId, CMessageCommon* pMsg)
{
    const QSharedPointer<CMessageCommon> msg(pMsg);
    const CallGate::Pass pass(centerGate);
    const bool handedIn = pass && handIn(netPath(), msg, PutPath::PutNetMsg, srcId);
    if (!handedIn)
        noteNotHandedIn(msg.get(), PutPath::PutNetMsg, bool(pass));
    if (!handedIn && pass.mayLog())
        qCWarning(lcLxbase) << "net recv list is NULL,maybe no init netmodule";
}

void CMessageCenter::PutQuotationMsg(QString srcId, CMessageCommon* pMsg)
{
    const QSharedPointer<CMessageCommon> msg(pMsg);
    const CallGate::Pass pass(centerGate);
    const bool handedIn = pass && handIn(quotationPath(), msg, PutPath::PutQuotationMsg, srcId);
    if (!handedIn)
        noteNotHandedIn(msg.get(), PutPath::PutQuotationMsg, bool(pass));
    if (!handedIn && pass.mayLog())
        qCWarning(lcLxbase) << "m_quotation_list is NULL,maybe no init netmodule";
}

void CMessageCenter::regNetMsgQueue(MessageQueue* queue)
{
    m_net_msg_queue = queue;
}

void CMessageCenter::regQuotationQueue(MessageQueue* queue)
{
    m_quotation_queue = queue;
}

int CMessageCenter::Start()
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return 0;
    const IdlePolicy policy = fixIdlePolicy();
    QStringList without;
    const auto start = [&](const auto& path, const char* name) {
        const QMutexLocker locker(&m_state->start_mutex);
        if (!path.start(name, policy))
            without.append(QLatin1String(name));
    };
    start(netPath(), "ProcessSendListThread_Thread");
    start(quotationPath(), "ProcessQuotationThread_Thread");
    if (!without.isEmpty())
        qCCritical(lcLxbase) << "no thread to be had, Start refused for" << without;
    return 0;
}

void CMessageCenter::ProcessMsgByNetPut(QSharedPointer<CMessageCommon> msg)
{
    const CallGate::Pass pass(centerGate);
    if (!msg || !pass)
        return countTurnedAway(msg.get());
    const QString dst = msg->GetDstid();
    Delivery delivery(
        PutPath::PutNetMsg, m_msg_reg_hash, m_msg_reg_mutex, messageInbox,
        QString(PluginID::PLUGINNET_GLOBALID), msg->GetType(), [&](QString&& src, QVariant&& type) {
            return new MsgQueueItem{std::move(src), std::move(type), msg->traceId(), msg->GetMsg()};
        });
    const Routed routed = delivery.route(dst, msgSubscriptions(), Sender::Included);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << msg->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find " << dst;
    } else if (routed == Routed::UnknownType) {
        qCDebug(lcLxbase) << "CMessageCenter::ProcessMsgByNetPut"
                          << "MsgType: " << msg->GetType() << " has not sub";
    }
    delivery.report(*msg, LXBASE_LOG_PLACE);
}

void CMessageCenter::ProcessQuotationMsg(QSharedPointer<CMessageCommon> msg)
{
    const CallGate::Pass pass(centerGate);
    if (!msg || !pass)
        return countTurnedAway(msg.get());
    const QString dst = msg->GetDstid();
    Delivery delivery(
        PutPath::PutQuotationMsg, m_msg_reg_hash, m_msg_reg_mutex, quotationInbox,
        QString(PluginID::PLUGINNET_GLOBALID), msg->GetType(), [&](QString&& src, QVariant&& type) {
            return new MsgQueueItem{std::move(src), std::move(type), QString(), msg->GetMsg()};
        });
    const Routed routed = delivery.route(dst, msgSubscriptions(), Sender::Included);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << msg->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find,maybe dstId not register" << dst;
    }
    delivery.report(*msg, LXBASE_LOG_PLACE);
}

void CMessageCenter::setIdlePolicy(IdlePolicy policy)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    if (m_state->idle_policy_fixed) {
        qCWarning(lcLxbase) << "setIdlePolicy after a registration or Start, refused";
        return;
    }
    m_state->idle_policy = policy;
}

void CMessageCenter::setInboxPolicy(QString id, IMessageInterface::ThreadType kind,
                                    InboxPolicy policy)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    const auto refuse = [&](const QString& fault) {
        qCCritical(lcLxbase).noquote() << "setInboxPolicy refused, ID:" << id << "," << fault;
    };
    if (const QString fault = faultOf(policy); !fault.isEmpty())
        return refuse(fault);
    id = owned(std::move(id));
    switch (kind) {
    case IMessageInterface::MessageThread:
        return changePolicy(m_state->msg_policies, m_msg_reg_hash, m_msg_reg_mutex, messageInbox,
                            {id, InboxKind::Messages}, std::move(policy));
    case IMessageInterface::QuotationThread:
        return changePolicy(m_state->quotation_policies, m_msg_reg_hash, m_msg_reg_mutex,
                            quotationInbox, {id, InboxKind::Quotations}, std::move(policy));
    case IMessageInterface::EventThread:
        return setEventInboxPolicy(id, std::move(policy));
    }
    refuse(QStringLiteral("kind %1: one of MessageThread, QuotationThread and EventThread")
               .arg(static_cast<int>(kind)));
}

void CMessageCenter::ProcessReg(QString id, IMessageInterface* pInterface,
                                IMessageInterface::ThreadType type)
{
    InitMsgReg(id, pInterface, type);
    InitEventReg(id, pInterface, type);
}

// The record is published with its inboxes before the workers exist: what is put meanwhile waits.
void CMessageCenter::InitMsgReg(QString id, IMessageInterface* pInterface,
                                IMessageInterface::ThreadType type)
{
    const bool wantsMessages = type & IMessageInterface::MessageThread;
    const bool wantsQuotations = type & IMessageInterface::QuotationThread;
    if (!wantsMessages && !wantsQuotations)
        return;

    MsgRegInfo* const record =
        addRecord(m_msg_reg_hash, m_msg_reg_mutex, id, LXBASE_LOG_PLACE, [&] {
            auto* const made = new MsgRegInfo;
            made->plugin = pInterface;
            if (wantsMessages) {
                made->msg_list = new QVector<MsgQueueItem*>;
                made->msg_mutex = new QMutex;
                made->msg_state = new InboxState(fixIdlePolicy());
                beginPolicy(m_state->msg_policies, {id, InboxKind::Messages}, messageInbox(*made));
            }
            if (wantsQuotations) {
                made->quotation_list = new QVector<MsgQueueItem*>;
                made->quotation_mutex = new QMutex;
                made->quotation_state = new InboxState(fixIdlePolicy());
                beginPolicy(m_state->quotation_policies, {id, InboxKind::Quotations},
                            quotationInbox(*made));
            }
            return made;
        });
    if (!record)
        return;
    if (wantsMessages) {
        record->msg_thread = makeWorker<CMessageWorkerThread>(id, "_MessageWorkerThread",
                                                              pInterface, messageInbox(*record));
    }
    if (wantsQuotations) {
        record->quotation_thread = makeWorker<CQuotationWorkerThread>(
            id, "_QuotationWorkerThread", pInterface, quotationInbox(*record));
    }
    if (!startWorker(record->msg_thread) || !startWorker(record->quotation_thread))
        retireForMsg(id);
}

void CMessageCenter::FreeOneResouce(QString id)
{
    announceUnReg(id);
    FreeResourceForMsg(id);
    FreeResourceForEvent(id);
}

void CMessageCenter::FreeResourceForMsg(QString id)
{
    m_state->subscriptions -= msgSubscriptions().removeAll(id);
    retireForMsg(id);
}

void CMessageCenter::retireForMsg(const QString& id)
{
    if (const auto record = takeRecord(m_msg_reg_hash, m_msg_reg_mutex, id))
        endWorkers({record->msg_thread, record->quotation_thread});
}

void CMessageCenter::announceUnReg(const QString& id)
{
    const auto announce = [](CInboxWorkerBase* worker) {
        if (worker)
            worker->announceUnReg();
    };
    QMutexLocker msgLocker(&m_msg_reg_mutex);
    if (const MsgRegInfo* const record = m_msg_reg_hash.value(id)) {
        announce(record->msg_thread);
        announce(record->quotation_thread);
    }
    msgLocker.unlock();
    const QMutexLocker eventLocker(&m_event_reg_mutex);
    if (const EventRegInfo* const record = m_event_reg_map.value(id))
        announce(record->event_thread);
}

SubscriptionTable CMessageCenter::msgSubscriptions()
{
    return {m_msg_sub_map, m_state->msg_ids_by_int, m_msg_sub_mutex, m_msg_id_sub_map,
            m_msg_id_sub_mutex};
}

NetworkPath<CProcessMsgByNetPutThread> CMessageCenter::netPath()
{
    return {m_net_msg_queue, m_net_recv_list, m_net_recv_list_mutex, m_state->net_recv_state,
            m_net_put_thread};
}

NetworkPath<CProcessQuotationThread> CMessageCenter::quotationPath()
{
    return {m_quotation_queue, m_quotation_list, m_quotation_list_mutex, m_state->quotation_state,
            m_quotation_thread};
}

// With the mutex of one inbox or list at a time.
void CMessageCenter::readStatistics(BusStatistics& statistics)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    statistics.netList = netPath().statistics();
    statistics.quotationList = quotationPath().statistics();
    statistics.threads += netPath().isStarted() + quotationPath().isStarted();
    statistics.subscriptions = m_state->subscriptions;
    statistics.relationGroups = m_state->relation_groups;
}

quint64 CMessageCenter::waiting(const QString& id, InboxKind kind)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return 0;
    if (kind == InboxKind::Events)
        return waitingEvents(id);
    const QMutexLocker locker(&m_msg_reg_mutex);
    const MsgRegInfo* const record = m_msg_reg_hash.value(id);
    if (!record)
        return 0;
    return kind == InboxKind::Messages ? messageInbox(*record).size()
                                       : quotationInbox(*record).size();
}

// Called by whatever is about to start threads.
CMessageCenter::IdlePolicy CMessageCenter::fixIdlePolicy()
{
    qint64 none = 0;
    m_state->process_of_threads.compare_exchange_strong(none, QCoreApplication::applicationPid());
    m_state->idle_policy_fixed = true;
    return m_state->idle_policy;
}

// The gate closes first: the message being routed is finished, and nothing enters any more. Once no
// call is inside, everything is this thread's alone, save the inboxes of the threads that still
// run. No thread may outlive the code that it runs, so all of them are stopped here. False: a call
// or a thread was still there after the wait, and may use everything that has not been freed.
bool CMessageCenter::endOrderly()
{
    const bool alone = centerGate.close(QDeadlineTimer(MaxEndMs));
    bool ended = StallWatch::end(QDeadlineTimer(MaxEndMs)) && alone;
    const auto end = [&](const auto& path) {
        const bool stopped = path.stop(QDeadlineTimer(MaxEndMs));
        if (stopped && alone)
            path.free();
        ended = ended && stopped;
    };
    end(netPath());
    end(quotationPath());
    m_net_msg_queue = nullptr;
    m_quotation_queue = nullptr;

    const bool workersEnded = alone ? endAllWorkers() : stopAllWorkers();
    if (!ended || !workersEnded)
        return false;
    CInboxWorkerBase::deleteRetired();
    qDeleteAll(m_msg_reg_hash);
    qDeleteAll(m_event_reg_map);
    msgSubscriptions().clear();
    eventSubscriptions().clear();
    relations().clear();
    return true;
}

// False: a handler has not returned.
bool CMessageCenter::endAllWorkers()
{
    QVector<CInboxWorkerBase*> workers;
    QStringList stopped;
    LiveWorkers::instance().forEach([&](CInboxWorkerBase& worker, quint64) {
        workers.append(&worker);
        stopped.append(worker.id());
    });
    QStringList running;
    const auto left = endWorkers(workers, QDeadlineTimer(MaxEndMs));
    for (const CInboxWorkerBase* worker : left) {
        running.append(worker->id());
        stopped.removeAll(worker->id());
    }
    for (QStringList* ids : {&stopped, &running}) {
        ids->sort();
        ids->removeDuplicates();
    }
    if (!running.isEmpty()) {
        qCWarning(lcLxbase) << "plugins still registered at the end, stopped:" << stopped
                            << ", not stopped after" << MaxEndMs << "ms:" << running;
    } else if (!stopped.isEmpty()) {
        qCWarning(lcLxbase) << "plugins still registered at the end, stopped:" << stopped;
    }
    return running.isEmpty();
}

// For an end with a call still inside, which may be ending or using any of the workers: they are
// told to stop, and that is all.
bool CMessageCenter::stopAllWorkers()
{
    QStringList ids;
    LiveWorkers::instance().forEach([&](CInboxWorkerBase& worker, quint64) {
        worker.setStop(true);
        ids.append(worker.id());
    });
    ids.sort();
    ids.removeDuplicates();
    qCWarning(lcLxbase) << "a call has not returned after" << MaxEndMs
                        << "ms; plugins still registered at the end, not waited for:" << ids;
    return false;
}

// What is kept is never freed, but can be reached: it is no leak. A call that is still inside finds
// a table as it is, or empty.
void CMessageCenter::keepRemains(int maxLockMs)
{
    m_state->remains = std::make_unique<CenterState::Remains>();
    const auto keep = [maxLockMs](auto& kept, auto& table, QMutex& mutex) {
        const bool locked = mutex.tryLock(maxLockMs);
        kept.swap(table);
        if (locked)
            mutex.unlock();
    };
    CenterState::Remains& remains = *m_state->remains;
    keep(remains.msg_reg_hash, m_msg_reg_hash, m_msg_reg_mutex);
    keep(remains.event_reg_map, m_event_reg_map, m_event_reg_mutex);
    keep(remains.msg_sub_map, m_msg_sub_map, m_msg_sub_mutex);
    keep(remains.event_sub_map, m_event_sub_map, m_event_sub_mutex);
    keep(remains.msg_id_sub_map, m_msg_id_sub_map, m_msg_id_sub_mutex);
    keep(remains.event_id_sub_map, m_event_id_sub_map, m_event_id_sub_mutex);
    keep(remains.relation_map, m_relation_map, m_relation_mutex);
}
