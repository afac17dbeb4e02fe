// A desk and an exchange over a link that loses, doubles and reorders, and processes that are
// started again: every order is answered once, and both books agree.
#include <DeskStore.h>
#include <ExchangeStore.h>

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <random>

using lxclient::Error;
using namespace lxlink;

namespace {

OutboxEntry entryOf(quint64 id)
{
    const auto quantity = static_cast<qint64>(id % 2 == 0 ? id : 0 - id);
    return {{QStringLiteral("t-%1").arg(id), id, QStringLiteral("EUR/USD"), quantity},
            QStringLiteral("orders"),
            1000};
}

lxlink::Order orderOf(const OutboxEntry& entry, quint64 epoch)
{
    lxlink::Order order;
    stamp(order);
    order.set_desk("A");
    order.set_epoch(epoch);
    order.set_order_id(entry.order.order_id);
    order.set_trace_id(entry.order.trace_id.toStdString());
    order.set_symbol(entry.order.symbol.toStdString());
    order.set_quantity(entry.order.quantity);
    return order;
}

template<class Store>
void reopen(std::unique_ptr<Store>& store, const QString& fileName)
{
    store.reset(); // as after a crash: nothing is told to the store before
    store = std::make_unique<Store>();
    const Error error = store->open(fileName);
    QVERIFY2(!error, qPrintable(error.words()));
}

} // namespace

class TestLinkStores : public QObject
{
    Q_OBJECT
private slots:
    void everyOrderIsAnsweredOnceWhateverTheLinkDoes();
    void whatIsNoMessageOfThisVersionIsRefused_data();
    void whatIsNoMessageOfThisVersionIsRefused();
    void anUnknownFieldIsPassedOver();
    void anAnswerThatNobodyHasKeptComesAgainInTheNextSession();
    void aStoreBelongsToOneProcessAndOneRole();
};

void TestLinkStores::everyOrderIsAnsweredOnceWhateverTheLinkDoes()
{
    const quint32 seed = QRandomGenerator::system()->generate();
    qInfo("seed %u", seed);
    std::mt19937 random(seed);
    const auto chance = [&](unsigned percent) { return random() % 100 < percent; };
    QTemporaryDir folder;
    std::unique_ptr<DeskStore> desk;
    std::unique_ptr<ExchangeStore> exchange;
    reopen(desk, folder.filePath("desk"));
    reopen(exchange, folder.filePath("exchange"));

    constexpr quint64 Orders = 200;
    quint64 put = 0;
    QMap<quint64, int> returned; // how often, by order
    QVector<lxlink::Order> toExchange;
    QVector<Answer> toDesk;
    const auto fill = [](const lxlink::Order& order) {
        ExchangeStore::Fill fill{{11000, 4}, 5, QString()};
        if (order.order_id() % 7 == 0)
            fill.refusal = QStringLiteral("no");
        return fill;
    };
    for (int round = 0; put < Orders || desk->counts().open > 0; ++round) {
        QVERIFY2(round < 10000, "the orders are never all answered");
        if (put < Orders && chance(60)) {
            QCOMPARE(desk->firstOrder() <= put + 1, true);
            QVERIFY(!desk->add({entryOf(++put)}));
        }
        if (chance(5))
            reopen(desk, folder.filePath("desk"));
        if (chance(5))
            reopen(exchange, folder.filePath("exchange"));
        QVector<OutboxEntry> open;
        QVERIFY(!desk->openOrders(open));
        for (const OutboxEntry& entry : qAsConst(open)) {
            for (int copies = 0; copies < 2; ++copies) {
                if (chance(40))
                    toExchange.append(orderOf(entry, desk->epoch()));
            }
        }
        std::shuffle(toExchange.begin(), toExchange.end(), random);
        QVector<Answer> answers;
        QVERIFY(!exchange->take(toExchange, {"s", quint64(round)}, fill, answers));
        toExchange.clear();
        if (chance(10)) { // the desk asks
            const quint64 from = desk->exchangeEpoch() ? desk->nextNumber() : 1;
            QVERIFY(!exchange->answersFrom("A", from, 1000, answers));
        }
        for (const Answer& answer : qAsConst(answers)) {
            for (int copies = 0; copies < 2; ++copies) {
                if (chance(50))
                    toDesk.append(answer);
            }
        }
        std::shuffle(toDesk.begin(), toDesk.end(), random);
        QVector<Returned> fresh;
        QVERIFY(!desk->receive(toDesk, {"s", quint64(round)}, fresh));
        toDesk.clear();
        for (const Returned& answer : qAsConst(fresh)) {
            const quint64 id = answer.execution.order.order_id;
            ++returned[id];
            QCOMPARE(answer.refusal, id % 7 == 0 ? QStringLiteral("no") : QString());
            QCOMPARE(answer.execution.order.quantity, entryOf(id).order.quantity);
        }
    }
    QCOMPARE(quint64(returned.size()), Orders);
    for (auto times = returned.constBegin(); times != returned.constEnd(); ++times)
        QVERIFY2(*times == 1, qPrintable(QStringLiteral("order %1").arg(times.key())));
    QCOMPARE(desk->counts().put, Orders - Orders / 7);
    QCOMPARE(desk->counts().answered, exchange->executed().value("A"));
    QCOMPARE(desk->counts().refused, exchange->refused().value("A"));
    // the numbers have no gap, and the desk gets to know them all
    QVector<Answer> all;
    QVERIFY(!exchange->answersFrom("A", 1, 1000, all));
    QVector<Returned> none;
    QVERIFY(!desk->receive(all, {}, none));
    QVERIFY(none.isEmpty());
    QVERIFY(!desk->hasGap());
    QCOMPARE(desk->nextNumber(), Orders + 1);
}

void TestLinkStores::whatIsNoMessageOfThisVersionIsRefused_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QString>("said");
    lxlink::Order order = orderOf(entryOf(1), 1);
    order.mutable_version()->set_major(Major + 1);
    const std::string foreign = order.SerializeAsString();
    QTest::newRow("another version") << QByteArray::fromStdString(foreign) << "version 2";
    QTest::newRow("cut off") << QByteArray::fromStdString(foreign).chopped(3) << "garbage";
    QTest::newRow("garbage") << QByteArray(40, '\xff') << "garbage";
    QTest::newRow("nothing") << QByteArray() << "version 0";
}

void TestLinkStores::whatIsNoMessageOfThisVersionIsRefused()
{
    QFETCH(QByteArray, data);
    QFETCH(QString, said);
    lxlink::Order order;
    const Error error = read(data.constData(), data.size(), order);
    QVERIFY2(error.words().contains(said), qPrintable(error.words()));
}

void TestLinkStores::anUnknownFieldIsPassedOver()
{
    std::string data = orderOf(entryOf(1), 1).SerializeAsString();
    data += std::string("\xfa\x3f\x03new", 6); // field 1023, a text
    lxlink::Order order;
    QVERIFY(!read(data.data(), int(data.size()), order));
    QCOMPARE(order.order_id(), quint64(1));
}

void TestLinkStores::anAnswerThatNobodyHasKeptComesAgainInTheNextSession()
{
    QTemporaryDir folder;
    std::unique_ptr<DeskStore> desk;
    reopen(desk, folder.filePath("desk"));
    QVERIFY(!desk->add({entryOf(1), entryOf(2), entryOf(3)}));
    QVector<Returned> returned;
    QVERIFY(!desk->refuse(1, "a", returned));
    QVERIFY(!desk->refuse(2, "b", returned));
    QVERIFY(!desk->settle({1}));
    reopen(desk, folder.filePath("desk"));
    QCOMPARE(desk->firstOrder(), quint64(4));
    QVector<Returned> left;
    QVERIFY(!desk->unsettled(left));
    QCOMPARE(left.size(), 1);
    QCOMPARE(left.first().execution.order.order_id, quint64(2));
    QCOMPARE(left.first().refusal, QStringLiteral("b"));
}

void TestLinkStores::aStoreBelongsToOneProcessAndOneRole()
{
    QTemporaryDir folder;
    const QString name = folder.filePath("store");
    auto desk = std::make_unique<DeskStore>();
    QVERIFY(!desk->open(name));
    QVERIFY(DeskStore().open(name).words().contains("locked"));
    desk.reset();
    QVERIFY(ExchangeStore().open(name).words().contains("no store of an exchange"));
}

QTEST_GUILESS_MAIN(TestLinkStores)
#include "tst_LinkStores.moc"
