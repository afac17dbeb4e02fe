// The three per-plugin workers: their statistics, and what they do without this or that.
#include <lxtest/BusTest.h>
#include <lxtest/TestClock.h>

#include <lxbase/Inbox.h>
#include <lxbase/MessageWorkerThread.h>

#include <QLoggingCategory>
#include <QRegularExpression>

#include <atomic>
#include <memory>

using namespace lxtest;

namespace {

MsgQueueItem* makeItem(int number)
{
    return new MsgQueueItem{"sender", 7, "trace", number};
}

} // namespace

class InboxWorkerTest : public BusTest
{
    Q_OBJECT

private slots:
    // A handler puts the items of the next batch. The clock wraps in the first interval.
    void aRecordFollowsTheBatchThatEndsTheInterval_data() { addKinds(); }
    void aRecordFollowsTheBatchThatEndsTheInterval()
    {
        QFETCH(Kind, kind);
        const quint32 intervalMs = kind == Q ? 60000 : 300000;
        setTickCountMs(0xffffffff - 30000);
        Plugin plugin(kind);
        const auto deliver = [&](const QVariantList& items) {
            for (const QVariant& data : items)
                deliverTo(plugin.id(), kind, data);
        };
        QVector<int> recordsSeen;
        plugin.onCall([&](const Call& call) {
            switch (call.data.toInt()) {
            case 1: // the first batch
                deliver({2, 3, 4});
                break;
            case 4: // the last of the second batch: one millisecond too early
                advanceTickCountMs(intervalMs - 1);
                deliver({5});
                break;
            case 5: // the third batch
                recordsSeen << m_log->records().size();
                advanceTickCountMs(1);
                deliver({6, 7});
                break;
            case 7: // the last of the fourth batch
                recordsSeen << m_log->records().size();
                advanceTickCountMs(intervalMs);
                break;
            case 8:
                recordsSeen << m_log->records().size();
            }
        });
        m_log->clear();
        deliver({1});
        LX_WAIT_FOR(m_log->records().size() == 2);
        advanceTickCountMs(intervalMs);
        QThread::msleep(5); // room for a record by an idle worker
        deliver({8});
        LX_WAIT_FOR(m_log->records().size() == 3);
        QCOMPARE(recordsSeen, QVector<int>({0, 1, 2}));
        QCOMPARE(plugin.payloads(), QVariantList({1, 2, 3, 4, 5, 6, 7, 8}));

        const QString name = kind == M ? "MessageWorkerThread"
            : kind == Q                ? "QuotationWorkerThread"
                                       : "EventWorkerThread";
        const QString text = "debug: C" + name + "::run QMap(";
        const QStringList texts = m_log->lines().replaceInStrings(
            QRegularExpression("\\(0, \\d+\\)"), QString()); // so many empty looks
        QCOMPARE(texts[0], text + "(1, 2)(3, 1))");
        QCOMPARE(texts[1], text + (kind == Q ? "(2, 1))" : "(1, 2)(2, 1)(3, 1))"));
        for (const LogRecord& record : m_log->records()) {
            QCOMPARE(record.file, "shell/lxbase/" + name + ".cpp");
            QVERIFY(record.line > 0);
            QVERIFY2(record.function.contains("C" + name + "::run"), qPrintable(record.function));
        }
        LX_WAIT_FOR((advanceTickCountMs(intervalMs), deliver({9}),
                     m_log->lines().last().contains("::run QMap((0, ")));
    }

    void aDisabledRecordIsNotWritten()
    {
        QLoggingCategory::setFilterRules("lxbase.debug=false");
        {
            Plugin plugin(M);
            plugin.onCall([](const Call&) { advanceTickCountMs(300000); });
            deliverTo(plugin.id(), M, 1);
            QVERIFY(plugin.settle());
        }
        QLoggingCategory::setFilterRules({});
        QCOMPARE(m_log->lines(), QStringList());
    }

    // A stop that comes between a worker's look at its flag and its wait finds nobody to wake.
    void aWorkerThatIsToStopDoesNotBeginToWait()
    {
        QMutex mutex;
        lxbase::detail::InboxState state(CMessageCenter::IdlePolicy::Park);
        const lxbase::detail::InboxBase inbox{&mutex, &state};
        const std::atomic<bool> stop{true};
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            lxbase::detail::Backoff backoff;
            for (int look = 0; look < 100; ++look) { // more than it makes before it waits
                mutex.lock();
                inbox.idle(stop, backoff);
            }
        }));
        thread->start();
        const bool ended = thread->wait(deadlineMs);
        while (!thread->wait(1))
            inbox.wake();
        QVERIFY(ended);
    }

    void nullChangesNothingAndNullItemsArePassedOver()
    {
        Recorder plugin;
        CMessageWorkerThread worker;
        worker.setInterface(&plugin);
        worker.setList(new QVector<MsgQueueItem*>{nullptr, makeItem(1), nullptr, makeItem(2)});
        worker.setMutex(new QMutex);
        worker.setState(new lxbase::detail::InboxState(CMessageCenter::IdlePolicy::Park));
        worker.setInterface(nullptr);
        worker.setList(nullptr);
        worker.setMutex(nullptr);
        worker.setState(nullptr);
        worker.start();
        const bool received = plugin.waitForCalls(2);
        worker.setStop(true);
        QVERIFY(worker.wait(deadlineMs));
        QVERIFY(received);
        QCOMPARE(plugin.payloads(), QVariantList({1, 2}));
    }

    void withoutAMutexAWorkerTouchesNothingAndStops()
    {
        auto* const inbox = new QVector<MsgQueueItem*>{makeItem(1)};
        CMessageWorkerThread worker;
        worker.setList(inbox);
        worker.start();
        QThread::msleep(5); // room for many looks
        worker.setStop(true);
        QVERIFY(worker.wait(deadlineMs));
        QCOMPARE(inbox->size(), 1);
    }
};

LXTEST_MAIN(InboxWorkerTest)
#include "tst_InboxWorker.moc"
