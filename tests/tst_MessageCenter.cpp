// The center: registration, subscriptions, and what Put delivers to whom; events too where they are
// alike.
#include <lxtest/BusTest.h>

#include <lxbase/MessageWorkerThread.h>
#include <lxbase/SubscriptionTable.h>
#include <lxdefine/PluginID.h>

#include <atomic>
#include <thread>
#include <tuple>

using namespace lxtest;

namespace {

CountedMessage* toNet(CountedMessage* msg, bool flag = true)
{
    msg->SetSendToNetFlag(flag);
    return msg;
}

void addKinds()
{
    QTest::addColumn<Kind>("kind");
    QTest::newRow("message") << M;
    QTest::newRow("quotation") << Q;
    QTest::newRow("event") << E;
}

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

    CSubscriptionTable::IdsByType idsByType;
    CSubscriptionTable::IdsByInt idsByInt;
    CSubscriptionTable::TypesById typesById;
    QMutex idsMutex;
    QMutex typesMutex;
    CSubscriptionTable table{idsByType, idsByInt, idsMutex, typesById, typesMutex};
};

// A look at members of the center, past its access control (which explicit instantiation does not
// apply): the lock of the registry, and an item's trace ID, are shown to nobody else.
template<auto... Members>
struct LookAt
{
    friend auto registry(CMessageCenter& center) { return std::tie(center.*Members...); }
};
auto registry(CMessageCenter& center);
template struct LookAt<&CMessageCenter::m_msg_reg_hash, &CMessageCenter::m_msg_reg_mutex>;

} // namespace

class MessageCenterTest : public BusTest
{
    Q_OBJECT

private slots:
    // ---- registration

    void aRegistrationIsRefusedSideBySide_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<int>("earlier"); // flags registered before for another plugin
        QTest::addColumn<int>("flags");
        QTest::addColumn<int>("refusals");
        QTest::addColumn<int>("accepted"); // of the flags
        const auto row = [](const char* name, const char* id, int earlier, int flags, int refusals,
                            int accepted) {
            QTest::newRow(name) << QString(id) << earlier << flags << refusals << accepted;
        };
        row("nothing asked for", "r0", 0, 0, 0, 0);
        row("no ID, an unknown flag", "", 0, 1, 0, 0);
        row("no ID", "", 0, All, 2, 0);
        row("new", "r1", 0, All, 0, All);
        row("one registry for messages and quotations", "r2", M, Q, 1, 0);
        row("everything twice", "r3", All, All, 2, 0);
        row("events after messages", "r4", M, E, 0, E);
        row("messages again, events new", "r5", M, M | E, 1, E);
    }
    void aRegistrationIsRefusedSideBySide()
    {
        QFETCH(QString, id);
        QFETCH(int, earlier);
        QFETCH(int, flags);
        QFETCH(int, refusals);
        QFETCH(int, accepted);
        Recorder first;
        Recorder second;
        center().Reg(id, &first, Kind(earlier));
        m_log->clear();
        center().Reg(id, &second, Kind(flags));
        QStringList expected{"debug: reg id: \"" + id + "\""};
        while (refusals--) {
            expected << (id.isEmpty()
                             ? "critical: !!!!!!!!  plugin ID is null"
                             : "critical: !!!!!!!!  plugin ID duplicate,ID: \"" + id + "\"");
        }
        QCOMPARE(m_log->lines(), expected);
        for (const Kind kind : {M, Q, E}) {
            if (!id.isEmpty())
                deliverTo(id, kind, 1);
            LX_WAIT_FOR(first.calls(kind).size() == bool(earlier & kind));
            LX_WAIT_FOR(second.calls(kind).size() == bool(accepted & kind));
        }
        m_log->clear();
        center().UnReg(id);
        QCOMPARE(m_log->lines(), QStringList("debug: UnReg id: \"" + id + "\""));
        QCOMPARE(first.count() + second.count(),
                 int(qPopulationCount(quint32(earlier | accepted))));
    }

    void eachKindIsHandledOnAThreadOfItsOwnNamedAfterThePlugin()
    {
        Plugin plugin(All);
        Latch entered(3);
        Latch goOn;
        plugin.onCall([&](const Call&) {
            entered.signal();
            goOn.wait();
        });
        for (const Kind kind : {M, Q, E})
            deliverTo(plugin.id(), kind, 1);
        entered.wait(); // all three at the same time
        for (int i = 0; i < 3; ++i)
            goOn.signal();
        QVERIFY(plugin.waitForCalls(3));
        QCOMPARE(plugin.calls(M).value(0).thread, plugin.id() + "_MessageWorkerThread");
        QCOMPARE(plugin.calls(E).value(0).thread, plugin.id() + "_EventWorkerThread");
        QCOMPARE(plugin.calls(Q).value(0).thread, plugin.id() + "_QuotationWorkerThread");
    }

    void aPluginCanRegisterAgainAndMustSubscribeAgain()
    {
        const int type = uniqueType();
        const QString id = uniqueId();
        {
            Plugin before(id, M | E);
            for (int i = 0; i < 2; ++i) { // both records go
                before.subscribe(type);
                before.subscribeEvent(type);
            }
        }
        Plugin after(id, M | E);
        center().Put("tester", message({}, type, "broadcast"));
        center().PutEvent("tester", makeEvent({}, type, "broadcast"));
        center().Put("tester", message(id, type, "message"));
        center().PutEvent("tester", makeEvent(id, type, "event"));
        QVERIFY(after.settle());
        QCOMPARE(after.payloads(M), QVariantList({"message"}));
        QCOMPARE(after.payloads(E), QVariantList({"event"}));
    }

    void aNullPluginIsRegisteredAndReceivesNothing()
    {
        const QString id = uniqueId();
        center().Reg(id, nullptr, All);
        for (const Kind kind : {M, Q, E})
            deliverTo(id, kind, QVariant::fromValue(CountedPayload()));
        LX_WAIT_FOR(CountedPayload::alive() == 0);
        center().UnReg(id);
        QCOMPARE(m_log->lines("critical") + m_log->lines("warning"), QStringList());
    }

    void theIdlePolicyIsFixedByTheFirstRegistration()
    {
        const Plugin plugin(M);
        m_log->clear();
        center().setIdlePolicy(CMessageCenter::IdlePolicy::Park);
        QCOMPARE(m_log->lines(),
                 QStringList("warning: setIdlePolicy after a registration or Start, refused"));
    }

    // ---- the unregister barrier

    void unRegWaitsForTheHandlerInProgressAndFreesTheRest_data() { addKinds(); }
    void unRegWaitsForTheHandlerInProgressAndFreesTheRest()
    {
        QFETCH(Kind, kind);
        Plugin plugin(All);
        Latch entered;
        Latch goOn;
        std::atomic<bool> unregistered{false};
        std::atomic<bool> unregisteredTooEarly{false};
        plugin.onCall([&](const Call&) {
            entered.signal();
            goOn.wait();
            QThread::msleep(5); // room for an UnReg that does not wait
            unregisteredTooEarly = unregistered.load();
        });
        for (int i = 0; i < 3; ++i)
            deliverTo(plugin.id(), kind, QVariant::fromValue(CountedPayload(i)));
        entered.wait();
        deliverTo(plugin.id(), kind, QVariant::fromValue(CountedPayload(3)));
        std::thread unregisterer([&] {
            plugin.leave();
            unregistered = true;
        });
        // until the put no longer finds it, UnReg has not come to the wait
        LX_WAIT_FOR((deliverTo(plugin.id(), kind, 0), !m_log->lines("warning").isEmpty()));
        goOn.signal();
        unregisterer.join();
        QVERIFY(!unregisteredTooEarly);
        QCOMPARE(plugin.count(), 1);          // the handler has ended
        QCOMPARE(CountedPayload::alive(), 1); // the recorded one
    }

    // Else UnReg could release the inbox between the look-up and the append.
    void aPutHoldsTheRegistryUntilItsItemIsInTheInbox()
    {
        Plugin plugin(M);
        const auto [records, registryMutex] = registry(center());
        QMutex* const inboxMutex = records.value(plugin.id())->msg_mutex;
        inboxMutex->lock();
        std::thread producer([&] { deliverTo(plugin.id(), M, 1); });
        const bool held = waitUntil([mutex = &registryMutex] {
            const bool isFree = mutex->tryLock();
            if (isFree)
                mutex->unlock();
            return !isFree;
        });
        inboxMutex->unlock();
        producer.join();
        QVERIFY(held);
        QVERIFY(plugin.waitForCalls(1));
    }

    void noHandlerIsEnteredAfterUnRegHasReturned()
    {
        const int type = uniqueType();
        center().SubEvent("nobody", 0x30005, 1); // else each event without subscriber is logged
        std::atomic<bool> producing{true};
        std::thread producer([&] {
            while (producing) {
                center().Put("tester", message({}, type, 1));
                center().PutEvent("tester", makeEvent({}, 0x30005, 1));
            }
        });
        std::atomic<bool> gone{false};
        std::atomic<int> callsAfterEnd{0};
        bool received = true;
        for (int round = 0; round < 50 && received; ++round) {
            Plugin plugin(M | E);
            plugin.onCall([&](const Call&) { callsAfterEnd += gone; });
            plugin.subscribe(type);
            plugin.subscribeEvent(0x30005);
            received = plugin.waitForCalls(2);
            plugin.leave();
            gone = true;
            std::this_thread::yield();
            gone = false;
        }
        producing = false;
        producer.join();
        center().SubEvent("nobody", 0x30005, 2);
        QVERIFY2(received, "nothing received in time");
        QCOMPARE(callsAfterEnd.load(), 0);
    }

    void unRegFromAHandlerOfThePluginItselfIsRefused_data() { addKinds(); }
    void unRegFromAHandlerOfThePluginItselfIsRefused()
    {
        QFETCH(Kind, kind);
        Plugin plugin(All);
        plugin.onCall([&](const Call& call) {
            if (call.data == 1)
                center().UnReg(plugin.id());
        });
        m_log->clear();
        deliverTo(plugin.id(), kind, 1);
        deliverTo(plugin.id(), kind, 2);
        QVERIFY(plugin.waitForCalls(2));
        const QString id = '"' + plugin.id() + '"';
        QCOMPARE(m_log->lines(),
                 QStringList(
                     {"debug: UnReg id: " + id,
                      "critical: UnReg from a handler of the plugin itself, refused, ID: " + id}));
    }

    void aHandlerMayUnregisterAnotherPlugin()
    {
        Plugin other(M);
        Plugin plugin(M);
        plugin.onCall([&](const Call&) { other.leave(); });
        deliverTo(plugin.id(), M, 1);
        QVERIFY(plugin.waitForCalls(1));
        deliverTo(other.id(), M, 1);
        QCOMPARE(m_log->lines("warning").size(), 1);
    }

    // ---- who receives what

    void aDirectMessageReachesItsDestinationAlone()
    {
        const int type = uniqueType();
        Plugin sender(M);
        Plugin receiver(All);
        Plugin subscriber(M);
        Plugin net(PluginID::PLUGINNET_GLOBALID, M);
        subscriber.subscribe(type);
        center().Put(sender.id(), toNet(message(receiver.id(), type, "payload")));
        for (Plugin* plugin : {&sender, &receiver, &subscriber, &net})
            QVERIFY(plugin->settle());
        QCOMPARE(receiver.count(), 1);
        const Call call = receiver.calls().first();
        QCOMPARE(call.kind, M);
        QCOMPARE(call.srcId, sender.id()); // not the source field of the record
        QCOMPARE(call.type, QVariant(type));
        QCOMPARE(call.data, QVariant("payload"));
        QCOMPARE(sender.count() + subscriber.count() + net.count(), 0);
    }

    // The plugins are "a", "b" and the net plugin "n"; "u" subscribes without being registered, "q"
    // is registered for quotations only, "x" is nobody. Messages and events alike, save that the
    // flag is a matter of messages.
    void aBroadcastReachesTheSubscribersButNotItsSender_data()
    {
        QTest::addColumn<QString>("subscribers"); // in order; "-x" ends one, "?x" and "!x" nothing
        QTest::addColumn<QString>("sender");
        QTest::addColumn<bool>("sendToNet");
        QTest::addColumn<QVector<int>>("received"); // by a, b, n
        const auto row = [](const char* name, const char* subscribers, const char* sender,
                            bool sendToNet, const QVector<int>& received) {
            QTest::newRow(name) << subscribers << sender << sendToNet << received;
        };
        row("nobody subscribed", "", "a", false, {0, 0, 0});
        row("the sender too", "a b", "a", false, {0, 1, 0});
        row("a stranger sends", "a b", "x", false, {1, 1, 0});
        row("twice", "b b", "a", false, {0, 2, 0});
        row("twice, one ended", "b b -b", "a", false, {0, 1, 0});
        row("ended", "b -b", "a", false, {0, 0, 0});
        row("ended once too often", "a b -b -b", "x", false, {1, 0, 0});
        row("unknown operations", "?a !a b ?b !b", "x", false, {0, 1, 0});
        row("unregistered between", "u a u b", "x", false, {1, 1, 0});
        row("without inbox between", "q a q b", "x", false, {1, 1, 0});
        row("net alone", "", "a", true, {0, 0, 1});
        row("net beside", "b", "a", true, {0, 1, 1});
        row("net subscribed too", "n", "a", true, {0, 0, 2});
        row("net subscribed, no flag", "n", "a", false, {0, 0, 1});
        row("net sends", "a n", "n", true, {1, 0, 1});
        row("net sends, no flag", "a n", "n", false, {1, 0, 0});
    }
    void aBroadcastReachesTheSubscribersButNotItsSender()
    {
        QFETCH(QString, subscribers);
        QFETCH(QString, sender);
        QFETCH(bool, sendToNet);
        QFETCH(QVector<int>, received);
        const int type = uniqueType();
        Plugin a(M | E);
        Plugin b(M | E);
        Plugin net(PluginID::PLUGINNET_GLOBALID, M | E);
        Plugin quotationsOnly(Q);
        const QMap<QString, QString> ids{{"a", a.id()},   {"b", b.id()},
                                         {"n", net.id()}, {"q", quotationsOnly.id()},
                                         {"u", "nobody"}, {"x", "stranger"}};
        const QMap<QChar, int> opers{{'-', 2}, {'?', 3}, {'!', 0}};
        for (const QString& who : subscribers.split(' ', Qt::SkipEmptyParts)) {
            center().Sub(ids.value(who.right(1)), type, opers.value(who[0], 1));
            center().SubEvent(ids.value(who.right(1)), type, opers.value(who[0], 1));
        }
        center().Put(ids.value(sender), toNet(message({}, type, "payload"), sendToNet));
        center().PutEvent(ids.value(sender), makeEvent({}, type, "payload"));
        for (Plugin* plugin : {&a, &b, &net, &quotationsOnly}) {
            QVERIFY(plugin->settle());
            const int expected = plugin == &quotationsOnly ? 0 : received.takeFirst();
            QCOMPARE(plugin->payloads(M), QVector<QVariant>(expected, "payload").toList());
            QCOMPARE(plugin->calls(E).size(), expected - (plugin == &net && sendToNet));
            QCOMPARE(plugin->calls(Q).size(), 0);
        }
        QCOMPARE(m_log->lines("warning"), QStringList());
    }

    void onlyAnUnknownDestinationIsReported()
    {
        const int type = uniqueType();
        Plugin subscriber(M);
        Plugin onlyEvents(E);
        Plugin withoutInbox(Q | E);
        subscriber.subscribe(type);
        m_log->clear();
        center().Put("tester", nullptr);
        center().Put("tester", toNet(message({}, uniqueType()))); // there is no net plugin
        center().Put("tester", message(withoutInbox.id(), type));
        QCOMPARE(m_log->lines(), QStringList());
        center().Put("tester", message("nobody", type));
        center().Put("tester", message(onlyEvents.id(), type));
        const QString text = "warning: \"origin\"  Put msg to  \"%1\"  failed!! because not find  "
                             "\"%1\"";
        QCOMPARE(m_log->lines(), QStringList({text.arg("nobody"), text.arg(onlyEvents.id())}));
        QCOMPARE(CountedMessage::alive(), 0);
        for (Plugin* plugin : {&subscriber, &onlyEvents, &withoutInbox}) {
            QVERIFY(plugin->settle());
            QCOMPARE(plugin->count(), 0);
        }
    }

    // The framework's comparison of variants decides, whatever kind came first.
    void typesThatCompareEqualShareTheirSubscribers()
    {
        const int type = uniqueType();
        const int later = uniqueType();
        Plugin plugin(M | E);
        for (const QVariant& subscribed : {QVariant(type), QVariant(QString::number(later))}) {
            plugin.subscribe(subscribed);
            plugin.subscribeEvent(subscribed);
        }
        for (const int number : {type, later, type}) {
            for (const QVariant& put : {QVariant(number), QVariant(QString::number(number))}) {
                center().Put("tester", message({}, put, number));
                center().PutEvent("tester", makeEvent({}, put, number));
            }
        }
        plugin.subscribe(QString::number(type), 2);
        plugin.subscribeEvent(QString::number(type), 2);
        center().Put("tester", message({}, type, 0));
        center().PutEvent("tester", makeEvent({}, type, 0));
        QVERIFY(plugin.settle());
        const QVariantList expected{type, type, later, later, type, type};
        QCOMPARE(plugin.payloads(M), expected);
        QCOMPARE(plugin.payloads(E), expected);
    }

    void wordsThatDifferAreTypesThatDiffer()
    {
        Subscriptions subscriptions;
        subscriptions.table.change("a", "login", 1);
        subscriptions.table.change("b", "logout", 1);
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(subscriptions.to("login"), QStringList("a"));
            QCOMPARE(subscriptions.to("logout"), QStringList("b"));
        }
    }

    // Else a plugin that subscribes and unsubscribes all day would fill the memory.
    void anEndedSubscriptionIsForgottenOnBothSides()
    {
        Subscriptions subscriptions;
        subscriptions.table.change("id", 1, 1);
        subscriptions.table.change("id", 1, 2);
        QCOMPARE(subscriptions.to(1), QStringList());
        QVERIFY(subscriptions.typesById.value("id")->isEmpty());
        subscriptions.table.removeAll("id");
        QVERIFY(subscriptions.typesById.isEmpty());
    }

    void everyReceiverGetsWhatOneSenderPutsInOrder()
    {
        const int type = uniqueType();
        Plugin a(M | E);
        Plugin b(M | E);
        for (Plugin* plugin : {&a, &b}) {
            plugin->subscribe(type);
            plugin->subscribeEvent(type);
        }
        QVariantList expected;
        for (int i = 0; i < 1000; ++i) {
            expected << i;
            for (const QString& dst : i % 3 ? QStringList("") : QStringList({a.id(), b.id()})) {
                center().Put("tester", message(dst, type, i));
                center().PutEvent("tester", makeEvent(dst, type, i));
            }
        }
        for (Plugin* plugin : {&a, &b}) {
            QVERIFY(plugin->settle());
            QCOMPARE(plugin->payloads(M), expected);
            QCOMPARE(plugin->payloads(E), expected);
        }
    }

    void aHandlerThatPutsToItsOwnPluginIsNotEnteredTwice_data() { addKinds(); }
    void aHandlerThatPutsToItsOwnPluginIsNotEnteredTwice()
    {
        QFETCH(Kind, kind);
        Plugin plugin(All);
        std::atomic<int> depth{0};
        std::atomic<int> deepest{0};
        plugin.onCall([&](const Call& call) {
            deepest = qMax(deepest.load(), ++depth);
            if (call.data.toInt() < 100)
                deliverTo(plugin.id(), kind, call.data.toInt() + 1);
            --depth;
        });
        deliverTo(plugin.id(), kind, 1);
        QVERIFY(plugin.waitForCalls(100));
        QVERIFY(plugin.settle());
        QCOMPARE(deepest.load(), 1);
        QCOMPARE(plugin.count(), 100);
        QCOMPARE(plugin.calls(kind).last().data, QVariant(100));
    }

    void theTraceIdTravelsWithMessagesButNotWithQuotations()
    {
        Plugin plugin(M | Q);
        Latch busy(2);
        Latch goOn;
        plugin.onCall([&](const Call& call) {
            if (call.data == "first") {
                busy.signal();
                goOn.wait();
            }
        });
        deliverTo(plugin.id(), M, "first");
        deliverTo(plugin.id(), Q, "first");
        busy.wait(); // what is put now stays in the inboxes
        const auto traced = [&] {
            CountedMessage* const msg = message(plugin.id(), 1, "payload");
            msg->setTraceId("trace");
            return msg;
        };
        center().Put("tester", traced());
        center().ProcessMsgByNetPut(Reference(traced()));
        center().ProcessQuotationMsg(Reference(traced()));

        const auto tracesIn = [](const QVector<MsgQueueItem*>& inbox) {
            QStringList traces;
            for (const MsgQueueItem* item : inbox)
                traces << item->src_id + ':' + item->trace_id;
            return traces;
        };
        const MsgRegInfo* const record = std::get<0>(registry(center())).value(plugin.id());
        const QStringList messages = tracesIn(*record->msg_list);
        const QStringList quotations = tracesIn(*record->quotation_list);
        goOn.signal();
        goOn.signal();
        QCOMPARE(messages, QStringList({"tester:trace", PluginID::PLUGINNET_GLOBALID + ":trace"}));
        QCOMPARE(quotations, QStringList(PluginID::PLUGINNET_GLOBALID + ':'));
        QVERIFY(plugin.waitForCalls(5));
    }

    void oddIdsAndTypesDoNoHarm_data()
    {
        QTest::addColumn<QString>("id");
        QTest::newRow("null") << QString();
        QTest::newRow("empty") << QString("");
        QTest::newRow("separator") << QString("#");
        QTest::newRow("with zeros") << QString(3, QChar(0));
        QTest::newRow("lone surrogate") << QString(QChar(0xd800));
        QTest::newRow("huge") << QString(200000, 'x');
    }
    void oddIdsAndTypesDoNoHarm()
    {
        QFETCH(QString, id);
        Recorder plugin;
        center().Sub(id, 1, 2); // never subscribed
        center().SubEvent(id, 1, 2);
        center().UnReg(id); // never registered
        // the second is not equal to itself
        for (const QVariant& type : {QVariant(uniqueType()), QVariant(qQNaN()), QVariant()}) {
            center().Reg(id, &plugin, All);
            center().Sub(id, type, 1);
            center().SubEvent(id, type, 1);
            center().setRelation(id, id, type.toInt(), RELATION_RED, 1);
            for (const QString& dst : {id, QString()}) {
                center().Put(id, toNet(message(dst, type, id)));
                center().PutEvent(id, makeEvent(dst, type, id, id));
                center().ProcessMsgByNetPut(Reference(message(dst, type, id)));
                center().ProcessQuotationMsg(Reference(message(dst, type, id)));
            }
            center().setRelation(id, id, type.toInt(), RELATION_RED, 2);
            center().Sub(id, type, 2);
            center().SubEvent(id, type, 2);
            center().UnReg(id);
            center().UnReg(id);
        }
        const int refusals = id.isEmpty() ? 6 : 0; // three rounds, both sides
        QCOMPARE(m_log->lines("critical").size(), refusals);
    }
};

LXTEST_MAIN(MessageCenterTest)
#include "tst_MessageCenter.moc"
