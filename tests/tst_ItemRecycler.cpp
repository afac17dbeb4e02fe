// The memory of the items: no block has two owners, and none is lost with its thread.
#include <lxbase/ItemRecycler.h>

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

namespace {

std::vector<void*> takeBlocks(int count)
{
    std::vector<void*> blocks(static_cast<std::size_t>(count));
    std::generate(blocks.begin(), blocks.end(), &lxbase::detail::ItemRecycler::take);
    return blocks;
}

void giveBlocks(const std::vector<void*>& blocks)
{
    std::for_each(blocks.begin(), blocks.end(), &lxbase::detail::ItemRecycler::give);
}

// Takes what earlier threads left in the store.
std::vector<void*> emptyStore()
{
    std::vector<void*> blocks;
    while (lxbase::detail::ItemRecycler::stored() > 0)
        blocks.push_back(lxbase::detail::ItemRecycler::take());
    return blocks;
}

// Uses blocks when its thread ends, later than the recycler's own end-of-thread work if it was made
// before the thread's first block.
struct LastWords
{
    ~LastWords()
    {
        if (used)
            giveBlocks(takeBlocks(3 * lxbase::detail::ItemRecycler::ChainLength));
    }
    bool used = false;
};
thread_local LastWords lastWords;

} // namespace

class ItemRecyclerTest : public QObject
{
    Q_OBJECT

private slots:
    void aBlockBelongsToOneTakerAtATime()
    {
        std::atomic<int> spoilt{0};
        std::vector<std::thread> threads;
        for (int id = 0; id < 4; ++id) {
            threads.emplace_back([&, id] {
                for (int round = 0; round < 10000; ++round) {
                    // more than a thread keeps to itself
                    const std::vector<void*> blocks =
                        takeBlocks(4 * lxbase::detail::ItemRecycler::ChainLength);
                    for (void* block : blocks)
                        *static_cast<int*>(block) = id;
                    for (void* block : blocks)
                        spoilt += *static_cast<int*>(block) != id;
                    giveBlocks(blocks);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(spoilt.load(), 0);
    }

    void blocksOutliveTheThreadThatGaveThem()
    {
        constexpr int chains = 5;
        constexpr int blocks =
            chains * lxbase::detail::ItemRecycler::ChainLength - 1; // the last is not full
        const std::vector<void*> others = emptyStore();             // so that it has room
        std::vector<void*> first;
        std::thread([&] { first = takeBlocks(blocks); }).join();
        std::thread([&] { giveBlocks(first); }).join();
        std::vector<void*> second;
        std::thread([&] { second = takeBlocks(blocks); }).join();
        QCOMPARE(std::set<void*>(second.begin(), second.end()),
                 std::set<void*>(first.begin(), first.end()));
        giveBlocks(second);
        giveBlocks(others);
    }

    void theStoreIsBounded()
    {
        constexpr int chains = lxbase::detail::ItemRecycler::MaxStored + 10;
        std::thread([&] {
            giveBlocks(takeBlocks(chains * lxbase::detail::ItemRecycler::ChainLength));
        }).join();
        QCOMPARE(lxbase::detail::ItemRecycler::stored(), lxbase::detail::ItemRecycler::MaxStored);
    }

    void aThreadThatHasEndedItsUseGetsBlocksAndKeepsNone()
    {
        const std::vector<void*> others = emptyStore();
        std::thread([] {
            lastWords.used = true;
            giveBlocks(takeBlocks(1));
        }).join();
        QCOMPARE(lxbase::detail::ItemRecycler::stored(),
                 1); // what it had before, not its last words
        giveBlocks(others);
    }
};

QTEST_APPLESS_MAIN(ItemRecyclerTest)
#include "tst_ItemRecycler.moc"
