// How the items of the inboxes are allocated.
#include <lxbase/EventWorkerThread.h>
#include <lxbase/ItemRecycler.h>
#include <lxbase/MessageWorkerThread.h>

#include <new>

namespace {

static_assert(sizeof(MsgQueueItem) <= CItemRecycler::BlockSize);
static_assert(sizeof(EventQueueItem) <= CItemRecycler::BlockSize);

void* allocate([[maybe_unused]] std::size_t size)
{
#ifdef LXBASE_RECYCLE_ITEMS
    return CItemRecycler::take();
#else
    return ::operator new(size);
#endif
}

void release(void* item) noexcept
{
#ifdef LXBASE_RECYCLE_ITEMS
    CItemRecycler::give(item);
#else
    ::operator delete(item);
#endif
}

} // namespace

void* MsgQueueItem::operator new(std::size_t size)
{
    return allocate(size);
}

void MsgQueueItem::operator delete(void* item) noexcept
{
    release(item);
}

void* EventQueueItem::operator new(std::size_t size)
{
    return allocate(size);
}

void EventQueueItem::operator delete(void* item) noexcept
{
    release(item);
}
