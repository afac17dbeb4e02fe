// The queue items are plain records, for whoever keeps, copies or extends them.
#include <lxbase/QueueItems.h>

#include <QtTest>

#include <memory>
#include <new>
#include <type_traits>

Q_DECLARE_METATYPE(MsgQueueItem)
Q_DECLARE_METATYPE(EventQueueItem)

namespace {

// Larger than the memory that is kept for items.
struct Stamped : MsgQueueItem
{
    qint64 times[4];
};
static_assert(std::is_aggregate_v<MsgQueueItem> && std::is_aggregate_v<EventQueueItem>);

} // namespace

class QueueItemsTest : public QObject
{
    Q_OBJECT

private slots:
    void itemsLiveInContainersVariantsAndSharedPointers()
    {
        QVector<MsgQueueItem> messages(3, {"src", 1, "trace", "data"});
        messages.removeFirst();
        const QList<EventQueueItem> events{{"src", 1, "data"}, {"src", 2, "data"}};
        const QVariant variant = QVariant::fromValue(messages.first());
        const auto shared = QSharedPointer<EventQueueItem>::create(events.last());
        QCOMPARE(variant.value<MsgQueueItem>().trace_id, QString("trace"));
        QCOMPARE(shared->type, QVariant(2));
    }

    void everyNewHasItsDelete()
    {
        for (int i = 0; i < 1000; ++i) {
            const std::unique_ptr<MsgQueueItem> plain(new MsgQueueItem{"a", 1, "b", 2});
            const std::unique_ptr<EventQueueItem> unthrown(new (std::nothrow) EventQueueItem);
            const std::unique_ptr<Stamped> larger(new Stamped{*plain, {1, 2, 3, 4}});
            const std::unique_ptr<MsgQueueItem[]> array(new MsgQueueItem[3]);
            QCOMPARE(larger->data, QVariant(2));
            QVERIFY(unthrown && array[2].src_id.isNull());
        }
    }
};

QTEST_APPLESS_MAIN(QueueItemsTest)
#include "tst_QueueItems.moc"
