// What the registries of the message side and of the event side share: adding and taking a record,
// making and ending its workers.
// Internal: not installed.
#ifndef LXBASE_REGISTRY_H
#define LXBASE_REGISTRY_H

#include <lxbase/Inbox.h>
#include <lxbase/InboxWorker.h>
#include <lxbase/LxbaseLog.h>

#include <QDeadlineTimer>
#include <QMutex>
#include <QString>
#include <QVector>

#include <memory>
#include <type_traits>

namespace lxbase::detail {

// Registers what `make` makes, called with the mutex held, and returns it; the registry owns it.
// Null: the ID is a key already, or empty, and a critical record for `place` has been written.
template<class Registry, class Make>
typename Registry::mapped_type addRecord(Registry& registry, QMutex& mutex, const QString& id,
                                         const LogPlace& place, const Make& make)
{
    QMutexLocker locker(&mutex);
    const bool duplicate = registry.contains(id);
    if (!duplicate && !id.isEmpty())
        return *registry.insert(id, make());
    locker.unlock();
    if (lcLxbase().isCriticalEnabled()) {
        if (duplicate)
            place.logger().critical() << "!!!!!!!!  plugin ID duplicate,ID:" << id;
        else
            place.logger().critical() << "!!!!!!!!  plugin ID is null";
    }
    return nullptr;
}

// Takes the record of `id` out of the registry; null if there is none.
template<class Registry>
auto takeRecord(Registry& registry, QMutex& mutex, const QString& id)
{
    const QMutexLocker locker(&mutex);
    return std::unique_ptr<std::remove_pointer_t<typename Registry::mapped_type>>(
        registry.take(id));
}

// Makes a worker for the inbox, which belongs to it from here on.
template<class Worker, class Item>
Worker* makeWorker(const QString& id, const char* nameSuffix, IMessageInterface* plugin,
                   const Inbox<Item*>& inbox)
{
    auto* worker = new Worker;
    worker->setObjectName(id + QLatin1String(nameSuffix));
    worker->setId(id);
    worker->setInterface(plugin);
    worker->setList(inbox.list);
    worker->setMutex(inbox.mutex);
    worker->setState(inbox.state);
    return worker;
}

// Starts a worker (null: there is nothing to start). False: there is no thread to be had for it,
// and a critical record has been written.
bool startWorker(CInboxWorkerBase* worker);

// Ends workers (null: none) whose registration has been removed. All are stopped before any is
// waited for; one that has ended frees its inbox and is retired. Returns those that had not ended
// at the deadline, left as they are.
QVector<CInboxWorkerBase*> endWorkers(const QVector<CInboxWorkerBase*>& workers,
                                      QDeadlineTimer deadline = QDeadlineTimer::Forever);

} // namespace lxbase::detail

#endif
