/// \file
/// The two dispatch threads: they route what the net plugin has put, list by list, to the
/// receivers' inboxes.
#ifndef LXBASE_DISPATCHTHREAD_H
#define LXBASE_DISPATCHTHREAD_H

#include <lxbase/InboxThread.h>
#include <lxbase/LxbaseExport.h>

#include <QSharedPointer>
#include <QVector>

class CMessageCenter;
class CMessageCommon;

namespace lxbase::detail {
class InboxMeter;
}

/// What the two threads share: taking the messages of one list in arrival order and handing each to
/// the center's routing operation, one at a time and with no lock held.
///
/// Life: made and started by CMessageCenter::Start; stopped by the center's destructor, when its
/// loop ends after the message being routed, or within one pass, and what has not been routed is in
/// the list again, in order. The list, its mutex and its state belong to the center and outlive the
/// thread. Without a mutex it takes nothing and sleeps a microsecond a pass.
class LXBASE_EXPORT CDispatchThread : public CInboxThread
{
public:
    /// What a dispatch thread drains: references to messages, oldest first.
    using MessageList = QVector<QSharedPointer<CMessageCommon>>;

    ~CDispatchThread() override;

    /// The list to drain; not owned. Null changes nothing; without one the thread sleeps a
    /// millisecond a pass. Called before start.
    void setList(MessageList* list);

protected:
    CDispatchThread() = default;

    /// The loop: the body of run().
    void drain(void (CMessageCenter::*route)(QSharedPointer<CMessageCommon> msg));

private:
    void giveBack(MessageList& batch, int taken, lxbase::detail::InboxMeter& meter);

    MessageList* m_list = nullptr; // constant after start
};

/// Drains the send list, "ProcessSendListThread_Thread": network messages, into message inboxes.
class LXBASE_EXPORT CProcessMsgByNetPutThread : public CDispatchThread
{
public:
    CProcessMsgByNetPutThread();
    ~CProcessMsgByNetPutThread() override;

    void run() override;
};

/// Drains the quotation list, "ProcessQuotationThread_Thread": quotations, into quotation inboxes.
class LXBASE_EXPORT CProcessQuotationThread : public CDispatchThread
{
public:
    CProcessQuotationThread();
    ~CProcessQuotationThread() override;

    void run() override;
};

#endif
