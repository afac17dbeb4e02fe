// Who subscribed to what: the table alone, without plugins and threads.
#include <lxbase/MessageInterface.h>
#include <lxbase/SubscriptionTable.h>

#include <QtTest>

#include <random>

using lxbase::detail::SubscriptionTable;

namespace {

constexpr int Add = IMessageInterface::OperAdd;
constexpr int Remove = IMessageInterface::OperRemove;

// A table with maps of its own.
struct Subscriptions
{
    ~Subscriptions() { table.clear(); }

    QStringList to(const QVariant& type) const
    {
        QStringList ids;
        table.forEachSubscriber(type, [&](const QString& id) { ids << id; });
        return ids;
    }

    SubscriptionTable::IdsByType idsByType;
    SubscriptionTable::IdsByInt idsByInt;
    SubscriptionTable::TypesById typesById;
    QMutex idsMutex;
    QMutex typesMutex;
    SubscriptionTable table{idsByType, idsByInt, idsMutex, typesById, typesMutex};
};

} // namespace

class SubscriptionTableTest : public QObject
{
    Q_OBJECT

private slots:
    // What an ordered map gives at the moment of the put, whatever was looked up before. Kinds that
    // are mixed have no common order, so each new entry may change what is found.
    void aLookUpGivesWhatAnOrderedMapGives()
    {
        const unsigned seed = std::random_device()();
        qInfo("seed %u", seed);
        std::mt19937 random(seed);
        const QVariantList types{5, 9, 10, "5", "9", "10", 9.0, "x", "login", "logout"};
        for (int round = 0; round < 300; ++round) {
            Subscriptions subscriptions;
            QMap<QVariant, QStringList> model;
            for (int step = 0; step < 40; ++step) {
                const QVariant type = types[int(random() % unsigned(types.size()))];
                const QString id(QChar('A' + int(random() % 4)));
                switch (random() % 4) {
                case 0:
                    subscriptions.table.change(id, type, Add);
                    model[type] << id;
                    break;
                case 1:
                    subscriptions.table.change(id, type, Remove);
                    if (model.contains(type))
                        model[type].removeOne(id);
                    break;
                default:
                    QCOMPARE(subscriptions.to(type), model.value(type));
                }
            }
        }
    }

    // Subscribing races with removing everything: whatever the order, the table's sides agree.
    void aRaceLeavesNoHalfSubscription()
    {
        Subscriptions subscriptions;
        constexpr int Rounds = 3000;
        std::unique_ptr<QThread> subscriber(QThread::create([&] {
            for (int round = 0; round < Rounds; ++round)
                subscriptions.table.change("id", round % 3, round % 7 == 6 ? Remove : Add);
        }));
        subscriber->start();
        while (!subscriber->isFinished())
            subscriptions.table.removeAll("id");
        QVERIFY(subscriber->wait(30000));
        subscriptions.table.removeAll("id");
        for (int type = 0; type < 3; ++type)
            QCOMPARE(subscriptions.to(type), QStringList());
        QVERIFY(subscriptions.typesById.isEmpty());
    }
};

QTEST_APPLESS_MAIN(SubscriptionTableTest)
#include "tst_SubscriptionTable.moc"
