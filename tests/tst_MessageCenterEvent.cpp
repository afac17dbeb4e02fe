// The relation groups: whom a broadcast event reaches through them.
#include <lxtest/BusTest.h>

#include <map>
#include <memory>

using namespace lxtest;

class MessageCenterEventTest : public BusTest
{
    Q_OBJECT

private slots:
    void aBroadcastReachesTheGroupsOfItsSender()
    {
        // "A + B 2" adds B to the colour 2 of A's groups, "A - B 2" removes it, "B sub" subscribes
        // B. Then A#1 puts the event; it reaches these, listed once per delivery. U is nobody.
        const QString group = "A + A#1 2, A + A#2 2, A + B 2";
        const std::pair<QString, const char*> cases[] = {
            {group, "A#2 B"},
            {"A + B 2, B + A#1 2", ""},     // not in the group of its base
            {"A#1 + A#1 0, A#1 + B 0", ""}, // the owner is taken as it is
            {group + ", A#2 sub, A#1 sub", "A#2 A#2 B"},
            {"A + A#2 0, A + B 0, A + A#1 6, A + C 6", "C"}, // the first and the last colour
            {"A + A#1 0, A + U 0, A + B 0", "B"},
            {group + ", A + A#2 3", "B"},          // moves
            {group + ", A + C 3, A + A#1 3", "C"}, // the sender moves
            {group + ", A - B 2", "A#2"},
            {group + ", A - B 3", "A#2 B"}, // is not there
            {group + ", A - A#1 2", ""},
            {group + ", A + C 7, A + B -1, A - B 7", "A#2 B"}, // no colours
        };
        for (const auto& [script, receivers] : cases) {
            const int type = uniqueType();
            std::map<QString, std::unique_ptr<Plugin>> plugins;
            for (const char* id : {"A", "A#1", "A#2", "B", "C"})
                plugins.emplace(id, std::make_unique<Plugin>(id, E));
            for (const QString& line : script.split(", ")) {
                const QStringList words = line.split(' ');
                if (words[1] == "sub")
                    center().SubEvent(words[0], type, 1);
                else
                    center().setRelation(words[0], words[2], type,
                                         RelationColor_t(words[3].toInt()),
                                         words[1] == "+" ? 1 : 2);
            }
            center().PutEvent("A#1", makeEvent({}, uniqueType(), "of another type"));
            center().PutEvent("A#1", makeEvent("U", type, "directed"));
            center().PutEvent("A#1", makeEvent({}, type, "payload", "B")); // puts it, not B
            QString received;
            for (const auto& [id, plugin] : plugins) {
                QVERIFY(plugin->settle());
                for (const Call& call : plugin->calls())
                    received +=
                        call.srcId == "A#1" && call.data == "payload" ? ' ' + id : " a wrong one";
            }
            QCOMPARE(script + ":" + received, (script + ": " + receivers).trimmed());
        }
    }
};

LXTEST_MAIN(MessageCenterEventTest)
#include "tst_MessageCenterEvent.moc"
