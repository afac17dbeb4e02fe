// The log contract: where every record comes from, and what a disabled one costs.
#include <lxtest/Counted.h>
#include <lxtest/LogCapture.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>

#include <QDebug>
#include <QLoggingCategory>
#include <QtTest>

#include <atomic>
#include <functional>
#include <optional>

using namespace lxtest;

namespace {

constexpr auto M = IMessageInterface::MessageThread;
constexpr auto E = IMessageInterface::EventThread;

// Counts how often it is written to a log.
struct Loud
{
    int number = 0;
    bool operator==(const Loud& other) const { return number == other.number; }
    bool operator<(const Loud& other) const { return number < other.number; }

    inline static std::atomic<int> s_written{0};
};

QDebug operator<<(QDebug debug, const Loud&)
{
    ++Loud::s_written;
    return debug << "loud";
}

CMessageCenter& center()
{
    return *CMessageCenter::GetInstance();
}

CountedMessage* message(const QString& dst, const QVariant& type = 7)
{
    return new CountedMessage(QStringLiteral("src"), dst, type, QVariant(1.5));
}

CountedEvent* makeEvent(const QString& dst, const QVariant& type = 7)
{
    return new CountedEvent(QStringLiteral("src"), dst, type, QVariant(1.5));
}

using Operation = std::function<void()>;

} // namespace

Q_DECLARE_METATYPE(Loud)
Q_DECLARE_METATYPE(Operation)

class LxbaseLogTest : public QObject
{
    Q_OBJECT

private:
    std::optional<LogCapture> m_log;
    std::optional<Plugin> m_plugin; // "registered", for messages and events

private slots:
    void initTestCase()
    {
        qRegisterMetaType<Loud>();
        QMetaType::registerDebugStreamOperator<Loud>();
        QMetaType::registerComparators<Loud>();
    }
    void init()
    {
        m_log.emplace();
        m_plugin.emplace("registered", M | E);
        m_log->clear();
    }
    void cleanup()
    {
        QLoggingCategory::setFilterRules(QString());
        m_plugin.reset();
        m_log.reset();
        QCOMPARE(CountedMessage::alive() + CountedEvent::alive(), 0);
    }

    // The last record of each operation.
    void everyRecordNamesItsPlaceInTheSource_data()
    {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("record");
        QTest::addColumn<QString>("unit");
        QTest::addColumn<QString>("function");
        const auto row = [](const char* name, const QString& record, const char* unit,
                            const char* function, const Operation& operation) {
            QTest::newRow(name) << operation << record << unit << function;
        };
        const char* const messages = "MessageCenter";
        const char* const events = "MessageCenterEvent";
        row("Reg of a plugin", "debug: reg id: \"x\"", messages, "CMessageCenter::Reg",
            [] { Recorder().Reg("x", nullptr, IMessageInterface::ThreadType(0)); });
        row("UnReg", "debug: UnReg id: \"x\"", messages, "CMessageCenter::UnReg",
            [] { center().UnReg("x"); });
        row("Sub", "debug: sub id \"x\"  type QVariant(int, 7)  oper: 3", messages,
            "CMessageCenter::Sub", [] { center().Sub("x", 7, 3); });
        row("SubEvent", "debug: SubEvent id \"x\"  type QVariant(int, 7)  oper: 3", events,
            "CMessageCenter::SubEvent", [] { center().SubEvent("x", 7, 3); });
        row("duplicate, messages", "critical: !!!!!!!!  plugin ID duplicate,ID: \"registered\"",
            messages, "CMessageCenter::InitMsgReg", [] { center().Reg("registered", nullptr, M); });
        row("duplicate, events", "critical: !!!!!!!!  plugin ID duplicate,ID: \"registered\"",
            events, "CMessageCenter::InitEventReg", [] { center().Reg("registered", nullptr, E); });
        row("no ID, messages", "critical: !!!!!!!!  plugin ID is null", messages,
            "CMessageCenter::InitMsgReg", [] { center().Reg("", nullptr, M); });
        row("no ID, events", "critical: !!!!!!!!  plugin ID is null", events,
            "CMessageCenter::InitEventReg", [] { center().Reg("", nullptr, E); });
        const QString notFound =
            "warning: \"src\"  Put msg to  \"x\"  failed!! because not find  \"x\"";
        row("Put", notFound, messages, "CMessageCenter::Put",
            [] { center().Put("", message("x")); });
        row("PutEvent", notFound, events, "CMessageCenter::PutEvent",
            [] { center().PutEvent("", makeEvent("x")); });
        row("PutEvent, the trace",
            "debug: \"src\"  PutEvent type: QVariant(int, 7)  to: \"registered\"  data: "
            "QVariant(double, 1.5)",
            events, "CMessageCenter::PutEvent",
            [] { center().PutEvent("", makeEvent("registered")); });
        row("PutEvent, no subscriber", "debug: MsgType: QVariant(int, 7)  has not sub", events,
            "CMessageCenter::PutEvent", [] { center().PutEvent("", makeEvent("")); });
        row("PutNetMsg", "warning: net recv list is NULL,maybe no init netmodule", messages,
            "CMessageCenter::PutNetMsg", [] { center().PutNetMsg("", message("x")); });
        row("PutQuotationMsg", "warning: m_quotation_list is NULL,maybe no init netmodule",
            messages, "CMessageCenter::PutQuotationMsg",
            [] { center().PutQuotationMsg("", message("x")); });
        const auto reference = [](const char* dst) {
            return QSharedPointer<CMessageCommon>(message(dst));
        };
        row("ProcessMsgByNetPut", notFound, messages, "CMessageCenter::ProcessMsgByNetPut",
            [=] { center().ProcessMsgByNetPut(reference("x")); });
        row("ProcessMsgByNetPut, no subscriber",
            "debug: CMessageCenter::ProcessMsgByNetPut MsgType:  QVariant(int, 7)  has not sub",
            messages, "CMessageCenter::ProcessMsgByNetPut",
            [=] { center().ProcessMsgByNetPut(reference("")); });
        row("ProcessQuotationMsg",
            "warning: \"src\"  Put msg to  \"x\"  failed!! because not find,maybe dstId not "
            "register \"x\"",
            messages, "CMessageCenter::ProcessQuotationMsg",
            [=] { center().ProcessQuotationMsg(reference("x")); });
    }
    void everyRecordNamesItsPlaceInTheSource()
    {
        QFETCH(Operation, operation);
        QFETCH(QString, record);
        QFETCH(QString, unit);
        QFETCH(QString, function);
        operation();
        QVERIFY(!m_log->records().isEmpty());
        const LogRecord last = m_log->records().last();
        QCOMPARE(m_log->lines().last(), record);
        QCOMPARE(last.category, QString("lxbase"));
        QCOMPARE(last.file, "shell/lxbase/" + unit + ".cpp");
        QVERIFY(last.line > 0);
        QVERIFY2(last.function.contains(function + '('), qPrintable(last.function));
    }

    void aDisabledRecordIsNotFormatted_data()
    {
        QTest::addColumn<QString>("rules");
        QTest::addColumn<bool>("formats");
        QTest::addColumn<int>("debug"); // how many records of each level
        QTest::addColumn<int>("warning");
        QTest::addColumn<int>("critical");
        QTest::newRow("as it comes") << QString() << true << 11 << 5 << 2;
        QTest::newRow("without debug") << QString("lxbase.debug=false") << false << 0 << 5 << 2;
        QTest::newRow("critical only")
            << QString("lxbase.debug=false\nlxbase.warning=false") << false << 0 << 0 << 2;
        QTest::newRow("silent") << QString("lxbase*=false") << false << 0 << 0 << 0;
    }
    void aDisabledRecordIsNotFormatted()
    {
        QFETCH(QString, rules);
        QFETCH(bool, formats);
        QFETCH(int, debug);
        QFETCH(int, warning);
        QFETCH(int, critical);
        const QVariant loud = QVariant::fromValue(Loud{uniqueType()});
        Loud::s_written = 0;
        QLoggingCategory::setFilterRules(rules);
        Recorder plugin;
        plugin.Reg("", &plugin, M | E); // 2 debug, 2 critical
        center().Sub("x", loud, 1);     // debug, here and twice below
        center().Sub("x", loud, 2);
        center().SubEvent("x", loud, 3);
        center().PutEvent("", makeEvent("", loud));  // the trace, no subscriber
        center().PutEvent("", makeEvent("x", loud)); // the trace, and a warning
        center().UnReg("x");
        center().ProcessMsgByNetPut(QSharedPointer<CMessageCommon>(message("x", loud))); // warning
        center().Put("", message("x", loud));                                            // warning
        center().PutNetMsg("", message("x", loud));                                      // warning
        center().PutQuotationMsg("", message("x", loud));                                // warning
        const QVariant unknown = QVariant::fromValue(Loud{uniqueType()});
        center().ProcessMsgByNetPut(QSharedPointer<CMessageCommon>(message({}, unknown))); // debug
        center().PutEvent("", makeEvent("registered", loud));                              // trace
        QCOMPARE(Loud::s_written > 0, formats);
        QCOMPARE(m_log->texts(QtDebugMsg).size(), debug);
        QCOMPARE(m_log->texts(QtWarningMsg).size(), warning);
        QCOMPARE(m_log->texts(QtCriticalMsg).size(), critical);
    }
};

LXTEST_MAIN(LxbaseLogTest)
#include "tst_LxbaseLog.moc"
