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
        if (!dstId.isEmpty()) { // the only receiver may have the values themselves
            return queue(dstId, std::move(m_src_id), std::move(m_type))
                ? Routed::Done
                : Routed::UnknownDestination;
        }
        const bool known = subscriptions.forEachSubscriber(m_type, [&](const QString& id) {
            if (sender == Sender::Included || id != m_src_id)
                alsoTo(id);
        });
        return known ? Routed::Done : Routed::UnknownType;
    }

    // After a broadcast: to one receiver more.
    void alsoTo(const QString& id) { queue(id, m_src_id, m_type); }

    const QString& srcId() const { return m_src_id; }

    // With no lock held, after all: writes a critical record if a receiver went without. The type
    // is asked for then; the one that was given may have been given away.
    template<class TypeOf>
    void logFailures(const LogPlace& place, const TypeOf& typeOf) const
    {
        if (!m_failures || !lcLxbase().isCriticalEnabled())
            return;
        const auto log = [&](const char* exception) {
            place.logger().critical()
                << "not delivered to" << m_failures->firstId << "and" << m_failures->count - 1
                << "others, type:" << typeOf() << ", exception:" << exception;
        };
        try {
            std::rethrow_exception(m_failures->first);
        } catch (const std::exception& e) {
            log(e.what());
        } catch (...) {
            log("of an unknown class");
        }
    }

private:
    using Item = std::remove_pointer_t<std::invoke_result_t<MakeItem, QString, QVariant>>;

    // Receivers that went without.
    struct Failures
    {
        std::exception_ptr first;
        QString firstId;
        int count = 0;
    };

    // False: the ID is not registered. A record without that inbox gets nothing. The registry's
    // mutex is held until the item is in the inbox, so that the receiver cannot be released in
    // between.
    bool queue(const QString& id, QString srcId, QVariant type)
    {
        try {
            if (!m_item)
                m_item.reset(m_make_item(std::move(srcId), std::move(type)));
            const QMutexLocker locker(&m_registry_mutex);
            const auto record = m_registry.constFind(id);
            if (record == m_registry.constEnd())
                return false;
            if (const Inbox<Item*> inbox = m_inbox_of(**record)) {
                inbox.append(m_item.get());
                static_cast<void>(m_item.release()); // the inbox has it
            }
        } catch (...) {
            const QMutexLocker locker(&m_registry_mutex);
            const auto record = m_registry.constFind(id);
            if (record == m_registry.constEnd())
                return false;
            if (m_inbox_of(**record)) { // else it would have gone without in any case
                if (!m_failures)
                    m_failures.reset(new Failures{std::current_exception(), id});
                ++m_failures->count;
            }
        }
        return true;
    }

    const Registry& m_registry;
    QMutex& m_registry_mutex;
    const InboxOf m_inbox_of;
    QString m_src_id;
    QVariant m_type;
    const MakeItem m_make_item;
    std::unique_ptr<Item> m_item; // made for somebody who could not take it: the next one's
    std::unique_ptr<Failures> m_failures;
};

} // namespace lxbase::detail

#endif
