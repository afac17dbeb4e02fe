// Events and relation groups: who receives what, what is logged, and that every record is deleted.
#include <lxtest/Counted.h>
#include <lxtest/LogCapture.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>

#include <QtTest>

#include <map>
#include <memory>
#include <optional>

using namespace lxtest;

namespace {

constexpr auto M = IMessageInterface::MessageThread;
constexpr auto Q = IMessageInterface::QuotationThread;
constexpr auto E = IMessageInterface::EventThread;

CMessageCenter& center()
{
    return *CMessageCenter::GetInstance();
}

CountedEvent* makeEvent(const QString& src, const QString& dst, const QVariant& type,
                        const QVariant& data = {})
{
    return new CountedEvent(src, dst, type, data);
}

} // namespace

class MessageCenterEventTest : public QObject
{
    Q_OBJECT

private:
    std::optional<LogCapture> m_log;

private slots:
    void init() { m_log.emplace(); }
    void cleanup()
    {
        m_log.reset();
        runDeferredDeletes();
        QCOMPARE(CountedEvent::alive(), 0); // every record deleted, and once
    }

    void aDirectedEventReachesItsDestinationAlone()
    {
        const int type = uniqueType();
        Plugin sender(E);
        Plugin receiver(M | Q | E);
        Plugin subscriber(E);
        subscriber.subscribeEvent(type);
        center().setRelation(sender.id(), sender.id(), type, RELATION_RED, 1);
        center().setRelation(sender.id(), subscriber.id(), type, RELATION_RED, 1);
        center().PutEvent(sender.id(), makeEvent("source", receiver.id(), type, "payload"));
        center().PutEvent(sender.id(), makeEvent("source", sender.id(), type, "to oneself"));
        for (Plugin* plugin : {&sender, &receiver, &subscriber})
            QVERIFY(plugin->settle());
        QCOMPARE(receiver.count(), 1);
        const Call call = receiver.calls().first();
        QCOMPARE(call.handler, Handler::Event);
        QCOMPARE(call.srcId, sender.id()); // not the source field of the record
        QCOMPARE(call.type, QVariant(type));
        QCOMPARE(call.data, QVariant("payload"));
        QCOMPARE(sender.payloads(), QVariantList({"to oneself"}));
        QCOMPARE(subscriber.count(), 0);
    }

    // "a" and "b" are registered for events, "m" for messages only, "u" not at all, "x" is nobody.
    void aBroadcastReachesTheSubscribersButNotItsSender_data()
    {
        QTest::addColumn<QString>("subscribers"); // in order; "-x" ends one subscription of x
        QTest::addColumn<QString>("sender");
        QTest::addColumn<QString>("source"); // the source field of the event
        QTest::addColumn<int>("toA");
        QTest::addColumn<int>("toB");
        QTest::addColumn<bool>("noEntry"); // the type was never subscribed
        QTest::newRow("nobody subscribed") << ""
                                           << "a"
                                           << "" << 0 << 0 << true;
        QTest::newRow("all ended") << "b -b"
                                   << "a"
                                   << "" << 0 << 0 << false;
        QTest::newRow("the sender too") << "a b"
                                        << "a"
                                        << "" << 0 << 1 << false;
        QTest::newRow("the sender, as somebody else") << "a b"
                                                      << "a"
                                                      << "b" << 0 << 1 << false;
        QTest::newRow("somebody else, as a") << "a b"
                                             << "x"
                                             << "a" << 1 << 1 << false;
        QTest::newRow("twice") << "b b"
                               << "a"
                               << "" << 0 << 2 << false;
        QTest::newRow("twice, one ended") << "b b -b"
                                          << "a"
                                          << "" << 0 << 1 << false;
        QTest::newRow("unregistered between") << "u a m u b"
                                              << "x"
                                              << "" << 1 << 1 << false;
    }
    void aBroadcastReachesTheSubscribersButNotItsSender()
    {
        QFETCH(QString, subscribers);
        QFETCH(QString, sender);
        QFETCH(QString, source);
        QFETCH(int, toA);
        QFETCH(int, toB);
        QFETCH(bool, noEntry);
        const int type = uniqueType();
        Plugin a(E);
        Plugin b(E);
        Plugin onlyMessages(M);
        const QMap<QString, QString> ids{
            {"a", a.id()}, {"b", b.id()}, {"m", onlyMessages.id()}, {"u", "nobody"}, {"x", "x"}};
        for (QString who : subscribers.split(' ', Qt::SkipEmptyParts)) {
            const int oper = who.startsWith('-') ? 2 : 1;
            center().SubEvent(ids.value(who.remove('-')), type, oper);
        }
        m_log->clear();
        center().PutEvent(ids.value(sender), makeEvent(ids.value(source), {}, type, 1));
        const QStringList lines = m_log->lines();
        QCOMPARE(lines.size(), noEntry ? 2 : 1);
        QCOMPARE(lines.first(),
                 QStringLiteral("debug: \"%1\"  PutEvent type: QVariant(int, %2)  to: \"\"  data: "
                                "QVariant(int, 1)")
                     .arg(ids.value(source))
                     .arg(type));
        if (noEntry) {
            QCOMPARE(lines.last(),
                     QStringLiteral("debug: MsgType: QVariant(int, %1)  has not sub").arg(type));
        }
        for (Plugin* plugin : {&a, &b, &onlyMessages})
            QVERIFY(plugin->settle());
        QCOMPARE(a.count(), toA);
        QCOMPARE(b.count(), toB);
        QCOMPARE(onlyMessages.count(), 0);
    }

    void unRegEndsEveryEventSubscription()
    {
        const int type = uniqueType();
        const QString id = uniqueId();
        {
            Plugin before(id, E);
            before.subscribeEvent(type);
            before.subscribeEvent(type);
        }
        Plugin after(id, E);
        m_log->clear();
        center().PutEvent("x", makeEvent("", "", type));
        QCOMPARE(m_log->lines().size(), 1); // the trace; the type keeps its emptied entry
        QVERIFY(after.settle());
        QCOMPARE(after.count(), 0);
    }

    void theTraceShowsTheSourceAsItCameAndSparesTwoTypes_data()
    {
        QTest::addColumn<QVariant>("type");
        QTest::addColumn<QString>("shown"); // empty: not traced
        QTest::newRow("the first spared") << QVariant(196613) << QString();
        QTest::newRow("the second spared") << QVariant(196614) << QString();
        QTest::newRow("equal to a spared one") << QVariant("196613") << QString();
        QTest::newRow("before them") << QVariant(196612) << "QVariant(int, 196612)";
        QTest::newRow("after them") << QVariant(196615) << "QVariant(int, 196615)";
        QTest::newRow("a word") << QVariant("login") << "QVariant(QString, \"login\")";
        QTest::newRow("nothing") << QVariant() << "QVariant(Invalid)";
    }
    void theTraceShowsTheSourceAsItCameAndSparesTwoTypes()
    {
        QFETCH(QVariant, type);
        QFETCH(QString, shown);
        Plugin plugin(E);
        m_log->clear();
        center().PutEvent("sender", makeEvent("", plugin.id(), type, "payload"));
        const QString trace = "debug: \"\"  PutEvent type: " + shown + "  to: \"" + plugin.id()
            + "\"  data: QVariant(QString, \"payload\")";
        QCOMPARE(m_log->lines(), shown.isEmpty() ? QStringList() : QStringList(trace));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 1);
    }

    void anUnknownDestinationIsReportedWithTheFilledInSource()
    {
        Plugin onlyMessages(M | Q);
        for (const QString& dst : {QStringLiteral("nobody"), onlyMessages.id()}) {
            m_log->clear();
            center().PutEvent("sender", makeEvent("", dst, 0x30005));
            center().PutEvent("sender", makeEvent("source", dst, 0x30006));
            const QString text = "warning: \"%1\"  Put msg to  \"" + dst
                + "\"  failed!! because not find  \"" + dst + "\"";
            QCOMPARE(m_log->lines(), QStringList({text.arg("sender"), text.arg("source")}));
        }
    }

    void aNullEventIsIgnored()
    {
        center().PutEvent("sender", nullptr);
        QCOMPARE(m_log->lines(), QStringList());
    }

    void anUnknownOperationOfSubEventIsOnlyLogged()
    {
        const int type = uniqueType();
        Plugin plugin(E);
        m_log->clear();
        QStringList expected;
        for (const int oper : {0, 3, -1}) {
            plugin.subscribeEvent(type, oper);
            expected << QStringLiteral(
                            "debug: SubEvent id \"%1\"  type QVariant(int, %2)  oper: %3")
                            .arg(plugin.id())
                            .arg(type)
                            .arg(oper);
        }
        QCOMPARE(m_log->lines(), expected);
        center().PutEvent("x", makeEvent("", "", type));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 0);
    }

    // A script of setRelation calls "FROM OPER TO COLOUR", then a broadcast by SENDER, then how
    // often each plugin received it. IDs get a prefix per row, so that the rows do not meet.
    void aBroadcastReachesTheGroupsOfItsSender_data()
    {
        QTest::addColumn<QStringList>("script");
        QTest::addColumn<QString>("subscribers");
        QTest::addColumn<QString>("sender");
        QTest::addColumn<QString>("receivers"); // once per delivery, sorted
        const QStringList group{"A + A#1 2", "A + A#2 2", "A + B 2"};
        QTest::newRow("the sender in the group") << group << ""
                                                 << "A#1"
                                                 << "A#2 B";
        QTest::newRow("the sender not in it") << group << ""
                                              << "A#3"
                                              << "";
        QTest::newRow("another base") << group << ""
                                      << "B"
                                      << "";
        QTest::newRow("the base itself") << (group + QStringList("A + A 2")) << ""
                                         << "A"
                                         << "A#1 A#2 B";
        QTest::newRow("two number signs") << QStringList({"A + A#1#2 0", "A + B 0"}) << ""
                                          << "A#1#2"
                                          << "B";
        QTest::newRow("no base") << QStringList({"#1 + #1 0", "#1 + B 0"}) << ""
                                 << "#1"
                                 << "";
        QTest::newRow("from is taken as it is") << QStringList({"A#1 + A#1 0", "A#1 + B 0"}) << ""
                                                << "A#1"
                                                << "";
        QTest::newRow("subscribed and grouped") << group << "A#2 C"
                                                << "A#1"
                                                << "A#2 A#2 B C";
        QTest::newRow("the sender subscribed") << group << "A#1"
                                               << "A#1"
                                               << "A#2 B";
        QTest::newRow("other case") << QStringList({"A + a#1 0", "A + B 0"}) << ""
                                    << "A#1"
                                    << "";
        QTest::newRow("two colours")
            << QStringList({"A + A#1 0", "A + B 0", "A + A#2 1", "A + C 1"}) << ""
            << "A#2"
            << "C";
        QTest::newRow("unknown member between")
            << QStringList({"A + A#1 0", "A + U 0", "A + B 0"}) << ""
            << "A#1"
            << "B";
        QTest::newRow("a member moves to another colour")
            << (group + QStringList("A + A#2 3")) << ""
            << "A#1"
            << "B";
        QTest::newRow("the sender moves") << (group + QStringList({"A + C 3", "A + A#1 3"})) << ""
                                          << "A#1"
                                          << "C";
        QTest::newRow("added twice") << (group + group) << ""
                                     << "A#1"
                                     << "A#2 B";
        QTest::newRow("removed") << (group + QStringList("A - B 2")) << ""
                                 << "A#1"
                                 << "A#2";
        QTest::newRow("removed from the wrong colour") << (group + QStringList("A - B 3")) << ""
                                                       << "A#1"
                                                       << "A#2 B";
        QTest::newRow("removed from the wrong base") << (group + QStringList("B - B 2")) << ""
                                                     << "A#1"
                                                     << "A#2 B";
        QTest::newRow("the sender removed") << (group + QStringList("A - A#1 2")) << ""
                                            << "A#1"
                                            << "";
        QTest::newRow("emptied and filled again")
            << (group + QStringList({"A - A#1 2", "A - A#2 2", "A - B 2", "A + A#1 2", "A + C 2"}))
            << ""
            << "A#1"
            << "C";
        QTest::newRow("an unknown operation") << (group + QStringList({"A ? C 2", "A ? B 2"})) << ""
                                              << "A#1"
                                              << "A#2 B";
        QTest::newRow("an unknown colour")
            << (group + QStringList({"A + C 7", "A + B -1", "A - B 7"})) << ""
            << "A#1"
            << "A#2 B";
        QTest::newRow("the first and the last colour")
            << QStringList({"A + A#1 0", "A + B 0", "A + A#2 6", "A + C 6"}) << ""
            << "A#1"
            << "B";
        QTest::newRow("without from") << QStringList({". + A#1 0", ". + B 0"}) << ""
                                      << "A#1"
                                      << "";
    }
    void aBroadcastReachesTheGroupsOfItsSender()
    {
        QFETCH(QStringList, script);
        QFETCH(QString, subscribers);
        QFETCH(QString, sender);
        QFETCH(QString, receivers);
        const int type = uniqueType();
        const int otherType = uniqueType();
        // registered under the names of the script: each row has a type of its own
        std::map<QString, std::unique_ptr<Plugin>> plugins;
        for (const char* id : {"A", "A#1", "A#2", "A#3", "B", "C", "#1", "A#1#2"})
            plugins.emplace(id, std::make_unique<Plugin>(id, E));

        for (const QString& line : script) {
            const QStringList words = line.split(' ');
            const int oper = words[1] == "+" ? 1 : words[1] == "-" ? 2 : 3;
            center().setRelation(words[0] == "." ? QString() : words[0], words[2], type,
                                 RelationColor_t(words[3].toInt()), oper);
        }
        for (const QString& id : subscribers.split(' ', Qt::SkipEmptyParts))
            center().SubEvent(id, type, 1);
        center().PutEvent(sender, makeEvent("", "", otherType, "of another type"));
        center().PutEvent(sender, makeEvent("", "", type, "payload"));

        QStringList received;
        for (const auto& [id, plugin] : plugins) {
            QVERIFY(plugin->settle());
            for (const Call& call : plugin->calls()) {
                QCOMPARE(call.srcId, sender);
                QCOMPARE(call.data, QVariant("payload"));
                received << id;
            }
        }
        received.sort();
        QCOMPARE(received.join(' '), receivers);
    }

    void aRelationIsSilent()
    {
        center().setRelation("A", "B", uniqueType(), RELATION_RED, 1);
        center().setRelation("A", "B", uniqueType(), RELATION_RED, 2);
        center().setRelation("", "", 1, RelationColor_t(99), 9);
        QCOMPARE(m_log->lines(), QStringList());
    }

    void aHandlerMayPublishToItsOwnPlugin()
    {
        Plugin plugin(E);
        plugin.onCall([&](const Call& call) {
            const int n = call.data.toInt();
            if (n < 100)
                plugin.PutEvent(plugin.id(), makeEvent("", plugin.id(), 0x30005, n + 1));
        });
        plugin.PutEvent(plugin.id(), makeEvent("", plugin.id(), 0x30005, 1));
        QVERIFY(plugin.waitForCalls(100));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 100);
        QCOMPARE(plugin.calls().last().data, QVariant(100));
    }
};

LXTEST_MAIN(MessageCenterEventTest)
#include "tst_MessageCenterEvent.moc"
