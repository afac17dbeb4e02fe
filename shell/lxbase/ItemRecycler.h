// ItemRecycler: memory for the items of the inboxes.
// Internal: not installed.
#ifndef LXBASE_ITEMRECYCLER_H
#define LXBASE_ITEMRECYCLER_H

#include <cstddef>

namespace lxbase::detail {

// An item is made on the thread that puts and deleted on the worker that delivers it, the pattern
// that a heap with a cache for each thread serves worst. Here each thread has a cache of two chains
// of free blocks. Only a chain as a whole goes to or comes from the store that all threads share
// (the magazines of Bonwick and Adams, "Magazines and Vmem", USENIX 2001), so that its lock is
// taken once in ChainLength items. Nothing else is locked meanwhile. The store is small: it is for
// blocks that are still in the processor's cache. A backlog is the heap's.
//
// Every operation may be called from any thread at any time, the end of the process included.
class ItemRecycler
{
public:
    static constexpr std::size_t BlockSize = 48; // bytes, aligned as by `new`
    static constexpr int ChainLength = 64;       // blocks
    static constexpr int MaxStored = 32;         // chains; what is beyond goes back to the heap

    // A block, the caller's until it gives it back. Throws std::bad_alloc.
    static void* take();
    static void give(void* block) noexcept;

    // The heap behind, for any size; a block may be given to it as well. Throws std::bad_alloc.
    static void* takeFromHeap(std::size_t size);
    static void giveToHeap(void* memory) noexcept;

    // How many chains are in the store.
    static int stored();
};

} // namespace lxbase::detail

#endif
