// Slow and greedy: a receiver that stays in its handlers holds nobody up, and gets the million
// items by which it falls behind meanwhile all, in order.
#include "Stress.h"

#include <lxtest/TestMain.h>

#include <QtTest>

#include <atomic>
#include <mutex>

namespace {

using namespace lxstress;

constexpr int type = 1;
constexpr Path paths[] = {Direct, Event, Quotation};
constexpr int pathCount = 3;

// Expects the items of each kind in order.
class OrderedReceiver final : public lxtest::Handler
{
public:
    explicit OrderedReceiver(const QString& id)
        : m_id(id)
    {
        join(m_id, this, type);
    }
    ~OrderedReceiver() override { UnReg(m_id); }

    std::mutex gate; // while it is locked, the handlers stay in their call
    std::atomic<int> entered{0};
    std::atomic<int> received{0};
    std::atomic<int> outOfOrder{0};

private:
    void handle(const lxtest::Call& call) override
    {
        ++entered;
        const std::lock_guard<std::mutex> pass(gate);
        if (call.data.toInt() != m_next[call.kind]++)
            ++outOfOrder;
        ++received;
    }

    const QString m_id;
    int m_next[lxtest::All] = {}; // each by the thread of its kind
};

} // namespace

class GreedyTest : public QObject
{
    Q_OBJECT

private slots:
    void aSlowReceiverHoldsNobodyUpAndCatchesUp()
    {
        constexpr int count = 333'333;
        OrderedReceiver slow("slow");
        OrderedReceiver quick("quick");
        std::unique_lock<std::mutex> closed(slow.gate);
        CMessageCenter::GetInstance()->Start();
        for (int number = 0; number < count; ++number) {
            for (const Path path : paths)
                put(path, "producer", QString(), type, number);
        }
        const auto waitForAll = [](const OrderedReceiver& receiver, const char* what) {
            waitFor(
                what, [&] { return receiver.received >= pathCount * count; },
                [&] { return receiver.received.load(); });
        };
        waitForAll(quick, "the quick receiver, while the slow one is occupied");
        waitFor("every handler to be occupied", [&] { return slow.entered == pathCount; });
        QCOMPARE(slow.received.load(), 0);
        closed.unlock();
        waitForAll(slow, "the slow receiver to catch up");
        waitForRecords();
        for (const OrderedReceiver* receiver : {&slow, &quick}) {
            QCOMPARE(receiver->received.load(), pathCount * count);
            QCOMPARE(receiver->outOfOrder.load(), 0);
        }
    }
};

LXTEST_MAIN(GreedyTest)
#include "stress_greedy.moc"
