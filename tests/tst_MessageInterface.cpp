// The plugin base class and the static facade.
#include <lxtest/BusTest.h>

#include <type_traits>

using namespace lxtest;

static_assert(M == 2 && Q == 4 && E == 8);
static_assert(std::is_same_v<decltype(M | Q), IMessageInterface::ThreadType>);
static_assert(All == 14);
static_assert(!std::is_base_of_v<QObject, CMessageCenter>);
static_assert(!std::is_polymorphic_v<CMessageCenter>);

class MessageInterfaceTest : public BusTest
{
    Q_OBJECT

private:
    template<class Bus>
    void checkEveryOperation(Bus&& bus)
    {
        const QString id = uniqueId();
        const int type = uniqueType();
        const int eventType = uniqueType();
        Recorder plugin;
        center().Start();

        bus.Reg(id, &plugin, All);
        bus.Sub(id, type, 1);
        bus.SubEvent(id, eventType, 1);
        bus.Put("sender", message("", type, "put"));
        QVERIFY(plugin.waitForCalls(1));
        bus.PutEvent("sender", makeEvent("", eventType, "event"));
        QVERIFY(plugin.waitForCalls(2));
        bus.PutNetMsg("sender", message("", type, "net"));
        QVERIFY(plugin.waitForCalls(3));
        bus.PutQuotationMsg("sender", message("", type, "quotation"));
        QVERIFY(plugin.waitForCalls(4));
        bus.Sub(id, type, 2);
        bus.SubEvent(id, eventType, 2);
        bus.setRelation("base", "base#1", eventType, RELATION_BLUE, 1);
        bus.setRelation("base", id, eventType, RELATION_BLUE, 1);
        bus.PutEvent("base#1", makeEvent("", eventType, "relation"));
        QVERIFY(plugin.waitForCalls(5));
        bus.setRelation("base", id, eventType, RELATION_BLUE, 2);
        bus.PutEvent("base#1", makeEvent("", eventType, "nobody"));
        bus.Put("sender", message("", type, "nobody"));
        bus.UnReg(id);
        QCOMPARE(plugin.payloads(), QVariantList({"put", "event", "net", "quotation", "relation"}));
        bus.Put("sender", message(id, type, "gone"));
        QCOMPARE(m_log->lines("warning").size(), 1);
    }

private slots:
    void everyOperationOfAPluginReachesTheCenterUnchanged()
    {
        Recorder caller;
        checkEveryOperation(caller);
        QCOMPARE(caller.count(), 0);
    }
    void everyOperationOfTheFacadeReachesTheCenterUnchanged()
    {
        checkEveryOperation(CRegManager());
    }
};

LXTEST_MAIN(MessageInterfaceTest)
#include "tst_MessageInterface.moc"
