// The center: registration, the unregister barrier, what items carry, and what it reports.
#include <lxtest/BusTest.h>

#include <lxbase/MessageWorkerThread.h>
#include <lxbase/QuotationWorkerThread.h>

#include <thread>
#include <tuple>

using namespace lxtest;

namespace {

// A look at members of the center, past its access control, which explicit instantiation does not
// apply.
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
    void aRegistrationIsRefusedSideBySide()
    {
        // flags registered before for another plugin, flags, of them accepted
        const std::tuple<int, int, int> cases[] = {
            {0, All, All}, {M, Q, 0 /* one registry for both */}, {All, All, 0}, {M, M | E, E}};
        for (const auto& [earlier, flags, accepted] : cases) {
            const QString id = uniqueId();
            Plugin first(id, Kind(earlier));
            Plugin second(id, Kind(flags));
            for (const Kind kind : {M, Q, E})
                deliverTo(id, kind, 1);
            LX_WAIT_FOR(first.count() + second.count()
                        == int(qPopulationCount(unsigned(earlier | accepted))));
            for (const auto& [plugin, kinds] : {std::pair(&first, earlier), {&second, accepted}}) {
                int received = 0;
                for (const Call& call : plugin->calls()) {
                    received += call.kind;
                    const char* const name = call.kind == M ? "_Message"
                        : call.kind == Q                    ? "_Quotation"
                                                            : "_Event";
                    QCOMPARE(call.thread, id + name + "WorkerThread");
                }
                QCOMPARE(received, kinds);
            }
        }
    }

    void unRegWaitsForTheHandlerInProgressAndFreesTheRest()
    {
        for (const Kind kind : {M, Q, E}) {
            m_log->clear();
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
            for (int i = 0; i < 2; ++i)
                deliverTo(plugin.id(), kind, i);
            QVERIFY(plugin.waitForCalls(2));
            QCOMPARE(m_log->lines("critical").value(0),
                     "critical: UnReg from a handler of the plugin itself, refused, ID: \""
                         + plugin.id() + '"');
            deliverTo(other.id(), kind, 1);
            QCOMPARE(m_log->lines("warning").size(), 1);
        }
    }

    // Payloads of an unregistered plugin's inbox are freed too; that of a null plugin is drained.
    void traceIdsTravelWithMessagesButNotWithQuotations()
    {
        const QString id = uniqueId();
        center().Reg(id, nullptr, M | Q);
        deliverTo(id, M, QVariant::fromValue(CountedPayload()));
        LX_WAIT_FOR(CountedPayload::alive() == 0);
        const MsgRegInfo& record = *std::get<0>(registry(center())).value(id);
        for (CInboxWorkerBase* worker :
             std::initializer_list<CInboxWorkerBase*>{record.msg_thread, record.quotation_thread}) {
            worker->setStop(true); // what is put now stays in the inbox
            QVERIFY(worker->wait(deadlineMs));
        }
        const auto traced = [&] {
            CountedMessage* const msg = message(id, 1, QVariant::fromValue(CountedPayload()));
            msg->setTraceId("trace");
            return msg;
        };
        center().Put("tester", traced());
        center().ProcessMsgByNetPut(Reference(traced()));
        center().ProcessQuotationMsg(Reference(traced()));
        QCOMPARE(record.msg_list->size(), 2);
        for (const MsgQueueItem* item : qAsConst(*record.msg_list))
            QCOMPARE(item->trace_id, QString("trace"));
        QCOMPARE(record.quotation_list->value(0)->trace_id, QString());
        center().UnReg(id);
    }

    void whatGoesWrongIsReportedWithItsPlace()
    {
        const Plugin messages("messages", M);
        const Plugin events("events", E);
        const auto lost = [](const QString& dst) {
            return "warning: \"origin\"  Put msg to  \"" + dst + "\"  failed!! because not find";
        };
        const std::pair<QString, std::function<void()>> cases[] = {
            {"warning: setIdlePolicy after a registration or Start, refused",
             [] { center().setIdlePolicy(CMessageCenter::IdlePolicy::Park); }},
            {"critical: !!!!!!!!  plugin ID duplicate,ID: \"messages\"",
             [] { center().Reg("messages", nullptr, M); }},
            {"critical: !!!!!!!!  plugin ID is null", [] { center().Reg("", nullptr, E); }},
            {lost("events"), [] { center().Put("", message("events", 7)); }},
            {lost("events"), [] { center().ProcessMsgByNetPut(Reference(message("events", 7))); }},
            {lost("events"), [] { center().ProcessQuotationMsg(Reference(message("events", 7))); }},
            {lost("messages"),
             [] { center().PutEvent("", makeEvent("messages", 7, 1, "origin")); }},
            {"warning: net recv list is NULL", [] { center().PutNetMsg("", message("", 7)); }},
            {"warning: m_quotation_list is NULL",
             [] { center().PutQuotationMsg("", message("", 7)); }},
        };
        for (const auto& [report, operation] : cases) {
            m_log->clear();
            operation();
            const QString logged = m_log->lines().value(m_log->lines().size() - 1);
            QVERIFY2(logged.startsWith(report), qPrintable(logged));
            QVERIFY2(m_log->lastPlace().contains(
                         QRegularExpression("^shell/lxbase/MessageCenter.*, .*CMessageCenter::")),
                     qPrintable(m_log->lastPlace()));
        }
    }
};

LXTEST_MAIN(MessageCenterTest)
#include "tst_MessageCenter.moc"
