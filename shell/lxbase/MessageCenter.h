// CMessageCenter: the bus itself.
#ifndef LXBASE_MESSAGECENTER_H
#define LXBASE_MESSAGECENTER_H

#include <lxbase/LxbaseExport.h>
#include <lxbase/MessageCenterEvent.h>
#include <lxbase/MessageInterface.h>

#include <lxplatform/ConcurrentQueue.h>

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QPointer>
#include <QSharedPointer>
#include <QString>
#include <QVariant>
#include <QVector>

#include <atomic>
#include <initializer_list>
#include <memory>
#include <mutex>

class CMessageCommon;
class CMessageWorkerThread;
class CParking;
class CProcessMsgByNetPutThread;
class CProcessQuotationThread;
class CQuotationWorkerThread;
class CDispatchThread;
class CInboxWorkerBase;
class CSubscriptionTable;
struct MsgQueueItem;

// One per plugin registered for messages or quotations; made by registration, freed by
// unregistration. Inboxes, their mutexes and parkings belong to the workers; what belongs to a flag
// that was not asked for is null.
struct MsgRegInfo
{
    IMessageInterface* plugin = nullptr; // not owned
    QVector<MsgQueueItem*>* msg_list = nullptr;
    QVector<MsgQueueItem*>* quotation_list = nullptr;
    CMessageWorkerThread* msg_thread = nullptr;
    CQuotationWorkerThread* quotation_thread = nullptr;
    QMutex* msg_mutex = nullptr;
    QMutex* quotation_mutex = nullptr;
    CParking* msg_parking = nullptr; // null under IdlePolicy::Poll
    CParking* quotation_parking = nullptr;
};

// All state of the bus, once per process: who is registered, who subscribed to what, what waits for
// the dispatch threads. Plugins reach it through IMessageInterface, other code through CRegManager;
// the operations that only the host and the net plugin need are called here.
//
// Threads: every operation may be called from any thread, handlers included, unless it says
// otherwise. None of them runs plugin code. Nothing is reported to the caller; refusals and
// undeliverable messages are log records of the category "lxbase".
//
// Life: made by the first GetInstance, which the library itself calls while it is loaded; destroyed
// with the library's static objects. The destructor stops and waits for every thread of the bus;
// plugins that are still registered then are named in one warning. A call that comes later does
// nothing but free the record it was given; while the destructor runs, the two network puts warn as
// before Start.
//
// Locks, always taken in this order and never held while a handler of a plugin or a log handler
// runs or while a thread is waited for:
//     m_msg_id_sub_mutex > m_msg_sub_mutex > m_msg_reg_mutex > an inbox mutex
//     m_event_id_sub_mutex > m_event_sub_mutex > m_event_reg_mutex > an inbox mutex
//     m_relation_mutex > m_event_reg_mutex > an inbox mutex
// m_event_sub_mutex and m_relation_mutex are never held together, the mutexes of the two lists and
// m_retired_mutex never with another.
class LXBASE_EXPORT CMessageCenter
{
public:
    // What the lists of the network paths and the outside queues hold: references to messages.
    using MessageList = QVector<QSharedPointer<CMessageCommon>>;
    using MessageQueue = Concurrency::concurrent_queue<QSharedPointer<CMessageCommon>>;

    // What a thread of the bus does while it has nothing to do. Ours.
    enum class IdlePolicy {
        Poll, // look again after the shortest sleep that the thread offers
        Park, // after some looks in a row that found nothing, wait until a put or a stop wakes it
    };

    // The one center. Inline, and exported for itself, so that a plugin that compiled it finds the
    // object inside the library.
    LXBASE_EXPORT_INLINE static CMessageCenter* GetInstance()
    {
        static CMessageCenter center;
        return &center;
    }

    // Registration: see IMessageInterface.
    void Reg(QString id, IMessageInterface* pInterface, IMessageInterface::ThreadType type);
    void UnReg(QString id);

    // Messages: see IMessageInterface.
    void Sub(QString id, QVariant type, int oper);
    void Put(QString srcId, CMessageCommon* pMsg);

    // Traffic from the network: see IMessageInterface. Each put pushes a reference onto the
    // registered queue of its path, if there is one, and appends one to the list of its path, from
    // which a dispatch thread routes it. The message is deleted when the last reference goes, on
    // whichever thread that is. A null message passes through both as an empty reference.
    void PutNetMsg(QString srcId, CMessageCommon* pMsg);
    void PutQuotationMsg(QString srcId, CMessageCommon* pMsg);

    // Registers an outside queue that receives a reference to every later message of the path;
    // replaces an earlier one, null ends the registration. The queue is not owned: it stays alive
    // while it is registered and until the puts that may still push onto it have returned, or until
    // the center has been destroyed.
    void regNetMsgQueue(Concurrency::concurrent_queue<QSharedPointer<CMessageCommon>>* queue);
    void regQuotationQueue(Concurrency::concurrent_queue<QSharedPointer<CMessageCommon>>* queue);

    // Makes the lists of the network paths and starts their dispatch threads, at the priority of
    // the calling thread. Called once by the host, before the net plugin puts; a further call
    // changes nothing. Returns 0.
    int Start();

    // Routes one message to its destination, or to all subscribers of its type, into the message
    // inboxes or the quotation inboxes, with the net plugin's ID as sender. Called by the dispatch
    // threads; an empty reference is ignored.
    void ProcessMsgByNetPut(QSharedPointer<CMessageCommon> msg);
    void ProcessQuotationMsg(QSharedPointer<CMessageCommon> msg);

    // Events: see IMessageInterface.
    void SubEvent(QString id, QVariant type, int oper);
    void PutEvent(QString srcId, CEventMessageCommon* pMsg);

    // Relation groups: see IMessageInterface.
    void setRelation(const QString& from, const QString& to, int type, RelationColor_t color,
                     int oper);

    // Does nothing.
    void printRelationMap();

    // Ours: how the threads of the bus spend their idle time; Poll unless set. Called by the host
    // before the first registration and before Start; a later call is refused with a warning.
    void setIdlePolicy(IdlePolicy policy);

private:
    CMessageCenter();
    ~CMessageCenter();
    Q_DISABLE_COPY(CMessageCenter)

    void ProcessReg(QString id, IMessageInterface* pInterface, IMessageInterface::ThreadType type);
    void InitMsgReg(QString id, IMessageInterface* pInterface, IMessageInterface::ThreadType type);
    void InitEventReg(QString id, IMessageInterface* pInterface,
                      IMessageInterface::ThreadType threadType);
    void FreeOneResouce(QString id);
    void FreeResourceForMsg(QString id);
    void FreeResourceForEvent(QString id);

    CSubscriptionTable msgSubscriptions();
    CSubscriptionTable eventSubscriptions();

    // A parking for a new inbox or list, or null to have it polled. From the first call on the
    // policy is fixed.
    std::unique_ptr<CParking> makeParking();

    // Stops workers whose registration has been removed, all before waiting for any, and schedules
    // their deletion.
    void retire(std::initializer_list<CInboxWorkerBase*> workers);

    // The end of the center.
    void stopDispatchThreads();
    void stopRegisteredPlugins();
    void deleteRetired();

    // guarded by m_msg_reg_mutex
    QHash<QString, MsgRegInfo*> m_msg_reg_hash;
    QMutex m_msg_reg_mutex;

    // guarded by m_msg_sub_mutex
    QMap<QVariant, QVector<QString>*> m_msg_sub_map;
    QHash<int, QVector<QString>*> m_msg_sub_by_int; // ours: see CSubscriptionTable
    QMutex m_msg_sub_mutex;

    // guarded by m_msg_id_sub_mutex
    QMap<QString, QVector<QVariant>*> m_msg_id_sub_map;
    QMutex m_msg_id_sub_mutex;

    // made by Start, constant from then on; the lists are guarded by their mutexes below
    CProcessMsgByNetPutThread* m_net_put_thread = nullptr;
    CProcessQuotationThread* m_quotation_thread = nullptr;
    MessageList* m_net_recv_list = nullptr;
    MessageList* m_quotation_list = nullptr;

    // guarded by m_event_reg_mutex
    QMap<QString, EventRegInfo*> m_event_reg_map;
    QMutex m_event_reg_mutex;

    // guarded by m_event_sub_mutex
    QMap<QVariant, QVector<QString>*> m_event_sub_map;
    QHash<int, QVector<QString>*> m_event_sub_by_int; // ours: see CSubscriptionTable
    QMutex m_event_sub_mutex;

    // guarded by m_event_id_sub_mutex
    QMap<QString, QVector<QVariant>*> m_event_id_sub_map;
    QMutex m_event_id_sub_mutex;

    // atomic: set by Start when list and thread are there, read by every put of the network paths;
    // a put that finds null takes the path for not started
    std::atomic<QMutex*> m_quotation_list_mutex{nullptr};
    std::atomic<QMutex*> m_net_recv_list_mutex{nullptr};

    // guarded by m_relation_mutex, the records too; owned by the center, freed with it
    QMutex m_relation_mutex;
    QMap<QString, QMap<QVariant, RelationGroups*>> m_relation_map;

    // atomic: set at any time, read once per put; not owned
    std::atomic<MessageQueue*> m_net_msg_queue{nullptr};
    std::atomic<MessageQueue*> m_quotation_queue{nullptr};

    // made by Start; null under IdlePolicy::Poll
    std::unique_ptr<CParking> m_net_recv_parking;
    std::unique_ptr<CParking> m_quotation_parking;
    std::once_flag m_start_once;

    // atomic: set by the host, read by registrations and Start on any thread
    std::atomic<IdlePolicy> m_idle_policy{IdlePolicy::Poll};
    std::atomic<bool> m_idle_policy_fixed{false};

    // Workers that have been stopped and wait for their deletion in an event loop. The center
    // deletes what is left of them, for their code goes with the library.
    QVector<QPointer<QObject>> m_retired; // guarded by m_retired_mutex
    QMutex m_retired_mutex;
};

#endif
