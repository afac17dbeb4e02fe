// What the registries of the message side and of the event side share: adding and taking a record,
// making and ending its workers.
// Internal: not installed.
#ifndef LXBASE_REGISTRY_H
#define LXBASE_REGISTRY_H

#include <lxbase/CenterState.h>
#include <lxbase/Inbox.h>
#include <lxbase/InboxLimiter.h>
#include <lxbase/InboxWorker.h>
#include <lxbase/LxbaseLog.h>

#include <QDeadlineTimer>
#include <QMutex>
#include <QString>
#include <QVector>

#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

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

// Puts a new inbox under the policy that holds for it; with the mutex of the registry held.
template<class Item>
void beginPolicy(const CenterState::InboxPolicies& policies, const InboxName& name,
                 const Inbox<Item*>& inbox)
{
    auto policy = policies.constFind(name.plugin);
    if (policy == policies.constEnd())
        policy = policies.constFind(QString());
    Aftermath<Item> nothing;
    if (policy != policies.constEnd())
        applyPolicy(inbox, name, *policy, nothing);
}

// Keeps a policy for the ID, or the default for the empty ID, and puts the inboxes that it holds
// for under it. What that displaces, the policy that it replaces too, goes when no lock is held.
template<class Registry, class InboxOf>
void changePolicy(CenterState::InboxPolicies& policies, const Registry& registry, QMutex& mutex,
                  const InboxOf& inboxOf, const InboxName& name, InboxPolicy policy)
{
    using Record = std::remove_pointer_t<typename Registry::mapped_type>;
    using Element = std::remove_pointer_t<decltype(inboxOf(std::declval<Record>()).list)>;
    Aftermath<std::remove_pointer_t<typename Element::value_type>> aftermath;
    std::vector<std::unique_ptr<InboxLimiterBase>> replaced;
    QMutexLocker locker(&mutex);
    InboxPolicy& kept = policies[name.plugin];
    std::swap(kept, policy);
    const auto apply = [&](const QString& id, const Record& record) {
        if (const auto inbox = inboxOf(record))
            replaced.push_back(applyPolicy(inbox, {id, name.kind}, kept, aftermath));
    };
    if (name.plugin.isEmpty()) {
        for (auto record = registry.begin(); record != registry.end(); ++record) {
            if (!policies.contains(record.key()))
                apply(record.key(), **record);
        }
    } else if (const Record* const record = registry.value(name.plugin)) {
        apply(name.plugin, *record);
    }
    locker.unlock();
    aftermath.finish();
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
