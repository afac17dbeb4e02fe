// A look inside the running bus: which plugin is slow, what waits for it, and what went nowhere.
#include <lxbase/BusMonitor.h>
#include <lxbase/MessageInterface.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QLoggingCategory>
#include <QSemaphore>
#include <QThread>

#include <cstdio>

enum MessageType { Price = 6001 };

constexpr int PriceCount = 100;
constexpr int DeadlineMs = 30000;

// Takes its time: the first price waits until the chart is let go.
class Chart final : public IMessageInterface
{
public:
    Chart()
    {
        Reg(m_id, this, MessageThread);
        Sub(m_id, Price, OperAdd);
    }
    ~Chart() override { UnReg(m_id); }

    void RecvMsg(QString, QVariant, QVariant) override
    {
        m_begun.release();
        m_let_go.tryAcquire(1, DeadlineMs);
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

    bool waitUntilBusy() { return m_begun.tryAcquire(1, DeadlineMs); }
    void letGo() { m_let_go.release(PriceCount); }

private:
    const QString m_id = QStringLiteral("Chart");
    QSemaphore m_begun;
    QSemaphore m_let_go;
};

template<class Condition>
bool waitFor(Condition condition)
{
    const QDeadlineTimer deadline(DeadlineMs);
    while (!condition() && !deadline.hasExpired())
        QThread::msleep(1);
    return condition();
}

InboxStatistics messagesOf(const QString& plugin)
{
    const BusStatistics bus = CBusMonitor::statistics();
    for (const InboxStatistics& inbox : bus.inboxes) {
        if (inbox.plugin == plugin && inbox.kind == InboxKind::Messages)
            return inbox;
    }
    return {};
}

void put(const QString& destination, int price)
{
    const QString me = QStringLiteral("Feed");
    CRegManager::Put(me, new CMessageCommon(me, destination, Price, price));
}

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));

    CBusMonitor::setLevel(StatisticsLevel::Full); // time every handler call
    CBusMonitor::setStallLimit(50);               // report what lasts longer than 50 ms
    CBusMonitor::setLostItemObserver([](const LostItem& lost) {
        std::printf("lost: from %s to %s: %s\n", qPrintable(lost.source),
                    qPrintable(lost.destination), qPrintable(lostReasonName(lost.reason)));
    });

    Chart chart;
    put(QStringLiteral("Chrat"), 1); // nobody has this ID
    put(QString(), 1);
    bool asExpected = chart.waitUntilBusy();
    for (int price = 2; price <= PriceCount; ++price)
        put(QString(), price);

    // The handler has the first price; the others wait behind it.
    asExpected &= waitFor([] { return !CBusMonitor::stalls().isEmpty(); });
    for (const Stall& stall : CBusMonitor::stalls()) {
        std::printf("%s hangs: message %d of %s in hand, %llu waiting\n", qPrintable(stall.plugin),
                    stall.type.toInt(), qPrintable(stall.sender), stall.waiting);
        asExpected &= stall.waiting == PriceCount - 1;
    }

    chart.letGo();
    asExpected &= waitFor([] { return messagesOf(QStringLiteral("Chart")).handled == PriceCount; });
    const InboxStatistics inbox = messagesOf(QStringLiteral("Chart"));
    std::printf("%s: %llu put, %llu handled, at most %llu waiting; longest handler call %lld ms\n",
                qPrintable(inbox.plugin), inbox.put, inbox.handled, inbox.peak,
                inbox.handlerTime.max() / 1'000'000);
    asExpected &= inbox.peak == PriceCount - 1 && inbox.handlerTime.max() >= 50'000'000;

    const QVector<LostItem> lost = CBusMonitor::lostItems();
    asExpected &= lost.size() == 1 && lost.first().reason == LostReason::UnknownDestination;
    return asExpected ? 0 : 1;
}
