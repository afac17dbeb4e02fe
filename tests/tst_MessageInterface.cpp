// The plugin base class and the static facade.
#include <lxtest/Counted.h>
#include <lxtest/LogCapture.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>

#include <QtTest>

#include <functional>
#include <optional>
#include <type_traits>

using namespace lxtest;

namespace {

constexpr auto M = IMessageInterface::MessageThread;
constexpr auto Q = IMessageInterface::QuotationThread;
constexpr auto E = IMessageInterface::EventThread;

static_assert(M == 2 && Q == 4 && E == 8);
static_assert(std::is_same_v<decltype(M | Q), IMessageInterface::ThreadType>);
static_assert((M | Q | E) == 14);
static_assert(!std::is_base_of_v<QObject, CMessageCenter>);
static_assert(!std::is_polymorphic_v<CMessageCenter>);

// Every operation, through the base class of a plugin or through the facade.
struct Through
{
    std::function<void(QString, IMessageInterface*, IMessageInterface::ThreadType)> reg;
    std::function<void(QString)> unReg;
    std::function<void(QString, CMessageCommon*)> put;
    std::function<void(QString, CEventMessageCommon*)> putEvent;
    std::function<void(QString, CMessageCommon*)> putNetMsg;
    std::function<void(QString, CMessageCommon*)> putQuotationMsg;
    std::function<void(QString, QVariant, int)> sub;
    std::function<void(QString, QVariant, int)> subEvent;
    std::function<void(QString, QString, int, RelationColor_t, int)> setRelation;
};

template<class Base>
Through through(Base& base)
{
    return {[&](auto id, auto plugin, auto type) { base.Reg(id, plugin, type); },
            [&](auto id) { base.UnReg(id); },
            [&](auto id, auto msg) { base.Put(id, msg); },
            [&](auto id, auto msg) { base.PutEvent(id, msg); },
            [&](auto id, auto msg) { base.PutNetMsg(id, msg); },
            [&](auto id, auto msg) { base.PutQuotationMsg(id, msg); },
            [&](auto id, auto type, int oper) { base.Sub(id, type, oper); },
            [&](auto id, auto type, int oper) { base.SubEvent(id, type, oper); },
            [&](auto from, auto to, int type, auto color, int oper) {
                base.setRelation(from, to, type, color, oper);
            }};
}

} // namespace

Q_DECLARE_METATYPE(const QMetaObject*)

class MessageInterfaceTest : public QObject
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
        QCOMPARE(CountedMessage::alive(), 0);
        QCOMPARE(CountedEvent::alive(), 0);
    }

    void everyOperationReachesTheCenterUnchanged_data()
    {
        QTest::addColumn<bool>("facade");
        QTest::newRow("plugin base class") << false;
        QTest::newRow("facade") << true;
    }
    void everyOperationReachesTheCenterUnchanged()
    {
        QFETCH(bool, facade);
        Recorder caller;
        CRegManager manager;
        const Through bus = facade ? through(manager) : through(caller);
        const auto message = [](const QString& dst, const QVariant& type, const QVariant& data) {
            return new CountedMessage(QStringLiteral("origin"), dst, type, data);
        };
        const QString id = uniqueId();
        const int type = uniqueType();
        const int eventType = uniqueType();
        Recorder plugin;
        CMessageCenter::GetInstance()->Start();

        bus.reg(id, &plugin, M | Q | E);
        bus.sub(id, type, 1);
        bus.subEvent(id, eventType, 1);
        bus.put("sender", message("", type, "put"));
        QVERIFY(plugin.waitForCalls(1));
        bus.putEvent("sender", new CountedEvent("", "", eventType, "event"));
        QVERIFY(plugin.waitForCalls(2));
        bus.putNetMsg("sender", message("", type, "net"));
        QVERIFY(plugin.waitForCalls(3));
        bus.putQuotationMsg("sender", message("", type, "quotation"));
        QVERIFY(plugin.waitForCalls(4));
        bus.sub(id, type, 2);
        bus.subEvent(id, eventType, 2);
        bus.setRelation("base", "base#1", eventType, RELATION_BLUE, 1);
        bus.setRelation("base", id, eventType, RELATION_BLUE, 1);
        bus.putEvent("base#1", new CountedEvent("", "", eventType, "relation"));
        QVERIFY(plugin.waitForCalls(5));
        bus.setRelation("base", id, eventType, RELATION_BLUE, 2);
        bus.putEvent("base#1", new CountedEvent("", "", eventType, "nobody"));
        bus.put("sender", message("", type, "nobody"));
        LX_WAIT_FOR(CountedMessage::alive() == 0);
        bus.unReg(id);
        QCOMPARE(plugin.payloads(), QVariantList({"put", "event", "net", "quotation", "relation"}));
        QCOMPARE(caller.count(), 0);
        bus.put("sender", message(id, type, "gone"));
        QCOMPARE(m_log->texts(QtWarningMsg).size(), 1);
    }

    void regRegistersThePluginItIsGivenAndShowsBoth()
    {
        Recorder caller;
        Recorder plugin;
        caller.setObjectName("caller");
        plugin.setObjectName("plugin");
        const QString id = uniqueId();
        caller.Reg(id, &plugin, M);
        const auto shown = [](const Recorder& object) {
            return QStringLiteral("IMessageInterface(0x%1, name = \"%2\")")
                .arg(quintptr(static_cast<const QObject*>(&object)), 0, 16)
                .arg(object.objectName());
        };
        QCOMPARE(m_log->lines().first(),
                 "debug: ---- pthis: " + shown(plugin) + " ## " + shown(caller) + " 2");
        caller.Put("sender", new CountedMessage("", id, 1, 1));
        QVERIFY(plugin.waitForCalls(1));
        caller.UnReg(id);
        QCOMPARE(caller.count(), 0);

        m_log->clear();
        caller.Reg("", nullptr, E);
        QCOMPARE(m_log->lines().first(),
                 "debug: ---- pthis: QObject(0x0) ## " + shown(caller) + " 8");
    }

    void bothClassesDescribeThemselvesAndNothingElse_data()
    {
        QTest::addColumn<const QMetaObject*>("meta");
        QTest::addColumn<QString>("name");
        QTest::newRow("plugin base class")
            << &IMessageInterface::staticMetaObject << "IMessageInterface";
        QTest::newRow("facade") << &CRegManager::staticMetaObject << "CRegManager";
    }
    void bothClassesDescribeThemselvesAndNothingElse()
    {
        QFETCH(const QMetaObject*, meta);
        QFETCH(QString, name);
        QCOMPARE(QString(meta->className()), name);
        QCOMPARE(meta->superClass(), &QObject::staticMetaObject);
        QCOMPARE(meta->methodCount(), QObject::staticMetaObject.methodCount());
        QCOMPARE(meta->propertyCount(), QObject::staticMetaObject.propertyCount());
        QCOMPARE(meta->enumeratorCount(), 0);
    }
};

LXTEST_MAIN(MessageInterfaceTest)
#include "tst_MessageInterface.moc"
