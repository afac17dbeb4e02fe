// The message and event records.
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>
#include <lxutils/LxThread.h>

#include <QtTest>

#include <type_traits>

static_assert(std::has_virtual_destructor_v<CMessageCommon>);
static_assert(std::has_virtual_destructor_v<CEventMessageCommon>);
static_assert(std::has_virtual_destructor_v<LxThread>);
static_assert(!std::is_copy_assignable_v<CMessageCommon>);
static_assert(sizeof(LxThread) == sizeof(QThread));

class RecordsTest : public QObject
{
    Q_OBJECT

private slots:
    void aMessageBelongsToNoPoolAndNamesNoNetUnlessToldTo()
    {
        const CMessageCommon empty;
        QCOMPARE(empty.GetIndex(), -1);
        CMessageCommon made("src", "dst", 1, 2);
        QCOMPARE(made.GetIndex(), -1);
        QVERIFY(!made.GetSendToNetFlag());
    }

    void aCopyOfAMessageHasEveryFieldTheIndexIncluded()
    {
        CMessageCommon original("src", "dst", 7, "payload");
        original.SetSendToNetFlag(true);
        original.setTraceId("trace");
        original.SetIndex(42);
        CMessageCommon copy(original);
        original.SetSrcid("changed");
        QCOMPARE(copy.GetSrcid(), QString("src"));
        QCOMPARE(copy.GetDstid(), QString("dst"));
        QCOMPARE(copy.GetType(), QVariant(7));
        QCOMPARE(copy.GetMsg(), QVariant("payload"));
        QVERIFY(copy.GetSendToNetFlag());
        QCOMPARE(copy.traceId(), QString("trace"));
        QCOMPARE(copy.GetIndex(), 42);
    }

    void anEventIsCopiedAndAssignedFieldByField()
    {
        CEventMessageCommon original("src", "dst", 7, "payload");
        CEventMessageCommon copy(original);
        CEventMessageCommon assigned;
        assigned = original;
        for (CEventMessageCommon* event : {&copy, &assigned}) {
            QCOMPARE(event->GetSrcid(), QString("src"));
            QCOMPARE(event->GetDstid(), QString("dst"));
            QCOMPARE(event->GetType(), QVariant(7));
            QCOMPARE(event->GetMsg(), QVariant("payload"));
        }
    }
};

QTEST_GUILESS_MAIN(RecordsTest)
#include "tst_Records.moc"
