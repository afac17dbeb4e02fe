// Delivery: one put on its way to its receivers, on every path.
// Internal: not installed.
#ifndef LXBASE_DELIVERY_H
#define LXBASE_DELIVERY_H

#include <lxbase/Inbox.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/SubscriptionTable.h>

#include <QMutex>
#include <QString>
#include <QVariant>

#include <exception>
#include <memory>
#include <type_traits>
#include <utility>

namespace lxbase::detail {

enum class Routed { Done, UnknownDestination, UnknownType };

// Whether a broadcast leaves out the subscriber that put it.
enum class Sender { LeftOut, Included };

// The receivers are looked up in `registry`; `inboxOf` picks the inbox from a registry record, and
// `makeItem` makes the item for one receiver from the sender's ID, the type and the record put.
//
// Payloads may be of any class, so its code runs here: a copy is made for each receiver, and one
// that nobody could take is destroyed with this object, when no lock is held any more. If a copy
// throws, that receiver goes without; the others get theirs.
template<class Registry, class InboxOf, class MakeItem>
class Delivery
{
public:
    Delivery(const Registry& registry, QMutex& registryMutex, InboxOf inboxOf, QString srcId,
             QVariant type, MakeItem makeItem)
        : m_registry(registry)
        , m_registry_mutex(registryMutex)
        , m_inbox_of(inboxOf)
        , m_src_id(std::move(srcId))
        , m_type(std::move(type))
        , m_make_item(makeItem)
    { }

    // To the destination if there is one, else to the subscribers of the type. Subscribers that are
    // not registered are passed over.
    Routed route(const QString& dstId, const SubscriptionTable& subscriptions, Sender sender)
    {
        if (!dstId.isEmpty()) // the only receiver may have the sender's ID itself
            return queue(dstId, std::move(m_src_id)) ? Routed::Done : Routed::UnknownDestination;
        const bool known = subscriptions.forEachSubscriber(m_type, [&](const QString& id) {
            if (sender == Sender::Included || id != m_src_id)
                alsoTo(id);
        });
        return known ? Routed::Done : Routed::UnknownType;
    }

    // After a broadcast: to one receiver more.
    void alsoTo(const QString& id) { queue(id, m_src_id); }

    const QString& srcId() const { return m_src_id; }

    // With no lock held, after all: writes a critical record if a receiver went without.
    void logFailure(const LogPlace& place) const
    {
        if (!m_failure || !lcLxbase().isCriticalEnabled())
            return;
        try {
            std::rethrow_exception(m_failure);
        } catch (const std::exception& e) {
            logFailure(place, e.what());
        } catch (...) {
            logFailure(place, "of an unknown class");
        }
    }

private:
    using Item = std::remove_pointer_t<std::invoke_result_t<MakeItem, QString, const QVariant&>>;

    // False: the ID is not registered. A record without that inbox gets nothing. The registry's
    // mutex is held until the item is in the inbox, so that the receiver cannot be released in
    // between.
    bool queue(const QString& id, QString srcId)
    {
        try {
            if (!m_item)
                m_item.reset(m_make_item(std::move(srcId), m_type));
            const QMutexLocker locker(&m_registry_mutex);
            const auto record = m_registry.constFind(id);
            if (record == m_registry.constEnd())
                return false;
            if (const Inbox<Item*> inbox = m_inbox_of(**record)) {
                inbox.append(m_item.get());
                static_cast<void>(m_item.release()); // the inbox has it
            }
        } catch (...) {
            ++m_failures;
            if (!m_failure) {
                m_failure = std::current_exception();
                m_first_without = id;
            }
        }
        return true;
    }

    void logFailure(const LogPlace& place, const char* exception) const
    {
        place.logger().critical() << "not delivered to" << m_first_without << "and"
                                  << m_failures - 1 << "others, type:" << m_type
                                  << ", exception:" << exception;
    }

    const Registry& m_registry;
    QMutex& m_registry_mutex;
    const InboxOf m_inbox_of;
    QString m_src_id;
    QVariant m_type;
    const MakeItem m_make_item;
    std::unique_ptr<Item> m_item; // made for somebody who could not take it: the next one's

    std::exception_ptr m_failure; // the first
    QString m_first_without;
    int m_failures = 0;
};

} // namespace lxbase::detail

#endif
