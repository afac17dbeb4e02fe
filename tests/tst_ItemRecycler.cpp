// The memory of the items: none is lost with its thread, and no more is kept than it says. That no
// block has two owners shows in every stress program.
#include <lxbase/ItemRecycler.h>

#include <QtTest>

#include <algorithm>
#include <thread>
#include <vector>

using lxbase::detail::ItemRecycler;

namespace {

std::vector<void*> takeBlocks(int count)
{
    std::vector<void*> blocks(static_cast<std::size_t>(count));
    std::generate(blocks.begin(), blocks.end(), &ItemRecycler::take);
    return blocks;
}

void giveBlocks(const std::vector<void*>& blocks)
{
    std::for_each(blocks.begin(), blocks.end(), &ItemRecycler::give);
}

// What a thread that does this leaves in the store, in chains.
template<class Work>
int storedAfter(Work work)
{
    std::thread(work).join();
    return ItemRecycler::stored();
}

} // namespace

class ItemRecyclerTest : public QObject
{
    Q_OBJECT

private slots:
    void blocksOutliveTheirThreadInAStoreThatIsBounded()
    {
        constexpr int chain = ItemRecycler::ChainLength;
        std::vector<void*> blocks;
        QCOMPARE(storedAfter([] { giveBlocks(takeBlocks(5 * chain - 1)); }), 5); // one not full
        QCOMPARE(storedAfter([&] { blocks = takeBlocks(5 * chain - 1); }), 0);
        QCOMPARE(storedAfter([&] { giveBlocks(blocks); }), 5);
        constexpr int max = ItemRecycler::MaxStored;
        QCOMPARE(storedAfter([] { giveBlocks(takeBlocks((max + 10) * chain)); }), max);
    }
};

QTEST_APPLESS_MAIN(ItemRecyclerTest)
#include "tst_ItemRecycler.moc"
