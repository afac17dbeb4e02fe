#include <lxbase/InboxWorker.h>

#include <lxbase/EventWorkerThread.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageInterface.h>
#include <lxbase/MessageWorkerThread.h>
#include <lxbase/Parking.h>

#include <lxplatform/Clock.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

CInboxWorkerBase::~CInboxWorkerBase()
{
    delete m_parking;
    delete m_mutex;
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

void CInboxWorkerBase::setMutex(QMutex* mutex)
{
    if (mutex)
        m_mutex = mutex;
}

void CInboxWorkerBase::setParking(CParking* parking)
{
    if (parking)
        m_parking = parking;
}

void CInboxWorkerBase::setStop(bool stop)
{
    m_stop = stop;
    if (stop && m_mutex)
        wake(*m_mutex, m_parking);
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

// A look at the inbox finds either nothing, and the thread idles, or a batch: everything that
// waits. The lock is held for the count and the taking only, never while a handler runs. After a
// batch the next look follows at once. `batch` lives across looks, so that its storage is reused.
template<class Item>
void CInboxWorker<Item>::drain(const WorkerProfile& profile, const LogPlace& place)
{
    quint32 lastRecord = lxplatform::tickCountMs();
    if (m_stop)
        return;
    QVector<Item*> batch;
    ListPace pace;
    while (!m_stop) {
        if (!m_mutex)
            continue;
        m_mutex->lock();
        const int n = m_list ? m_list->size() : 0;
        if (n == 0) {
            idle(*m_mutex, m_parking, m_stop, pace);
            countLook(0);
            continue;
        }
        takeBatch(batch, profile.take);
        m_mutex->unlock();
        pace.found += n;

        if (m_interface) {
            countLook(n);
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
void CInboxWorker<Item>::countLook(int items)
{
    int& looks = m_batch_stats[items];
    if (looks < std::numeric_limits<int>::max())
        ++looks;
}

template<class Item>
void CInboxWorker<Item>::writeRecord(const WorkerProfile& profile, const LogPlace& place)
{
    if (lcLxbase().isDebugEnabled()) {
        QMessageLogger(place.file, place.line, place.function, lcLxbase().categoryName()).debug()
            << profile.recordText << m_batch_stats;
    }
    if (profile.afterRecord == AfterRecord::StartAnew)
        m_batch_stats.clear();
}

template class CInboxWorker<MsgQueueItem>;
template class CInboxWorker<EventQueueItem>;
