// The per-plugin workers: their statistics, and their stop.
#include <lxtest/BusTest.h>
#include <lxtest/TestClock.h>

#include <lxbase/Inbox.h>

#include <memory>

using namespace lxtest;

class InboxWorkerTest : public BusTest
{
    Q_OBJECT

private slots:
    // A handler moves the clock by its payload. The clock wraps in the first interval.
    void aRecordFollowsTheBatchThatEndsTheInterval()
    {
        const std::tuple<Kind, quint32, QString, QString> cases[] = {
            {M, 300000, "debug: CMessageWorkerThread::run QMap(", "(1, 2)(2, 1))"},
            {Q, 60000, "debug: CQuotationWorkerThread::run QMap(", "(1, 1))"}, // starts anew
            {E, 300000, "debug: CEventWorkerThread::run QMap(", "(1, 2)(2, 1))"},
        };
        for (const auto& [kind, intervalMs, text, second] : cases) {
            tickCountMs = 0xffffffff - 30000;
            Plugin plugin(kind);
            plugin.onCall([&, kind = kind, early = intervalMs - 1](const Call& call) {
                tickCountMs += call.data.toUInt();
                if (call.data == early) { // the next batch are these two
                    deliverTo(plugin.id(), kind, 0);
                    deliverTo(plugin.id(), kind, 1);
                }
            });
            m_log->clear();
            deliverTo(plugin.id(), kind, intervalMs - 1);
            LX_WAIT_FOR(m_log->lines().size() == 1);
            deliverTo(plugin.id(), kind, intervalMs);
            LX_WAIT_FOR(m_log->lines().size() == 2);
            const QStringList texts = m_log->lines().replaceInStrings(
                QRegularExpression("\\(0, \\d+\\)"), QString()); // so many empty polls
            QCOMPARE(texts, QStringList({text + "(1, 1)(2, 1))", text + second}));
        }
    }

    // A stop that comes between a worker's reading of its flag and its wait finds nobody to wake.
    void aWorkerThatIsToStopDoesNotBeginToWait()
    {
        QMutex mutex;
        lxbase::detail::InboxState state(CMessageCenter::IdlePolicy::Park);
        const lxbase::detail::InboxBase inbox{&mutex, &state};
        const std::atomic<bool> stop{true};
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            lxbase::detail::Backoff backoff;
            for (int poll = 0; poll < 100; ++poll) { // more than it makes before it waits
                mutex.lock();
                inbox.idle(stop, backoff);
            }
        }));
        thread->start();
        if (!thread->wait(deadlineMs))
            qFatal("a worker that is to stop waits");
    }
};

LXTEST_MAIN(InboxWorkerTest)
#include "tst_InboxWorker.moc"
