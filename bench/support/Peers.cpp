#include "Peers.h"

#include <benchmark/benchmark.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QDataStream>

#include <algorithm>
#include <chrono>
#include <utility>

namespace bench {

namespace {

constexpr const char* zmqAddress = "inproc://bench";

} // namespace

Item copyOut(const QString& srcId, CMessageCommon& record)
{
    const QVariant type = record.GetType();
    QString dst = record.GetDstid();
    benchmark::DoNotOptimize(dst);
    return Item{srcId, type, record.traceId(), record.GetMsg()};
}

bool Pace::sleepsNext()
{
    const std::size_t found = std::exchange(m_found, 0);
    m_yields = found >= m_yields ? std::min<std::size_t>(2 * m_yields, 64) : 1;
    m_emptyLooks = found > 0 ? 0 : m_emptyLooks + 1;
    if (m_emptyLooks == 20) {
        m_emptyLooks = 0;
        return true;
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(500);
    for (std::size_t k = 0; k < m_yields && std::chrono::steady_clock::now() < end; ++k)
        std::this_thread::yield();
    return false;
}

Floor::Floor(Receiver& receiver)
    : m_thread([this, &receiver] { drain(receiver); })
{ }

Floor::~Floor()
{
    append(nullptr);
    m_thread.join();
}

void Floor::Port::put(CMessageCommon* record)
{
    const std::unique_ptr<CMessageCommon> owned(record);
    m_floor.append(new Item(copyOut(senderId, *record)));
}

void Floor::append(Item* item)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_items.push_back(item);
    const bool parked = std::exchange(m_parked, false);
    lock.unlock();
    if (parked)
        m_filled.notify_one();
}

void Floor::drain(Receiver& receiver)
{
    std::vector<Item*> batch;
    Pace pace;
    for (;;) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_items.empty()) {
            lock.unlock();
            const bool sleeps = pace.sleepsNext();
            lock.lock();
            if (m_items.empty() && !sleeps)
                continue;
        }
        m_parked = m_items.empty();
        m_filled.wait(lock, [this] { return !m_items.empty(); });
        m_parked = false;
        batch.swap(m_items);
        lock.unlock();
        pace.count(batch.size());
        for (Item* next : batch) {
            const std::unique_ptr<Item> item(next);
            if (!item)
                return;
            handOver(receiver, *item);
        }
        batch.clear();
    }
}

void Doorbell::ring()
{
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (!m_asleep.load(std::memory_order_relaxed) || !m_asleep.exchange(false))
        return;
    // the consumer either has not begun to wait and will see the flag, or is waiting
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rung.notify_one();
}

InvokeMethod::InvokeMethod(Receiver& receiver)
    : m_receiver(receiver)
{
    m_receiver.moveToThread(&m_thread);
    m_thread.start();
}

InvokeMethod::~InvokeMethod()
{
    m_thread.quit();
    m_thread.wait();
}

void InvokeMethod::Port::put(CMessageCommon* record)
{
    const std::unique_ptr<CMessageCommon> owned(record);
    QMetaObject::invokeMethod(&m_receiver, "RecvMsg", Qt::QueuedConnection,
                              Q_ARG(QString, senderId), Q_ARG(QVariant, record->GetType()),
                              Q_ARG(QVariant, record->GetMsg()));
}

PostEvent::PostEvent(Receiver& receiver)
    : m_receiver(receiver)
{
    m_receiver.moveToThread(&m_thread);
    m_thread.start();
}

PostEvent::~PostEvent()
{
    m_thread.quit();
    m_thread.wait();
}

void PostEvent::Port::put(CMessageCommon* record)
{
    const std::unique_ptr<CMessageCommon> owned(record);
    QCoreApplication::postEvent(&m_receiver, new ItemEvent(copyOut(senderId, *record)));
}

Zmq::Zmq(Receiver& receiver)
    : m_context(0)
    , m_pull(m_context, zmq::socket_type::pull)
{
    m_pull.set(zmq::sockopt::rcvhwm, 0);
    m_pull.bind(zmqAddress);
    m_thread = std::thread([this, &receiver] { drain(receiver); });
}

Zmq::~Zmq()
{
    zmq::socket_t socket(m_context, zmq::socket_type::push);
    socket.connect(zmqAddress);
    socket.send(zmq::message_t(), zmq::send_flags::none);
    m_thread.join();
}

Zmq::Port::Port(Zmq& transport)
    : m_socket(transport.m_context, zmq::socket_type::push)
{
    m_socket.set(zmq::sockopt::sndhwm, 0);
    m_socket.connect(zmqAddress);
}

void Zmq::Port::put(CMessageCommon* record)
{
    const std::unique_ptr<CMessageCommon> owned(record);
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << senderId << record->GetType() << record->GetMsg();
    m_socket.send(zmq::buffer(bytes.constData(), static_cast<std::size_t>(bytes.size())),
                  zmq::send_flags::none);
}

// An empty message ends the thread.
void Zmq::drain(Receiver& receiver)
{
    zmq::message_t message;
    while (m_pull.recv(message) && message.size() > 0) {
        QDataStream stream(QByteArray::fromRawData(static_cast<const char*>(message.data()),
                                                   static_cast<int>(message.size())));
        Item item;
        stream >> item.srcId >> item.type >> item.data;
        handOver(receiver, item);
    }
}

} // namespace bench
