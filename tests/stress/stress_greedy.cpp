// Slow and greedy: a receiver that stays in its handler holds nobody up, and a receiver that falls
// behind by a million items gets them all, in order.
#include "Stress.h"

#include <lxbase/MessageCenter.h>

#include <lxtest/Counted.h>
#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QThread>

#include <atomic>

namespace {

using lxstress::fail;
using lxtest::CountedEvent;
using lxtest::CountedMessage;

enum Path { Direct, Event, Quotation, PathCount };
constexpr int type = 1;
const QString srcId = QStringLiteral("greedy.producer");

// Each path counts its own items from 0.
void putOnEveryPath(const QString& dstId, int number)
{
    CRegManager::Put(srcId, new CountedMessage(srcId, dstId, type, number));
    CRegManager::PutEvent(srcId, new CountedEvent(srcId, dstId, type, number));
    CRegManager::PutQuotationMsg(srcId, new CountedMessage(srcId, dstId, type, number));
}

// Expects each path's items in order; the first of each path waits for the gate.
class Receiver final : public IMessageInterface
{
public:
    explicit Receiver(const QString& id)
        : m_id(id)
    {
        Reg(m_id, this, MessageThread | EventThread | QuotationThread);
        Sub(m_id, type, 1);
        SubEvent(m_id, type, 1);
    }
    ~Receiver() override { UnReg(m_id); }

    void RecvMsg(QString, QVariant, QVariant data) override { receive(Direct, data); }
    void RecvEvent(QString, QVariant, QVariant data) override { receive(Event, data); }
    void RecvQuotationMsg(QString, QVariant, QVariant data) override { receive(Quotation, data); }

    // While closed, the handlers stay in their first call.
    void closeGate() { m_gate_is_open = false; }
    void openGate() { m_gate_is_open = true; }
    int handlersAtGate() const { return m_at_gate; }

    int received(Path path) const { return m_received[path]; }
    int received() const { return m_received[Direct] + m_received[Event] + m_received[Quotation]; }

    void waitForEach(const char* what, int count) const
    {
        lxstress::waitFor(
            what,
            [&] {
                return received(Direct) == count && received(Event) == count
                    && received(Quotation) == count;
            },
            [&] { return std::uint64_t(received()); });
    }

private:
    void receive(Path path, const QVariant& data)
    {
        if (!m_gate_is_open) {
            ++m_at_gate;
            while (!m_gate_is_open)
                QThread::msleep(1);
            --m_at_gate;
        }
        if (data.toInt() != m_received[path])
            fail(QStringLiteral("%1, path %2: got %3, expected %4")
                     .arg(m_id)
                     .arg(path)
                     .arg(data.toInt())
                     .arg(m_received[path].load()));
        ++m_received[path];
    }

    const QString m_id;
    std::atomic<bool> m_gate_is_open{true};
    std::atomic<int> m_at_gate{0};
    std::atomic<int> m_received[PathCount] = {};
};

// The others get all of a broadcast while every handler of one subscriber is occupied.
void slow()
{
    Receiver slow(QStringLiteral("greedy.slow"));
    const Receiver quick(QStringLiteral("greedy.quick"));
    slow.closeGate();
    const int count = 2000;
    putOnEveryPath(QString(), 0);
    lxstress::waitFor(
        "the handlers to be occupied", [&] { return slow.handlersAtGate() == PathCount; },
        [&] { return std::uint64_t(slow.handlersAtGate()); });
    for (int number = 1; number < count; ++number)
        putOnEveryPath(QString(), number);
    quick.waitForEach("the quick receiver, while the slow one is occupied", count);
    if (slow.received() != 0 || slow.handlersAtGate() != PathCount)
        fail(QStringLiteral("the slow receiver was not occupied throughout"));
    slow.openGate();
    slow.waitForEach("the slow receiver", count);
}

void greedy(int backlog)
{
    Receiver receiver(QStringLiteral("greedy"));
    receiver.closeGate();
    for (int number = 0; number < backlog; ++number)
        putOnEveryPath(QStringLiteral("greedy"), number);
    lxstress::waitFor(
        "every handler to be occupied", [&] { return receiver.handlersAtGate() == PathCount; },
        [&] { return std::uint64_t(receiver.handlersAtGate()); });
    receiver.openGate();
    receiver.waitForEach("the backlog to drain", backlog);
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const lxstress::Options options(
        "One receiver is slow, one falls behind.",
        {{QStringLiteral("backlog"), QStringLiteral("Items of the greedy receiver, in all."),
          QStringLiteral("number"), QStringLiteral("1000000")}});
    const int backlog = int(options.number("backlog")) / PathCount;
    CMessageCenter::GetInstance()->Start();
    slow();
    lxtest::runDeferredDeletes();
    greedy(backlog);
    lxtest::runDeferredDeletes();
    lxstress::waitFor(
        "every record to be destroyed",
        [] { return CountedMessage::alive() == 0 && CountedEvent::alive() == 0; },
        [] { return std::uint64_t(CountedMessage::alive()); });
    return lxstress::verdict(
        QStringLiteral(
            "nobody waited for the slow receiver; a backlog of %1 items drained in order")
            .arg(backlog * PathCount));
}
