/// \file
/// CMessageCommonManage: a pool of message records that plugins borrow from.
#ifndef LXBASE_MESSAGECOMMONMANAGE_H
#define LXBASE_MESSAGECOMMONMANAGE_H

#include <lxbase/LxbaseExport.h>

#include <lxutils/LxThread.h>

#include <QList>
#include <QMutex>
#include <QVector>

class CMessageCommon;

/// Records are made in batches of BatchSize, handed out one at a time and taken back for reuse,
/// oldest first. The pool owns them all and never deletes one: they stay allocated until the
/// process ends. A record is handed out as its last user left it.
///
/// Whoever takes a record borrows it and gives it back exactly once. Never delete it, never hand it
/// to a put (the bus would delete it), never give back a copy of it: the pool trusts the index that
/// the record carries.
///
/// Threads: any thread may take and give back. Starting the pool's own thread (QThread::start)
/// makes one batch in the background; while a batch is made, other calls wait. No call after the
/// end of the static objects.
class LXBASE_EXPORT CMessageCommonManage : public LxThread
{
    Q_OBJECT
public:
    /// The records that are made at a time.
    static constexpr int BatchSize = 100000;

    /// The one pool; see CMessageCenter::GetInstance.
    LXBASE_EXPORT_SINGLETON static CMessageCommonManage* GetInstance()
#ifdef LXBASE_SINGLETON_BODIES
    {
        static CMessageCommonManage pool;
        return &pool;
    }
#else
        ;
#endif

    /// Waits for the pool's thread. The records stay: somebody may still hold one.
    ~CMessageCommonManage() override;

    /// A free record, or null when there is none at the moment: the call that finds none makes a
    /// batch for the calls that follow it. If memory runs out meanwhile, std::bad_alloc comes
    /// through, and the pool has what could be made.
    CMessageCommon* getMessageCommon();

    /// Takes a record back; null is ignored. A record that the pool cannot have made, because its
    /// index is too high, is reported by a critical log record and deleted. A negative index, that
    /// of a record made with `new`, is taken for a slot: nothing keeps the record any more, and the
    /// getMessageCommon that draws the index returns null.
    void freeMessageCommon(CMessageCommon* msg);

    /// The thread body: makes one batch.
    void run() override;

private:
    friend class CBusMonitor;

    CMessageCommonManage();

    void allocMsg();

    // guarded by m_pool_mutex; m_msg_list holds exactly m_max_index records, each at its index
    QList<CMessageCommon*> m_msg_list;
    QVector<int> m_free_index_list; // first in, first out, from m_free_front on
    QMutex m_pool_mutex;
    int m_max_index = 0;
    int m_free_front = 0; // where the queue begins in the vector, so that taking moves nothing
};

#endif
