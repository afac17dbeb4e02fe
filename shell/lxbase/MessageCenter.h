/// \file
/// CMessageCenter: the bus itself.
#ifndef LXBASE_MESSAGECENTER_H
#define LXBASE_MESSAGECENTER_H

#include <lxbase/InboxPolicy.h>
#include <lxbase/LxbaseExport.h>
#include <lxbase/MessageCenterEvent.h>
#include <lxbase/MessageInterface.h>

#include <lxplatform/ConcurrentQueue.h>

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QSharedPointer>
#include <QString>
#include <QVariant>
#include <QVector>

#include <atomic>

class CMessageCommon;
class CMessageWorkerThread;
class CProcessMsgByNetPutThread;
class CProcessQuotationThread;
class CQuotationWorkerThread;
enum class InboxKind;
struct BusStatistics;
struct MsgQueueItem;

namespace lxbase::detail {
class InboxState;
class RelationTable;
class SubscriptionTable;
struct CenterState;
template<class Thread>
struct NetworkPath;
} // namespace lxbase::detail

/// One per plugin registered for messages or quotations; made by registration, freed by
/// unregistration. Inboxes, their mutexes and states belong to the workers; what belongs to a flag
/// that was not asked for is null.
struct MsgRegInfo
{
    IMessageInterface* plugin = nullptr;                   ///< not owned
    QVector<MsgQueueItem*>* msg_list = nullptr;            ///< the message inbox
    QVector<MsgQueueItem*>* quotation_list = nullptr;      ///< the quotation inbox
    CMessageWorkerThread* msg_thread = nullptr;            ///< drains the message inbox
    CQuotationWorkerThread* quotation_thread = nullptr;    ///< drains the quotation inbox
    QMutex* msg_mutex = nullptr;                           ///< guards msg_list
    QMutex* quotation_mutex = nullptr;                     ///< guards quotation_list
    lxbase::detail::InboxState* msg_state = nullptr;       ///< ours
    lxbase::detail::InboxState* quotation_state = nullptr; ///< ours
};

/// All state of the bus, once per process: who is registered, who subscribed to what, what waits
/// for the dispatch threads. Plugins reach it through IMessageInterface, other code through
/// CRegManager; the operations that only the host and the net plugin need are called here.
///
/// Threads: every operation may be called from any thread, handlers included, unless it says
/// otherwise. None of them runs a handler. Nothing is reported to the caller; refusals and
/// undeliverable messages are log records of the category "lxbase". A payload whose copy throws is
/// one: the receiver that it was for goes without, the others get theirs.
///
/// Life: made by the first GetInstance, which the library itself calls while it is loaded;
/// destroyed with the library's static objects. The destructor waits for the calls inside, then
/// stops the threads of the bus and waits for them, 5 seconds at most each time (ours); plugins
/// that are still registered are named in one warning, with those whose handlers had not returned
/// by then. What such a handler or call uses is not freed. A call that comes later does nothing but
/// free the record it was given, and delays nothing; while the destructor runs, the two network
/// puts warn as before Start. In a forked child the destructor does nothing: the threads are the
/// parent's.
///
/// Locks, always taken in this order and never held while a handler of a plugin or a log handler
/// runs or while a thread is waited for:
///
///     m_msg_id_sub_mutex > m_msg_sub_mutex > m_msg_reg_mutex > an inbox mutex
///     m_event_id_sub_mutex > m_event_sub_mutex > m_event_reg_mutex > an inbox mutex
///     m_relation_mutex > m_event_reg_mutex > an inbox mutex
///
/// m_event_sub_mutex and m_relation_mutex are never held together, the mutexes of the two lists
/// never with another.
class LXBASE_EXPORT CMessageCenter
{
public:
    /// What the lists of the network paths and the outside queues hold: references to messages.
    /// \{
    using MessageList = QVector<QSharedPointer<CMessageCommon>>;
    using MessageQueue = Concurrency::concurrent_queue<QSharedPointer<CMessageCommon>>;
    /// \}

    /// What a thread of the bus does while it has nothing to do. Ours.
    enum class IdlePolicy {
        Poll, ///< look again after the shortest sleep that the thread offers
        Park, ///< after some polls in a row that found nothing, wait until a put or a stop wakes it
    };

    /// The one center. It lies in the library, whoever asks first: the body is compiled where the
    /// library is (and where the linker takes an imported class's inline members from there).
    LXBASE_EXPORT_SINGLETON static CMessageCenter* GetInstance()
#ifdef LXBASE_SINGLETON_BODIES
    {
        static CMessageCenter center;
        return &center;
    }
#else
        ;
#endif

    /// Registration: see IMessageInterface.
    /// \{
    void Reg(QString id, IMessageInterface* pInterface, IMessageInterface::ThreadType type);
    void UnReg(QString id);
    /// \}

    /// Messages: see IMessageInterface.
    /// \{
    void Sub(QString id, QVariant type, int oper);
    void Put(QString srcId, CMessageCommon* pMsg);
    /// \}

    /// Traffic from the network: see IMessageInterface. Each put pushes a reference onto the
    /// registered queue of its path, if there is one, and appends one to the list of its path, from
    /// which a dispatch thread routes it. The message is deleted when the last reference goes, on
    /// whichever thread that is. A null message passes through both as an empty reference.
    /// \{
    void PutNetMsg(QString srcId, CMessageCommon* pMsg);
    void PutQuotationMsg(QString srcId, CMessageCommon* pMsg);
    /// \}

    /// Registers an outside queue that receives a reference to every later message of the path;
    /// replaces an earlier one, null ends the registration. The queue is not owned: it stays alive
    /// while it is registered and until the puts that may still push onto it have returned, or
    /// until the center has been destroyed.
    /// \{
    void regNetMsgQueue(Concurrency::concurrent_queue<QSharedPointer<CMessageCommon>>* queue);
    void regQuotationQueue(Concurrency::concurrent_queue<QSharedPointer<CMessageCommon>>* queue);
    /// \}

    /// Makes the lists of the network paths and starts their dispatch threads, at the priority of
    /// the calling thread. Called once by the host, before the net plugin puts; a further call
    /// changes nothing. A path whose thread cannot be had is reported by a critical log record and
    /// stays as it was; a further call tries again. Returns 0.
    int Start();

    /// Routes one message to its destination, or to all subscribers of its type, into the message
    /// inboxes or the quotation inboxes, with the net plugin's ID as sender. Called by the dispatch
    /// threads; an empty reference is ignored.
    /// \{
    void ProcessMsgByNetPut(QSharedPointer<CMessageCommon> msg);
    void ProcessQuotationMsg(QSharedPointer<CMessageCommon> msg);
    /// \}

    /// Events: see IMessageInterface.
    /// \{
    void SubEvent(QString id, QVariant type, int oper);
    void PutEvent(QString srcId, CEventMessageCommon* pMsg);
    /// \}

    /// Relation groups: see IMessageInterface.
    void setRelation(const QString& from, const QString& to, int type, RelationColor_t color,
                     int oper);

    /// Does nothing.
    void printRelationMap();

    /// Ours: how the threads of the bus spend their idle time; Poll unless set. Called by the host
    /// before the first registration and before Start; a later call is refused with a warning.
    void setIdlePolicy(IdlePolicy policy);

    /// Ours: what the inbox of `id` for one kind of traffic (a single flag) does when more is put
    /// than its handler takes; see InboxPolicy. The bus's own way unless set. Any time, also before
    /// Reg; it holds until it is set anew, whoever registers under the ID. For the empty ID it is
    /// the default of that kind, for the IDs that have been given none of their own.
    ///
    /// What waits already is put under the policy in its order: it may supersede, drop and cross a
    /// watermark at once, and its age counts from then on. A policy with values that make no sense
    /// is refused with a critical log record that names them, and changes nothing. Takes time in
    /// proportion to what waits; puts to plugins of that side wait meanwhile.
    void setInboxPolicy(QString id, IMessageInterface::ThreadType kind, InboxPolicy policy);

private:
    friend class CBusMonitor;

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

    // Views of the members below.
    lxbase::detail::SubscriptionTable msgSubscriptions();
    lxbase::detail::SubscriptionTable eventSubscriptions();
    lxbase::detail::RelationTable relations();
    lxbase::detail::NetworkPath<CProcessMsgByNetPutThread> netPath();
    lxbase::detail::NetworkPath<CProcessQuotationThread> quotationPath();

    // The idle policy, for the state of a new inbox; fixed from the first call on.
    IdlePolicy fixIdlePolicy();

    // The beginning of UnReg: from now on the handlers of `id` cannot subscribe it any more.
    void announceUnReg(const QString& id);

    // Removes the registration of `id` on one side and ends its workers.
    void retireForMsg(const QString& id);
    void retireForEvent(const QString& id);

    void setEventInboxPolicy(const QString& id, InboxPolicy policy);

    // For CBusMonitor.
    void readStatistics(BusStatistics& statistics);
    quint64 waiting(const QString& id, InboxKind kind);
    quint64 waitingEvents(const QString& id);

    // The end of the center.
    bool endOrderly();
    static bool endAllWorkers();
    static bool stopAllWorkers();
    void keepRemains(int maxLockMs);

    // guarded by m_msg_reg_mutex
    QHash<QString, MsgRegInfo*> m_msg_reg_hash;
    QMutex m_msg_reg_mutex;

    // guarded by m_msg_sub_mutex
    QMap<QVariant, QVector<QString>*> m_msg_sub_map;
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

    // ours: everything else, so that this class keeps its layout; owned, and kept where a call or a
    // thread was still there at the end
    lxbase::detail::CenterState* const m_state;
};

#endif
