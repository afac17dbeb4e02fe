// Delivery: what registration, the put paths and unregistration share of a receiver's inbox.
// Internal: not installed.
#ifndef LXBASE_DELIVERY_H
#define LXBASE_DELIVERY_H

#include <lxbase/Parking.h>
#include <lxbase/SubscriptionTable.h>

#include <QMutex>
#include <QString>
#include <QThread>
#include <QVariant>
#include <QVector>

#include <memory>
#include <type_traits>
#include <utility>

class IMessageInterface;

// The inbox of one worker, as the registry records show it to the put paths. All null for a plugin
// that did not ask for the kind of traffic; `parking` is null under IdlePolicy::Poll as well.
template<class Item>
struct Inbox
{
    QVector<Item*>* list = nullptr;
    QMutex* mutex = nullptr;
    CParking* parking = nullptr;
};

// Makes a worker for the inbox, which belongs to it from here on, and starts it.
template<class Worker, class Item>
Worker* startWorker(const QString& id, const char* nameSuffix, IMessageInterface* plugin,
                    const Inbox<Item>& inbox)
{
    auto* worker = new Worker;
    worker->setObjectName(id + QLatin1String(nameSuffix));
    worker->setId(id);
    worker->setInterface(plugin);
    worker->setList(inbox.list);
    worker->setMutex(inbox.mutex);
    worker->setParking(inbox.parking);
    worker->start(QThread::InheritPriority);
    return worker;
}

// How a put path reaches a receiver: the registry, its lock, and the inbox that `InboxOf` picks
// from a registry record.
template<class Registry, class InboxOf>
struct Delivery
{
    const Registry& registry;
    QMutex& registryMutex;
    InboxOf inboxOf;

    // Queues an item with `values` (copied, or moved from an rvalue) for `id`. A record without
    // that inbox gets nothing. False: the ID is not registered.
    //
    // The item is made before the lock is taken. The lock is held until the item is in the inbox,
    // so the receiver cannot be released in between.
    template<class Values>
    bool operator()(const QString& id, Values&& values) const
    {
        auto item = std::make_unique<std::decay_t<Values>>(std::forward<Values>(values));
        const QMutexLocker locker(&registryMutex);
        const auto record = registry.constFind(id);
        if (record == registry.constEnd())
            return false;
        const auto inbox = inboxOf(**record);
        if (inbox.list) {
            append(*inbox.list, *inbox.mutex, inbox.parking, item.get());
            static_cast<void>(item.release()); // the inbox has it
        }
        return true;
    }
};

template<class Registry, class InboxOf>
Delivery(const Registry&, QMutex&, InboxOf) -> Delivery<Registry, InboxOf>;

enum class Routed { Done, UnknownDestination, UnknownType };

// Where a record goes, on every path: to its destination if it names one, else to the subscribers
// of its type save `skippedId` (null: all of them). Subscribers that are not registered are passed
// over. A directed record gives its values away, a broadcast copies them for each receiver.
template<class Item, class DeliverTo>
Routed route(const QString& dstId, Item& values, const QString* skippedId,
             const CSubscriptionTable& subscriptions, const DeliverTo& deliverTo)
{
    if (!dstId.isEmpty())
        return deliverTo(dstId, std::move(values)) ? Routed::Done : Routed::UnknownDestination;
    const bool known = subscriptions.forEachSubscriber(values.type, [&](const QString& id) {
        if (!skippedId || id != *skippedId)
            deliverTo(id, qAsConst(values));
    });
    return known ? Routed::Done : Routed::UnknownType;
}

#endif
