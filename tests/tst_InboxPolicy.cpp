// The policies of inboxes: what waits, what is dropped, and that the figures tell it.
#include <lxtest/BusTest.h>
#include <lxtest/TestClock.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/InboxLimiter.h>

#include <algorithm>
#include <deque>
#include <random>

using namespace lxtest;
using namespace lxbase::detail;

namespace {

using Observer = std::function<void(const InboxCrossing&)>;

InboxPolicy policy(InboxPolicy::Mode mode, int limit = 0, int maxAgeMs = 0, int high = 0,
                   int low = 0, Observer observer = {})
{
    return {mode, limit, high, low, maxAgeMs, std::move(observer)};
}

InboxStatistics figuresOf(const QString& id)
{
    for (const InboxStatistics& inbox : CBusMonitor::statistics().inboxes) {
        if (inbox.plugin == id)
            return inbox;
    }
    return {};
}

struct Fixed // a payload that is counted, and has a number
{
    int number = 0;
    CountedPayload counted;
};

// What a list of one sender's items should be under a policy.
struct Model
{
    struct Waiting
    {
        int type;
        int number;
        quint32 putMs;
    };

    void put(Waiting item)
    {
        const auto same = std::find_if(items.begin(), items.end(),
                                       [&](const Waiting& w) { return w.type == item.type; });
        if (now.mode == InboxPolicy::KeepLatest && same != items.end()) {
            *same = item;
            ++superseded;
            return;
        }
        const bool full = now.limit > 0 && int(items.size()) == now.limit;
        dropped += full;
        if (full && now.mode == InboxPolicy::RefuseNewest)
            return;
        items.push_back(item);
        if (full)
            items.pop_front();
    }

    void change(const InboxPolicy& next)
    {
        now = next;
        for (const Waiting& item : std::exchange(items, {}))
            put({item.type, item.number, tickCountMs});
    }

    // Whether the first ones, save those that are too old, are these.
    bool takes(const QVector<int>& numbers)
    {
        for (const int number : numbers) {
            while (dropTooOld()) { }
            if (items.empty() || items.front().number != number)
                return false;
            items.pop_front();
        }
        return true;
    }
    bool dropTooOld() // false: the first one is not
    {
        if (items.empty() || now.maxAgeMs == 0
            || tickCountMs - items.front().putMs <= quint32(now.maxAgeMs))
            return false;
        items.pop_front();
        ++dropped;
        return true;
    }

    InboxPolicy now = policy(InboxPolicy::DropOldest, 1);
    std::deque<Waiting> items;
    quint64 superseded = 0;
    quint64 dropped = 0;
};

} // namespace

Q_DECLARE_METATYPE(Fixed)

class InboxPolicyTest : public BusTest
{
    Q_OBJECT

private slots:
    // One thread, so that everything is known: a list, changes of its policy, a clock.
    void anInboxIsWhatTheModelSays()
    {
        const unsigned seed = std::random_device()();
        qInfo("seed %u", seed);
        std::mt19937 random(seed);
        const auto below = [&](unsigned n) { return int(random() % n); };
        QVector<MsgQueueItem*> list;
        QMutex mutex;
        InboxState state(CMessageCenter::IdlePolicy::Poll);
        const Inbox<MsgQueueItem*> inbox{{&mutex, &state}, &list};
        const InboxName name{"model", InboxKind::Messages};
        Aftermath<MsgQueueItem> aftermath;
        Model model;
        applyPolicy(inbox, name, model.now, aftermath);
        QVector<MsgQueueItem*> batch;
        for (int number = 1; number < 200000; ++number) {
            const int type = below(below(4) == 0 ? 2000 : 20);
            const QVariant variant = type % 3 ? QVariant(type) : QVariant(QString::number(type));
            inbox.append(
                new MsgQueueItem{"sender", variant, {}, QVariant::fromValue(Fixed{number, {}})},
                aftermath);
            model.put({type, number, tickCountMs});
            if (below(10) == 0)
                ++tickCountMs;
            if (below(30) == 0) {
                limiterOf<MsgQueueItem>(&state)->take(batch, aftermath);
                QVector<int> numbers;
                for (const MsgQueueItem* item : qAsConst(batch))
                    numbers << item->data.value<Fixed>().number;
                qDeleteAll(batch);
                batch.clear();
                QVERIFY(model.takes(numbers));
                while (int(model.items.size()) > inbox.waiting())
                    QVERIFY(model.dropTooOld());
            }
            if (below(5000) == 0) {
                const bool limited = below(2);
                const InboxPolicy next =
                    policy(limited ? InboxPolicy::Mode(2 + below(2)) : InboxPolicy::KeepLatest,
                           limited ? 1 + below(300) : 0, below(2) * below(50));
                applyPolicy(inbox, name, next, aftermath);
                model.change(next);
            }
            aftermath.finish();
            QCOMPARE(inbox.waiting(), int(model.items.size()));
            QCOMPARE(CountedPayload::alive(), inbox.waiting());
            QCOMPARE(state.meter.superseded(), model.superseded);
            QCOMPARE(state.meter.counts(inbox.waiting()).dropped, model.dropped);
        }
        applyPolicy(inbox, name, {}, aftermath); // back into the list, in order
        QCOMPARE(list.size(), int(model.items.size()));
        for (int i = 0; i < list.size(); ++i)
            QCOMPARE(list[i]->data.value<Fixed>().number, model.items[std::size_t(i)].number);
        qDeleteAll(list);
    }

    // Threads that put, a handler that is slow at times, policies that change, visitors that leave:
    // what comes of one sender and type comes in order, and KeepLatest always brings the last one.
    void nothingComesTwiceOrOutOfOrderWhateverHappens()
    {
        constexpr int types = 7;
        constexpr int producers = 3;
        const InboxPolicy policies[] = {policy(InboxPolicy::KeepLatest),
                                        policy(InboxPolicy::DropOldest, 5),
                                        policy(InboxPolicy::RefuseNewest, 5), policy({})};
        for (const Kind kind : {M, E, Q}) {
            for (int round = 0; round < 6; ++round) {
                Plugin plugin(kind);
                QMap<QPair<int, int>, int> last; // by producer and type; the worker's
                std::atomic<int> wrong{0};
                plugin.onCall([&](const Call& call) {
                    const int number = call.data.value<Fixed>().number;
                    int& before = last[{number % producers, call.type.toInt()}];
                    wrong += number <= before;
                    before = number;
                    if (number % 64 < 3)
                        QThread::usleep(100); // what waits gathers
                });
                std::atomic<bool> settled{false}; // the policy is KeepLatest for good
                std::vector<int> put(producers);
                auto threads = onThreads(producers, [&](int producer) {
                    const QString src = QString::number(kind == Q ? 0 : producer);
                    for (int i = 1, left = types; left > 0; ++i) {
                        left -= settled;
                        // quotations have one sender: each producer has types of its own
                        const int type = i % types + (kind == Q ? producer * types : 0);
                        const int number = i * producers + producer;
                        const QVariant data = QVariant::fromValue(Fixed{number, {}});
                        if (kind == M)
                            center().Put(src, message(plugin.id(), type, data));
                        else if (kind == E)
                            center().PutEvent(src, makeEvent(plugin.id(), 0x30005 + type, data));
                        else
                            center().ProcessQuotationMsg(
                                Reference(message(plugin.id(), type, data)));
                        put[std::size_t(producer)] = i;
                    }
                });
                std::mt19937 random{unsigned(round)};
                const bool leaves = round % 2; // in the middle
                const bool inTime = waitUntil([&] {
                    center().setInboxPolicy(plugin.id(), kind, policies[random() % 4]);
                    return plugin.count() >= (leaves ? 100 : 2000);
                });
                center().setInboxPolicy(plugin.id(), kind, policies[0]);
                if (leaves)
                    plugin.leave();
                settled = true;
                threads.clear();
                QVERIFY(inTime);
                if (leaves) {
                    QCOMPARE(wrong.load(), 0);
                    continue;
                }
                const auto atRest = [&] {
                    const InboxStatistics now = figuresOf(plugin.id());
                    return now.put == now.handled + now.dropped + now.superseded;
                };
                LX_WAIT_FOR(atRest());
                QVERIFY(plugin.count() > 0); // from here on what the worker has written is seen
                QCOMPARE(wrong.load(), 0);
                for (int producer = 0; producer < producers; ++producer) {
                    const int i = put[std::size_t(producer)];
                    for (int k = i; k > i - types; --k) {
                        const int type = k % types
                            + (kind == Q       ? producer * types
                                   : kind == E ? 0x30005
                                               : 0);
                        QCOMPARE((last[{producer, type}]), k * producers + producer);
                    }
                }
            }
        }
    }

    // The only producer is the handler, which is slow: whatever it gets is the newest of its type.
    void aSlowBoardSeesTheNewestPriceOnly()
    {
        constexpr int types = 60;
        Plugin board(Q);
        center().setInboxPolicy(board.id(), Q, policy(InboxPolicy::KeepLatest));
        int newest = 0;
        int stale = 0;
        int most = 0;
        board.onCall([&](const Call& call) {
            stale += call.data.value<Fixed>().number < newest - types;
            QThread::usleep(1000);
            for (int i = 0; i < 3 * types && board.count() < 500; ++i) {
                const Fixed payload{++newest, {}};
                center().ProcessQuotationMsg(
                    Reference(message(board.id(), newest % types, QVariant::fromValue(payload))));
            }
            most = std::max(most, CountedPayload::alive());
        });
        deliverTo(board.id(), Q, QVariant::fromValue(Fixed{}));
        LX_WAIT_FOR(board.count() >= 500 + types);
        QCOMPARE(stale, 0);
        QVERIFY2(most <= types + 600, qPrintable(QString::number(most))); // and what is recorded
        QCOMPARE(figuresOf(board.id()).peak, quint64(types));
    }

    void whatIsDroppedIsListedWithItsReason()
    {
        const std::tuple<InboxPolicy, LostReason, QVariantList, QVariantList> cases[] = {
            {policy(InboxPolicy::DropOldest, 2), LostReason::DroppedOldest, {1, 2}, {0, 3, 4}},
            {policy(InboxPolicy::RefuseNewest, 2), LostReason::RefusedNewest, {3, 4}, {0, 1, 2}},
            {policy(InboxPolicy::Unbounded, 0, 50), LostReason::TooOld, {1, 2, 3}, {0, 4}},
        };
        for (const auto& [chosen, reason, dropped, handled] : cases) {
            for (const Kind kind : {M, Q, E}) {
                const QString id = uniqueId();
                center().setInboxPolicy(id, kind, chosen); // before there is such a plugin
                Plugin plugin(id, kind);
                Latch entered;
                Latch goOn;
                plugin.onCall([&](const Call& call) {
                    if (call.data == 0) {
                        entered.signal();
                        goOn.wait();
                    }
                });
                const auto lastLost = CBusMonitor::lostItems();
                const quint64 sequence = lastLost.isEmpty() ? 0 : lastLost.last().sequence;
                deliverTo(id, kind, 0);
                entered.wait();
                for (int i = 1; i < 5; ++i) {
                    tickCountMs += i == 4 ? 51 : 0;
                    deliverTo(id, kind, i);
                }
                goOn.signal();
                QVERIFY(plugin.waitForCalls(handled.size()));
                QCOMPARE(plugin.payloads(), handled);
                const auto lost = CBusMonitor::lostItems(sequence);
                QCOMPARE(lost.size(), dropped.size());
                for (const LostItem& item : lost) {
                    QCOMPARE(item.reason, reason);
                    QCOMPARE(item.destination, id);
                }
                LX_WAIT_FOR(figuresOf(id).handled == quint64(handled.size()));
                QCOMPARE(figuresOf(id).dropped, quint64(dropped.size()));
                QCOMPARE(figuresOf(id).put, quint64(5));
            }
        }
    }

    // Up and down alternate, whichever threads tell them, and a plugin that goes ends an up.
    void watermarksAreToldInTurn()
    {
        for (const InboxPolicy::Mode mode : {InboxPolicy::Unbounded, InboxPolicy::DropOldest}) {
            const int limit = mode == InboxPolicy::Unbounded ? 0 : 9;
            std::atomic<int> wrong{0};
            std::atomic<int> told{0};
            std::atomic<int> inside{0};
            const auto observer = [&](const InboxCrossing& crossing) {
                wrong += inside++ != 0; // one at a time
                wrong += crossing.above != (told++ % 2 == 0);
                wrong += crossing.above && crossing.waiting < 8;
                CBusMonitor::waiting(crossing.plugin, InboxKind::Events); // no lock is held
                --inside;
            };
            center().setInboxPolicy({}, E, policy(mode, limit, 0, 8, 2, observer)); // the default
            Plugin plugin(E);
            std::atomic<unsigned long> handlerUs{20};
            plugin.onCall([&](const Call&) { QThread::usleep(handlerUs); });
            const auto put = [&](int count) {
                for (int i = 0; i < count; ++i)
                    deliverTo(plugin.id(), E, i);
            };
            auto threads = onThreads(2, [&](int) {
                const bool inTime = waitUntil([&] {
                    if (CBusMonitor::waiting(plugin.id(), InboxKind::Events) == 0)
                        put(20);
                    return told >= 50;
                });
                if (!inTime)
                    qFatal("the watermarks were not told");
            });
            threads.clear();
            handlerUs = 5000; // so that it does not come back down by itself
            put(20);
            LX_WAIT_FOR(told % 2 == 1);
            plugin.leave();
            QCOMPARE(told % 2, 0);
            QCOMPARE(wrong.load(), 0);
            center().setInboxPolicy({}, E, {});
        }
    }

    void aPolicyThatMakesNoSenseIsRefusedByName()
    {
        const Observer observer = [](const InboxCrossing&) {};
        const std::tuple<Kind, InboxPolicy, QString> cases[] = {
            {M | Q, {}, "kind 6"},
            {M, policy(InboxPolicy::Mode(4)), "mode 4"},
            {M, policy(InboxPolicy::DropOldest), "limit 0"},
            {M, policy(InboxPolicy::KeepLatest, 3), "limit 3"},
            {M, policy({}, 0, -1), "maxAgeMs -1"},
            {M, policy(InboxPolicy::RefuseNewest, 9, 0, 10, 2, observer), "highWatermark 10"},
            {M, policy({}, 0, 0, 5, 5, observer), "lowWatermark 5"},
            {M, policy({}, 0, 0, 5, 1), "highWatermark 5 without"},
        };
        for (const auto& [kind, refused, words] : cases) {
            m_log->clear();
            center().setInboxPolicy("someone", kind, refused);
            QCOMPARE(m_log->lines("critical").size(), 1);
            QVERIFY2(m_log->lines().last().contains(words), qPrintable(m_log->lines().last()));
        }
    }
};

LXTEST_MAIN(InboxPolicyTest)
#include "tst_InboxPolicy.moc"
