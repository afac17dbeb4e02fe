// A timeline of what happened: the way of one order over two plugins, hop by hop, and the whole
// trace as a file for a viewer.
#include <lxbase/BusTrace.h>
#include <lxbase/MessageInterface.h>
#include <lxmsg/MessageCommon.h>
#include <lxobserve/TraceFormats.h>
#include <lxobserve/Way.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QSemaphore>
#include <QThread>

#include <cstdio>

enum MessageType { Order = 7001, Approval = 7002 };

constexpr int DeadlineMs = 30000;

void put(const QString& from, const QString& to, int type, const QString& traceId)
{
    auto* const msg = new CMessageCommon(from, to, type, traceId);
    msg->setTraceId(traceId); // what belongs together has the same
    CRegManager::Put(from, msg);
}

// Hands an order on to the desk's risk check, which takes its time, and gets its approval.
class Desk final : public IMessageInterface
{
public:
    Desk() { Reg(m_id, this, MessageThread); }
    ~Desk() override { UnReg(m_id); }

    void RecvMsg(QString, QVariant type, QVariant data) override
    {
        if (type.toInt() == Order)
            put(m_id, QStringLiteral("Risk"), Order, data.toString());
        else
            m_approved.release();
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

    bool waitUntilApproved(int orders) { return m_approved.tryAcquire(orders, DeadlineMs); }

private:
    const QString m_id = QStringLiteral("Desk");
    QSemaphore m_approved;
};

class Risk final : public IMessageInterface
{
public:
    Risk() { Reg(m_id, this, MessageThread); }
    ~Risk() override { UnReg(m_id); }

    void RecvMsg(QString srcId, QVariant, QVariant data) override
    {
        QThread::msleep(5);
        put(m_id, srcId, Approval, data.toString());
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

private:
    const QString m_id = QStringLiteral("Risk");
};

void print(const lxobserve::Hop& hop)
{
    std::printf("%-4s %-8s %s  waited %6.3f ms, took %6.3f ms\n", qPrintable(hop.plugin),
                qPrintable(hop.operation), qPrintable(hop.type),
                static_cast<double>(qMax(hop.waitNs, qint64(0))) / 1e6,
                static_cast<double>(hop.durationNs) / 1e6);
}

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));

    CBusMonitor::startTrace(16); // the newest 16 MiB are kept
    Risk risk;
    Desk desk;
    constexpr int orders = 3;
    for (int order = 1; order <= orders; ++order)
        put(QStringLiteral("Window"), QStringLiteral("Desk"), Order,
            QStringLiteral("order-%1").arg(order));
    bool asExpected = desk.waitUntilApproved(orders);
    CBusMonitor::stopTrace();
    const BusTrace trace = CBusMonitor::takeTrace();

    const QVector<lxobserve::Hop> way = lxobserve::wayOf(trace, QStringLiteral("order-3"));
    for (const lxobserve::Hop& hop : way)
        print(hop);

    // The risk check takes its time, and the third order has waited for two of them.
    asExpected &= way.size() == 6 && way[3].plugin == QLatin1String("Risk")
        && way[3].durationNs >= 5'000'000 && way[5].plugin == QLatin1String("Desk");

    QFile file(argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString());
    QBuffer nowhere;
    QIODevice& device = argc > 1 ? static_cast<QIODevice&>(file) : nowhere;
    QString error;
    if (!device.open(QIODevice::WriteOnly) || !lxobserve::writePerfetto(trace, device, &error)) {
        std::fprintf(stderr, "the trace cannot be written: %s\n",
                     qPrintable(error.isEmpty() ? device.errorString() : error));
        return 1;
    }
    return asExpected ? 0 : 1;
}
