// How the items of the inboxes are allocated. Each is made on the thread that puts and deleted on
// the worker that delivers it, the pattern that a per-thread heap serves worst; oneTBB's scalable
// allocator gives memory back to the thread that it came from.
#include <lxbase/EventWorkerThread.h>
#include <lxbase/MessageWorkerThread.h>

#include <new>

#ifdef LXBASE_SCALABLE_ALLOCATOR
#include <tbb/scalable_allocator.h>
#endif

namespace {

#ifdef LXBASE_SCALABLE_ALLOCATOR

void* allocate(std::size_t size)
{
    if (void* const item = scalable_malloc(size))
        return item;
    throw std::bad_alloc();
}

void release(void* item) noexcept
{
    scalable_free(item);
}

#else

void* allocate(std::size_t size)
{
    return ::operator new(size);
}

void release(void* item) noexcept
{
    ::operator delete(item);
}

#endif

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
