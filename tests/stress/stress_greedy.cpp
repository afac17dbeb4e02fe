// Slow and greedy: a receiver that stays in its handler holds nobody up, and a receiver that falls
// behind by a million items gets them all, in order.
#include "Stress.h"
#include "Traffic.h"

#include <lxbase/MessageCenter.h>

#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <iterator>

namespace {

using namespace lxstress;

constexpr int type = 1;
constexpr Path paths[] = {Direct, Event, Quotation};
constexpr int pathCount = int(std::size(paths));

// Each path counts its own items from 0.
void putOnEveryPath(const QString& dstId, int from, int to)
{
    for (int number = from; number < to; ++number) {
        for (const Path path : paths)
            put(path, "greedy.producer", dstId, type, number);
    }
}

// Expects each path's items in order. While its gate is closed, the handlers stay in their first
// call.
class OrderedReceiver final : public Receiver
{
public:
    explicit OrderedReceiver(const QString& id)
        : m_id(id)
    {
        join(m_id, type);
    }
    ~OrderedReceiver() override { UnReg(m_id); }

    std::atomic<bool> gateIsOpen{true};

    int received() const { return m_received; }
    bool isOccupied() const { return m_at_gate == pathCount; }
    void waitUntilOccupied() const
    {
        waitFor("every handler to be occupied", [&] { return isOccupied(); });
    }
    void waitForAll(const char* what, int count) const
    {
        waitFor(
            what, [&] { return m_received == pathCount * count; },
            [&] { return quint64(m_received); });
    }

private:
    void receive(Path path, const QString&, const QVariant&, const QVariant& data) override
    {
        if (!gateIsOpen) {
            ++m_at_gate;
            while (!gateIsOpen)
                QThread::msleep(1);
        }
        const int expected = m_next[path]++;
        if (data.toInt() != expected)
            fail("%s, path %d: got %d, expected %d", qPrintable(m_id), path, data.toInt(),
                 expected);
        ++m_received;
    }

    const QString m_id;
    int m_next[PathCount] = {}; // each by the thread of its path
    std::atomic<int> m_at_gate{0};
    std::atomic<int> m_received{0};
};

// The others get all of a broadcast while every handler of one subscriber is occupied.
void slow()
{
    OrderedReceiver slow("greedy.slow");
    const OrderedReceiver quick("greedy.quick");
    const int count = 2000;
    slow.gateIsOpen = false;
    putOnEveryPath(QString(), 0, 1);
    slow.waitUntilOccupied();
    putOnEveryPath(QString(), 1, count);
    quick.waitForAll("the quick receiver, while the slow one is occupied", count);
    if (slow.received() != 0 || !slow.isOccupied())
        fail("the slow receiver was not occupied throughout");
    slow.gateIsOpen = true;
    slow.waitForAll("the slow receiver", count);
}

void greedy(int backlog)
{
    OrderedReceiver greedy("greedy");
    greedy.gateIsOpen = false;
    putOnEveryPath("greedy", 0, backlog);
    greedy.waitUntilOccupied();
    greedy.gateIsOpen = true;
    greedy.waitForAll("the backlog to drain", backlog);
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const Options options("One receiver is slow, one falls behind.",
                          {{"backlog", "Items of the greedy receiver.", "number", "1000000"}});
    const int backlog = int(options.number("backlog")) / pathCount;
    CMessageCenter::GetInstance()->Start();
    slow();
    greedy(backlog);
    lxtest::runDeferredDeletes();
    waitForRecords([] { return quint64(lxtest::CountedMessage::alive()); });
    return verdict(QString("nobody waited for the slow receiver; a backlog of %1 items drained "
                           "in order")
                       .arg(backlog * pathCount));
}
