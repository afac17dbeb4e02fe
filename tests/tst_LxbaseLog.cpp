// The log contract: what each operation reports, in which words, and from which place.
#include <lxtest/BusTest.h>

#include <functional>

using namespace lxtest;

using Operation = std::function<void()>;
Q_DECLARE_METATYPE(Operation)

class LxbaseLogTest : public BusTest
{
    Q_OBJECT

private slots:
    // "registered" is registered for messages and events, "events" and "quotations" for these
    // alone. Type 7 is unknown; type 8 has been subscribed to, but is not any more.
    void anOperationReports_data()
    {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("function");
        QTest::addColumn<QString>("report"); // the last record; empty: there is none
        int number = 0;
        const auto row = [&](const char* function, const QString& report, const Operation& call) {
            QTest::addRow("%d: %s", ++number, function) << call << QString(function) << report;
        };
        row("Reg", "debug: reg id: \"x\"", [] { center().Reg("x", nullptr, Kind(0)); });
        row("UnReg", "debug: UnReg id: \"x\"", [] { center().UnReg("x"); });
        row("Sub", "debug: sub id \"x\"  type QVariant(int, 7)  oper: 3",
            [] { center().Sub("x", 7, 3); });
        row("SubEvent", "debug: SubEvent id \"x\"  type QVariant(int, 7)  oper: 3",
            [] { center().SubEvent("x", 7, 3); });
        row("setRelation", "", [] { center().setRelation("x", "x", 7, RELATION_RED, 1); });
        row("setIdlePolicy", "warning: setIdlePolicy after a registration or Start, refused",
            [] { center().setIdlePolicy(CMessageCenter::IdlePolicy::Park); });
        const QString duplicate = "critical: !!!!!!!!  plugin ID duplicate,ID: \"registered\"";
        row("InitMsgReg", duplicate, [] { center().Reg("registered", nullptr, M); });
        row("InitEventReg", duplicate, [] { center().Reg("registered", nullptr, E); });
        const QString noId = "critical: !!!!!!!!  plugin ID is null";
        row("InitMsgReg", noId, [] { center().Reg("", nullptr, M); });
        row("InitEventReg", noId, [] { center().Reg("", nullptr, E); });

        const auto lost = [](const QString& dst, const QString& from = "origin") {
            return "warning: \"" + from + "\"  Put msg to  \"" + dst
                + "\"  failed!! because not find  \"" + dst + '"';
        };
        row("Put", "", [] { center().Put("", nullptr); });
        row("Put", "", [] { center().Put("", message("quotations", 7)); });
        row("Put", lost("events"), [] { center().Put("", message("events", 7)); });
        row("Put", lost("x"), [] { center().Put("", message("x", 7)); });
        row("Put", "", [] {
            CountedMessage* const toNoNetPlugin = message("", 7);
            toNoNetPlugin->SetSendToNetFlag(true);
            center().Put("", toNoNetPlugin);
        });
        row("PutNetMsg", "warning: net recv list is NULL,maybe no init netmodule",
            [] { center().PutNetMsg("", message("registered", 7)); });
        row("PutQuotationMsg", "warning: m_quotation_list is NULL,maybe no init netmodule",
            [] { center().PutQuotationMsg("", message("quotations", 7)); });

        const auto fromNet = [&](const QString& report, const QString& dst, int type) {
            row("ProcessMsgByNetPut", report,
                [=] { center().ProcessMsgByNetPut(Reference(message(dst, type))); });
        };
        row("ProcessMsgByNetPut", "", [] { center().ProcessMsgByNetPut({}); });
        fromNet("", "quotations", 7);
        fromNet(lost("events"), "events", 7);
        fromNet("debug: CMessageCenter::ProcessMsgByNetPut MsgType:  QVariant(int, 7)  has not sub",
                "", 7);
        fromNet("", "", 8);
        const auto quotation = [&](const QString& report, const QString& dst) {
            row("ProcessQuotationMsg", report,
                [=] { center().ProcessQuotationMsg(Reference(message(dst, 7))); });
        };
        row("ProcessQuotationMsg", "", [] { center().ProcessQuotationMsg({}); });
        quotation("", "registered");
        quotation("", "");
        quotation("warning: \"origin\"  Put msg to  \"events\"  failed!! because not find,maybe "
                  "dstId not register \"events\"",
                  "events");

        const auto event = [&](const QString& report, const QString& dst, const QVariant& type,
                               const QString& source = {}) {
            row("PutEvent", report,
                [=] { center().PutEvent("sender", makeEvent(dst, type, 1.5, source)); });
        };
        const auto trace = [](const char* type, const char* dst) {
            return QString("debug: \"\"  PutEvent type: QVariant(%1)  to: \"%2\"  data: "
                           "QVariant(double, 1.5)")
                .arg(type, dst);
        };
        row("PutEvent", "", [] { center().PutEvent("", nullptr); });
        event("", "registered", 196613); // the types that are not traced
        event("", "registered", 196614);
        event("", "registered", "196613"); // equal to one
        event(trace("int, 196612", "registered"), "registered", 196612);
        event(trace("int, 196615", "registered"), "registered", 196615);
        event(trace("QString, \"login\"", "registered"), "registered", "login");
        event(trace("int, 8", ""), "", 8);
        event("debug: MsgType: QVariant(int, 7)  has not sub", "", 7);
        event(lost("quotations", "sender"), "quotations", 7);
        event(lost("x", "source"), "x", 7, "source");
    }
    void anOperationReports()
    {
        QFETCH(Operation, operation);
        QFETCH(QString, function);
        QFETCH(QString, report);
        Plugin plugin("registered", M | E);
        QVERIFY(m_log->lines().first().startsWith("debug: ---- pthis: "));
        const Plugin events("events", E);
        const Plugin quotations("quotations", Q);
        for (const int oper : {1, 2}) {
            plugin.subscribe(8, oper);
            plugin.subscribeEvent(8, oper);
        }
        m_log->clear();
        operation();
        QCOMPARE(m_log->lines().isEmpty(), report.isEmpty());
        if (report.isEmpty())
            return;
        const LogRecord last = m_log->records().last();
        QCOMPARE(last.text, report);
        const QString unit = function.contains("Event") ? "MessageCenterEvent" : "MessageCenter";
        QCOMPARE(last.file, "shell/lxbase/" + unit + ".cpp");
        QVERIFY(last.line > 0);
        QVERIFY2(last.function.contains("CMessageCenter::" + function + '('),
                 qPrintable(last.function));
    }
};

LXTEST_MAIN(LxbaseLogTest)
#include "tst_LxbaseLog.moc"
