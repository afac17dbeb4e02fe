// The pool of message records. There is one per process: the tests build on one another.
#include <lxtest/BusTest.h>

#include <lxbase/MessageCommonManage.h>

#include <thread>

using namespace lxtest;

namespace {

constexpr int BatchSize = CMessageCommonManage::BatchSize;

CMessageCommonManage& pool()
{
    return *CMessageCommonManage::GetInstance();
}

} // namespace

class MessageCommonManageTest : public BusTest
{
    Q_OBJECT

    std::vector<CMessageCommon*> m_records; // on loan

private slots:
    void itGrowsInBatchesFirstInFirstOut()
    {
        QVERIFY(!pool().getMessageCommon()); // null, and a batch for the calls that follow
        pool().start();                      // another one
        QVERIFY(pool().wait(deadlineMs));
        const auto take = [&] {
            m_records.push_back(pool().getMessageCommon());
            return m_records.back() ? m_records.back()->GetIndex() : -1;
        };
        for (int index = 0; index < 2 * BatchSize - 1; ++index)
            QCOMPARE(take(), index);
        m_records[7]->SetMsg("payload");
        for (const int index : {7, 3}) // behind what is still free
            pool().freeMessageCommon(m_records[std::size_t(index)]);
        QCOMPARE(take(), 2 * BatchSize - 1);
        QCOMPARE(pool().getMessageCommon(), m_records[7]);
        QCOMPARE(m_records[7]->GetMsg(), QVariant("payload")); // as its last user left it
        QCOMPARE(pool().getMessageCommon(), m_records[3]);
        QVERIFY(!pool().getMessageCommon());
    }

    void aRecordThatThePoolCannotHaveMadeIsReportedAndDeleted()
    {
        auto* const record = new CountedMessage;
        record->SetIndex(3 * BatchSize);
        pool().freeMessageCommon(record);
        QCOMPARE(CountedMessage::alive(), 0);
        QCOMPARE(m_log->lines(),
                 QStringList("critical: !!!!!! Error index: 300000 ,MaxIndex: 300000"));
    }

    void noRecordIsHeldByTwoOrLost()
    {
        for (CMessageCommon* record : m_records)
            pool().freeMessageCommon(record);
        std::atomic<int> ready{0};
        onThreads(4, [&](int) {
            for (++ready; ready < 4;)
                std::this_thread::yield();
            for (int round = 0; round < 200000; ++round)
                pool().freeMessageCommon(pool().getMessageCommon());
        }).clear();
        std::vector<std::atomic<bool>> taken(3 * BatchSize);
        for (std::size_t index = 0; index < taken.size(); ++index) {
            CMessageCommon* const record = pool().getMessageCommon();
            QVERIFY(record && !taken[std::size_t(record->GetIndex())].exchange(true));
        }
    }

    // The end of the process waits for it: a running thread that is destroyed ends with a crash.
    void itsThreadIsLeftRunning() { pool().start(); }
};

LXTEST_MAIN(MessageCommonManageTest)
#include "tst_MessageCommonManage.moc"
