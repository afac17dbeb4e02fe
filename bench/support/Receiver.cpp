#include "Receiver.h"

#include "Peers.h"

#include <utility>

namespace bench {

void Countdown::reset(int count)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_count = count;
}

void Countdown::countDown()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (--m_count == 0)
        m_zero.notify_all();
}

void Countdown::wait(const char* whatFor)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_zero.wait_for(lock, Deadline, [this] { return m_count <= 0; }))
        fail(whatFor);
}

void Receiver::expect(int deliveries, Countdown& done)
{
    m_done = &done;
    m_left = deliveries;
}

void Receiver::RecvMsg(QString, QVariant, QVariant data)
{
    arrived(data);
}

void Receiver::RecvEvent(QString, QVariant, QVariant data)
{
    arrived(data);
}

void Receiver::RecvQuotationMsg(QString, QVariant, QVariant data)
{
    arrived(data);
}

void Receiver::arrived(const QVariant& data)
{
    if (!data.isValid())
        fail("a message arrived without its payload");
    const int left = m_left.load(std::memory_order_relaxed) - 1;
    m_left.store(left, std::memory_order_relaxed);
    if (left == 0)
        m_done->countDown();
    else if (left < 0)
        fail("more messages arrived than were put");
}

void Receiver::customEvent(QEvent* event)
{
    Item& item = static_cast<ItemEvent*>(event)->item;
    handOver(*this, item);
}

void GatedReceiver::shut()
{
    m_blocked.reset(1);
    m_opened.reset(1);
    m_shut = true;
}

void GatedReceiver::waitUntilBlocked()
{
    m_blocked.wait("the message that was to block the handler never arrived");
}

void GatedReceiver::open()
{
    m_opened.countDown();
}

void GatedReceiver::arrived(const QVariant& data)
{
    if (m_shut.load(std::memory_order_relaxed)) {
        m_shut = false;
        m_blocked.countDown();
        m_opened.wait("the blocked handler was never released");
    }
    Receiver::arrived(data);
}

} // namespace bench
