#include <lxbase/InboxWorker.h>

#include <lxbase/Inbox.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageInterface.h>
#include <lxbase/QueueItems.h>

#include <lxplatform/Clock.h>

#include <QSet>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

namespace {

// Workers that have ended and are still there. Never destroyed: an event loop may delete a worker
// at any time.
struct Retired
{
    QMutex mutex;
    QSet<CInboxWorkerBase*> workers; // guarded by mutex
};

Retired& retired()
{
    static auto* const all = new Retired;
    return *all;
}

// For a mutex that nobody holds for longer than moments: save a call that a signal has interrupted
// for ever, because its handler ends the process.
template<class Work>
void withRetired(const Work& work)
{
    constexpr int maxLockMs = 1000;
    if (!retired().mutex.tryLock(maxLockMs))
        return;
    work(retired().workers);
    retired().mutex.unlock();
}

} // namespace

CInboxWorkerBase::~CInboxWorkerBase()
{
    withRetired([this](QSet<CInboxWorkerBase*>& workers) { workers.remove(this); });
    delete m_state;
    delete m_mutex;
}

CInboxWorkerBase* CInboxWorkerBase::current()
{
    return dynamic_cast<CInboxWorkerBase*>(QThread::currentThread());
}

const std::atomic<bool>* CInboxWorkerBase::unregistering(const QString& id)
{
    const CInboxWorkerBase* const worker = current();
    return worker && worker->m_id == id ? &worker->m_unregistering : nullptr;
}

void CInboxWorkerBase::setId(QString id)
{
    m_id = std::move(id);
}

void CInboxWorkerBase::setInterface(IMessageInterface* pInterface)
{
    if (pInterface)
        m_interface = pInterface;
}

void CInboxWorkerBase::retire()
{
    withRetired([this](QSet<CInboxWorkerBase*>& workers) { workers.insert(this); });
    deleteLater();
}

// A worker whose deletion has begun on another thread waits there for the mutex, so those in the
// set may be asked for their thread. That is null if its QThread object has been deleted, such as
// that of a worker whose handler registered this one. A thread that says it is
// finished may still be deleting; only a wait tells when it is through.
void CInboxWorkerBase::deleteRetired()
{
    QVector<CInboxWorkerBase*> left;
    withRetired([&](const QSet<CInboxWorkerBase*>& workers) {
        for (CInboxWorkerBase* worker : workers) {
            QThread* const thread = worker->thread();
            if (!thread || thread == QThread::currentThread() || thread->wait(QDeadlineTimer(0)))
                left.append(worker);
        }
    });
    qDeleteAll(left);
}

template<class Item>
CInboxWorker<Item>::~CInboxWorker()
{
    CInboxWorker::freeInbox();
    delete m_list;
}

template<class Item>
void CInboxWorker<Item>::setList(QVector<Item*>* list)
{
    if (list)
        m_list = list;
}

// A poll of the inbox finds either nothing, and the thread idles, or a batch: everything that
// waits. The lock is held for the count and the taking only, never while a handler runs. After a
// batch the next poll follows at once. `batch` lives across polls, so that its storage is reused.
template<class Item>
void CInboxWorker<Item>::drain(const WorkerProfile& profile, const lxbase::detail::LogPlace& place)
{
    quint32 lastRecord = lxplatform::tickCountMs();
    if (m_stop)
        return;
    const lxbase::detail::Inbox<Item*> inbox{{m_mutex, m_state}, m_list};
    lxbase::detail::Backoff backoff;
    QVector<Item*> batch;
    while (!m_stop) {
        if (!m_mutex)
            continue;
        m_mutex->lock();
        const int n = m_list ? m_list->size() : 0;
        if (n == 0) {
            inbox.idle(m_stop, backoff);
            countPoll(0);
            continue;
        }
        takeBatch(batch, profile.take);
        m_mutex->unlock();
        backoff.taken += n;

        if (m_interface) {
            countPoll(n);
            if (!deliver(batch, profile))
                return;
        } else {
            qDeleteAll(batch);
        }
        batch.resize(0);

        const quint32 now = lxplatform::tickCountMs();
        if (now - lastRecord >= profile.recordIntervalMs) {
            lastRecord = now;
            writeRecord(profile, place);
        }
    }
}

template<class Item>
void CInboxWorker<Item>::freeInbox()
{
    if (m_list)
        qDeleteAll(std::exchange(*m_list, {}));
}

template<class Item>
void CInboxWorker<Item>::takeBatch(QVector<Item*>& batch, Take take)
{
    switch (take) {
    case Take::Exchange:
        m_list->swap(batch);
        break;
    case Take::Copy:
        // A real copy: assigning the vector would share its storage, and emptying the inbox would
        // then allocate anew, under the lock.
        batch.resize(m_list->size());
        std::copy(m_list->cbegin(), m_list->cend(), batch.begin());
        m_list->resize(0);
        break;
    }
}

// The stop flag is looked at after every item: UnReg waits for one handler call at most. What is
// left of the batch then is freed undelivered. False: stopped.
template<class Item>
bool CInboxWorker<Item>::deliver(const QVector<Item*>& batch, const WorkerProfile& profile)
{
    for (auto it = batch.cbegin(); it != batch.cend(); ++it) {
        if (const std::unique_ptr<Item> item{*it}) {
            (m_interface->*profile.handler)(std::move(item->src_id), std::move(item->type),
                                            std::move(item->data));
        }
        if (m_stop) {
            qDeleteAll(it + 1, batch.cend());
            return false;
        }
    }
    return true;
}

template<class Item>
void CInboxWorker<Item>::countPoll(int items)
{
    int& polls = m_batch_stats[items];
    if (polls < std::numeric_limits<int>::max())
        ++polls;
}

template<class Item>
void CInboxWorker<Item>::writeRecord(const WorkerProfile& profile,
                                     const lxbase::detail::LogPlace& place)
{
    if (lcLxbase().isDebugEnabled())
        place.logger().debug() << profile.recordText << m_batch_stats;
    if (profile.afterRecord == AfterRecord::StartAnew)
        m_batch_stats.clear();
}

template class CInboxWorker<MsgQueueItem>;
template class CInboxWorker<EventQueueItem>;
