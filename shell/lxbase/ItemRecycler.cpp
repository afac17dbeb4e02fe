#include <lxbase/ItemRecycler.h>

#include <lxbase/ThreadLocal.h>

#include <atomic>
#include <mutex>
#include <new>
#include <utility>

#ifdef LXBASE_RECYCLE_ITEMS
#include <tbb/scalable_allocator.h>
#endif

namespace lxbase::detail {

namespace {

struct Block
{
    Block* next;
};

// The block that heads a chain in the store links it to the next chain.
struct ChainHead : Block
{
    ChainHead* nextChain;
    int size;
};
static_assert(sizeof(ChainHead) <= ItemRecycler::BlockSize);

struct Chain
{
    Block* first = nullptr;
    int size = 0;

    void push(void* memory) { *this = {new (memory) Block{first}, size + 1}; }
    Block* pop()
    {
        Block* const block = first;
        *this = {block->next, size - 1};
        return block;
    }
};

// Chains that no thread keeps. Never destroyed, and there before anything runs: the destructor is
// trivial and the initialisation constant.
class Store
{
public:
    int size() const { return m_size.load(std::memory_order_relaxed); }

    void give(Chain chain) noexcept
    {
        if (!chain.first)
            return;
        std::unique_lock<std::mutex> lock(m_mutex);
        if (size() < ItemRecycler::MaxStored) {
            m_first = new (chain.first) ChainHead{{chain.first->next}, m_first, chain.size};
            m_size.store(size() + 1, std::memory_order_relaxed);
            return;
        }
        lock.unlock();
        while (chain.first)
            ItemRecycler::giveToHeap(chain.pop());
    }

    // An empty chain if there is none; a thread that has just missed one makes a block instead.
    Chain take()
    {
        if (size() == 0)
            return {};
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_first)
            return {};
        ChainHead* const head = std::exchange(m_first, m_first->nextChain);
        m_size.store(size() - 1, std::memory_order_relaxed);
        return {head, head->size};
    }

private:
    std::mutex m_mutex;
    ChainHead* m_first = nullptr; // guarded by m_mutex
    std::atomic<int> m_size{0};   // written under m_mutex
};

Store store;

// A thread's own blocks. Trivial, so that a put from a destructor at the end of the thread still
// finds them; the guard gives them to the store then.
struct ThreadCache
{
    Chain current;
    Chain spare; // full or empty
    bool ended;
};
LXBASE_THREAD_LOCAL thread_local ThreadCache threadCache{{}, {}, false};

struct EndOfThread
{
    ~EndOfThread()
    {
        threadCache.ended = true;
        store.give(std::exchange(threadCache.current, {}));
        store.give(std::exchange(threadCache.spare, {}));
    }
    void expect() { } // makes the object, if it is not there yet
};
thread_local EndOfThread endOfThread;

} // namespace

void* ItemRecycler::take()
{
    ThreadCache& cache = threadCache;
    if (!cache.current.first && !cache.ended) {
        endOfThread.expect();
        cache.current = cache.spare.first ? std::exchange(cache.spare, {}) : store.take();
    }
    return cache.current.first ? cache.current.pop() : takeFromHeap(BlockSize);
}

void ItemRecycler::give(void* block) noexcept
{
    ThreadCache& cache = threadCache;
    if (cache.ended) {
        giveToHeap(block);
        return;
    }
    if (!cache.current.first)
        endOfThread.expect();
    else if (cache.current.size == ChainLength)
        store.give(std::exchange(cache.spare, std::exchange(cache.current, {})));
    cache.current.push(block);
}

// oneTBB's heap keeps what is allocated together together, also when threads free it in another
// order, which pays when a put goes round many receivers. A sanitizer sees the standard one.
void* ItemRecycler::takeFromHeap(std::size_t size)
{
#ifdef LXBASE_RECYCLE_ITEMS
    if (void* const memory = scalable_malloc(size))
        return memory;
    throw std::bad_alloc();
#else
    return ::operator new(size);
#endif
}

void ItemRecycler::giveToHeap(void* memory) noexcept
{
#ifdef LXBASE_RECYCLE_ITEMS
    scalable_free(memory);
#else
    ::operator delete(memory);
#endif
}

int ItemRecycler::stored()
{
    return store.size();
}

} // namespace lxbase::detail
