// Two plugins: one watches prices and raises alerts, the other sends prices and receives them.
#include <lxbase/MessageInterface.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QMutex>
#include <QSemaphore>
#include <QVector>

#include <cstdio>

enum MessageType { Price = 1001, Alert = 1002 };

class PriceAlert final : public IMessageInterface
{
public:
    explicit PriceAlert(double limit)
        : m_limit(limit)
    {
        Reg(m_id, this, MessageThread); // handlers may run from here on: last in the constructor
        Sub(m_id, Price, OperAdd);
    }
    ~PriceAlert() override { UnReg(m_id); } // no handler runs after this: first in the destructor

    // On this plugin's own worker thread, one call at a time, in the order of the puts.
    void RecvMsg(QString srcId, QVariant, QVariant data) override
    {
        if (data.toDouble() > m_limit)
            Put(m_id, new CMessageCommon(m_id, srcId, Alert, data)); // the bus deletes the record
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

private:
    const QString m_id = QStringLiteral("PriceAlert");
    const double m_limit;
};

// Sends prices to whoever subscribed to them and keeps the alerts that come back.
class Feed final : public IMessageInterface
{
public:
    Feed() { Reg(m_id, this, MessageThread); }
    ~Feed() override { UnReg(m_id); }

    void send(double price)
    {
        std::printf("price %.2f\n", price);
        Put(m_id, new CMessageCommon(m_id, QString(), Price, price)); // no destination: broadcast
    }

    void RecvMsg(QString srcId, QVariant, QVariant data) override
    {
        std::printf("alert from %s: %.2f\n", qPrintable(srcId), data.toDouble());
        const QMutexLocker locker(&m_mutex);
        m_alerts.append(data.toDouble());
        m_received.release();
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

    QVector<double> waitForAlerts(int count)
    {
        m_received.tryAcquire(count, 30000);
        const QMutexLocker locker(&m_mutex);
        return m_alerts;
    }

private:
    const QString m_id = QStringLiteral("Feed");
    QSemaphore m_received;
    QMutex m_mutex;
    QVector<double> m_alerts; // guarded by m_mutex: filled on the worker, read by the main thread
};

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));

    PriceAlert watcher(1.10);
    Feed feed;
    for (const double price : {1.05, 1.12, 1.08, 1.15})
        feed.send(price);

    // Messages from one thread to one plugin keep their order, so the alert of the last price is
    // the last one.
    const QVector<double> expected{1.12, 1.15};
    return feed.waitForAlerts(expected.size()) == expected ? 0 : 1;
}
