// The message and event records: a copy has every field.
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QtTest>

class RecordsTest : public QObject
{
    Q_OBJECT

private slots:
    void aMessageIsCopiedWithItsIndex()
    {
        CMessageCommon original("src", "dst", 7, "payload");
        QVERIFY(!original.GetSendToNetFlag());
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

    void anEventIsCopiedAndAssigned()
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
