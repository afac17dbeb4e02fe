#include <lxbase/MessageCenter.h>

#include <lxbase/CallGate.h>
#include <lxbase/Delivery.h>
#include <lxbase/DispatchThread.h>
#include <lxbase/EventWorkerThread.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageCommonManage.h>
#include <lxbase/MessageWorkerThread.h>
#include <lxbase/Owned.h>
#include <lxbase/QuotationWorkerThread.h>
#include <lxbase/SubscriptionTable.h>

#include <lxdefine/PluginID.h>
#include <lxmsg/MessageCommon.h>

#include <QStringList>

#include <algorithm>
#include <memory>
#include <type_traits>
#include <utility>

namespace {

Inbox<MsgQueueItem> messageInbox(const MsgRegInfo& record)
{
    return {record.msg_list, record.msg_mutex, record.msg_parking};
}

Inbox<MsgQueueItem> quotationInbox(const MsgRegInfo& record)
{
    return {record.quotation_list, record.quotation_mutex, record.quotation_parking};
}

// What PutNetMsg and PutQuotationMsg share. The message goes to the outside queue and to the list
// independently of one another. False: the list does not exist. Start publishes list and parking
// with the pointer to the mutex, so they are read after it.
bool handIn(const QSharedPointer<CMessageCommon>& msg, CMessageCenter::MessageQueue* queue,
            const std::atomic<QMutex*>& listMutex, CMessageCenter::MessageList* const& list,
            const std::unique_ptr<CParking>& parking)
{
    if (queue)
        queue->push(msg);
    QMutex* const mutex = listMutex;
    if (!mutex)
        return false;
    append(*list, *mutex, parking.get(), msg);
    return true;
}

// Both singletons are made while the library is loaded. Their accessors are inline, and the module
// that is the first to run one registers the destructor: if that were a plugin, unloading it would
// destroy the object under everybody. The pool is made first, so it outlives the workers that the
// center stops at its end.
[[maybe_unused]] const auto* const thePool = CMessageCommonManage::GetInstance();
[[maybe_unused]] const auto* const theCenter = CMessageCenter::GetInstance();

} // namespace

CMessageCenter::CMessageCenter()
{
    lcLxbase(); // made before the center, so that it is there until the center is gone
}

// The gate closes first: the message being routed is finished, and nothing enters any more.
CMessageCenter::~CMessageCenter()
{
    centerGate.close();
    stopDispatchThreads();
    delete std::exchange(m_net_recv_list, nullptr);
    delete std::exchange(m_quotation_list, nullptr);
    delete m_quotation_list_mutex.exchange(nullptr);
    delete m_net_recv_list_mutex.exchange(nullptr);
    m_net_msg_queue = nullptr;
    m_quotation_queue = nullptr;

    stopRegisteredPlugins();
    deleteRetired();
    msgSubscriptions().clear();
    eventSubscriptions().clear();
    for (const auto& groupsByType : qAsConst(m_relation_map))
        qDeleteAll(groupsByType);
    centerGate.seal();
}

void CMessageCenter::Reg(QString id, IMessageInterface* pInterface,
                         IMessageInterface::ThreadType type)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "reg id:" << id;
    ProcessReg(owned(std::move(id)), pInterface, type);
}

void CMessageCenter::UnReg(QString id)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "UnReg id:" << id;
    const auto* worker = dynamic_cast<CInboxWorkerBase*>(QThread::currentThread());
    if (worker && worker->id() == id) {
        // it would wait for itself
        qCCritical(lcLxbase) << "UnReg from a handler of the plugin itself, refused, ID:" << id;
        return;
    }
    FreeOneResouce(std::move(id));
}

void CMessageCenter::Sub(QString id, QVariant type, int oper)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    qCDebug(lcLxbase) << "sub id" << id << " type" << type << " oper:" << oper;
    msgSubscriptions().change(id, type, oper);
}

void CMessageCenter::Put(QString srcId, CMessageCommon* pMsg)
{
    const std::unique_ptr<CMessageCommon> msg(pMsg);
    const CallGate::Pass pass(centerGate);
    if (!msg || !pass)
        return;
    const QString dst = msg->GetDstid();
    MsgQueueItem values{std::move(srcId), msg->GetType(), msg->traceId(), msg->GetMsg()};
    const Delivery deliverTo{m_msg_reg_hash, m_msg_reg_mutex, messageInbox};
    const Routed routed = route(dst, values, &values.src_id, msgSubscriptions(), deliverTo);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << msg->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find " << dst;
    }
    if (dst.isEmpty() && msg->GetSendToNetFlag())
        deliverTo(PluginID::PLUGINNET_GLOBALID, std::move(values));
}

void CMessageCenter::PutNetMsg(QString srcId, CMessageCommon* pMsg)
{
    Q_UNUSED(srcId)
    const QSharedPointer<CMessageCommon> msg(pMsg);
    const CallGate::Pass pass(centerGate);
    const bool handedIn = pass
        && handIn(msg, m_net_msg_queue, m_net_recv_list_mutex, m_net_recv_list, m_net_recv_parking);
    if (!handedIn && pass.mayLog())
        qCWarning(lcLxbase) << "net recv list is NULL,maybe no init netmodule";
}

void CMessageCenter::PutQuotationMsg(QString srcId, CMessageCommon* pMsg)
{
    Q_UNUSED(srcId)
    const QSharedPointer<CMessageCommon> msg(pMsg);
    const CallGate::Pass pass(centerGate);
    const bool handedIn = pass
        && handIn(msg, m_quotation_queue, m_quotation_list_mutex, m_quotation_list,
                  m_quotation_parking);
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

// The list, its parking and its thread are complete before the mutex is published: a put that comes
// in between finds the path either not started or whole.
int CMessageCenter::Start()
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return 0;
    std::call_once(m_start_once, [this] {
        const auto start = [this](auto*& thread, const char* name, MessageList*& list,
                                  std::unique_ptr<CParking>& parking,
                                  std::atomic<QMutex*>& listMutex) {
            auto* const mutex = new QMutex;
            list = new MessageList;
            parking = makeParking();
            thread = new std::remove_reference_t<decltype(*thread)>;
            thread->setObjectName(QLatin1String(name));
            thread->setList(list);
            thread->setMutex(mutex);
            thread->setParking(parking.get());
            thread->start(QThread::InheritPriority);
            listMutex = mutex;
        };
        start(m_net_put_thread, "ProcessSendListThread_Thread", m_net_recv_list, m_net_recv_parking,
              m_net_recv_list_mutex);
        start(m_quotation_thread, "ProcessQuotationThread_Thread", m_quotation_list,
              m_quotation_parking, m_quotation_list_mutex);
    });
    return 0;
}

void CMessageCenter::ProcessMsgByNetPut(QSharedPointer<CMessageCommon> msg)
{
    const CallGate::Pass pass(centerGate);
    if (!msg || !pass)
        return;
    const QString dst = msg->GetDstid();
    MsgQueueItem values{PluginID::PLUGINNET_GLOBALID, msg->GetType(), msg->traceId(),
                        msg->GetMsg()};
    const Delivery deliverTo{m_msg_reg_hash, m_msg_reg_mutex, messageInbox};
    const Routed routed = route(dst, values, nullptr, msgSubscriptions(), deliverTo);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << msg->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find " << dst;
    } else if (routed == Routed::UnknownType) {
        qCDebug(lcLxbase) << "CMessageCenter::ProcessMsgByNetPut"
                          << "MsgType: " << values.type << " has not sub";
    }
}

void CMessageCenter::ProcessQuotationMsg(QSharedPointer<CMessageCommon> msg)
{
    const CallGate::Pass pass(centerGate);
    if (!msg || !pass)
        return;
    const QString dst = msg->GetDstid();
    MsgQueueItem values{PluginID::PLUGINNET_GLOBALID, msg->GetType(), QString(), msg->GetMsg()};
    const Delivery deliverTo{m_msg_reg_hash, m_msg_reg_mutex, quotationInbox};
    const Routed routed = route(dst, values, nullptr, msgSubscriptions(), deliverTo);
    if (routed == Routed::UnknownDestination) {
        qCWarning(lcLxbase) << msg->GetSrcid() << " Put msg to " << dst
                            << " failed!! because not find,maybe dstId not register" << dst;
    }
}

void CMessageCenter::setIdlePolicy(IdlePolicy policy)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    if (m_idle_policy_fixed) {
        qCWarning(lcLxbase) << "setIdlePolicy after a registration or Start, refused";
        return;
    }
    m_idle_policy = policy;
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

    QMutexLocker locker(&m_msg_reg_mutex);
    if (m_msg_reg_hash.contains(id)) {
        locker.unlock();
        qCCritical(lcLxbase) << "!!!!!!!!  plugin ID duplicate,ID:" << id;
        return;
    }
    if (id.isEmpty()) {
        locker.unlock();
        qCCritical(lcLxbase) << "!!!!!!!!  plugin ID is null";
        return;
    }
    auto* const record = new MsgRegInfo;
    record->plugin = pInterface;
    if (wantsMessages) {
        record->msg_list = new QVector<MsgQueueItem*>;
        record->msg_mutex = new QMutex;
        record->msg_parking = makeParking().release();
    }
    if (wantsQuotations) {
        record->quotation_list = new QVector<MsgQueueItem*>;
        record->quotation_mutex = new QMutex;
        record->quotation_parking = makeParking().release();
    }
    m_msg_reg_hash.insert(id, record);
    locker.unlock();

    if (wantsMessages) {
        record->msg_thread = startWorker<CMessageWorkerThread>(id, "_MessageWorkerThread",
                                                               pInterface, messageInbox(*record));
    }
    if (wantsQuotations) {
        record->quotation_thread = startWorker<CQuotationWorkerThread>(
            id, "_QuotationWorkerThread", pInterface, quotationInbox(*record));
    }
}

void CMessageCenter::FreeOneResouce(QString id)
{
    FreeResourceForMsg(id);
    FreeResourceForEvent(id);
}

void CMessageCenter::FreeResourceForMsg(QString id)
{
    msgSubscriptions().removeAll(id);

    QMutexLocker locker(&m_msg_reg_mutex);
    const std::unique_ptr<MsgRegInfo> record(m_msg_reg_hash.take(id));
    locker.unlock();
    if (record)
        retire({record->msg_thread, record->quotation_thread});
}

CSubscriptionTable CMessageCenter::msgSubscriptions()
{
    return {m_msg_sub_map, m_msg_sub_by_int, m_msg_sub_mutex, m_msg_id_sub_map, m_msg_id_sub_mutex};
}

std::unique_ptr<CParking> CMessageCenter::makeParking()
{
    m_idle_policy_fixed = true;
    return m_idle_policy == IdlePolicy::Park ? std::make_unique<CParking>() : nullptr;
}

void CMessageCenter::retire(std::initializer_list<CInboxWorkerBase*> workers)
{
    for (CInboxWorkerBase* worker : workers) {
        if (worker)
            worker->setStop(true);
    }
    for (CInboxWorkerBase* worker : workers) {
        // a handler that ends the process runs this on its own thread
        if (!worker || worker == QThread::currentThread())
            continue;
        worker->quit();
        worker->wait(QDeadlineTimer(QDeadlineTimer::Forever));
        worker->freeInbox();
        const QMutexLocker locker(&m_retired_mutex);
        m_retired.erase(std::remove(m_retired.begin(), m_retired.end(), nullptr), m_retired.end());
        m_retired.append(worker);
        worker->deleteLater();
    }
}

// A worker whose registering thread may still run an event loop is left to that loop. The thread is
// null if its QThread object has been deleted, such as that of a worker whose handler registered
// this one.
void CMessageCenter::deleteRetired()
{
    for (const QPointer<QObject>& worker : qAsConst(m_retired)) {
        if (!worker)
            continue;
        const QThread* const thread = worker->thread();
        if (!thread || thread == QThread::currentThread() || thread->isFinished())
            delete worker;
    }
}

void CMessageCenter::stopDispatchThreads()
{
    for (CDispatchThread* thread :
         std::initializer_list<CDispatchThread*>{m_net_put_thread, m_quotation_thread}) {
        if (!thread)
            continue;
        thread->setStop(true);
        thread->quit();
        thread->wait(QDeadlineTimer(QDeadlineTimer::Forever));
        delete thread;
    }
    m_net_put_thread = nullptr;
    m_quotation_thread = nullptr;
}

// No call is inside the center any more, so the registries are this thread's alone. Their workers
// end here: no thread may outlive the code that it runs.
void CMessageCenter::stopRegisteredPlugins()
{
    QStringList ids = m_msg_reg_hash.keys();
    ids += m_event_reg_map.keys();
    if (ids.isEmpty())
        return;
    ids.sort();
    ids.removeDuplicates();
    qCWarning(lcLxbase) << "plugins still registered at the end, stopped:" << ids;
    for (const QString& id : qAsConst(ids))
        FreeOneResouce(id);
}
