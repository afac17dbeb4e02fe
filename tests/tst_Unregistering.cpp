// Corners of registering and unregistering: subscriptions meanwhile, handlers that unregister one
// another, and threads that cannot be had.
#include <lxtest/BusTest.h>

#include <lxbase/WaitGraph.h>

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>
#include <thread>
#include <tuple>

using namespace lxtest;

namespace {

// The system has threads for so many starts more; negative: for any number.
std::atomic<int> threadsLeft{-1};

// A look at members of the center, past its access control (which explicit instantiation does not
// apply).
template<auto... Members>
struct LookAt
{
    friend auto subscriptions(CMessageCenter& center) { return std::tie(center.*Members...); }
};
auto subscriptions(CMessageCenter& center);
template struct LookAt<&CMessageCenter::m_msg_id_sub_map, &CMessageCenter::m_event_id_sub_map>;

bool isSubscribed(const QString& id)
{
    const auto [messages, events] = subscriptions(center());
    return messages.contains(id) || events.contains(id);
}

} // namespace

// In place of the system's, for Qt as well.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept
{
    static const auto next =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    if (threadsLeft == 0)
        return EAGAIN;
    if (threadsLeft > 0)
        --threadsLeft;
    return next(thread, attributes, body, argument);
}

class UnregisteringTest : public BusTest
{
    Q_OBJECT

private slots:
    // A plugin's own handlers subscribe it all the time; another thread unregisters it.
    void noSubscriptionOutlivesUnReg()
    {
        const QString id = uniqueId();
        const int type = uniqueType();
        for (int life = 0; life < 50; ++life) {
            Plugin plugin(id, All);
            Latch running;
            std::atomic<bool> unregistering{false};
            plugin.onCall([&](const Call&) {
                running.signal();
                for (int after = 0; after < 100; after += unregistering) {
                    plugin.subscribe(type);
                    plugin.subscribeEvent(type);
                }
            });
            for (const Kind kind : {M, Q, E})
                deliverTo(id, kind, 1);
            for (int i = 0; i < 3; ++i)
                running.wait();
            unregistering = true;
            plugin.leave();
            QVERIFY(!isSubscribed(id));
        }
        Plugin plugin(id, M);
        plugin.subscribe(type);
        center().Put("tester", message({}, type));
        QVERIFY(plugin.waitForCalls(1));
        QVERIFY(plugin.settle());
        QCOMPARE(plugin.count(), 1);
    }

    // Else each of them would wait for ever.
    void handlersThatUnregisterOneAnotherAreRefusedOnce()
    {
        const Kind kind = E;
        Plugin plugins[] = {Plugin(kind), Plugin(kind), Plugin(kind)};
        Latch entered;
        Latch goOn[3];
        for (int i = 0; i < 3; ++i) {
            plugins[i].onCall([&, i](const Call&) {
                entered.signal();
                goOn[i].wait();
                plugins[(i + 1) % 3].leave();
            });
            deliverTo(plugins[i].id(), kind, 1);
        }
        for (int i = 0; i < 3; ++i)
            entered.wait();
        for (Latch& latch : goOn)
            latch.signal();
        for (Plugin& plugin : plugins)
            QVERIFY(plugin.waitForCalls(1));
        const QStringList refusals = m_log->lines("critical");
        QCOMPARE(refusals.size(), 1);
        QVERIFY(refusals[0].startsWith("critical: UnReg from a handler of"));
        for (Plugin& plugin : plugins)
            center().UnReg(plugin.id()); // the one that was refused is still there
    }

    void aWaitThatWouldNotEndIsFoundOverOthers()
    {
        lxbase::detail::WaitGraph waits;
        QVERIFY(!waits.begin("a", "a"));
        QVERIFY(waits.begin("a", "b"));
        QVERIFY(waits.begin("a", "c")); // two handlers of one plugin
        QVERIFY(waits.begin("c", "d"));
        QVERIFY(!waits.begin("d", "a"));
        waits.end("a", "c");
        QVERIFY(waits.begin("d", "a"));
        QVERIFY(!waits.begin("b", "c"));
    }

    void aRegistrationWithoutThreadIsTakenBack()
    {
        const QString missing[] = {"_MessageWorkerThread", "_QuotationWorkerThread",
                                   "_EventWorkerThread"};
        for (int threads = 0; threads < 3; ++threads) {
            m_log->clear();
            threadsLeft = threads;
            Plugin refused(All);
            threadsLeft = -1;
            const QString& id = refused.id();
            const QStringList said = m_log->lines("critical");
            QVERIFY2(said[0].contains('"' + id + missing[threads] + '"'), qPrintable(said[0]));
            const Kind side = threads == 2 ? E : M | Q;
            Plugin registered(id, side);
            QCOMPARE(m_log->lines("critical"), said);
            for (const Kind kind : {M, Q, E}) {
                if (kind & side)
                    deliverTo(id, kind, 1);
            }
            QVERIFY(registered.waitForCalls(threads == 2 ? 1 : 2));
            QCOMPARE(refused.count(), 0);
        }
    }

    void aStartWithoutThreadMayBeRepeated()
    {
        Plugin plugin(M | Q);
        threadsLeft = 1;
        QCOMPARE(center().Start(), 0);
        threadsLeft = -1;
        const QStringList said = m_log->lines("critical");
        QCOMPARE(said.size(), 1);
        QVERIFY(said[0].contains("ProcessQuotationThread_Thread"));
        center().PutQuotationMsg("net", message(plugin.id(), 1));
        QCOMPARE(m_log->lines("warning").size(), 1);
        center().PutNetMsg("net", message(plugin.id(), 1));
        QVERIFY(plugin.waitForCalls(1));
        center().Start();
        center().PutQuotationMsg("net", message(plugin.id(), 1));
        QVERIFY(plugin.waitForCalls(2));
        QCOMPARE(m_log->lines("warning").size(), 1);
    }
};

LXTEST_MAIN(UnregisteringTest)
#include "tst_Unregistering.moc"
