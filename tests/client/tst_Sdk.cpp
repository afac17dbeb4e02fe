// What plugins are made with: from worker to window, between plugins, and the bench of their tests.
#include <lxclient/Conflator.h>
#include <lxclient/TestBench.h>
#include <lxclient/WindowAdapter.h>

#include <QtTest>

#include <array>
#include <atomic>
#include <stdexcept>
#include <thread>

using namespace std::chrono_literals;
using lxclient::Error;
using lxclient::StubPlugin;
using lxclient::TestBench;

namespace {

constexpr int Question = lxclient::FirstFreeType;
using Numbers = lxclient::Conflator<int, int>;

// A combo box, say: tells whatever it is set to, also when the program has set it.
class Window : public QObject
{
public:
    Window()
        : m_bus(lxclient::PluginBase::EventThread | lxclient::PluginBase::QuotationThread)
    {
        m_bus.setWindow(this,
                        {[this](const auto& newest) { m_shown += newest.size(); },
                         [this](const QString& symbol) { choose(symbol); }});
    }

    void choose(const QString& symbol) { m_bus.select(symbol); }

    lxclient::WindowAdapter m_bus;
    int m_shown = 0;
};

class Host : public lxclient::Supervisor
{
public:
    void entered(const char*) noexcept override { }
    void left() noexcept override { }
    void threw(const char* handler, const QString& reason) override
    {
        m_told = QLatin1String(handler) + ": " + reason;
    }

    QString m_told;
};

} // namespace

class tst_Sdk : public QObject
{
    Q_OBJECT
private slots:
    void theNewestOfEachKeyComesOnceAFrameOnTheThreadOfTheObject()
    {
        constexpr int Keys = 3;
        constexpr int Frames = 5;
        constexpr auto frame = 20ms;
        TestBench bench;
        QThread* const here = QThread::currentThread();
        QHash<int, int> shown;
        std::atomic<int> frames{0};
        int elsewhere = 0;
        std::atomic<int> last{0};
        QElapsedTimer time;
        Numbers numbers(
            this,
            [&](const Numbers::Changes& changes) {
                ++frames;
                elsewhere += QThread::currentThread() != here;
                for (auto it = changes.begin(); it != changes.end(); ++it)
                    shown[it.key()] = it.value();
            },
            frame);
        time.start();
        std::thread worker([&] {
            int number = 0;
            while (frames < Frames || number < Keys) {
                numbers.put(number % Keys, number + 1);
                ++number;
            }
            last = number;
        });
        const bool arrived =
            bench.waitUntil([&] { return last > 0 && shown.value((last - 1) % Keys) == last; });
        const qint64 most = 2 + time.elapsed() / frame.count();
        const int counted = frames.exchange(Frames); // or the worker might go on for ever
        worker.join();
        QVERIFY(arrived);
        for (int key = 0; key < Keys; ++key)
            QVERIFY2(shown[key] > last - Keys, qPrintable(QString::number(key)));
        QCOMPARE(elsewhere, 0);
        QVERIFY2(counted >= Frames && counted <= most, qPrintable(QString::number(counted)));

        numbers.put(0, -1);
        numbers.stop(); // hands over what is left, at once
        QCOMPARE(shown[0], -1);
        numbers.put(0, -2);
        QCoreApplication::processEvents();
        QCOMPARE(shown[0], -1);
    }

    void objectConflatorAndProducerEndInAnyOrder()
    {
        enum What { DeleteObject, DeleteConflator, Stop };
        std::array<What, 3> order{DeleteObject, DeleteConflator, Stop};
        TestBench bench;
        do {
            for (const bool fromTheFunction : {false, true}) {
                int late = 0;
                bool gone = false;
                auto object = std::make_unique<QObject>();
                std::unique_ptr<Numbers> numbers;
                const auto end = [&] {
                    for (const What what : order) {
                        if (what == DeleteObject)
                            object.reset();
                        else if (what == DeleteConflator)
                            numbers.reset();
                        else if (numbers)
                            numbers->stop();
                        gone = !object || !numbers;
                    }
                };
                bool shown = false;
                numbers = std::make_unique<Numbers>(
                    object.get(),
                    [&](const auto&) {
                        late += gone;
                        if (!std::exchange(shown, true) && fromTheFunction)
                            end();
                    },
                    0ms);
                std::thread([&numbers] {
                    for (int number = 0; number < 1000; ++number)
                        numbers->put(number, number);
                }).join();
                if (!fromTheFunction)
                    end();
                QVERIFY(bench.waitUntil([&] { return !object && !numbers; }));
                QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
                QCoreApplication::processEvents();
                QCOMPARE(late, 0);
            }
        } while (std::next_permutation(order.begin(), order.end()));
    }

    void aConflatorStoppedElsewhereStillHandsOverWhatIsLeft()
    {
        QThread thread;
        thread.start();
        QObject object;
        object.moveToThread(&thread);
        QSemaphore shown;
        auto numbers = std::make_unique<Numbers>(
            &object, [&](const auto&) { shown.release(); }, 1h);
        numbers->put(1, 1); // at once
        QVERIFY(shown.tryAcquire(1, TestBench::DeadlineMs));
        numbers->put(2, 2); // in an hour
        numbers->stop();
        numbers.reset();
        QVERIFY(shown.tryAcquire(1, TestBench::DeadlineMs));
        thread.quit();
        thread.wait();
    }

    void aRequestIsAnsweredRefusedOrGivenUpOnceWithItsTraceId()
    {
        StubPlugin asker;
        StubPlugin answerer;
        StubPlugin silent;
        answerer.answer = [](const lxclient::Request& request, QVariant& answer) {
            answer = request.payload.toInt() + 1;
            return request.payload.toInt() < 0 ? Error("below zero") : Error();
        };
        std::atomic<int> held{0};
        QSemaphore release;
        silent.answer = [&](const auto&, QVariant&) {
            ++held;
            release.acquire();
            return Error();
        };
        TestBench bench;
        for (const auto& [plugin, id] :
             {std::pair(&asker, "asker"), {&answerer, "answerer"}, {&silent, "silent"}})
            QVERIFY(!bench.start(*plugin, id));

        QMutex mutex;
        QStringList answers;
        const auto ask = [&](const QString& whom, int payload, const QString& trace,
                             std::chrono::milliseconds timeout = 30s) {
            return asker.request(
                whom, Question, payload,
                [&, trace](const Error& error, const QVariant& answer) {
                    const QMutexLocker locker(&mutex);
                    answers << trace + ": " + (error ? error.words() : answer.toString());
                },
                timeout, trace);
        };
        const auto answered = [&] {
            const QMutexLocker locker(&mutex);
            return answers.size();
        };
        QCOMPARE(ask("answerer", 1, "one"), QString("one"));
        QVERIFY(bench.waitUntil([&] { return answered() == 1; }));
        ask("answerer", -1, "two");
        QVERIFY(bench.waitUntil([&] { return answered() == 2; }));
        ask("asker", 0, "three"); // the asker itself answers nothing
        QVERIFY(bench.waitUntil([&] { return answered() == 3; }));
        ask("silent", 0, "four", 50ms);
        QCOMPARE(ask("answerer", 7, "four"), QString()); // still open
        QVERIFY(bench.waitUntil([&] { return answered() == 4 && held == 1; }));
        release.release(); // too late now
        ask("answerer", 4, "five");
        QVERIFY(bench.waitUntil([&] { return answered() == 5; }));
        QCOMPARE(answers,
                 (QStringList{"one: 2", "two: below zero",
                              "three: asker does not answer requests of the type 0x60000",
                              "four: silent has not answered within 50 ms", "five: 5"}));
    }

    void anIdThatIsTakenIsRefusedAndItsOwnerKeepsIt()
    {
        StubPlugin first({Question});
        StubPlugin second;
        TestBench bench;
        QVERIFY(!bench.start(first, "one"));
        QCOMPARE(bench.start(second, "one").words(), QString("the ID one is on the bus already"));
        QVERIFY(bench.start(second, QString()).words().contains("refused to register"));
        QVERIFY(!bench.start(second, "two"));
        second.broadcast(Question, 1);
        QVERIFY(bench.waitUntil([&] { return first.messages().size() == 1; }));
    }

    void linkedWindowsFollowWithoutAnEchoThoughTheirWidgetsTellEverything()
    {
        constexpr int Windows = 3;
        std::array<Window, Windows> windows;
        QStringList ids;
        for (int i = 1; i <= Windows; ++i)
            ids << QString("window#%1").arg(i);
        lxclient::linkWindows(ids, RELATION_RED);
        TestBench bench({"A", "B", "C"});
        for (int i = 0; i < Windows; ++i) {
            QStringList others = ids;
            others.removeAt(i);
            QVERIFY(!bench.start(windows[i].m_bus, ids[i], {{lxclient::setting::Linked, others}}));
        }
        windows[0].choose("B");
        windows[0].choose("A");
        windows[0].choose("A");
        const auto received = [&](quint64 events) {
            return windows[1].m_bus.report().events == events
                && windows[2].m_bus.report().events == events;
        };
        QVERIFY(bench.waitUntil([&] { return received(2); }));
        windows[0].choose("C"); // behind any echo
        QVERIFY(bench.waitUntil([&] { return received(3); }));
        for (const Window& window : windows) { // the first one told three times, nobody else
            const auto postings = window.m_bus.report().postings;
            const auto put =
                std::find_if(postings.begin(), postings.end(), [](const auto& posting) {
                    return posting.what == lxclient::counted::Put;
                });
            QVERIFY(put != postings.end());
            QCOMPARE(put->count, quint64(&window == &windows[0] ? 3 : 0));
        }
        QCOMPARE(windows[2].m_bus.selected(), QString("C"));

        bench.quote("A", {1, 0}, {2, 0});
        bench.quote("B", {1, 0}, {2, 0});
        QVERIFY(bench.waitUntil([&] { return windows[1].m_shown == 2; }));
    }

    void whatAWindowThrowsEndsInTheAdapterAndIsTold()
    {
        QObject window;
        int calls = 0;
        const auto show = [&](const auto&) {
            ++calls;
            throw std::runtime_error("no room");
        };
        Host host;
        lxclient::WindowAdapter adapter(lxclient::PluginBase::QuotationThread);
        adapter.setWindow(&window, {show}, 0ms);
        TestBench bench({"A"});
        const auto supervisor = QVariant::fromValue<lxclient::Supervisor*>(&host);
        QVERIFY(!bench.start(adapter, "window", {{lxclient::setting::Supervisor, supervisor}}));
        bench.quote("A", {1, 0}, {2, 0});
        QVERIFY(bench.waitUntil([&] { return calls == 1; }));
        QCOMPARE(host.m_told, QString("WindowHandlers::quotes: no room"));
    }
};

QTEST_GUILESS_MAIN(tst_Sdk)
#include "tst_Sdk.moc"
