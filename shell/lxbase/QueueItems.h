/// \file
/// What waits in the inboxes: one record per message or event and receiver.
#ifndef LXBASE_QUEUEITEMS_H
#define LXBASE_QUEUEITEMS_H

#include <lxbase/LxbaseExport.h>

#include <QString>
#include <QVariant>

#include <cstddef>
#include <new>

namespace lxbase::detail {

// Memory for an item of `size` bytes, see ItemRecycler.h. The same size goes to both; memory of
// unknown size is not kept for further items. Any thread. The first throws std::bad_alloc.
constexpr std::size_t unknownItemSize = static_cast<std::size_t>(-1);
LXBASE_EXPORT void* takeItemMemory(std::size_t size);
LXBASE_EXPORT void giveItemMemory(void* item, std::size_t size) noexcept;

} // namespace lxbase::detail

/// Every form of `new` that a class's own one would hide, so that an item stays a plain record: it
/// may be a container's element, lie in a QVariant or a shared pointer's block, and be derived
/// from.
#define LXBASE_ITEM_MEMORY                                                                         \
    static void* operator new(std::size_t size)                                                    \
    {                                                                                              \
        return lxbase::detail::takeItemMemory(size);                                               \
    }                                                                                              \
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept                    \
    {                                                                                              \
        try {                                                                                      \
            return lxbase::detail::takeItemMemory(size);                                           \
        } catch (const std::bad_alloc&) {                                                          \
            return nullptr;                                                                        \
        }                                                                                          \
    }                                                                                              \
    static void* operator new(std::size_t, void* where) noexcept                                   \
    {                                                                                              \
        return where;                                                                              \
    }                                                                                              \
    static void operator delete(void* item, std::size_t size) noexcept                             \
    {                                                                                              \
        lxbase::detail::giveItemMemory(item, size);                                                \
    }                                                                                              \
    static void operator delete(void* item, const std::nothrow_t&) noexcept                        \
    {                                                                                              \
        lxbase::detail::giveItemMemory(item, lxbase::detail::unknownItemSize);                     \
    }                                                                                              \
    static void operator delete(void*, void*) noexcept { }

/// One message for one receiver: made with `new` by the put paths, queued in a message or quotation
/// inbox, deleted by the worker after the handler call. A record of a class derived from it is
/// never put into an inbox: the worker deletes what it takes as a MsgQueueItem.
struct LXBASE_EXPORT MsgQueueItem
{
    QString src_id;   ///< the sender's ID, as given to the put
    QVariant type;    ///< of the message
    QString trace_id; ///< not passed to the handler; empty for quotations
    QVariant data;    ///< the payload

    LXBASE_ITEM_MEMORY
};

/// One event for one receiver: made with `new` by PutEvent, deleted by the worker after the handler
/// call. A record of a class derived from it is never put into an inbox.
struct LXBASE_EXPORT EventQueueItem
{
    QString src_id; ///< the publisher's ID, as given to the put
    QVariant type;  ///< of the event
    QVariant data;  ///< the payload

    LXBASE_ITEM_MEMORY
};

#undef LXBASE_ITEM_MEMORY

#endif
