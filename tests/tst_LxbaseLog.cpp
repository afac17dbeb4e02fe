// The log contract: where every record comes from, and what a disabled one costs.
#include <lxtest/BusTest.h>

#include <QDebug>
#include <QLoggingCategory>
#include <QScopeGuard>

#include <functional>

using namespace lxtest;

namespace {

// Counts how often it is written to a log.
struct Loud
{
    int number = 0;
    bool operator==(const Loud& other) const { return number == other.number; }
    bool operator<(const Loud& other) const { return number < other.number; }

    inline static int s_written = 0;
};

QDebug operator<<(QDebug debug, const Loud&)
{
    ++Loud::s_written;
    return debug << "loud";
}

CountedMessage* messageTo(const QString& dst, const QVariant& type = 7)
{
    return message(dst, type, 1.5);
}

CountedEvent* eventTo(const QString& dst, const QVariant& type = 7)
{
    return makeEvent(dst, type, 1.5, "origin");
}

using Operation = std::function<void()>;

} // namespace

Q_DECLARE_METATYPE(Loud)
Q_DECLARE_METATYPE(Operation)

class LxbaseLogTest : public BusTest
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        qRegisterMetaType<Loud>();
        QMetaType::registerDebugStreamOperator<Loud>();
        QMetaType::registerComparators<Loud>();
    }

    // The last record of each operation.
    void everyRecordNamesItsPlaceInTheSource_data()
    {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("function");
        QTest::addColumn<QString>("record");
        int number = 0;
        const auto row = [&](const char* function, const QString& record, const Operation& call) {
            QTest::addRow("%d: %s", ++number, function) << call << QString(function) << record;
        };
        const QString duplicate = "critical: !!!!!!!!  plugin ID duplicate,ID: \"registered\"";
        const QString noId = "critical: !!!!!!!!  plugin ID is null";
        const QString lost = "warning: \"origin\"  Put msg to  \"x\"  failed!! because not find";
        row("Reg", "debug: reg id: \"x\"", [] { center().Reg("x", nullptr, Kind(0)); });
        row("UnReg", "debug: UnReg id: \"x\"", [] { center().UnReg("x"); });
        row("Sub", "debug: sub id \"x\"  type QVariant(int, 7)  oper: 3",
            [] { center().Sub("x", 7, 3); });
        row("SubEvent", "debug: SubEvent id \"x\"  type QVariant(int, 7)  oper: 3",
            [] { center().SubEvent("x", 7, 3); });
        row("InitMsgReg", duplicate, [] { center().Reg("registered", nullptr, M); });
        row("InitEventReg", duplicate, [] { center().Reg("registered", nullptr, E); });
        row("InitMsgReg", noId, [] { center().Reg("", nullptr, M); });
        row("InitEventReg", noId, [] { center().Reg("", nullptr, E); });
        row("Put", lost + "  \"x\"", [] { center().Put("", messageTo("x")); });
        row("PutEvent", lost + "  \"x\"", [] { center().PutEvent("", eventTo("x")); });
        row("PutEvent",
            "debug: \"origin\"  PutEvent type: QVariant(int, 7)  to: \"registered\"  data: "
            "QVariant(double, 1.5)",
            [] { center().PutEvent("", eventTo("registered")); });
        row("PutEvent", "debug: MsgType: QVariant(int, 7)  has not sub",
            [] { center().PutEvent("", eventTo("")); });
        row("PutNetMsg", "warning: net recv list is NULL,maybe no init netmodule",
            [] { center().PutNetMsg("", messageTo("x")); });
        row("PutQuotationMsg", "warning: m_quotation_list is NULL,maybe no init netmodule",
            [] { center().PutQuotationMsg("", messageTo("x")); });
        row("ProcessMsgByNetPut", lost + "  \"x\"",
            [] { center().ProcessMsgByNetPut(Reference(messageTo("x"))); });
        row("ProcessMsgByNetPut",
            "debug: CMessageCenter::ProcessMsgByNetPut MsgType:  QVariant(int, 7)  has not sub",
            [] { center().ProcessMsgByNetPut(Reference(messageTo(""))); });
        row("ProcessQuotationMsg", lost + ",maybe dstId not register \"x\"",
            [] { center().ProcessQuotationMsg(Reference(messageTo("x"))); });
    }
    void everyRecordNamesItsPlaceInTheSource()
    {
        QFETCH(Operation, operation);
        QFETCH(QString, function);
        QFETCH(QString, record);
        const Plugin plugin("registered", M | E);
        operation();
        const LogRecord last = m_log->records().last();
        const QString unit = function.contains("Event") ? "MessageCenterEvent" : "MessageCenter";
        QCOMPARE(last.text, record);
        QCOMPARE(last.file, "shell/lxbase/" + unit + ".cpp");
        QVERIFY(last.line > 0);
        QVERIFY2(last.function.contains("CMessageCenter::" + function + '('),
                 qPrintable(last.function));
    }

    void aDisabledRecordIsNotFormatted_data()
    {
        QTest::addColumn<QString>("rules");
        QTest::addColumn<bool>("formats");
        QTest::addColumn<QVector<int>>("records"); // how many debug, warning and critical ones
        const auto row = [](const char* name, const char* rules, bool formats,
                            const QVector<int>& records) {
            QTest::newRow(name) << rules << formats << records;
        };
        row("as it comes", "", true, {11, 5, 2});
        row("without debug", "lxbase.debug=false", false, {0, 5, 2});
        row("critical only", "lxbase.debug=false\nlxbase.warning=false", false, {0, 0, 2});
        row("silent", "lxbase*=false", false, {0, 0, 0});
    }
    void aDisabledRecordIsNotFormatted()
    {
        QFETCH(QString, rules);
        QFETCH(bool, formats);
        QFETCH(QVector<int>, records);
        const QVariant loud = QVariant::fromValue(Loud{uniqueType()});
        const QVariant unknown = QVariant::fromValue(Loud{uniqueType()});
        Loud::s_written = 0;
        const Plugin registered(E);
        m_log->clear();
        QLoggingCategory::setFilterRules(rules);
        const auto reset = qScopeGuard([] { QLoggingCategory::setFilterRules({}); });
        Recorder().Reg("", nullptr, M | E); // 2 debug, 2 critical
        center().Sub("x", loud, 1);         // debug, here and in the next three
        center().Sub("x", loud, 2);
        center().SubEvent("x", loud, 3);
        center().UnReg("x");
        center().PutEvent("", eventTo("", loud));                       // the trace, no subscriber
        center().PutEvent("", eventTo("x", loud));                      // the trace, and a warning
        center().PutEvent("", eventTo(registered.id(), loud));          // the trace
        center().ProcessMsgByNetPut(Reference(messageTo("", unknown))); // debug
        center().ProcessMsgByNetPut(
            Reference(messageTo("x", loud))); // warning, and in the next three
        center().Put("", messageTo("x", loud));
        center().PutNetMsg("", messageTo("x", loud));
        center().PutQuotationMsg("", messageTo("x", loud));
        QCOMPARE(Loud::s_written > 0, formats);
        for (const char* level : {"debug", "warning", "critical"})
            QCOMPARE(m_log->lines(level).size(), records.takeFirst());
    }
};

LXTEST_MAIN(LxbaseLogTest)
#include "tst_LxbaseLog.moc"
