// The relation groups: whom a broadcast event reaches through them.
#include <lxtest/BusTest.h>

#include <map>
#include <memory>

using namespace lxtest;

class MessageCenterEventTest : public BusTest
{
    Q_OBJECT

private slots:
    // A script of setRelation calls "FROM OPER TO COLOUR", then a broadcast by SENDER, then how
    // often each plugin received it. Each row has a type of its own.
    void aBroadcastReachesTheGroupsOfItsSender_data()
    {
        QTest::addColumn<QStringList>("script");
        QTest::addColumn<QString>("subscribers");
        QTest::addColumn<QString>("sender");
        QTest::addColumn<QString>("receivers"); // once per delivery, sorted
        const auto row = [](const char* name, const QStringList& script, const char* sender,
                            const char* receivers, const char* subscribers = "") {
            QTest::newRow(name) << script << subscribers << sender << receivers;
        };
        const QStringList group{"A + A#1 2", "A + A#2 2", "A + B 2"};
        const auto with = [&](const QStringList& more) { return group + more; };
        row("the sender in the group", group, "A#1", "A#2 B");
        row("the sender not in it", group, "A#3", "");
        row("another base", group, "B", "");
        row("the base itself", with({"A + A 2"}), "A", "A#1 A#2 B");
        row("two number signs", {"A + A#1#2 0", "A + B 0"}, "A#1#2", "B");
        row("no base", {"#1 + #1 0", "#1 + B 0"}, "#1", "");
        row("from is taken as it is", {"A#1 + A#1 0", "A#1 + B 0"}, "A#1", "");
        row("subscribed and grouped", group, "A#1", "A#2 A#2 B C", "A#2 C");
        row("the sender subscribed", group, "A#1", "A#2 B", "A#1");
        row("other case", {"A + a#1 0", "A + B 0"}, "A#1", "");
        row("two colours", {"A + A#1 0", "A + B 0", "A + A#2 1", "A + C 1"}, "A#2", "C");
        row("unknown member between", {"A + A#1 0", "A + U 0", "A + B 0"}, "A#1", "B");
        row("a member moves to another colour", with({"A + A#2 3"}), "A#1", "B");
        row("the sender moves", with({"A + C 3", "A + A#1 3"}), "A#1", "C");
        row("added twice", with(group), "A#1", "A#2 B");
        row("removed", with({"A - B 2"}), "A#1", "A#2");
        row("removed from the wrong colour", with({"A - B 3"}), "A#1", "A#2 B");
        row("removed from the wrong base", with({"B - B 2"}), "A#1", "A#2 B");
        row("the sender removed", with({"A - A#1 2"}), "A#1", "");
        row("emptied and filled again",
            with({"A - A#1 2", "A - A#2 2", "A - B 2", "A + A#1 2", "A + C 2"}), "A#1", "C");
        row("an unknown operation", with({"A ? C 2", "A ? B 2"}), "A#1", "A#2 B");
        row("an unknown colour", with({"A + C 7", "A + B -1", "A - B 7"}), "A#1", "A#2 B");
        row("first and last colour", {"A + A#1 0", "A + B 0", "A + A#2 6", "A + C 6"}, "A#2", "C");
    }
    void aBroadcastReachesTheGroupsOfItsSender()
    {
        QFETCH(QStringList, script);
        QFETCH(QString, subscribers);
        QFETCH(QString, sender);
        QFETCH(QString, receivers);
        const int type = uniqueType();
        std::map<QString, std::unique_ptr<Plugin>> plugins;
        for (const char* id : {"A", "A#1", "A#2", "A#3", "B", "C", "#1", "A#1#2"})
            plugins.emplace(id, std::make_unique<Plugin>(id, E));

        for (const QString& line : script) {
            const QStringList words = line.split(' ');
            const int oper = words[1] == "+" ? 1 : words[1] == "-" ? 2 : 3;
            center().setRelation(words[0], words[2], type, RelationColor_t(words[3].toInt()), oper);
        }
        for (const QString& id : subscribers.split(' ', Qt::SkipEmptyParts))
            center().SubEvent(id, type, 1);
        center().PutEvent(sender, makeEvent({}, uniqueType(), "of another type"));
        center().PutEvent(sender, makeEvent("U", type, "directed"));
        center().PutEvent(sender, makeEvent({}, type, "payload", "B")); // puts it, not "B"

        QStringList received;
        for (const auto& [id, plugin] : plugins) {
            QVERIFY(plugin->settle());
            for (const Call& call : plugin->calls()) {
                QCOMPARE(call.srcId, sender);
                QCOMPARE(call.data, QVariant("payload"));
                received << id;
            }
        }
        QCOMPARE(received.join(' '), receivers); // std::map sorts
    }
};

LXTEST_MAIN(MessageCenterEventTest)
#include "tst_MessageCenterEvent.moc"
