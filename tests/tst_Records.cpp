// The message and event records.
#include <lxdefine/PluginID.h>
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
    void aNewMessageIsEmptyAndBelongsToNoPool()
    {
        CMessageCommon made;
        QCOMPARE(made.GetSrcid(), QString());
        QCOMPARE(made.GetDstid(), QString());
        QVERIFY(!made.GetType().isValid());
        QVERIFY(!made.GetMsg().isValid());
        QVERIFY(!made.GetSendToNetFlag());
        QCOMPARE(made.traceId(), QString());
        QCOMPARE(made.GetIndex(), -1);
        QCOMPARE(CMessageCommon("src", "dst", 1, 2).GetIndex(), -1);
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
        QVERIFY(assigned.GetSrcid().isEmpty() && assigned.GetDstid().isEmpty());
        QVERIFY(!assigned.GetType().isValid() && !assigned.GetMsg().isValid());
        QCOMPARE(&(assigned = original), &assigned);
        CEventMessageCommon& same = assigned;
        assigned = same;
        for (CEventMessageCommon* event : {&copy, &assigned}) {
            QCOMPARE(event->GetSrcid(), QString("src"));
            QCOMPARE(event->GetDstid(), QString("dst"));
            QCOMPARE(event->GetType(), QVariant(7));
            QCOMPARE(event->GetMsg(), QVariant("payload"));
        }
    }

    void theThreadBaseHasNoMetaObjectOfItsOwn()
    {
        QObject parent;
        auto* const thread = new LxThread(&parent);
        QCOMPARE(thread->metaObject(), &QThread::staticMetaObject);
        QCOMPARE(thread->parent(), &parent);
    }

    void theNetPluginHasAnId() { QVERIFY(!PluginID::PLUGINNET_GLOBALID.isEmpty()); }
};

QTEST_GUILESS_MAIN(RecordsTest)
#include "tst_Records.moc"
