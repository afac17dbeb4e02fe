// CItemRecycler: memory for the items of the inboxes.
// Internal: not installed.
#ifndef LXBASE_ITEMRECYCLER_H
#define LXBASE_ITEMRECYCLER_H

#include <cstddef>

// An item is made on the thread that puts and deleted on the worker that delivers it, the pattern
// that a heap with a cache for each thread serves worst. Here a thread keeps two chains of free
// blocks to itself. Only a chain as a whole goes to or comes from the store that all threads share
// (the magazines of Bonwick and Adams, "Magazines and Vmem", USENIX 2001), so that its lock is
// taken once in ChainLength items. Nothing else is locked meanwhile. The store is small, for blocks
// that stay in the processor's cache; a backlog is the heap's.
//
// Both operations may be called from any thread at any time, the end of the process included.
class CItemRecycler
{
public:
    static constexpr std::size_t BlockSize = 48; // bytes, aligned as by `new`
    static constexpr int ChainLength = 64;       // blocks
    static constexpr int MostStored = 32;        // chains; what is beyond goes back to the heap

    // BlockSize bytes, the caller's until it gives them back. Throws std::bad_alloc.
    static void* take();
    static void give(void* block) noexcept;

    // How many chains are in the store.
    static int stored();
};

#endif
