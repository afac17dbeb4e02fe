// The pool of message records. There is one per process: what needs a fresh one runs in a process
// of its own.
#include <lxtest/LogCapture.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCommonManage.h>
#include <lxmsg/MessageCommon.h>

#include <QtTest>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <memory>
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

// A record that says when it is deleted.
class Foreign : public CMessageCommon
{
public:
    Foreign(int index, bool& deleted)
        : m_deleted(deleted)
    {
        SetIndex(index);
    }
    ~Foreign() override { m_deleted = true; }

private:
    bool& m_deleted;
};

// How many records the pool has made, which it tells when it refuses a record.
int recordsMade()
{
    const LogCapture log;
    bool deleted = false;
    pool().freeMessageCommon(new Foreign(std::numeric_limits<int>::max(), deleted));
    const QStringList texts = log.texts(QtCriticalMsg);
    return texts.size() == 1 ? texts.first().section(QLatin1Char(' '), -1).toInt() : -1;
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
    const CMessageCommon expected;
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

// Draws until the record with this index comes round, and gives the others back.
CMessageCommon* drawUntil(const CMessageCommon* record)
{
    for (int i = 0; i < 4 * BatchSize; ++i) {
        CMessageCommon* const drawn = pool().getMessageCommon();
        if (drawn == record)
            return drawn;
        pool().freeMessageCommon(drawn);
    }
    return nullptr;
}

} // namespace

class MessageCommonManageTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (recordsMade() == 0)
            QVERIFY(!pool().getMessageCommon());
    }

    void aFreshPool_data()
    {
        QTest::addColumn<QByteArray>("scenario");
        QTest::newRow("grows in batches and hands out first in, first out")
            << QByteArray("freshPool");
        QTest::newRow("is filled by its thread, again at a second start")
            << QByteArray("threadFirst");
        QTest::newRow("is consistent after a batch that failed") << QByteArray("noMemory");
        QTest::newRow("waits for its thread at the end") << QByteArray("endWhileFilling");
    }
    void aFreshPool()
    {
        QFETCH(QByteArray, scenario);
        const ChildResult child = runChild(scenario);
        QVERIFY2(child.exitedNormally, qPrintable(child.log.join('\n')));
        QCOMPARE(child.exitCode, 0);
    }

    void aRecordComesBackAsItsLastUserLeftIt()
    {
        CMessageCommon* const record = pool().getMessageCommon();
        QVERIFY(record);
        record->SetSrcid("src");
        record->SetDstid("dst");
        record->SetType(7);
        record->SetMsg("payload");
        record->setTraceId("trace");
        record->SetSendToNetFlag(true);
        const int index = record->GetIndex();
        pool().freeMessageCommon(record);
        CMessageCommon* const again = drawUntil(record);
        QCOMPARE(again, record);
        QCOMPARE(again->GetIndex(), index);
        QCOMPARE(again->GetSrcid(), QString("src"));
        QCOMPARE(again->GetDstid(), QString("dst"));
        QCOMPARE(again->GetType(), QVariant(7));
        QCOMPARE(again->GetMsg(), QVariant("payload"));
        QCOMPARE(again->traceId(), QString("trace"));
        QVERIFY(again->GetSendToNetFlag());
        pool().freeMessageCommon(again);
    }

    void aRecordThatThePoolCannotHaveMadeIsReportedAndDeleted_data()
    {
        QTest::addColumn<int>("beyond");
        QTest::newRow("the next index") << 0;
        QTest::newRow("far away") << 1000000;
    }
    void aRecordThatThePoolCannotHaveMadeIsReportedAndDeleted()
    {
        QFETCH(int, beyond);
        const int made = recordsMade();
        const LogCapture log;
        bool deleted = false;
        pool().freeMessageCommon(new Foreign(made + beyond, deleted));
        QVERIFY(deleted);
        QCOMPARE(log.records().size(), 1);
        const LogRecord record = log.records().first();
        QCOMPARE(record.level, QtCriticalMsg);
        QCOMPARE(
            record.text,
            QStringLiteral("!!!!!! Error index: %1 ,MaxIndex: %2").arg(made + beyond).arg(made));
        QCOMPARE(record.file, QString("shell/lxbase/MessageCommonManage.cpp"));
        QVERIFY(record.line > 0);
        QVERIFY(record.function.contains("CMessageCommonManage::freeMessageCommon"));
    }

    void aNullRecordIsIgnored()
    {
        const LogCapture log;
        pool().freeMessageCommon(nullptr);
        QCOMPARE(log.lines(), QStringList());
    }

    void aNegativeIndexIsDrawnAsNullOnce()
    {
        const LogCapture log;
        CMessageCommon elsewhere;
        QCOMPARE(elsewhere.GetIndex(), -1);
        pool().freeMessageCommon(&elsewhere);
        int nulls = 0;
        const int made = 2 * BatchSize;
        for (int i = 0; i < made; ++i) { // more than once round
            CMessageCommon* const record = pool().getMessageCommon();
            nulls += record ? 0 : 1;
            pool().freeMessageCommon(record);
        }
        QCOMPARE(nulls, 1);
        QCOMPARE(log.lines(), QStringList());
    }

    void noRecordIsHeldByTwoAtOnce()
    {
        constexpr int Threads = 8;
        constexpr int Rounds = 200000 / Threads;
        constexpr int Held = 3; // records that each thread holds at a time
        std::vector<std::atomic<bool>> taken(recordsMade() + BatchSize);
        std::atomic<int> collisions{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < Threads; ++t) {
            threads.emplace_back([&] {
                std::vector<CMessageCommon*> held;
                const auto giveOneBack = [&] {
                    taken[held.front()->GetIndex()] = false;
                    pool().freeMessageCommon(held.front());
                    held.erase(held.begin());
                };
                for (int i = 0; i < Rounds; ++i) {
                    if (CMessageCommon* const record = pool().getMessageCommon()) {
                        if (taken[record->GetIndex()].exchange(true))
                            ++collisions;
                        held.push_back(record);
                    }
                    if (held.size() > Held)
                        giveOneBack();
                }
                while (!held.empty())
                    giveOneBack();
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(collisions.load(), 0);
    }

    void thePoolDescribesItselfAsAPlainThread()
    {
        const QMetaObject* const meta = pool().metaObject();
        QCOMPARE(meta->className(), "CMessageCommonManage");
        QCOMPARE(meta->superClass(), &QThread::staticMetaObject);
        QCOMPARE(meta->methodCount(), QThread::staticMetaObject.methodCount());
        QCOMPARE(pool().parent(), nullptr);
    }
};

LXTEST_MAIN(MessageCommonManageTest)
#include "tst_MessageCommonManage.moc"
