// Delivery: one put on its way to its receivers, on every path.
// Internal: not installed.
#ifndef LXBASE_DELIVERY_H
#define LXBASE_DELIVERY_H

#include <lxbase/Aftermath.h>
#include <lxbase/Inbox.h>
#include <lxbase/LostItems.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/Probes.h>
#include <lxbase/SubscriptionTable.h>
#include <lxbase/TraceRecorder.h>

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

class CEventMessageCommon;

namespace lxbase::detail {

enum class Routed { Done, UnknownDestination, UnknownType };

// Messages have a trace ID, events have none.
template<class Record>
auto traceIdOf(const Record& record) -> decltype(record.traceId())
{
    return record.traceId();
}
inline QString traceIdOf(const CEventMessageCommon&)
{
    return {};
}

// Whether a broadcast leaves out the subscriber that put it.
enum class Sender { LeftOut, Included };

// The receivers are looked up in `registry`; `inboxOf` picks the inbox from a registry record, and
// `makeItem` makes the item for one receiver from the sender's ID, the type and the record put.
//
// Payloads may be of any class, so its code runs here: a copy is made for each receiver, and one
// that nobody could take is destroyed with this object, when no lock is held any more. If a copy
// throws, that receiver goes without; the others get theirs. Who goes without, and why, is kept
// until no lock is held, and then reported.
template<class Registry, class InboxOf, class MakeItem>
class Delivery
{
public:
    Delivery(PutPath path, const Registry& registry, QMutex& registryMutex, InboxOf inboxOf,
             QString&& srcId, QVariant&& type, MakeItem makeItem)
        : m_path(path)
        , m_registry(registry)
        , m_registry_mutex(registryMutex)
        , m_inbox_of(inboxOf)
        , m_src_id(std::move(srcId))
        , m_type(std::move(type))
        , m_make_item(makeItem)
    {
        LXBASE_PROBE(put_begin, static_cast<int>(path));
        if (Q_UNLIKELY(isTracing()))
            m_traced.emplace(path, m_src_id, m_type);
    }

    // To the destination if there is one, else to the subscribers of the type. Subscribers that are
    // not registered are passed over.
    Routed route(const QString& dstId, const SubscriptionTable& subscriptions, Sender sender)
    {
        m_directed = !dstId.isEmpty();
        if (m_directed) { // the only receiver may have the values themselves
            const bool known = queue(dstId, std::move(m_src_id), std::move(m_type),
                                     LostReason::UnknownDestination, LostReason::NoInbox);
            return known ? Routed::Done : Routed::UnknownDestination;
        }
        const bool known = subscriptions.forEachSubscriber(m_type, [&](const QString& id) {
            if (sender == Sender::Included || id != m_src_id)
                alsoTo(id);
        });
        return known ? Routed::Done : Routed::UnknownType;
    }

    // After a broadcast: to one receiver more; what is lost if it is not registered, or has no such
    // inbox, is said by the reasons.
    void alsoTo(const QString& id, LostReason ifMissing = LostReason::SubscriberNotRegistered,
                LostReason ifNoInbox = LostReason::NoInbox)
    {
        queue(id, QString(m_src_id), QVariant(m_type), ifMissing, ifNoInbox);
    }

    const QString& srcId() const { return m_src_id; }

    // With no lock held, after all: what the inboxes left to be done, a critical record if a copy
    // has thrown, and what was lost. The values are asked from the record then; those that were
    // given may have been given away.
    template<class Record>
    void report(Record& record, const LogPlace& place)
    {
        LXBASE_PROBE(put_end, static_cast<int>(m_path));
        if (Q_UNLIKELY(m_traced)) {
            const bool fromNet = m_path == PutPath::PutNetMsg || m_path == PutPath::PutQuotationMsg;
            m_traced->end(fromNet ? TraceKind::Route : TraceKind::Put, record.GetDstid(),
                          traceIdOf(record), fromNet ? &record : nullptr);
        }
        if (!m_trouble && (m_directed || m_delivered))
            return;
        if (m_trouble) {
            m_trouble->aftermath.finish();
            if (m_trouble->losses.empty())
                return;
            if (m_trouble->failure)
                logFailure(record, place);
        }
        LostItem lost;
        lost.path = m_path;
        lost.source = m_item && !m_item_is_spent ? m_item->src_id : m_src_id;
        if (lost.source.isEmpty()) // given away with a copy that has thrown
            lost.source = record.GetSrcid();
        lost.type = record.GetType();
        lost.traceId = traceIdOf(record);
        if (!m_trouble) {
            lost.reason = LostReason::NoSubscriber;
            LostItems::instance().note(lost);
            return;
        }
        for (const Loss& loss : m_trouble->losses) {
            lost.reason = loss.reason;
            lost.destination = loss.id;
            LostItems::instance().note(lost);
        }
    }

private:
    using Item = std::remove_pointer_t<std::invoke_result_t<MakeItem, QString&&, QVariant&&>>;

    struct Loss
    {
        LostReason reason;
        QString id; // of who went without
    };

    // What a put has that did not reach everybody, or displaced others.
    struct Trouble
    {
        std::vector<Loss> losses;
        std::exception_ptr failure; // of a copy, the first
        Aftermath<Item> aftermath;  // of the inboxes
    };

    Trouble& trouble()
    {
        if (!m_trouble)
            m_trouble = std::make_unique<Trouble>();
        return *m_trouble;
    }

    void lose(LostReason reason, const QString& id) { trouble().losses.push_back({reason, id}); }

    // False: the ID is not registered. A record without that inbox gets nothing. The registry's
    // mutex is held until the item is in the inbox, so that the receiver cannot be released in
    // between.
    bool queue(const QString& id, QString&& srcId, QVariant&& type, LostReason ifMissing,
               LostReason ifNoInbox)
    {
        std::exception_ptr failure;
        try {
            if (m_item && m_item_is_spent)
                trouble().aftermath.takeSuperseded(std::move(m_item));
            if (!m_item)
                m_item.reset(m_make_item(std::move(srcId), std::move(type)));
        } catch (...) {
            failure = std::current_exception();
        }
        if (Q_UNLIKELY(m_traced))
            m_traced->begin();
        const QMutexLocker locker(&m_registry_mutex);
        const auto record = m_registry.constFind(id);
        if (record == m_registry.constEnd()) {
            lose(ifMissing, id);
            return false;
        }
        const Inbox<Item*> inbox = m_inbox_of(**record);
        if (!inbox) {
            lose(ifNoInbox, id);
            return true;
        }
        try {
            if (!failure) {
                LXBASE_PROBE(append, static_cast<int>(m_path), m_item.get());
                int waiting = 0; // asked for if the put is recorded
                if (Q_UNLIKELY(m_traced))
                    m_traced->beginAppend();
                Item* const superseded = inbox.append(
                    m_item.get(), [this]() -> Aftermath<Item>& { return trouble().aftermath; },
                    m_traced ? &waiting : nullptr);
                if (Q_UNLIKELY(m_traced))
                    m_traced->endAppend(id, m_item.get(), waiting);
                static_cast<void>(m_item.release()); // the inbox has it, or the aftermath
                m_delivered = true;
                m_item_is_spent = superseded;
                if (Q_UNLIKELY(superseded))
                    m_item.reset(superseded);
                return true;
            }
        } catch (...) { // no memory for the inbox to grow
            failure = std::current_exception();
        }
        lose(LostReason::NotCopied, id);
        if (!m_trouble->failure)
            m_trouble->failure = failure;
        return true;
    }

    template<class Record>
    void logFailure(Record& record, const LogPlace& place) const
    {
        if (!lcLxbase().isCriticalEnabled())
            return;
        QStringList ids;
        for (const Loss& loss : m_trouble->losses) {
            if (loss.reason == LostReason::NotCopied)
                ids.append(loss.id);
        }
        const auto log = [&](const char* exception) {
            place.logger().critical() << "not delivered to" << ids << ", type:" << record.GetType()
                                      << ", exception:" << exception;
        };
        try {
            std::rethrow_exception(m_trouble->failure);
        } catch (const std::exception& e) {
            log(e.what());
        } catch (...) {
            log("of an unknown class");
        }
    }

    const PutPath m_path;
    const Registry& m_registry;
    QMutex& m_registry_mutex;
    const InboxOf m_inbox_of;
    QString m_src_id;
    QVariant m_type;
    const MakeItem m_make_item;
    std::unique_ptr<Item> m_item; // made for somebody who could not take it: the next one's
    bool m_item_is_spent = false; // it is one that was superseded instead: nobody's
    bool m_directed = false;
    bool m_delivered = false;
    std::unique_ptr<Trouble> m_trouble;
    std::optional<TracedPut> m_traced; // if the put is recorded
};

} // namespace lxbase::detail

#endif
