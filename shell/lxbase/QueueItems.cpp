#include <lxbase/QueueItems.h>

#include <lxbase/ItemRecycler.h>

namespace lxbase::detail {

static_assert(sizeof(MsgQueueItem) <= ItemRecycler::BlockSize);
static_assert(sizeof(EventQueueItem) <= ItemRecycler::BlockSize);

namespace {

// A build for a sanitizer keeps nothing, so that it sees every item.
bool isRecycled([[maybe_unused]] std::size_t size)
{
#ifdef LXBASE_RECYCLE_ITEMS
    return size <= ItemRecycler::BlockSize;
#else
    return false;
#endif
}

} // namespace

void* takeItemMemory(std::size_t size)
{
    return isRecycled(size) ? ItemRecycler::take() : ItemRecycler::takeFromHeap(size);
}

void giveItemMemory(void* item, std::size_t size) noexcept
{
    if (isRecycled(size))
        ItemRecycler::give(item);
    else
        ItemRecycler::giveToHeap(item);
}

} // namespace lxbase::detail
