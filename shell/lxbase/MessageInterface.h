/// \file
/// IMessageInterface, the base class of every plugin, and CRegManager, the static facade of the
/// bus.
#ifndef LXBASE_MESSAGEINTERFACE_H
#define LXBASE_MESSAGEINTERFACE_H

#include <lxbase/LxbaseExport.h>
#include <lxbase/RelationColor.h>

#include <QObject>
#include <QString>
#include <QVariant>

class CEventMessageCommon;
class CMessageCommon;

/// A plugin derives from this class, registers, subscribes, puts, and receives in its handlers.
///
/// Threads: every operation may be called from any thread, a handler included; only UnReg is not
/// for the handlers of the plugin that it names. Each kind of handler has a worker thread of its
/// own: calls of one kind never overlap, calls of different kinds may run at the same time. What
/// one thread puts with one of the four puts comes in the order of the puts.
///
/// Life: the object stays alive from Reg until UnReg has returned; after that no handler is called.
/// The destructor does not unregister.
class LXBASE_EXPORT IMessageInterface : public QObject
{
    Q_OBJECT
public:
    /// What a plugin receives; combined with | at registration. Each flag costs one thread.
    enum ThreadType : int {
        MessageThread = 2,   ///< messages: RecvMsg
        QuotationThread = 4, ///< quotations: RecvQuotationMsg
        EventThread = 8,     ///< events: RecvEvent
    };

    /// Ours: the values of `oper`, for Sub, SubEvent and setRelation.
    enum Oper : int {
        OperAdd = 1,
        OperRemove = 2,
    };

    explicit IMessageInterface(QObject* parent = nullptr);
    ~IMessageInterface() override;

    /// Registers `pInterface` (normally `this`; not owned) under `id` and starts its workers, at
    /// the priority of the calling thread. The worker objects belong to the calling thread, whose
    /// event loop deletes them after UnReg. The message side (messages and quotations together) and
    /// the event side decide each for itself. A side refuses, with a critical log record and
    /// without changing anything, an empty ID, an ID that it has already, and a worker for which
    /// the system has no thread. No flags: nothing happens. A null plugin is registered, and what
    /// comes for it is freed undelivered. Reg and UnReg of one ID must not overlap.
    void Reg(QString id, IMessageInterface* pInterface, ThreadType type);

    /// Ends the subscriptions and the registration of `id`. Returns when its handlers have returned
    /// and its workers have ended; what waited in its inboxes is freed undelivered. The message
    /// side ends first; until its handlers have returned, events still come. From the beginning on
    /// the plugin's own handlers cannot subscribe it any more. An ID that is not registered loses
    /// its subscriptions. A handler that would wait for itself is refused with a critical log
    /// record: it is one of the plugin's own, or one of another plugin that a handler of this one
    /// waits for in UnReg. Two calls for one ID must not overlap: the second returns at once, with
    /// handlers still running.
    void UnReg(QString id);

    /// Sends a message to the plugin named by its destination ID or, if that is empty, to every
    /// subscriber of its type but `srcId`, and to the net plugin if its send-to-net flag is set.
    /// `srcId` is the sender that receivers see. Owns `pMsg`, made with `new`, from the call on and
    /// deletes it before it returns; null is ignored. A destination that is not registered is
    /// reported by a warning log record.
    void Put(QString srcId, CMessageCommon* pMsg);

    /// Publishes an event to the plugin named by its destination ID or, if that is empty, to every
    /// subscriber of its type but `srcId` and to the relation groups of `srcId`. Ownership and
    /// reporting as for Put, and one debug record per event, payload included, save for the types
    /// 0x30005 and 0x30006; an empty source ID in the event is set to `srcId`.
    void PutEvent(QString srcId, CEventMessageCommon* pMsg);

    /// For the net plugin: hands in a network message, or a quotation, for its destination or the
    /// subscribers of its type, and for the outside queue of its path. `srcId` is not used:
    /// receivers see the net plugin's ID. Owns `pMsg`, made with `new`, from the call on; it is
    /// deleted when its last holder releases it. Before CMessageCenter::Start only the queue gets
    /// it and a warning is logged. A destination that is not registered is reported by a warning
    /// from the dispatch thread. Null reaches the queue as an empty reference, and nobody else.
    /// \{
    void PutNetMsg(QString srcId, CMessageCommon* pMsg);
    void PutQuotationMsg(QString srcId, CMessageCommon* pMsg);
    /// \}

    /// Subscribes (OperAdd) `id` to messages and quotations, or to events, of `type`, or ends one
    /// such subscription (OperRemove), which takes time in proportion to the subscriptions of the
    /// ID and of the type; any other `oper` does nothing. Subscribing twice delivers twice; ending
    /// what was not subscribed does nothing. Needs no registration, and no ID is refused; UnReg
    /// ends all subscriptions of an ID.
    /// \{
    void Sub(QString id, QVariant type, int oper);
    void SubEvent(QString id, QVariant type, int oper);
    /// \}

    /// Adds (OperAdd) the ID `to` to the group of `color` that is filed under the base ID `from`
    /// and the event type `type`, taking it out of the other colours there; or removes it from that
    /// one colour (OperRemove). An empty `from`, another `oper` or a colour outside 0 to 6 does
    /// nothing. A `from` with a "#" is no base ID: no sender will find the group. UnReg changes no
    /// group; a member that is not registered for events is passed over.
    void setRelation(const QString& from, const QString& to, int type, RelationColor_t color,
                     int oper);

    /// The handlers, each called on its own worker thread with copies of what was put; `srcId` is
    /// the sender as given to the put, the net plugin's ID for what came in from the network. A
    /// handler must not let an exception escape. Nor should it end the process: if another thread
    /// is in UnReg of the same plugin, exit waits 5 seconds for it.
    /// \{
    virtual void RecvMsg(QString srcId, QVariant type, QVariant data) = 0;
    virtual void RecvEvent(QString srcId, QVariant type, QVariant data) = 0;
    virtual void RecvQuotationMsg(QString srcId, QVariant type, QVariant data) = 0;
    /// \}
};

/// The flags of both. It is found by argument-dependent look-up; a client that defines an operator
/// of its own for these two operands in another namespace makes calls there ambiguous, one in the
/// global namespace defines it twice.
constexpr IMessageInterface::ThreadType operator|(IMessageInterface::ThreadType a,
                                                  IMessageInterface::ThreadType b)
{
    return static_cast<IMessageInterface::ThreadType>(static_cast<int>(a) | static_cast<int>(b));
}

/// The operations of IMessageInterface for code that is no plugin; what is said there holds here.
/// Each forwards to the operation of the same name of the center.
class LXBASE_EXPORT CRegManager : public QObject
{
    Q_OBJECT
public:
    CRegManager();
    ~CRegManager() override;

    /// As in IMessageInterface.
    /// \{
    static void Reg(QString id, IMessageInterface* pInterface, IMessageInterface::ThreadType type);
    static void UnReg(QString id);
    static void Put(QString srcId, CMessageCommon* pMsg);
    static void PutEvent(QString srcId, CEventMessageCommon* pMsg);
    static void PutNetMsg(QString srcId, CMessageCommon* pMsg);
    static void PutQuotationMsg(QString srcId, CMessageCommon* pMsg);
    static void Sub(QString id, QVariant type, int oper);
    static void SubEvent(QString id, QVariant type, int oper);
    static void setRelation(const QString& from, const QString& to, int type, RelationColor_t color,
                            int oper);
    /// \}
};

#endif
