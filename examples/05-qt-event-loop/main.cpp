// A plugin whose real work lives on Qt event loops: the handler takes a price and returns at once,
// a thread of the plugin works on it, and the window, on the main thread, shows the result.
//
// The rule behind it: a handler runs on a worker thread of the bus, which has no event loop. No
// timer, socket or widget works there, and while the handler runs, the plugin's later messages
// wait. Hand the work over with a queued call to an object that lives on the thread where the work
// belongs. Never with a blocking one: UnReg waits for the handler in progress, so a handler that
// waits for the very thread that calls UnReg never ends.
#include <lxbase/MessageInterface.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QThread>
#include <QTimer>

#include <cstdio>

enum MessageType { Price = 5001 };

constexpr int PriceCount = 1000;

// Stands for a widget: lives on the main thread and is touched there only.
class Window : public QObject
{
public:
    void showAverage(int count, double average)
    {
        if (QThread::currentThread() != thread())
            qFatal("a window was touched from another thread");
        if (count < PriceCount)
            return;
        std::printf("window: average of %d prices is %.1f\n", count, average);
        QCoreApplication::exit(average == (PriceCount + 1) / 2.0 ? 0 : 1);
    }
};

class AveragePlugin final : public IMessageInterface
{
public:
    explicit AveragePlugin(Window& window)
        : m_window(window)
    {
        m_on_thread.moveToThread(&m_thread);
        m_thread.start();
        Reg(m_id, this, MessageThread);
        Sub(m_id, Price, OperAdd);
    }

    // Upstream first: when UnReg has returned, no handler hands anything over any more; then the
    // plugin's thread can end.
    ~AveragePlugin() override
    {
        UnReg(m_id);
        m_thread.quit();
        m_thread.wait();
    }

    // On the message worker: hand over and return. Queued calls keep their order.
    void RecvMsg(QString, QVariant, QVariant data) override
    {
        QMetaObject::invokeMethod(
            &m_on_thread, [this, price = data.toDouble()] { add(price); }, Qt::QueuedConnection);
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

private:
    // On m_thread, which has an event loop and may take its time.
    void add(double price)
    {
        m_sum += price;
        ++m_count;
        QMetaObject::invokeMethod(
            &m_window,
            [&window = m_window, count = m_count, average = m_sum / m_count] {
                window.showAverage(count, average);
            },
            Qt::QueuedConnection);
    }

    const QString m_id = QStringLiteral("Average");
    Window& m_window; // outlives the plugin
    QThread m_thread;
    QObject m_on_thread; // where queued calls to m_thread are addressed
    double m_sum = 0;    // touched on m_thread only, like m_count
    int m_count = 0;
};

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));

    Window window;
    AveragePlugin plugin(window);
    for (int price = 1; price <= PriceCount; ++price)
        CRegManager::Put(QStringLiteral("Host"),
                         new CMessageCommon(QString(), QString(), Price, price));

    QTimer::singleShot(30000, &window, [] {
        std::printf("the average did not come\n");
        QCoreApplication::exit(1);
    });
    return QCoreApplication::exec();
}
