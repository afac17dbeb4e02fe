// The memory of the items: none is lost with its thread, and no more is kept than it says. That no
// block has two owners shows in every stress program.
#include <lxbase/ItemRecycler.h>

#include <QtTest>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

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

// What a thread that does this leaves in the store, in chains.
template<class Work>
int storedAfter(Work work)
{
    std::thread(work).join();
    return CItemRecycler::stored();
}

} // namespace

class ItemRecyclerTest : public QObject
{
    Q_OBJECT

private slots:
    void blocksOutliveTheirThreadInAStoreThatIsBounded()
    {
        constexpr int chain = CItemRecycler::ChainLength;
        std::vector<void*> blocks;
        QCOMPARE(storedAfter([] { giveBlocks(takeBlocks(5 * chain - 1)); }), 5); // one not full
        QCOMPARE(storedAfter([&] { blocks = takeBlocks(5 * chain - 1); }), 0);
        QCOMPARE(storedAfter([&] { giveBlocks(blocks); }), 5);
        constexpr int most = CItemRecycler::MostStored;
        QCOMPARE(storedAfter([] { giveBlocks(takeBlocks((most + 10) * chain)); }), most);
    }
};

QTEST_APPLESS_MAIN(ItemRecyclerTest)
#include "tst_ItemRecycler.moc"
