// The memory of the items: no block has two owners, and none is lost with its thread.
#include <lxbase/ItemRecycler.h>

#include <QtTest>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

constexpr int wordsPerBlock = CItemRecycler::BlockSize / sizeof(int);

std::vector<void*> takeBlocks(int count)
{
    std::vector<void*> blocks(static_cast<std::size_t>(count));
    std::generate(blocks.begin(), blocks.end(), &CItemRecycler::take);
    return blocks;
}

void giveBlocks(const std::vector<void*>& blocks)
{
    std::for_each(blocks.begin(), blocks.end(), &CItemRecycler::give);
}

// Uses blocks when its thread ends, later than the recycler's own end-of-thread work if it was made
// before the thread's first block.
struct LastWords
{
    ~LastWords()
    {
        if (used)
            giveBlocks(takeBlocks(3 * CItemRecycler::ChainLength));
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
        constexpr int pairs = 2;
        constexpr int blocksEach = 50000;
        std::mutex mutex;
        std::vector<void*> underway; // guarded by mutex
        std::atomic<int> given{0};
        std::atomic<int> spoilt{0};
        std::vector<std::thread> threads;
        for (int pair = 0; pair < pairs; ++pair) {
            threads.emplace_back([&, pair] {
                for (int k = 0; k < blocksEach; ++k) {
                    void* const block = CItemRecycler::take();
                    std::fill_n(static_cast<int*>(block), wordsPerBlock, pair * blocksEach + k);
                    const std::lock_guard<std::mutex> lock(mutex);
                    underway.push_back(block);
                }
            });
            threads.emplace_back([&] {
                std::vector<void*> batch;
                while (given < pairs * blocksEach) {
                    batch.clear();
                    {
                        const std::lock_guard<std::mutex> lock(mutex);
                        batch.swap(underway);
                    }
                    for (void* block : batch) {
                        const int* const words = static_cast<int*>(block);
                        if (!std::all_of(words, words + wordsPerBlock,
                                         [&](int word) { return word == *words; }))
                            ++spoilt;
                        CItemRecycler::give(block);
                    }
                    given += static_cast<int>(batch.size());
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(spoilt.load(), 0);
        QCOMPARE(given.load(), pairs * blocksEach);
    }

    void blocksOutliveTheThreadThatGaveThem()
    {
        constexpr int chains = 5;
        constexpr int blocks = chains * CItemRecycler::ChainLength - 1; // the last is not full
        std::vector<void*> others; // what earlier threads left, so that the store has room
        while (CItemRecycler::stored() > 0)
            others.push_back(CItemRecycler::take());
        std::vector<void*> first;
        std::thread([&] { first = takeBlocks(blocks); }).join();
        std::thread([&] { giveBlocks(first); }).join();
        QVERIFY(CItemRecycler::stored() >= chains);

        std::vector<void*> second;
        std::thread([&] {
            second = takeBlocks(blocks);
            giveBlocks(second);
        }).join();
        QCOMPARE(std::set<void*>(second.begin(), second.end()),
                 std::set<void*>(first.begin(), first.end()));
        giveBlocks(others);
    }

    void theStoreIsBounded()
    {
        constexpr int chains = CItemRecycler::MostStored + 10;
        std::thread([&] { giveBlocks(takeBlocks(chains * CItemRecycler::ChainLength)); }).join();
        QCOMPARE(CItemRecycler::stored(), CItemRecycler::MostStored);
    }

    void aThreadThatHasEndedItsUseStillGetsBlocks()
    {
        std::thread([] {
            lastWords.used = true;
            giveBlocks(takeBlocks(1));
        }).join();
        QCOMPARE(CItemRecycler::stored(), CItemRecycler::MostStored);
    }
};

QTEST_APPLESS_MAIN(ItemRecyclerTest)
#include "tst_ItemRecycler.moc"
