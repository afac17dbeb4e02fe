// The way of an order: quotations and an execution come in through the net plugin, the order goes
// out through it, and a tape outside the bus sees every quotation that came in.
#include <lxbase/MessageCenter.h>
#include <lxbase/MessageInterface.h>
#include <lxdefine/PluginID.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QSemaphore>

#include <cstdio>
#include <memory>

enum MessageType { EurUsd = 2001, Order = 2002, Execution = 2003 };

// Holds the connection; here it is the exchange as well and fills every order at its price.
class NetPlugin final : public IMessageInterface
{
public:
    NetPlugin() { Reg(m_id, this, MessageThread); }
    ~NetPlugin() override { UnReg(m_id); }

    // Called by the connection for each quotation that arrives, on any thread.
    void quotationArrived(double price)
    {
        std::printf("net: EUR/USD %.4f\n", price);
        PutQuotationMsg(m_id, new CMessageCommon(m_id, QString(), EurUsd, price));
    }

    // Broadcasts whose send-to-net flag is set arrive here, without any subscription.
    void RecvMsg(QString srcId, QVariant type, QVariant data) override
    {
        if (type == Order)
            PutNetMsg(m_id, new CMessageCommon(m_id, srcId, Execution, data));
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

private:
    const QString m_id = PluginID::PLUGINNET_GLOBALID;
};

// Buys once, at the first price below its limit.
class Strategy final : public IMessageInterface
{
public:
    Strategy()
    {
        Reg(m_id, this, MessageThread | QuotationThread);
        Sub(m_id, EurUsd, OperAdd); // one subscription serves messages and quotations of a type
    }
    ~Strategy() override { UnReg(m_id); }

    // Quotations and messages have a worker thread each: the two handlers may run at once.
    // m_ordered is touched by this one only and needs no lock.
    void RecvQuotationMsg(QString, QVariant, QVariant data) override
    {
        if (m_ordered || data.toDouble() >= 1.10)
            return;
        m_ordered = true;
        auto order = std::make_unique<CMessageCommon>(m_id, QString(), Order, data);
        order->SetSendToNetFlag(true);
        order->setTraceId(QStringLiteral("order-1"));
        Put(m_id, order.release());
    }

    void RecvMsg(QString srcId, QVariant type, QVariant data) override
    {
        std::printf("strategy: message %d from %s, bought at %.4f\n", type.toInt(),
                    qPrintable(srcId), data.toDouble());
        m_bought_at = data.toDouble();
        m_executed.release();
    }
    void RecvEvent(QString, QVariant, QVariant) override { }

    // The price of the execution, or 0 if none comes.
    double waitForExecution() { return m_executed.tryAcquire(1, 30000) ? m_bought_at : 0; }

private:
    const QString m_id = QStringLiteral("Strategy");
    bool m_ordered = false;
    double m_bought_at = 0; // read after m_executed has been acquired
    QSemaphore m_executed;
};

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));

    // The host: the queue first, so that it outlives every put, then Start, then the plugins.
    CMessageCenter::MessageQueue tape;
    CMessageCenter* const center = CMessageCenter::GetInstance();
    center->regQuotationQueue(&tape);
    center->Start();

    NetPlugin net;
    Strategy strategy;
    for (const double price : {1.1050, 1.0980, 1.1010})
        net.quotationArrived(price);
    const double boughtAt = strategy.waitForExecution();

    // The tape belongs to the host, which drains it at its own pace. It shares the records with the
    // bus; the last holder of a reference deletes the record.
    center->regQuotationQueue(nullptr);
    int recorded = 0;
    for (QSharedPointer<CMessageCommon> quotation; tape.try_pop(quotation); ++recorded)
        std::printf("tape: %.4f\n", quotation->GetMsg().toDouble());

    return boughtAt == 1.0980 && recorded == 3 ? 0 : 1;
}
