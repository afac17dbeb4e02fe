/// \file
/// InboxPolicy: what an inbox does when more is put than its plugin handles. Ours.
#ifndef LXBASE_INBOXPOLICY_H
#define LXBASE_INBOXPOLICY_H

#include <lxbase/MessageInterface.h>

#include <QString>

#include <functional>

/// The depth of an inbox has crossed one of its watermarks.
struct InboxCrossing
{
    QString plugin;                                                        ///< the ID
    IMessageInterface::ThreadType kind = IMessageInterface::MessageThread; ///< of inbox
    bool above = false; ///< true: up to the high mark; false: back down to the low one
    int waiting = 0;    ///< items in the inbox at that moment
};

/// A value, given to CMessageCenter::setInboxPolicy. What the default says is the bus's own way:
/// everything that is put waits until its turn comes, however much it is.
///
/// In every mode what is handled is handled in the order of the puts, save what KeepLatest says.
/// What a worker has taken out for its handler counts as waiting no more, and no policy touches it.
struct InboxPolicy
{
    /// What happens to an item that comes when others wait.
    enum Mode : unsigned {
        /// It waits as well.
        Unbounded,

        /// An item of the same sender and type that waits gives it its place in the order and is
        /// freed: of a sender and type no more than one waits. So the order is that of the first
        /// puts since each was handled last, and the last put is always handled. Two types are the
        /// same if they are values of the same kind and equal.
        KeepLatest,

        /// If `limit` items wait, the one that has waited longest is dropped.
        DropOldest,

        /// If `limit` items wait, the new one is dropped.
        RefuseNewest,
    };

    Mode mode = Unbounded; ///< see there

    /// So many items may wait, from 1 on. DropOldest and RefuseNewest only; else 0.
    int limit = 0;

    /// The observer is called once when so many items wait, and once more when `lowWatermark` or
    /// fewer do; then again from the beginning. 0: never. Not above `limit`.
    int highWatermark = 0;
    int lowWatermark = 0; ///< below `highWatermark`

    /// An item that has waited for more milliseconds than this when its turn comes is dropped;
    /// under KeepLatest the time runs from the last put of its sender and type. 0: none is.
    int maxAgeMs = 0;

    /// Told of the watermarks, with no lock held, by the thread that put or handles; there is one
    /// exactly if `highWatermark` is set. Crossings come one at a time, in their order. One that
    /// went above comes back with the plugin's UnReg, or when the policy is replaced, at the
    /// latest. It may call anything that a handler may and must not throw. What it needs, its code
    /// too, stays there until the policy has been replaced and a call in progress has returned.
    std::function<void(const InboxCrossing&)> observer;
};

#endif
