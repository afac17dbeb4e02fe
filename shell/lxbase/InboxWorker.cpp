#include <lxbase/InboxWorker.h>

#include <lxbase/CallGate.h>
#include <lxbase/InboxLimiter.h>
#include <lxbase/LostItems.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageInterface.h>
#include <lxbase/Probes.h>
#include <lxbase/QueueItems.h>
#include <lxbase/TraceRecorder.h>

#include <lxplatform/Clock.h>
#include <lxplatform/ThreadNumber.h>

#include <QSet>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

using namespace lxbase::detail;

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

int CInboxWorkerBase::waiting() const
{
    const QMutexLocker locker(m_mutex);
    return listSize();
}

InboxStatistics CInboxWorkerBase::statistics() const
{
    InboxStatistics statistics;
    statistics.plugin = m_id;
    statistics.kind = m_kind;
    if (!m_state)
        return statistics;
    QMutexLocker locker(m_mutex);
    const NetworkListStatistics counts = m_state->meter.counts(listSize());
    statistics.superseded = m_state->meter.superseded();
    locker.unlock();
    statistics.waiting = counts.waiting;
    statistics.peak = counts.peak;
    statistics.put = counts.put;
    statistics.handled = counts.handled;
    statistics.dropped = counts.dropped;
    m_state->meter.readTimes(statistics);
    return statistics;
}

InboxMeter* CInboxWorkerBase::meter() const
{
    return m_state ? &m_state->meter : nullptr;
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
int CInboxWorker<Item>::listSize() const
{
    return Inbox<Item*>{{m_mutex, m_state}, m_list}.waiting();
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
void CInboxWorker<Item>::drain(const WorkerProfile& profile, const LogPlace& place)
{
    quint32 lastRecord = lxplatform::tickCountMs();
    m_thread_number = lxplatform::currentThreadNumber();
    const QByteArray plugin = m_id.toUtf8();
    if (m_stop)
        return;
    InboxState ownState(CMessageCenter::IdlePolicy::Poll); // of a worker that has none
    InboxMeter& meter = m_state ? m_state->meter : ownState.meter;
    const Inbox<Item*> inbox{{m_mutex, m_state}, m_list};
    Backoff backoff;
    QVector<Item*> batch;
    Aftermath<Item> aftermath;
    while (!m_stop) {
        if (!m_mutex)
            continue;
        m_mutex->lock();
        int n = inbox.waiting();
        if (n == 0) {
            inbox.idle(m_stop, backoff);
            countPoll(0);
            continue;
        }
        if (auto* const limiter = limiterOf<Item>(m_state); Q_UNLIKELY(limiter)) {
            limiter->take(batch, aftermath);
            n = batch.size();
            m_mutex->unlock();
            aftermath.finish();
            if (n == 0)
                continue;
        } else {
            takeBatch(batch, profile.take);
            meter.take(n);
            m_mutex->unlock();
        }
        backoff.taken += n;

        if (m_interface) {
            countPoll(n);
            LXBASE_PROBE(batch_begin, plugin.constData(), static_cast<int>(m_kind), n);
            traceBatch(TraceKind::BatchBegin, n);
            const bool stopped = !deliver(batch, profile, meter, plugin.constData());
            LXBASE_PROBE(batch_end, plugin.constData(), static_cast<int>(m_kind));
            traceBatch(TraceKind::BatchEnd, n);
            if (stopped)
                return;
        } else {
            drop(batch.cbegin(), batch.cend(), false);
            meter.finishBatch(n);
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
    if (!m_list)
        return;
    QVector<Item*> items = std::exchange(*m_list, {});
    Aftermath<Item> aftermath;
    if (auto* const limiter = limiterOf<Item>(m_state)) {
        items = limiter->takeAll(aftermath);
        m_state->limiter.reset();
    }
    drop(items.cbegin(), items.cend(), true);
    if (centerGate.isOpen()) // at the end of the process an observer may be gone
        aftermath.finish();
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

// The stop flag is read after every item: UnReg waits for one handler call at most. What is left of
// the batch then is freed undelivered. False: stopped.
template<class Item>
bool CInboxWorker<Item>::deliver(const QVector<Item*>& batch, const WorkerProfile& profile,
                                 InboxMeter& meter, [[maybe_unused]] const char* plugin)
{
    int passedOver = 0;
    bool traced = false; // the call before this one
    for (int i = 0; i < batch.size(); ++i) {
        if (const std::unique_ptr<Item> item{batch[i]}) {
            meter.begin(i);
            LXBASE_PROBE(handler_begin, plugin, static_cast<int>(m_kind), item.get());
            const bool another = std::exchange(traced, isTracing());
            if (Q_UNLIKELY(traced)) {
                traceHandler(TraceKind::HandlerBegin, *item,
                             another ? TraceRecorder::stampBehindLast() : 0);
            }
            if (monitorSwitches.watchesHandlers.load(std::memory_order_relaxed)) {
                callWatched(*item, profile, meter);
            } else { // the item is deleted anyway
                (m_interface->*profile.handler)(std::move(item->src_id), std::move(item->type),
                                                std::move(item->data));
            }
            meter.end();
            LXBASE_PROBE(handler_end, plugin, static_cast<int>(m_kind), item.get());
            if (Q_UNLIKELY(traced))
                traceHandler(TraceKind::HandlerEnd, *item, 0);
        } else {
            ++passedOver;
        }
        if (m_stop) {
            drop(batch.cbegin() + i + 1, batch.cend(), true);
            meter.finishBatch(passedOver + batch.size() - i - 1);
            return false;
        }
    }
    meter.finishBatch(passedOver);
    return true;
}

template<class Item>
void CInboxWorker<Item>::traceBatch(TraceKind kind, int items) const
{
    if (!isTracing())
        return;
    TraceEntry entry{kind};
    entry.detail = static_cast<quint8>(m_kind);
    entry.number = static_cast<quint64>(items);
    entry.destination = &m_id;
    TraceRecorder::record(entry);
}

// The item's address is read at the end, its values are gone by then.
template<class Item>
void CInboxWorker<Item>::traceHandler(TraceKind kind, const Item& item, qint64 timeNs) const
{
    TraceEntry entry{kind};
    entry.timeNs = timeNs;
    entry.detail = static_cast<quint8>(m_kind);
    entry.item = &item;
    if (kind == TraceKind::HandlerBegin) {
        entry.type = &item.type;
        entry.source = &item.src_id;
    }
    entry.destination = &m_id;
    TraceRecorder::record(entry);
}

// For whoever watches: sender and type are copied, so that they can be seen while the handler runs.
template<class Item>
void CInboxWorker<Item>::callWatched(Item& item, const WorkerProfile& profile, InboxMeter& meter)
{
    const InboxMeter::InHand inHand{&item.src_id, &item.type};
    meter.publish(inHand);
    (m_interface->*profile.handler)(item.src_id, item.type, std::move(item.data));
    meter.withdraw();
}

// Frees items undelivered, and says so to whoever asks what was lost.
template<class Item>
void CInboxWorker<Item>::drop(Item* const* first, Item* const* last, bool hasPlugin)
{
    const LostReason reason = !hasPlugin ? LostReason::NoPlugin
        : centerGate.isOpen()            ? LostReason::Unregistered
                                         : LostReason::AtEnd;
    for (; first != last; ++first) {
        const std::unique_ptr<Item> item(*first);
        if (item)
            LostItems::instance().note(*item, reason, m_kind, m_id);
    }
}

template<class Item>
void CInboxWorker<Item>::countPoll(int items)
{
    int& polls = m_batch_stats[items];
    if (polls < std::numeric_limits<int>::max())
        ++polls;
}

template<class Item>
void CInboxWorker<Item>::writeRecord(const WorkerProfile& profile, const LogPlace& place)
{
    if (lcLxbase().isDebugEnabled())
        place.logger().debug() << profile.recordText << m_batch_stats;
    if (profile.afterRecord == AfterRecord::StartAnew)
        m_batch_stats.clear();
}

template class CInboxWorker<MsgQueueItem>;
template class CInboxWorker<EventQueueItem>;
