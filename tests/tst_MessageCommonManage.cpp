// The pool of message records. There is one per process: what needs a fresh one runs in a process
// of its own.
#include <lxtest/BusTest.h>

#include <lxbase/MessageCommonManage.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>
#include <limits>
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

constexpr int BatchSize = 100000;

CMessageCommonManage& pool()
{
    return *CMessageCommonManage::GetInstance();
}

// Gives back a record that the pool has not made.
void giveForeign(int index)
{
    auto* const record = new CountedMessage;
    record->SetIndex(index);
    pool().freeMessageCommon(record);
}

// How many records the pool has made, which it tells when it refuses a record.
int recordsMade(const LogCapture& log)
{
    giveForeign(std::numeric_limits<int>::max());
    return log.lines("critical").last().section(QLatin1Char(' '), -1).toInt();
}
int recordsMade()
{
    return recordsMade(LogCapture());
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
    CHECK(!pool().isRunning());
    CHECK(recordsMade() == 0);
    CHECK(!pool().getMessageCommon());
    CHECK(recordsMade() == BatchSize);
    const std::vector<CMessageCommon*> records = take(0, BatchSize);
    CHECK(records[7]->traceId().isEmpty() && !records[7]->GetType().isValid());

    // exhausted: null, and a batch for the calls that follow
    CHECK(recordsMade() == BatchSize);
    CHECK(!pool().getMessageCommon());
    CHECK(recordsMade() == 2 * BatchSize);
    take(BatchSize, BatchSize + 1);

    // first in, first out: behind what is still free
    pool().freeMessageCommon(records[7]);
    pool().freeMessageCommon(records[3]);
    take(BatchSize + 1, 2 * BatchSize);
    CHECK(pool().getMessageCommon() == records[7]);
    CHECK(pool().getMessageCommon() == records[3]);
    CHECK(!pool().getMessageCommon());
    return 0;
});

const ChildScenario threadFirst("threadFirst", [] {
    for (const int batches : {1, 2}) {
        pool().start();
        CHECK(pool().wait(deadlineMs));
        CHECK(recordsMade() == batches * BatchSize);
    }
    take(0, 2 * BatchSize);
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
    CHECK(recordsMade() == 2);
    const std::vector<CMessageCommon*> records = take(0, 2);
    CHECK(!pool().getMessageCommon());
    CHECK(recordsMade() == 2 + BatchSize);
    take(2, 2 + BatchSize);
    for (CMessageCommon* record : records)
        pool().freeMessageCommon(record);
    take(0, 2);
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
        const auto row = [](const char* name, const char* scenario) {
            QTest::newRow(name) << QByteArray(scenario);
        };
        row("grows in batches and hands out first in, first out", "freshPool");
        row("is filled by its thread, again at a second start", "threadFirst");
        row("is consistent after a batch that failed", "noMemory");
        row("waits for its thread at the end", "endWhileFilling");
    }
    void aFreshPool()
    {
        QFETCH(QByteArray, scenario);
        const ChildResult child = runChild(scenario);
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
    }

    void aRecordComesBackAsItsLastUserLeftIt()
    {
        CMessageCommon* const record = pool().getMessageCommon();
        QVERIFY(record);
        record->SetMsg("payload");
        record->SetSendToNetFlag(true);
        pool().freeMessageCommon(record);
        CMessageCommon* again = nullptr;
        for (int i = 0; i < 2 * BatchSize && again != record; ++i) {
            pool().freeMessageCommon(again);
            again = pool().getMessageCommon();
        }
        QCOMPARE(again, record);
        QCOMPARE(again->GetMsg(), QVariant("payload"));
        QVERIFY(again->GetSendToNetFlag());
        pool().freeMessageCommon(again);
    }

    void aRecordThatThePoolCannotHaveMadeIsReportedAndDeleted()
    {
        const int made = recordsMade(*m_log);
        QCOMPARE(made, BatchSize);
        m_log->clear();
        pool().freeMessageCommon(nullptr);
        giveForeign(made);
        QCOMPARE(CountedMessage::alive(), 0);
        QCOMPARE(m_log->records().size(), 1);
        const LogRecord record = m_log->records().first();
        QCOMPARE(record.text,
                 QStringLiteral("critical: !!!!!! Error index: %1 ,MaxIndex: %1").arg(made));
        QCOMPARE(record.file, QString("shell/lxbase/MessageCommonManage.cpp"));
        QVERIFY(record.line > 0);
        QVERIFY(record.function.contains("CMessageCommonManage::freeMessageCommon"));
    }

    void aNegativeIndexIsDrawnAsNullOnce()
    {
        CMessageCommon elsewhere;
        pool().freeMessageCommon(&elsewhere);
        int nulls = 0;
        for (int i = 0; i < 2 * BatchSize; ++i) { // more than once round
            CMessageCommon* const record = pool().getMessageCommon();
            nulls += record ? 0 : 1;
            pool().freeMessageCommon(record);
        }
        QCOMPARE(nulls, 1);
        QCOMPARE(m_log->lines(), QStringList());
    }

    void noRecordIsHeldByTwoAtOnceOrLost()
    {
        constexpr int Threads = 4;
        constexpr int Rounds = 20000; // enough for the threads to meet
        constexpr int Held = 8;       // records that each thread holds at a time
        std::vector<std::atomic<bool>> taken(2 * BatchSize);
        std::atomic<int> collisions{0};
        const auto draw = [&] {
            CMessageCommon* const record = pool().getMessageCommon();
            if (record)
                collisions += taken[record->GetIndex()].exchange(true);
            return record;
        };
        std::vector<std::thread> threads;
        for (int t = 0; t < Threads; ++t) {
            threads.emplace_back([&] {
                for (int round = 0; round < Rounds; ++round) {
                    CMessageCommon* held[Held];
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
