// The center: registration, subscriptions, and what Put delivers to whom.
#include <lxtest/Counted.h>
#include <lxtest/LogCapture.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>
#include <lxbase/MessageWorkerThread.h>
#include <lxdefine/PluginID.h>

#include <QtTest>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

using namespace lxtest;
using ThreadType = IMessageInterface::ThreadType;

namespace {

constexpr ThreadType M = IMessageInterface::MessageThread;
constexpr ThreadType Q = IMessageInterface::QuotationThread;
constexpr ThreadType E = IMessageInterface::EventThread;

CountedMessage* message(const QString& dst, const QVariant& type, const QVariant& data = {})
{
    return new CountedMessage(QStringLiteral("origin"), dst, type, data);
}

CountedMessage* toNet(CountedMessage* msg)
{
    msg->SetSendToNetFlag(true);
    return msg;
}

// Puts one item of a kind directly to a plugin.
void deliverTo(const QString& id, Handler handler, const QVariant& data)
{
    CMessageCenter& center = *CMessageCenter::GetInstance();
    switch (handler) {
    case Handler::Message:
        return center.Put(QStringLiteral("tester"), message(id, 1, data));
    case Handler::Event:
        return center.PutEvent(QStringLiteral("tester"),
                               new CountedEvent(QString(), id, 0x30005, data));
    case Handler::Quotation:
        return center.ProcessQuotationMsg(QSharedPointer<CMessageCommon>(message(id, 1, data)));
    }
}

void addHandlers()
{
    QTest::addColumn<Handler>("handler");
    QTest::newRow("message") << Handler::Message;
    QTest::newRow("event") << Handler::Event;
    QTest::newRow("quotation") << Handler::Quotation;
}

// A look into the center's registry, past its access control (which explicit instantiation does
// not apply): the trace ID of an item is shown to nobody else.
template<auto Member>
struct RegistryOf
{
    friend auto& registryOf(CMessageCenter& center) { return center.*Member; }
};
auto& registryOf(CMessageCenter& center);
template struct RegistryOf<&CMessageCenter::m_msg_reg_hash>;

} // namespace

Q_DECLARE_METATYPE(lxtest::Handler)
Q_DECLARE_METATYPE(IMessageInterface::ThreadType)

class MessageCenterTest : public QObject
{
    Q_OBJECT

private:
    CMessageCenter& m_center = *CMessageCenter::GetInstance();
    std::optional<LogCapture> m_log;

private slots:
    void init() { m_log.emplace(); }
    void cleanup()
    {
        m_log.reset();
        runDeferredDeletes();
        QCOMPARE(CountedMessage::alive(), 0); // every record deleted, and once
        QCOMPARE(CountedEvent::alive(), 0);
    }

    // ---- registration

    void aRegistrationIsRefusedSideBySide_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<int>("earlier"); // flags registered before, 0 for none
        QTest::addColumn<int>("flags");
        QTest::addColumn<QStringList>("refusals");
        const QString null = QStringLiteral("critical: !!!!!!!!  plugin ID is null");
        const auto duplicate = [](const QString& id) {
            return QStringLiteral("critical: !!!!!!!!  plugin ID duplicate,ID: \"%1\"").arg(id);
        };
        const int all = M | Q | E;
        QTest::newRow("nothing asked for") << "r0" << 0 << 0 << QStringList();
        QTest::newRow("an unknown flag") << "r1" << 0 << 1 << QStringList();
        QTest::newRow("no ID, nothing asked for") << "" << 0 << 1 << QStringList();
        QTest::newRow("no ID") << "" << 0 << all << QStringList({null, null});
        QTest::newRow("no ID, messages") << "" << 0 << int(M) << QStringList(null);
        QTest::newRow("no ID, events") << "" << 0 << int(E) << QStringList(null);
        QTest::newRow("new") << "r2" << 0 << all << QStringList();
        QTest::newRow("messages twice") << "r3" << int(M) << int(M) << QStringList(duplicate("r3"));
        QTest::newRow("one registry for both inboxes")
            << "r4" << int(M) << int(Q) << QStringList(duplicate("r4"));
        QTest::newRow("events twice") << "r5" << int(E) << int(E) << QStringList(duplicate("r5"));
        QTest::newRow("everything twice")
            << "r6" << all << all << QStringList({duplicate("r6"), duplicate("r6")});
        QTest::newRow("events after messages") << "r7" << int(M) << int(E) << QStringList();
        QTest::newRow("messages again, events new")
            << "r8" << int(M) << int(M | E) << QStringList(duplicate("r8"));
        QTest::newRow("other case, other ID") << "R3" << 0 << int(M) << QStringList();
    }
    void aRegistrationIsRefusedSideBySide()
    {
        QFETCH(QString, id);
        QFETCH(int, earlier);
        QFETCH(int, flags);
        QFETCH(QStringList, refusals);
        Recorder plugin;
        if (earlier)
            m_center.Reg(id, &plugin, ThreadType(earlier));
        m_log->clear();
        m_center.Reg(id, &plugin, ThreadType(flags));
        QCOMPARE(m_log->lines(),
                 QStringList(QStringLiteral("debug: reg id: \"%1\"").arg(id)) + refusals);
        m_log->clear();
        m_center.UnReg(id);
        QCOMPARE(m_log->lines(), QStringList(QStringLiteral("debug: UnReg id: \"%1\"").arg(id)));
    }

    void aDuplicateLeavesTheFirstRegistrationAsItIs_data() { addHandlers(); }
    void aDuplicateLeavesTheFirstRegistrationAsItIs()
    {
        QFETCH(Handler, handler);
        Plugin first(M | Q | E);
        Recorder second;
        m_center.Reg(first.id(), &second, M | Q | E);
        deliverTo(first.id(), handler, 1);
        QVERIFY(first.settle());
        QCOMPARE(first.payloads(), QVariantList({1}));
        QCOMPARE(second.count(), 0);
    }

    void eachKindIsHandledOnAThreadNamedAfterThePlugin()
    {
        Plugin plugin(M | Q | E);
        deliverTo(plugin.id(), Handler::Message, 1);
        deliverTo(plugin.id(), Handler::Event, 1);
        deliverTo(plugin.id(), Handler::Quotation, 1);
        QVERIFY(plugin.waitForCalls(3));
        const auto threadOf = [&](Handler handler) {
            const QVector<Call> calls = plugin.calls(handler);
            return calls.size() == 1 ? calls.first().thread : QString();
        };
        QCOMPARE(threadOf(Handler::Message), plugin.id() + "_MessageWorkerThread");
        QCOMPARE(threadOf(Handler::Event), plugin.id() + "_EventWorkerThread");
        QCOMPARE(threadOf(Handler::Quotation), plugin.id() + "_QuotationWorkerThread");
    }

    void handlersOfDifferentKindsRunAtTheSameTime()
    {
        Plugin plugin(M | Q | E);
        Latch arrived(3);
        Latch allThere[3];
        plugin.onCall([&](const Call& call) {
            arrived.signal();
            allThere[call.data.toInt()].wait();
        });
        deliverTo(plugin.id(), Handler::Message, 0);
        deliverTo(plugin.id(), Handler::Event, 1);
        deliverTo(plugin.id(), Handler::Quotation, 2);
        arrived.wait();
        for (Latch& latch : allThere)
            latch.signal();
        QVERIFY(plugin.waitForCalls(3));
    }

    void aPluginCanRegisterAgainAndMustSubscribeAgain()
    {
        const int type = uniqueType();
        const QString id = uniqueId();
        {
            Plugin before(id, M);
            before.subscribe(type);
            before.subscribe(type); // both records go
        }
        Plugin after(id, M);
        m_center.Put("tester", message({}, type, 1));
        m_center.Put("tester", message(id, type, 2));
        QVERIFY(after.settle());
        QCOMPARE(after.payloads(), QVariantList({2}));
    }

    void aNullPluginIsRegisteredAndReceivesNothing()
    {
        const QString id = uniqueId();
        m_center.Reg(id, nullptr, M | Q | E);
        for (const Handler handler : {Handler::Message, Handler::Event, Handler::Quotation})
            deliverTo(id, handler, QVariant::fromValue(CountedPayload()));
        LX_WAIT_FOR(CountedPayload::alive() == 0);
        m_center.UnReg(id);
        QCOMPARE(m_log->texts(QtCriticalMsg) + m_log->texts(QtWarningMsg), QStringList());
    }

    // ---- the unregister barrier

    void unRegWaitsForTheHandlerInProgressAndFreesTheRest_data() { addHandlers(); }
    void unRegWaitsForTheHandlerInProgressAndFreesTheRest()
    {
        QFETCH(Handler, handler);
        {
            Plugin plugin(M | Q | E);
            Latch entered;
            Latch goOn;
            std::atomic<bool> unregistered{false};
            std::atomic<bool> handlerEnded{false};
            std::atomic<bool> unregisteredTooEarly{false};
            plugin.onCall([&](const Call&) {
                entered.signal();
                goOn.wait();
                QThread::msleep(5); // room for an UnReg that does not wait
                unregisteredTooEarly = unregistered.load();
                handlerEnded = true;
            });
            for (int i = 0; i < 3; ++i)
                deliverTo(plugin.id(), handler, QVariant::fromValue(CountedPayload(i)));
            entered.wait();
            deliverTo(plugin.id(), handler, QVariant::fromValue(CountedPayload(3)));
            std::thread unregisterer([&] {
                plugin.leave();
                unregistered = true;
            });
            // until the put no longer finds it, UnReg has not come to the wait
            LX_WAIT_FOR(
                (deliverTo(plugin.id(), handler, 0), !m_log->texts(QtWarningMsg).isEmpty()));
            goOn.signal();
            unregisterer.join();
            QVERIFY(handlerEnded);
            QVERIFY(!unregisteredTooEarly);
            QCOMPARE(plugin.count(), 1);
            runDeferredDeletes();                 // what was in the inbox goes with the worker
            QCOMPARE(CountedPayload::alive(), 1); // the recorded one
        }
        QCOMPARE(CountedPayload::alive(), 0);
    }

    void noHandlerIsEnteredAfterUnRegHasReturned()
    {
        const int type = uniqueType();
        m_center.SubEvent("nobody", 0x30005, 1); // else each event without subscriber is logged
        std::atomic<bool> producing{true};
        std::thread producer([&] {
            while (producing) {
                m_center.Put("tester", message({}, type, 1));
                m_center.PutEvent("tester", new CountedEvent("", "", 0x30005, 1));
            }
        });
        std::atomic<bool> gone{false};
        std::atomic<int> callsAfterEnd{0};
        for (int round = 0; round < 50; ++round) {
            Plugin plugin(M | E);
            plugin.onCall([&](const Call&) {
                if (gone)
                    ++callsAfterEnd;
            });
            plugin.subscribe(type);
            plugin.subscribeEvent(0x30005);
            const bool received = plugin.waitForCalls(2);
            plugin.leave();
            gone = true;
            std::this_thread::yield();
            QVERIFY2(received, "nothing received in time");
            gone = false;
        }
        producing = false;
        producer.join();
        m_center.SubEvent("nobody", 0x30005, 2);
        QCOMPARE(callsAfterEnd.load(), 0);
    }

    void unRegFromAHandlerOfThePluginItselfIsRefused_data() { addHandlers(); }
    void unRegFromAHandlerOfThePluginItselfIsRefused()
    {
        QFETCH(Handler, handler);
        Plugin plugin(M | Q | E);
        plugin.onCall([&](const Call& call) {
            if (call.data == 1)
                m_center.UnReg(plugin.id());
        });
        m_log->clear();
        deliverTo(plugin.id(), handler, 1);
        deliverTo(plugin.id(), handler, 2);
        QVERIFY(plugin.waitForCalls(2));
        QCOMPARE(m_log->lines(),
                 QStringList({"debug: UnReg id: \"" + plugin.id() + "\"",
                              "critical: UnReg from a handler of the plugin itself, refused, ID: \""
                                  + plugin.id() + "\""}));
    }

    void aHandlerMayUnregisterAnotherPlugin()
    {
        Plugin other(M);
        Plugin plugin(M);
        plugin.onCall([&](const Call&) { other.leave(); });
        deliverTo(plugin.id(), Handler::Message, 1);
        QVERIFY(plugin.waitForCalls(1));
        m_log->clear();
        deliverTo(other.id(), Handler::Message, 1);
        QCOMPARE(m_log->texts(QtWarningMsg).size(), 1);
    }

    // ---- Put

    void aDirectMessageReachesItsDestinationAlone()
    {
        const int type = uniqueType();
        Plugin sender(M);
        Plugin receiver(M | Q | E);
        Plugin subscriber(M);
        Plugin net(PluginID::PLUGINNET_GLOBALID, M);
        subscriber.subscribe(type);
        m_center.Put(sender.id(), toNet(message(receiver.id(), type, "payload")));
        for (Plugin* plugin : {&sender, &receiver, &subscriber, &net})
            QVERIFY(plugin->settle());
        QCOMPARE(receiver.count(), 1);
        const Call call = receiver.calls().first();
        QCOMPARE(call.handler, Handler::Message);
        QCOMPARE(call.srcId, sender.id()); // not the source field of the record
        QCOMPARE(call.type, QVariant(type));
        QCOMPARE(call.data, QVariant("payload"));
        QCOMPARE(sender.count() + subscriber.count() + net.count(), 0);
    }

    // Who subscribed how often, who sends, who receives how often. The plugins are "a", "b" and,
    // where it says so, the net plugin "n"; "u" subscribes without being registered, "q" is
    // registered without a message inbox.
    void aBroadcastReachesTheSubscribersButNotItsSender_data()
    {
        QTest::addColumn<QString>("subscribers"); // in order; "-x" ends one subscription of x
        QTest::addColumn<QString>("sender");
        QTest::addColumn<bool>("sendToNet");
        QTest::addColumn<int>("toA");
        QTest::addColumn<int>("toB");
        QTest::addColumn<int>("toNet");
        QTest::newRow("nobody subscribed") << ""
                                           << "a" << false << 0 << 0 << 0;
        QTest::newRow("the sender too") << "a b"
                                        << "a" << false << 0 << 1 << 0;
        QTest::newRow("a stranger sends") << "a b"
                                          << "x" << false << 1 << 1 << 0;
        QTest::newRow("twice") << "b b"
                               << "a" << false << 0 << 2 << 0;
        QTest::newRow("twice, one ended") << "b b -b"
                                          << "a" << false << 0 << 1 << 0;
        QTest::newRow("ended") << "b -b"
                               << "a" << false << 0 << 0 << 0;
        QTest::newRow("ended once too often") << "a b -b -b"
                                              << "x" << false << 1 << 0 << 0;
        QTest::newRow("unregistered between") << "u a u b"
                                              << "x" << false << 1 << 1 << 0;
        QTest::newRow("without inbox between") << "q a q b"
                                               << "x" << false << 1 << 1 << 0;
        QTest::newRow("net alone") << ""
                                   << "a" << true << 0 << 0 << 1;
        QTest::newRow("net beside") << "b"
                                    << "a" << true << 0 << 1 << 1;
        QTest::newRow("net subscribed too") << "n"
                                            << "a" << true << 0 << 0 << 2;
        QTest::newRow("net subscribed, no flag") << "n"
                                                 << "a" << false << 0 << 0 << 1;
        QTest::newRow("net sends") << "a n"
                                   << "n" << true << 1 << 0 << 1;
        QTest::newRow("net sends, no flag") << "a n"
                                            << "n" << false << 1 << 0 << 0;
    }
    void aBroadcastReachesTheSubscribersButNotItsSender()
    {
        QFETCH(QString, subscribers);
        QFETCH(QString, sender);
        QFETCH(bool, sendToNet);
        QFETCH(int, toA);
        QFETCH(int, toB);
        QFETCH(int, toNet);
        const int type = uniqueType();
        Plugin a(M);
        Plugin b(M);
        Plugin net(PluginID::PLUGINNET_GLOBALID, M);
        Plugin withoutInbox(Q | E);
        const QMap<QString, QString> ids{{"a", a.id()},   {"b", b.id()},
                                         {"n", net.id()}, {"q", withoutInbox.id()},
                                         {"u", "nobody"}, {"x", "stranger"}};
        for (QString who : subscribers.split(' ', Qt::SkipEmptyParts)) {
            const int oper = who.startsWith('-') ? 2 : 1;
            m_center.Sub(ids.value(who.remove('-')), type, oper);
        }
        m_log->clear();
        CountedMessage* const msg = message({}, type, "payload");
        msg->SetSendToNetFlag(sendToNet);
        m_center.Put(ids.value(sender), msg);
        QCOMPARE(m_log->lines(), QStringList());
        for (Plugin* plugin : {&a, &b, &net, &withoutInbox})
            QVERIFY(plugin->settle());
        QCOMPARE(a.count(), toA);
        QCOMPARE(b.count(), toB);
        QCOMPARE(net.count(), toNet);
        QCOMPARE(withoutInbox.count(), 0);
        m_center.Sub("nobody", type, 2);
    }

    void aSendToNetWithoutNetPluginIsSilent()
    {
        m_center.Put("tester", toNet(message({}, uniqueType())));
        QCOMPARE(m_log->lines(), QStringList());
    }

    void anUnknownDestinationIsReportedAndTheRecordDeleted()
    {
        const int type = uniqueType();
        Plugin subscriber(M);
        Plugin onlyEvents(E);
        subscriber.subscribe(type);
        m_log->clear();
        m_center.Put("tester", message("nobody", type));
        m_center.Put("tester", message(onlyEvents.id(), type));
        QCOMPARE(CountedMessage::alive(), 0);
        const QString text = "warning: \"origin\"  Put msg to  \"%1\"  failed!! because not find  "
                             "\"%1\"";
        QCOMPARE(m_log->lines(), QStringList({text.arg("nobody"), text.arg(onlyEvents.id())}));
        QVERIFY(subscriber.settle());
        QCOMPARE(subscriber.count(), 0);
    }

    void aDestinationWithoutMessageInboxGetsNothingSilently()
    {
        Plugin plugin(Q | E);
        m_log->clear();
        m_center.Put("tester", message(plugin.id(), 1));
        QCOMPARE(m_log->lines(), QStringList());
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 0);
    }

    void aNullMessageIsIgnored()
    {
        m_center.Put("tester", nullptr);
        QCOMPARE(m_log->lines(), QStringList());
    }

    void anUnknownOperationOfSubDoesNothing()
    {
        const int type = uniqueType();
        Plugin plugin(M);
        for (const int oper : {0, 3, -1})
            plugin.subscribe(type, oper);
        plugin.subscribe(type);
        for (const int oper : {0, 3, -1})
            plugin.subscribe(type, oper);
        m_center.Put("tester", message({}, type, 1));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 1);
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
                m_center.Put("tester", message({}, put, number));
                m_center.PutEvent("tester", new CountedEvent("", "", put, number));
            }
        }
        QVERIFY(plugin.settle());
        const QVariantList expected{type, type, later, later, type, type};
        QCOMPARE(plugin.payloads(Handler::Message), expected);
        QCOMPARE(plugin.payloads(Handler::Event), expected);
        plugin.subscribe(QString::number(type), 2);
        m_center.Put("tester", message({}, type, 0));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.payloads(Handler::Message), expected);
    }

    void messageAndEventSubscriptionsAreApart()
    {
        const int type = uniqueType();
        Plugin plugin(M | E);
        plugin.subscribe(type);
        m_center.PutEvent("tester", new CountedEvent("", "", type, "event"));
        plugin.subscribe(type, 2);
        plugin.subscribeEvent(type);
        m_center.Put("tester", message({}, type, "message"));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 0);
    }

    void everyReceiverGetsOneSendersMessagesInOrder()
    {
        const int type = uniqueType();
        Plugin a(M);
        Plugin b(M);
        a.subscribe(type);
        b.subscribe(type);
        QVariantList expected;
        for (int i = 0; i < 1000; ++i) {
            expected << i;
            if (i % 3) {
                m_center.Put("tester", message({}, type, i));
            } else {
                m_center.Put("tester", message(a.id(), type, i));
                m_center.Put("tester", message(b.id(), type, i));
            }
        }
        QVERIFY(a.settle());
        QVERIFY(b.settle());
        QCOMPARE(a.payloads(), expected);
        QCOMPARE(b.payloads(), expected);
    }

    void aHandlerThatPutsToItsOwnPluginIsNotEnteredTwice()
    {
        Plugin plugin(M);
        std::atomic<int> depth{0};
        std::atomic<int> deepest{0};
        plugin.onCall([&](const Call& call) {
            deepest = qMax(deepest.load(), ++depth);
            const int n = call.data.toInt();
            if (n < 100)
                plugin.Put(plugin.id(), message(plugin.id(), 1, n + 1));
            --depth;
        });
        plugin.Put(plugin.id(), message(plugin.id(), 1, 1));
        QVERIFY(plugin.waitForCalls(100));
        QCOMPARE(deepest.load(), 1);
        QCOMPARE(plugin.calls().last().data, QVariant(100));
    }

    void whatWasPutIsCopiedForEachReceiver()
    {
        const int type = uniqueType();
        Plugin a(M);
        Plugin b(M);
        a.subscribe(type);
        b.subscribe(type);
        {
            const QVariantMap original{{"price", 1.5}};
            m_center.Put("tester", message({}, type, original));
        }
        a.onCall([](const Call& call) {
            QVariantMap mine = call.data.toMap();
            mine["price"] = 2.5;
        });
        QVERIFY(a.settle());
        QVERIFY(b.settle());
        QCOMPARE(b.payloads(), QVariantList({QVariantMap{{"price", 1.5}}}));
    }

    // ---- the trace ID: in the items of the ordinary paths, not in those of quotations

    void theTraceIdTravelsWithMessagesButNotWithQuotations()
    {
        Plugin plugin(M | Q);
        Latch busy(2);
        Latch goOn[2];
        plugin.onCall([&](const Call& call) {
            if (call.data.type() == QVariant::Int) {
                busy.signal();
                goOn[call.data.toInt()].wait();
            }
        });
        deliverTo(plugin.id(), Handler::Message, 0);
        deliverTo(plugin.id(), Handler::Quotation, 1);
        busy.wait(); // what is put now stays in the inboxes
        const auto traced = [&] {
            CountedMessage* const msg = message(plugin.id(), 1, "payload");
            msg->setTraceId("trace");
            return msg;
        };
        m_center.Put("tester", traced());
        m_center.ProcessMsgByNetPut(QSharedPointer<CMessageCommon>(traced()));
        m_center.ProcessQuotationMsg(QSharedPointer<CMessageCommon>(traced()));

        const auto tracesIn = [](const QVector<MsgQueueItem*>& inbox) {
            QStringList traces;
            for (const MsgQueueItem* item : inbox)
                traces << item->src_id + ':' + item->trace_id;
            return traces;
        };
        const MsgRegInfo* const record = registryOf(m_center).value(plugin.id());
        const QStringList messages = tracesIn(*record->msg_list);
        const QStringList quotations = tracesIn(*record->quotation_list);
        for (Latch& latch : goOn)
            latch.signal();
        QCOMPARE(messages, QStringList({"tester:trace", PluginID::PLUGINNET_GLOBALID + ":trace"}));
        QCOMPARE(quotations, QStringList(PluginID::PLUGINNET_GLOBALID + ':'));
        QVERIFY(plugin.waitForCalls(5));
    }

    // ---- misuse

    void aTypeOfAnyVariantKindFindsItsSubscribers()
    {
        Plugin plugin(M | E);
        int kinds = 0;
        for (int kind = QMetaType::UnknownType; kind < QMetaType::User; ++kind) {
            // kinds of the framework's graphical libraries are not known here
            if (kind != QMetaType::UnknownType && !QMetaType::sizeOf(kind))
                continue;
            const QVariant type(kind, nullptr);
            if (!(type == QVariant(type)))
                continue; // a kind without equality, such as a regular expression's match
            ++kinds;
            plugin.subscribe(type);
            plugin.subscribeEvent(type);
            m_center.Put("tester", message({}, type, kind));
            m_center.PutEvent("tester", new CountedEvent("", "", type, kind));
            QVERIFY(plugin.settle());
            QVERIFY2(plugin.count() == 2 * kinds, QMetaType::typeName(kind));
            plugin.subscribe(type, 2);
            plugin.subscribeEvent(type, 2);
            m_center.Put("tester", message({}, type, kind));
        }
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 2 * kinds);
        QVERIFY(kinds > 30);
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
        const QVariant notEqualToItself = qQNaN();
        m_center.Sub(id, 1, 2); // never subscribed
        m_center.SubEvent(id, 1, 2);
        m_center.UnReg(id); // never registered
        for (const QVariant& type : {QVariant(uniqueType()), notEqualToItself, QVariant()}) {
            m_center.Reg(id, &plugin, M | Q | E);
            m_center.Sub(id, type, 1);
            m_center.SubEvent(id, type, 1);
            m_center.setRelation(id, id, type.toInt(), RELATION_RED, 1);
            m_center.Put(id, toNet(message(id, type, id)));
            m_center.Put(id, toNet(message({}, type, id)));
            m_center.PutEvent(id, new CountedEvent(id, id, type, id));
            m_center.PutEvent(id, new CountedEvent(id, QString(), type, id));
            m_center.ProcessMsgByNetPut(QSharedPointer<CMessageCommon>(message(id, type, id)));
            m_center.ProcessQuotationMsg(QSharedPointer<CMessageCommon>(message({}, type, id)));
            m_center.setRelation(id, id, type.toInt(), RELATION_RED, 2);
            m_center.Sub(id, type, 2);
            m_center.SubEvent(id, type, 2);
            m_center.UnReg(id);
            m_center.UnReg(id);
        }
        const int refusals = id.isEmpty() ? 6 : 0; // three rounds, both sides
        QCOMPARE(m_log->texts(QtCriticalMsg).size(), refusals);
    }

    void theIdlePolicyIsFixedByTheFirstRegistration()
    {
        const Plugin plugin(M);
        m_log->clear();
        m_center.setIdlePolicy(CMessageCenter::IdlePolicy::Park);
        QCOMPARE(m_log->lines(),
                 QStringList("warning: setIdlePolicy after a registration or Start, refused"));
    }

    void printRelationMapDoesNothing()
    {
        m_center.printRelationMap();
        QCOMPARE(m_log->lines(), QStringList());
    }
};

LXTEST_MAIN(MessageCenterTest)
#include "tst_MessageCenter.moc"
