// CenterState: what the center keeps beside the members of its class.
// Internal: not installed.
#ifndef LXBASE_CENTERSTATE_H
#define LXBASE_CENTERSTATE_H

#include <lxbase/Inbox.h>
#include <lxbase/InboxPolicy.h>
#include <lxbase/MessageCenter.h>
#include <lxbase/RelationTable.h>
#include <lxbase/SubscriptionTable.h>
#include <lxbase/WaitGraph.h>

#include <QHash>
#include <QMutex>

#include <atomic>
#include <memory>

namespace lxbase::detail {

struct CenterState
{
    // guarded by m_msg_sub_mutex and m_event_sub_mutex
    SubscriptionTable::IdsByInt msg_ids_by_int;
    SubscriptionTable::IdsByInt event_ids_by_int;

    // made by Start, constant from then on
    std::unique_ptr<InboxState> net_recv_state;
    std::unique_ptr<InboxState> quotation_state;
    QMutex start_mutex; // of one Start at a time; no other lock is taken inside

    // atomic: set by the host, read by registrations and Start on any thread
    std::atomic<CMessageCenter::IdlePolicy> idle_policy{CMessageCenter::IdlePolicy::Poll};
    std::atomic<bool> idle_policy_fixed{false};

    // atomic, set by registrations and Start: the process that the threads of the bus run in; 0
    // while there are none. A forked child has the center without its threads.
    std::atomic<qint64> process_of_threads{0};

    // The policies of the inboxes of one kind by plugin ID, with the default under the empty one.
    using InboxPolicies = QHash<QString, InboxPolicy>;
    InboxPolicies msg_policies, quotation_policies; // guarded by m_msg_reg_mutex
    InboxPolicies event_policies;                   // guarded by m_event_reg_mutex

    WaitGraph unregs; // handlers in UnReg

    // atomic: counted after each change, read by CBusMonitor
    std::atomic<int> subscriptions{0};
    std::atomic<int> relation_groups{0}; // with a member

    // What the center's members held, where a call or a thread was still there at its end.
    struct Remains
    {
        QHash<QString, MsgRegInfo*> msg_reg_hash;
        QMap<QString, EventRegInfo*> event_reg_map;
        SubscriptionTable::IdsByType msg_sub_map, event_sub_map;
        SubscriptionTable::TypesById msg_id_sub_map, event_id_sub_map;
        RelationTable::GroupsByBase relation_map;
    };
    std::unique_ptr<Remains> remains;
};

} // namespace lxbase::detail

#endif
