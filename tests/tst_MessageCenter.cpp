// The center: registration, the unregister barrier, subscriptions, and who gets a broadcast of a
// message; events too where they are alike.
#include <lxtest/BusTest.h>

#include <lxbase/MessageWorkerThread.h>
#include <lxbase/QuotationWorkerThread.h>
#include <lxbase/SubscriptionTable.h>
#include <lxdefine/PluginID.h>

#include <atomic>
#include <thread>
#include <tuple>

using namespace lxtest;

namespace {

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

    lxbase::detail::SubscriptionTable::IdsByType idsByType;
    lxbase::detail::SubscriptionTable::IdsByInt idsByInt;
    lxbase::detail::SubscriptionTable::TypesById typesById;
    QMutex idsMutex;
    QMutex typesMutex;
    lxbase::detail::SubscriptionTable table{idsByType, idsByInt, idsMutex, typesById, typesMutex};
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
        QTest::addColumn<int>("earlier"); // flags registered before for another plugin
        QTest::addColumn<int>("flags");
        QTest::addColumn<int>("accepted"); // of the flags
        QTest::addColumn<int>("refusals");
        const auto row = [](const char* name, int earlier, int flags, int accepted, int refusals) {
            QTest::newRow(name) << earlier << flags << accepted << refusals;
        };
        row("an unknown flag", 0, 1, 0, 0);
        row("new", 0, All, All, 0);
        row("one registry for messages and quotations", M, Q, 0, 1);
        row("everything twice", All, All, 0, 2);
        row("events after messages", M, E, E, 0);
        row("messages again, events new", M, M | E, E, 1);
    }
    void aRegistrationIsRefusedSideBySide()
    {
        QFETCH(int, earlier);
        QFETCH(int, flags);
        QFETCH(int, accepted);
        QFETCH(int, refusals);
        const QString id = uniqueId();
        Recorder first;
        Recorder second;
        center().Reg(id, &first, Kind(earlier));
        center().Reg(id, &second, Kind(flags));
        QCOMPARE(m_log->lines("critical").size(), refusals);
        const QMap<Kind, QString> threads{
            {M, "_MessageWorkerThread"}, {Q, "_QuotationWorkerThread"}, {E, "_EventWorkerThread"}};
        for (const Kind kind : {M, Q, E}) {
            deliverTo(id, kind, 1);
            LX_WAIT_FOR(first.calls(kind).size() == bool(earlier & kind));
            LX_WAIT_FOR(second.calls(kind).size() == bool(accepted & kind));
            for (const Call& call : first.calls(kind) + second.calls(kind))
                QCOMPARE(call.thread, id + threads[kind]);
        }
        center().UnReg(id);
        QCOMPARE(first.count() + second.count(),
                 int(qPopulationCount(quint32(earlier | accepted))));
    }

    void aPluginThatRegistersAgainMustSubscribeAgain()
    {
        const int type = uniqueType();
        const QString id = uniqueId();
        for (int life = 0; life < 2; ++life) {
            Plugin plugin(id, M | E);
            center().Put("tester", message({}, type));
            center().PutEvent("tester", makeEvent({}, type));
            QVERIFY(plugin.settle());
            QCOMPARE(plugin.count(), 0);
            for (int i = 0; i < 2; ++i) { // both records go
                plugin.subscribe(type);
                plugin.subscribeEvent(type);
            }
        }
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
        const auto deliver = [&](int count) {
            while (count--)
                deliverTo(plugin.id(), kind, QVariant::fromValue(CountedPayload()));
        };
        deliver(1);
        entered.wait();
        deliver(3);
        goOn.signal();
        entered.wait(); // for the first of the three: the others are in its batch
        deliver(1);
        std::thread unregisterer([&] {
            plugin.leave();
            unregistered = true;
        });
        // until the put no longer finds it, UnReg has not come to the wait
        LX_WAIT_FOR((deliverTo(plugin.id(), kind, 0), !m_log->lines("warning").isEmpty()));
        goOn.signal();
        unregisterer.join();
        QVERIFY(!unregisteredTooEarly);
        QCOMPARE(plugin.count(), 2);          // the handler has ended
        QCOMPARE(CountedPayload::alive(), 2); // the recorded ones
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

    void aHandlerMayUnregisterAnyPluginButItsOwn()
    {
        for (const Kind kind : {M, Q, E}) {
            Plugin other(kind);
            Plugin plugin(kind);
            plugin.onCall([&](const Call&) {
                other.leave();
                center().UnReg(plugin.id());
            });
            m_log->clear();
            deliverTo(plugin.id(), kind, 1);
            QVERIFY(plugin.waitForCalls(1));
            QVERIFY(plugin.settle());
            QCOMPARE(m_log->lines("critical"),
                     QStringList("critical: UnReg from a handler of the plugin itself, refused, "
                                 "ID: \""
                                 + plugin.id() + '"'));
            deliverTo(other.id(), kind, 1);
            QCOMPARE(m_log->lines("warning").size(), 1);
        }
    }

    // ---- who receives what

    // The plugins are "a", "b" and the net plugin "n"; "u" subscribes without being registered, "q"
    // is registered for quotations only, "x" is nobody. Messages and events alike, save that the
    // flag is a matter of messages.
    void aPutReachesItsDestinationOrTheSubscribersButNotItsSender_data()
    {
        QTest::addColumn<QString>("subscribers"); // in order; "-x" ends one, "?x" and "!x" nothing
        QTest::addColumn<QString>("sender");
        QTest::addColumn<bool>("sendToNet");
        QTest::addColumn<QVector<int>>("received"); // by a, b, n
        QTest::addColumn<QString>("destination");
        const auto row = [](const char* name, const char* subscribers, const char* sender,
                            bool sendToNet, const QVector<int>& received,
                            const char* destination = "") {
            QTest::newRow(name) << subscribers << sender << sendToNet << received << destination;
        };
        row("the sender too", "a b", "a", false, {0, 1, 0});
        row("a stranger sends", "a b", "x", false, {1, 1, 0});
        row("twice, one ended", "b b b -b", "a", false, {0, 2, 0});
        row("ended once too often", "a b -b -b", "x", false, {1, 0, 0});
        row("unknown operations", "?a !a b ?b !b", "x", false, {0, 1, 0});
        row("unregistered between", "u a u b", "x", false, {1, 1, 0});
        row("without inbox between", "q a q b", "x", false, {1, 1, 0});
        row("net beside", "b", "a", true, {0, 1, 1});
        row("net subscribed too", "n", "a", true, {0, 0, 2});
        row("net sends", "a n", "n", true, {1, 0, 1});
        row("directed", "a b n", "a", true, {0, 1, 0}, "b");
        row("directed to oneself", "a b", "a", false, {1, 0, 0}, "a");
    }
    void aPutReachesItsDestinationOrTheSubscribersButNotItsSender()
    {
        QFETCH(QString, subscribers);
        QFETCH(QString, sender);
        QFETCH(bool, sendToNet);
        QFETCH(QVector<int>, received);
        QFETCH(QString, destination);
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
        const QString dst = ids.value(destination);
        CountedMessage* const msg = message(dst, type, "payload");
        if (sendToNet)
            msg->SetSendToNetFlag(true);
        center().Put(ids.value(sender), msg);
        center().PutEvent(ids.value(sender), makeEvent(dst, type, "payload", b.id()));
        for (Plugin* plugin : {&a, &b, &net, &quotationsOnly}) {
            QVERIFY(plugin->settle());
            const int expected = plugin == &quotationsOnly ? 0 : received.takeFirst();
            QCOMPARE(plugin->payloads(M), QVector<QVariant>(expected, "payload").toList());
            const bool byFlag = plugin == &net && sendToNet && dst.isEmpty();
            QCOMPARE(plugin->calls(E).size(), expected - byFlag);
            QCOMPARE(plugin->calls(Q).size(), 0);
            for (const Call& call : plugin->calls())
                QCOMPARE(call.srcId, ids.value(sender)); // not what the record names
        }
        QCOMPARE(m_log->lines("warning"), QStringList());
    }

    // The framework's comparison of variants decides, whatever kind came first.
    void typesThatCompareEqualShareTheirSubscribers()
    {
        Subscriptions subscriptions;
        subscriptions.table.change("a", 1, 1);
        subscriptions.table.change("b", "2", 1);
        for (int i = 0; i < 2; ++i) { // the first look may keep what the second finds
            for (const QVariant& one : {QVariant(1), QVariant("1")})
                QCOMPARE(subscriptions.to(one), QStringList("a"));
            for (const QVariant& two : {QVariant(2), QVariant("2")})
                QCOMPARE(subscriptions.to(two), QStringList("b"));
        }
        subscriptions.table.change("a", "1", 2);
        QCOMPARE(subscriptions.to(1), QStringList());
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
        QVERIFY(subscriptions.idsByType.value(1)->isEmpty());
        QVERIFY(subscriptions.typesById.value("id")->isEmpty());
        subscriptions.table.change("id", qQNaN(), 1); // not equal to itself
        subscriptions.table.removeAll("id");
        QVERIFY(subscriptions.typesById.isEmpty());
    }

    // The items are freed with the inbox.
    void theTraceIdTravelsWithMessagesButNotWithQuotations()
    {
        const Plugin plugin(M | Q);
        const MsgRegInfo& record = *std::get<0>(registry(center())).value(plugin.id());
        for (CInboxWorkerBase* worker :
             std::initializer_list<CInboxWorkerBase*>{record.msg_thread, record.quotation_thread}) {
            worker->setStop(true); // what is put now stays in the inbox
            QVERIFY(worker->wait(deadlineMs));
        }
        const auto traced = [&] {
            CountedMessage* const msg =
                message(plugin.id(), 1, QVariant::fromValue(CountedPayload()));
            msg->setTraceId("trace");
            return msg;
        };
        center().Put("tester", traced());
        center().ProcessMsgByNetPut(Reference(traced()));
        center().ProcessQuotationMsg(Reference(traced()));
        for (const MsgQueueItem* item : qAsConst(*record.msg_list))
            QCOMPARE(item->trace_id, QString("trace"));
        QCOMPARE(record.msg_list->size(), 2);
        QCOMPARE(record.quotation_list->value(0)->trace_id, QString());
    }
};

LXTEST_MAIN(MessageCenterTest)
#include "tst_MessageCenter.moc"
