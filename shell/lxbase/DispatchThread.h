// The two dispatch threads: they route what the net plugin has put, list by list, to the receivers'
// inboxes.
#ifndef LXBASE_DISPATCHTHREAD_H
#define LXBASE_DISPATCHTHREAD_H

#include <lxbase/LxbaseExport.h>

#include <lxutils/LxThread.h>

#include <QMutex>
#include <QSharedPointer>
#include <QVector>

#include <atomic>

class CMessageCenter;
class CMessageCommon;
class CParking;

// What the two threads share: taking the messages of one list in arrival order and handing each to
// the center's routing operation, one at a time and with no lock held.
//
// Life: made and started by CMessageCenter::Start; the loop ends only when the stop flag is set;
// released by the center's destructor. The list, its mutex and its parking belong to the center and
// outlive the thread.
class LXBASE_EXPORT CDispatchThread : public LxThread
{
public:
    // What a dispatch thread drains: references to messages, oldest first.
    using MessageList = QVector<QSharedPointer<CMessageCommon>>;

    ~CDispatchThread() override;

    // The lock of the list; not owned. Null changes nothing; without one the thread takes nothing
    // and sleeps a microsecond a pass. Called before start.
    void setMutex(QMutex* mutex);

    // The list to drain; not owned. Null changes nothing; without one the thread sleeps a
    // millisecond a pass. Called before start.
    void setList(MessageList* list);

    // Ours: where the thread waits while its list is empty; not owned. Without one (null changes
    // nothing) it polls. Called before start.
    void setParking(CParking* parking);

    // Asks the loop to end: after the message being routed, or within one pass. What has not been
    // routed is then in the list, in order. Any thread, but not with the mutex held.
    void setStop(bool stop);

protected:
    CDispatchThread() = default;

    // The loop: the body of run().
    void drain(void (CMessageCenter::*route)(QSharedPointer<CMessageCommon> msg));

private:
    void giveBack(MessageList& batch, int taken);

    // constant after start
    QMutex* m_mutex = nullptr;
    MessageList* m_list = nullptr;
    CParking* m_parking = nullptr;

    // set by the thread that destroys the center, read by the loop without a lock
    std::atomic<bool> m_stop{false};
};

// Drains the send list, "ProcessSendListThread_Thread": network messages, into message inboxes.
class LXBASE_EXPORT CProcessMsgByNetPutThread : public CDispatchThread
{
public:
    CProcessMsgByNetPutThread();
    ~CProcessMsgByNetPutThread() override;

    void run() override;
};

// Drains the quotation list, "ProcessQuotationThread_Thread": quotations, into quotation inboxes.
class LXBASE_EXPORT CProcessQuotationThread : public CDispatchThread
{
public:
    CProcessQuotationThread();
    ~CProcessQuotationThread() override;

    void run() override;
};

#endif
