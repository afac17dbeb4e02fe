// The pool of message records. There is one per process: what needs a fresh one runs in a process
// of its own.
#include <lxtest/BusTest.h>

#include <lxbase/MessageCommonManage.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>
#include <new>
#include <thread>
#include <vector>

using namespace lxtest;

namespace {

// Allocations left to this thread before one fails; negative: none fails.
thread_local long allocationsLeft = -1;

} // namespace

void* operator new(std::size_t size)
{
    if (allocationsLeft >= 0 && allocationsLeft-- == 0)
        throw std::bad_alloc();
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

constexpr int BatchSize = CMessageCommonManage::BatchSize;

CMessageCommonManage& pool()
{
    return *CMessageCommonManage::GetInstance();
}

// In the processes of their own: a check that does not hold ends them.
#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition))                                                                          \
            qFatal("line %d: %s", __LINE__, #condition);                                           \
    } while (false)

// Takes the records from `first` to before `end`, which are next in the queue.
std::vector<CMessageCommon*> take(int first, int end)
{
    std::vector<CMessageCommon*> records;
    for (int index = first; index < end; ++index) {
        records.push_back(pool().getMessageCommon());
        CHECK(records.back() && records.back()->GetIndex() == index);
    }
    return records;
}

const ChildScenario freshPool("freshPool", [] {
    CHECK(!pool().getMessageCommon()); // null, and a batch for the calls that follow
    const std::vector<CMessageCommon*> records = take(0, BatchSize);
    CHECK(!pool().getMessageCommon());
    take(BatchSize, BatchSize + 1);

    // first in, first out: behind what is still free, and as its last user left it
    records[7]->SetMsg("payload");
    pool().freeMessageCommon(records[7]);
    CMessageCommon elsewhere; // its index is negative
    pool().freeMessageCommon(&elsewhere);
    pool().freeMessageCommon(nullptr);
    pool().freeMessageCommon(records[3]);
    take(BatchSize + 1, 2 * BatchSize);
    CHECK(pool().getMessageCommon() == records[7] && records[7]->GetMsg() == "payload");
    CHECK(!pool().getMessageCommon()); // drawn as null
    CHECK(pool().getMessageCommon() == records[3]);
    CHECK(!pool().getMessageCommon());
    take(2 * BatchSize, 3 * BatchSize);
    return 0;
});

const ChildScenario threadFirst("threadFirst", [] {
    for (int batch = 0; batch < 2; ++batch) {
        pool().start();
        CHECK(pool().wait(deadlineMs));
    }
    take(0, 2 * BatchSize);
    CHECK(!pool().getMessageCommon());
    return 0;
});

// The thread is left running at the end of the process.
const ChildScenario endWhileFilling("endWhileFilling", [] {
    pool().start();
    return 0;
});

// The constructor of a record allocates once; so the third record of the batch cannot be made.
const ChildScenario noMemory("noMemory", [] {
    allocationsLeft = 2;
    bool thrown = false;
    try {
        pool().getMessageCommon();
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    allocationsLeft = -1;
    CHECK(thrown);
    take(0, 2);
    CHECK(!pool().getMessageCommon());
    take(2, 2 + BatchSize);
    return 0;
});

} // namespace

class MessageCommonManageTest : public BusTest
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(!pool().getMessageCommon()); } // makes a batch

    void aFreshPool_data()
    {
        QTest::addColumn<QByteArray>("scenario");
        QTest::newRow("grows in batches, first in, first out") << QByteArray("freshPool");
        QTest::newRow("is filled by its thread as well") << QByteArray("threadFirst");
        QTest::newRow("is consistent after a batch that failed") << QByteArray("noMemory");
        QTest::newRow("waits for its thread at the end") << QByteArray("endWhileFilling");
    }
    void aFreshPool()
    {
        QFETCH(QByteArray, scenario);
        const ChildResult child = runChild(scenario);
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
    }

    void aRecordThatThePoolCannotHaveMadeIsReportedAndDeleted()
    {
        auto* const record = new CountedMessage;
        record->SetIndex(BatchSize);
        pool().freeMessageCommon(record);
        QCOMPARE(CountedMessage::alive(), 0);
        QCOMPARE(m_log->records().size(), 1);
        const LogRecord report = m_log->records().first();
        QCOMPARE(report.text, QString("critical: !!!!!! Error index: 100000 ,MaxIndex: 100000"));
        QCOMPARE(report.file, QString("shell/lxbase/MessageCommonManage.cpp"));
        QVERIFY(report.line > 0);
        QVERIFY(report.function.contains("CMessageCommonManage::freeMessageCommon"));
    }

    void noRecordIsHeldByTwoAtOnceOrLost()
    {
        std::vector<std::atomic<bool>> taken(2 * BatchSize);
        std::atomic<int> collisions{0};
        const auto draw = [&] {
            CMessageCommon* const record = pool().getMessageCommon();
            if (record)
                collisions += taken[record->GetIndex()].exchange(true);
            return record;
        };
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int round = 0; round < 20000; ++round) { // enough for them to meet
                    CMessageCommon* held[8];
                    std::generate(std::begin(held), std::end(held), draw);
                    for (CMessageCommon* record : held) {
                        taken[record->GetIndex()] = false;
                        pool().freeMessageCommon(record);
                    }
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        int free = 0;
        while (draw())
            ++free;
        QCOMPARE(free, BatchSize);
        QCOMPARE(collisions.load(), 0);
    }
};

LXTEST_MAIN(MessageCommonManageTest)
#include "tst_MessageCommonManage.moc"
